#!/usr/bin/env bash
# Builds the project and runs the main job on the bundled sample data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target zelm
zelm=build/default/tools/zelm
out=build/sample
rm -rf "$out"
mkdir -p "$out"
$zelm sample "$out"
for f in "$out"/flow2d-grid.unf "$out"/flow3d-grid.txt; do $zelm info "$f"; done
$zelm info "$out"/flow2d-pix.unf --grid "$out"/flow2d-grid.unf
