#!/usr/bin/env bash
# Runs every test: the optimised build, then the same suites under the address and
# undefined-behaviour sanitizers, then the fuzz targets briefly; ends with a summary (tests run,
# passed, failed and skipped with their reasons, per preset) and fails if any test failed.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh

summary=build/test-summary
rm -rf "$summary"
mkdir -p "$summary"
status=0

runpreset() {
  local preset=$1
  echo "== $preset =="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" --output-junit "$PWD/$summary/$preset.xml" || status=1
}

runpreset default
runpreset asan
echo "the Python suites (pytest) run in the optimised build only" >"$summary/asan-python.skipped"

# The fuzz targets, a few seconds each over their seeds and saved regressions, where clang has
# its fuzzer runtime (the campaign itself is scripts/fuzz.sh).
if echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' |
    clang++ -fsanitize=fuzzer -x c++ - -o /tmp/zelm-fuzzcheck.$$ >/dev/null 2>&1; then
  rm -f /tmp/zelm-fuzzcheck.$$
  runpreset fuzz
else
  echo "no clang fuzzer runtime (clang++ -fsanitize=fuzzer does not link)" >"$summary/fuzz.skipped"
fi

python3 scripts/testsummary.py "$summary" || status=1
exit $status
