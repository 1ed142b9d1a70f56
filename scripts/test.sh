#!/usr/bin/env bash
# Runs every test: the optimised build, then the same suites under the address and
# undefined-behaviour sanitizers, then the fuzz targets briefly and the thread test under
# ThreadSanitizer; ends with a summary (tests run, passed, failed and skipped with their reasons,
# per preset) and fails if any test failed.
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

# Runs a clang preset where clang's runtime for `sanitizer` links a program of `source`.
clangpreset() {
  local preset=$1 sanitizer=$2 source=$3 what=$4
  if echo "$source" | clang++ -fsanitize="$sanitizer" -x c++ - -o "/tmp/zelm-$preset-check.$$" >/dev/null 2>&1; then
    rm -f "/tmp/zelm-$preset-check.$$"
    runpreset "$preset"
  else
    echo "no clang $what runtime (clang++ -fsanitize=$sanitizer does not link)" >"$summary/$preset.skipped"
  fi
}

runpreset default
runpreset asan
echo "the Python suites (pytest) run in the optimised build only" >"$summary/asan-python.skipped"

# The fuzz targets, a few seconds each over their seeds and saved regressions (the campaign
# itself is scripts/fuzz.sh).
clangpreset fuzz fuzzer 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' fuzzer
# The typed interface from eight threads under ThreadSanitizer.
clangpreset tsan thread 'int main() { return 0; }' ThreadSanitizer

python3 scripts/testsummary.py "$summary" || status=1
exit $status
