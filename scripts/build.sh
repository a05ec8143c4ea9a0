#!/usr/bin/env bash
# Configures and builds one flavour: build.sh DIR [SANITIZER [TARGET...]]
# SANITIZER: empty, "address" (ASan + UBSan) or "thread". TARGETs: only
# those (and what they need), else everything.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
sanitize=${2:-}
shift $(($# < 2 ? $# : 2))
targets=()
for target in "$@"; do targets+=(--target "$target"); done
# The header check is about the sources, not the flavour: the normal build runs it.
check_headers=ON
[ -n "$sanitize" ] && check_headers=OFF
cmake -S . -B "$dir" -DLORUN_SANITIZE="$sanitize" -DLORUN_CHECK_HEADERS=$check_headers -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
