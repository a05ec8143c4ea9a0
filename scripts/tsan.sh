#!/usr/bin/env bash
# Builds and runs the whole suite under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build-tsan thread
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
# ThreadSanitizer cannot map its shadow with the kernel's widest address randomisation.
(cd build-tsan && setarch "$(uname -m)" -R ctest --output-on-failure -j"$(nproc)" --timeout 900)
