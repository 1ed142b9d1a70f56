#!/usr/bin/env bash
# Builds the zelm command and runs the main job on the bundled samples: what the files are,
# their export to Tecplot, and a picture of the 2D export drawn by VTK's own Tecplot reader.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target zelm
zelm=build/default/tools/zelm
out=build/sample
mkdir -p "$out"

$zelm info examples/flow2d-grid.unf
$zelm info examples/flow2d-pix.txt --grid examples/flow2d-grid.unf
$zelm --quiet export examples/flow2d-grid.unf --pix examples/flow2d-pix.unf -o "$out/flow2d.dat" --force
$zelm --quiet export examples/flow3d-grid.unf --pix examples/flow3d-pix.unf -o "$out/flow3d.dat" --force
xvfb-run -a /usr/bin/python3 scripts/render.py "$out/flow2d.png" "$out/flow2d.dat" "$out/flow2d-zone2.dat"
echo "The picture: $out/flow2d.png"
