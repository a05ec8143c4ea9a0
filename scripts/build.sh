#!/usr/bin/env bash
# Configures and builds one flavour: build.sh DIR [SANITIZER]
# SANITIZER: empty, "address" (ASan + UBSan) or "thread".
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
sanitize=${2:-}
cmake -S . -B "$dir" -DLORUN_SANITIZE="$sanitize" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j"$(nproc)"
