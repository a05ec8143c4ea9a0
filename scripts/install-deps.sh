#!/usr/bin/env bash
# Installs the Debian packages the producer needs to build and test.
set -euo pipefail
packages=(
  cmake make g++ pkg-config ccache
  libboost-dev libboost-thread-dev libboost-filesystem-dev libboost-date-time-dev libboost-locale-dev
  libtinyxml-dev liburiparser-dev
  libgtest-dev googletest
  libaravis-dev libusb-1.0-0-dev libpng-dev libboost-program-options-dev tmux
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-base-apps
  clang-tidy clang
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
