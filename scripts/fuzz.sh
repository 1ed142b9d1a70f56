#!/usr/bin/env bash
# Fuzzing campaign: builds the fuzz targets (preset "fuzz", clang with libFuzzer, address and
# undefined-behaviour sanitizers), writes each target's seeds with the library's own writers, and
# runs the targets one after another (or those named) in the background-friendly way:
#
#   scripts/fuzz.sh [-r RUNS] [-t SECONDS] [-j PARALLEL] [TARGET...]
#
# RUNS executions per target (default 10000000), at most SECONDS each (default 3600), PARALLEL
# targets at a time (default 1). The corpus grows in build/fuzz/corpus/TARGET and is kept between
# campaigns; logs go to build/fuzz/logs/TARGET.log, crashes, hangs and leaks to
# build/fuzz/artifacts/TARGET/. Each log ends with libFuzzer's final statistics.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=10000000
seconds=3600
parallel=1
while getopts "r:t:j:" o; do
  case $o in
    r) runs=$OPTARG ;;
    t) seconds=$OPTARG ;;
    j) parallel=$OPTARG ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(gridheader grid restart pix listdirected)

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2 >/dev/null

out=build/fuzz
bin=$out/tests/fuzz
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1:max_allocation_size_mb=64
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

run() {
  local t=$1
  mkdir -p "$out/corpus/$t" "$out/artifacts/$t" "$out/logs"
  "$bin/makeseeds" "$t" "$out/corpus/$t" >/dev/null
  local dirs=("$out/corpus/$t")
  [ -d "tests/fuzz/regressions/$t" ] && dirs+=("tests/fuzz/regressions/$t")
  "$bin/fuzz_$t" -runs="$runs" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 \
    -malloc_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out/artifacts/$t/" \
    "${dirs[@]}" >"$out/logs/$t.log" 2>&1 || echo "fuzz_$t stopped with status $? (see $out/logs/$t.log)"
  grep -E "^(stat::|#[0-9]+ +DONE)" "$out/logs/$t.log" | sed "s/^/$t: /" || true
}

active=0
for t in "${targets[@]}"; do
  run "$t" &
  active=$((active + 1))
  if [ "$active" -ge "$parallel" ]; then
    wait -n || true
    active=$((active - 1))
  fi
done
wait
