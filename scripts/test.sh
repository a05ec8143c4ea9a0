#!/usr/bin/env bash
# Installs the dependencies, then builds and runs the whole suite twice: a
# normal build, and one with AddressSanitizer and UndefinedBehaviorSanitizer;
# clang-tidy runs in between, and every fuzz harness for a short while at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

scripts/build.sh build
(cd build && ctest --output-on-failure -j"$(nproc)" --timeout 300)

# Static analysis with the checks of .clang-tidy.
scripts/tidy.sh build-tidy

scripts/build.sh build-asan address
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j"$(nproc)" --timeout 600)

# Each harness for a bounded time; scripts/fuzz.sh SECONDS runs them longer.
LORUN_SKIP_DEPS=1 scripts/fuzz.sh 20

# The board's processor: the 64-bit ARM build, its libcsi, transport,
# consumer and GStreamer element tests under qemu-user. Not on a board, which
# built natively above.
# The whole suites of both ARM targets: scripts/cross.sh arm64|armhf test.
if [ "$(dpkg --print-architecture)" = amd64 ]; then
  scripts/cross.sh arm64 test -L 'libcsi|transport|consumer|gst'
fi
