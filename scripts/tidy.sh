#!/usr/bin/env bash
# Runs clang-tidy (.clang-tidy) over the producer's own sources: tidy.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-tidy}
command -v run-clang-tidy >/dev/null || scripts/install-deps.sh
cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DLORUN_CHECK_HEADERS=OFF >/dev/null
# Generated sources must exist before they are read.
cmake --build "$dir" --target lorun_documents >/dev/null
run-clang-tidy -quiet -p "$dir" -j"$(nproc)" \
  "$PWD/(base|support|framework|gencp|transport|modules|entry|libcsi|sim|client|tools|gst)/[^/]*\.cpp$"
