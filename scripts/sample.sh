#!/usr/bin/env bash
# Builds the zelm command and runs the main job on the bundled samples: what the files are,
# their export, a picture of the 2D export drawn by VTK's own Tecplot reader, and a picture of the
# 3D export as a VTK multiblock file, coloured by pressure (pix variable 5).
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
$zelm --quiet export examples/flow2d-grid.unf --pix examples/flow2d-pix.unf -o "$out/flow2d.dat" --force --faithful
$zelm --quiet export examples/flow3d-grid.unf --pix examples/flow3d-pix.unf -o "$out/flow3d.dat" --force --faithful 2>/dev/null
$zelm --quiet export examples/flow3d-grid.unf --pix examples/flow3d-pix.unf --restart examples/flow3d-restart.unf \
  -o "$out/flow3d.vtm" --force
xvfb-run -a /usr/bin/python3 scripts/render.py "$out/flow2d.png" "$out/flow2d.dat" "$out/flow2d-zone2.dat"
xvfb-run -a /usr/bin/python3 scripts/render3d.py "$out/flow3d.png" "$out/flow3d.vtm"
echo "The pictures: $out/flow2d.png and $out/flow3d.png"
