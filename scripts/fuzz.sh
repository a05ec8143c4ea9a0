#!/usr/bin/env bash
# Builds the fuzz harnesses with clang (libFuzzer, ASan and UBSan) and runs
# each for a bounded time:
#   scripts/fuzz.sh [SECONDS_PER_HARNESS] [HARNESS...]
# Seeds come from tests/fuzz/corpus/<harness>; what a run adds is kept in
# build-fuzz/corpus/<harness>, so a later run goes on from there. A failing
# input is written to build-fuzz/artifacts/<harness>/; once fixed, it belongs
# in tests/fuzz/regressions/<harness>/, where every build replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
[ $# -gt 0 ] && shift
[ -n "${LORUN_SKIP_DEPS:-}" ] || scripts/install-deps.sh

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DLORUN_SANITIZE=fuzzer -DLORUN_CHECK_HEADERS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
mkdir -p "$build/logs"
cmake --build "$build" -j"$(nproc)" --target fuzzers >"$build/logs/build.log" 2>&1 ||
  { tail -40 "$build/logs/build.log"; exit 1; }

harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
  for dir in tests/fuzz/corpus/*/; do harnesses+=("$(basename "$dir")"); done
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
printf '%-12s %8s %10s %8s %8s  %s\n' harness seconds runs cov corpus result
for h in "${harnesses[@]}"; do
  program="$build/tests/fuzz/fuzz_$h"
  [ -x "$program" ] || { echo "no harness '$h'" >&2; exit 2; }
  mkdir -p "$build/corpus/$h" "$build/artifacts/$h" "$build/logs"
  log="$build/logs/$h.log"
  result=ok
  "$program" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$h/" "$build/corpus/$h" "tests/fuzz/corpus/$h" >"$log" 2>&1 || result=FAILED
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*' || echo "?")
  corpus=$(find "$build/corpus/$h" -type f | wc -l)
  printf '%-12s %8s %10s %8s %8s  %s\n' "$h" "$seconds" "$runs" "$cov" "$corpus" "$result"
  if [ "$result" != ok ]; then
    failed+=("$h")
    echo "---- $log (last 40 lines)"
    tail -40 "$log"
    ls "$build/artifacts/$h"
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "failed: ${failed[*]}" >&2
  exit 1
fi
