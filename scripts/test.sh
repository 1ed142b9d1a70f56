#!/usr/bin/env bash
# Runs every test: the optimised build, then the same suites under the address and
# undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh

for preset in default asan; do
  echo "== $preset =="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

# The fuzz targets, a few seconds each over their seeds and saved regressions, where clang has
# its fuzzer runtime (the campaign itself is scripts/fuzz.sh).
if echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' |
    clang++ -fsanitize=fuzzer -x c++ - -o /tmp/zelm-fuzzcheck.$$ >/dev/null 2>&1; then
  rm -f /tmp/zelm-fuzzcheck.$$
  echo "== fuzz =="
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz
  ctest --preset fuzz
else
  echo "== fuzz: skipped (no clang fuzzer runtime) =="
fi

# The typed interface from eight threads under ThreadSanitizer, where clang has its runtime.
if echo 'int main() { return 0; }' | clang++ -fsanitize=thread -x c++ - -o /tmp/zelm-tsancheck.$$ >/dev/null 2>&1; then
  rm -f /tmp/zelm-tsancheck.$$
  echo "== tsan =="
  cmake --preset tsan >/dev/null
  cmake --build --preset tsan
  ctest --preset tsan
else
  echo "== tsan: skipped (no clang ThreadSanitizer runtime) =="
fi
