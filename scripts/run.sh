#!/usr/bin/env bash
# Installs the dependencies, builds, and shows what the freshly built producer reports.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build
build/tools/lorun-gentl info "$PWD/build/lorun_csi2.cti"
