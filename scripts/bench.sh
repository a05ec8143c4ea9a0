#!/usr/bin/env bash
# Builds optimised and prints the benchmark tables.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DLORUN_SANITIZE= >/dev/null
cmake --build build-bench -j"$(nproc)" --target libcsi_bench
build-bench/bench/libcsi_bench
