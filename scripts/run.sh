#!/usr/bin/env bash
# Installs the dependencies, builds, and runs the main job on the virtual
# camera: the producer's library info, the cameras it finds, and a grab of 300
# frames from the first one with a handful of PNG images saved under out/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# What the main job needs: the producer, libcsi and the tool; test.sh builds the rest.
scripts/build.sh build "" lorun_csi2 csi lorun-gentl
export GENICAM_GENTL64_PATH="$PWD/build"
export LORUN_VIRTUAL_CAMERA="$PWD/sim/examples/two-cameras.ini"
tool=build/tools/lorun-gentl
$tool info
echo
$tool devices
echo
rm -rf out
$tool grab -n 300 --every 60 --save out
echo
echo "Images saved in out/:"
ls out
