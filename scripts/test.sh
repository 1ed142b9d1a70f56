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

# Runs a clang preset where clang's runtime for `sanitizer` links a program of `source`.
clangpreset() {
  local preset=$1 sanitizer=$2 source=$3 what=$4
  if echo "$source" | clang++ -fsanitize="$sanitizer" -x c++ - -o "/tmp/zelm-$preset-check.$$" >/dev/null 2>&1; then
    rm -f "/tmp/zelm-$preset-check.$$"
    echo "== $preset =="
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
  else
    echo "== $preset: skipped (no clang $what runtime) =="
  fi
}

# The fuzz targets, a few seconds each over their seeds and saved regressions, where clang has
# its fuzzer runtime (the campaign itself is scripts/fuzz.sh).
clangpreset fuzz fuzzer 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' fuzzer
# The typed interface from eight threads under ThreadSanitizer.
clangpreset tsan thread 'int main() { return 0; }' ThreadSanitizer
