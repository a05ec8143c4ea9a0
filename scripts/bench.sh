#!/usr/bin/env bash
# Builds optimised, prints the benchmark tables and writes them, with the
# machine they ran on, to bench/results.md. Give the machine to the benchmark:
# other load shows in every figure.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -n "${LORUN_SKIP_DEPS:-}" ] || scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DLORUN_SANITIZE= >/dev/null
cmake --build build-bench -j"$(nproc)" --target libcsi_bench producer_bench gst_bench >/dev/null
{
  echo "# Benchmark results"
  echo
  echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') by \`bash scripts/bench.sh\`."
  echo
  echo "| machine | |"
  echo "|---|---|"
  echo "| CPU | $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//') |"
  echo "| cores | $(nproc) |"
  echo "| memory | $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo) |"
  echo "| kernel | $(uname -r) |"
  echo "| compiler | $(c++ --version | head -1) |"
  echo "| build type | Release |"
  echo
  echo "## Frames"
  echo
  build-bench/bench/libcsi_bench
  echo "## Calls, events, registers, cameras"
  echo
  build-bench/bench/producer_bench
  echo "## The GStreamer element"
  echo
  build-bench/bench/gst_bench
  # What the tables mean, where a goal is missed and why: kept by hand beside the code.
  cat bench/reading.md
} | tee bench/results.md
