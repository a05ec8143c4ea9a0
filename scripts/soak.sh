#!/usr/bin/env bash
# One process streaming from every virtual camera for MINUTES (default 60),
# closing the cameras every 5 s and the whole library every 20 s, printing
# its memory, descriptors and threads every minute; fails when they grew
# after the first minute.   scripts/soak.sh [MINUTES]
# LORUN_VIRTUAL_CAMERA names other cameras (default sim/examples/soak.ini).
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-60}
[ -n "${LORUN_SKIP_DEPS:-}" ] || scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target lorun-soak lorun_csi2 >/dev/null
export LORUN_VIRTUAL_CAMERA=${LORUN_VIRTUAL_CAMERA:-$PWD/sim/examples/soak.ini}
# libcsi's error lines go to standard error; the table to standard output.
exec build/tests/lorun-soak build/lorun_csi2.cti $((minutes * 60)) 5 60
