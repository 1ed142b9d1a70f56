#!/usr/bin/env bash
# Builds the project and runs the main job on the bundled sample data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target zelm
out=build/sample
rm -rf "$out"
mkdir -p "$out"
build/default/tools/zelm "$out"
