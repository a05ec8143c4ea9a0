#!/usr/bin/env bash
# Installs the dependencies, builds, and shows what the freshly built producer reports.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build
build/tools/lorun-gentl info "$PWD/build/lorun_csi2.cti"
echo
# The cameras it finds, here two virtual ones.
LORUN_VIRTUAL_CAMERA="$PWD/sim/examples/two-cameras.ini" build/tools/lorun-gentl devices "$PWD/build/lorun_csi2.cti"
