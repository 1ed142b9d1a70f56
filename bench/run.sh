#!/usr/bin/env bash
# Regenerates bench/RESULTS.md: builds the release preset, runs the benchmark driver with its
# Fortran-runtime and meshio baselines on a grid of CELLS cells (default one million), and turns
# the samples into the report.
#
#   bench/run.sh [CELLS] [extra zelmbench options...]
#
# The samples are kept in build/release/bench/results.json; `bench/report.py` can be rerun on them
# alone. Run it on a quiet machine: every figure is a ratio to a baseline measured in the same run,
# but other load still widens the spread.
set -euo pipefail
cd "$(dirname "$0")/.."

cells=${1:-1000000}
shift || true

scripts/bootstrap.sh
cmake --preset release >/dev/null
cmake --build --preset release -j"$(nproc)" --target zelmbench zelmbench_fortran >/dev/null

bin=build/release/bench
json=$bin/results.json
"$bin/zelmbench" --cells "$cells" --fortran "$bin/zelmbench_fortran" --python /usr/bin/python3 \
  --meshio bench/meshio_path.py --json "$json" "$@"
/usr/bin/python3 bench/report.py "$json" bench/analysis.md >bench/RESULTS.md
echo "bench/run.sh: wrote bench/RESULTS.md"
