#!/usr/bin/env bash
# Builds everything for a board's processor on this machine, and runs it here
# under qemu-user:
#   cross.sh ARCH [build|test|run|package]
# ARCH: arm64 (Tegra/Jetson, i.MX8) or armhf (i.MX6, Nitrogen, Wandboard).
#   build    the producer, libcsi, the tool, the tests and benchmarks in build-ARCH/
#   test     the whole CTest suite of that build, each program under qemu-user;
#            arguments after it go to ctest (-L 'libcsi|consumer' runs those labels)
#   run      the README's main job with the target's lorun-gentl
#   package  lorun-csi2_VERSION_ARCH.deb in build-ARCH/, checked: unpacked, its
#            tool grabs under qemu-user
# The target's libraries come from a sysroot of Debian's -dev packages for
# ARCH (build-ARCH/sysroot, kept between runs); the host's own are untouched.
# LORUN_DEBIAN_MIRROR and LORUN_DEBIAN_SUITE choose where it comes from.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: scripts/cross.sh arm64|armhf [build|test [CTEST ARGS]|run|package]" >&2; exit 2; }
arch=${1:-}
action=${2:-build}
shift $(($# < 2 ? $# : 2))
case "$arch" in
  arm64) triple=aarch64-linux-gnu; qemu=qemu-aarch64 ;;
  armhf) triple=arm-linux-gnueabihf; qemu=qemu-arm ;;
  *) usage ;;
esac
case "$action" in build|test|run|package) ;; *) usage ;; esac

dir=build-$arch
sysroot=$PWD/$dir/sysroot
mirror=${LORUN_DEBIAN_MIRROR:-http://deb.debian.org/debian}
suite=${LORUN_DEBIAN_SUITE:-bookworm}

install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

# The host's tools: the cross compiler, the emulator, and what unpacks the sysroot.
install_missing "crossbuild-essential-$arch" qemu-user mmdebstrap cmake make pkg-config

# The target's libraries: what install-deps.sh installs on a board, for ARCH.
target_packages=(
  libc6-dev libstdc++-12-dev
  libboost-dev libboost-thread-dev libboost-filesystem-dev libboost-date-time-dev libboost-locale-dev
  libboost-program-options-dev libtinyxml-dev liburiparser-dev
  libgtest-dev libgmock-dev libaravis-dev libpng-dev libusb-1.0-0-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base
)
stamp=$sysroot/.lorun-packages
# The shlibs entries of the packages unpacked, for the package's dependencies
# (an extracted sysroot has no package database to ask).
shlibs_hook='for deb in "$1"/var/cache/apt/archives/*.deb; do
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs 2>/dev/null || true; done > "$1/.lorun-shlibs"'
wanted="$suite shlibs ${target_packages[*]}"
if [ "$(cat "$stamp" 2>/dev/null)" != "$wanted" ]; then
  include=$(IFS=,; echo "${target_packages[*]}")
  security=${mirror%/debian}/debian-security
  made=""
  mkdir -p "$dir" # mmdebstrap wants the sysroot's parent to exist
  for attempt in 1 2 3; do
    rm -rf "$sysroot"
    if mmdebstrap --quiet --variant=extract --architectures="$arch" --include="$include" --extract-hook="$shlibs_hook" \
        "$suite" "$sysroot" "deb $mirror $suite main" "deb $mirror $suite-updates main" "deb $security $suite-security main"; then
      made=yes
      break
    fi
    echo "cross.sh: the sysroot for $arch could not be made (attempt $attempt of 3)" >&2
    sleep $((attempt * 5))
  done
  if [ -z "$made" ]; then
    # A security index briefly out of step with the main one: the main suite alone still builds.
    echo "cross.sh: going on without $suite-security for $arch: its index does not match the main suite's" >&2
    rm -rf "$sysroot"
    mmdebstrap --quiet --variant=extract --architectures="$arch" --include="$include" --extract-hook="$shlibs_hook" \
      "$suite" "$sysroot" "deb $mirror $suite main" "deb $mirror $suite-updates main"
  fi
  echo "$wanted" > "$stamp"
fi

cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$arch.cmake" -DLORUN_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLORUN_CHECK_HEADERS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"

# Emulated code runs several times slower: the tests' deadlines scale by this.
export LORUN_TEST_TIME_SCALE=${LORUN_TEST_TIME_SCALE:-8}
case "$action" in
  test)
    if [ "$arch" = armhf ] && [ -d /dev/shm ]; then
      # A 32-bit program under qemu-user cannot list a folder of the host's
      # ext4 (its 64-bit directory offsets overflow), so GStreamer would find
      # no plugin: it is shown links to them in a tmpfs folder instead.
      plugins=$(mktemp -d /dev/shm/lorun-gst-plugins.XXXXXX)
      trap 'rm -rf "$plugins"' EXIT
      ln -s "$sysroot/usr/lib/$triple/gstreamer-1.0/"*.so "$plugins/"
      export GST_PLUGIN_SYSTEM_PATH="$plugins"
    fi
    (cd "$dir" && ctest --output-on-failure -j"$(nproc)" --timeout $((300 * LORUN_TEST_TIME_SCALE)) "$@")
    ;;
  run)
    export GENICAM_GENTL64_PATH="$PWD/$dir" GENICAM_GENTL32_PATH="$PWD/$dir"
    export LORUN_VIRTUAL_CAMERA="$PWD/sim/examples/two-cameras.ini"
    tool=("$qemu" -L "$sysroot" "$dir/tools/lorun-gentl")
    "${tool[@]}" info
    echo
    "${tool[@]}" devices
    echo
    rm -rf "out-$arch"
    "${tool[@]}" grab -n 300 --every 60 --save "out-$arch"
    echo
    echo "Images saved in out-$arch/:"
    ls "out-$arch"
    ;;
  package)
    stage=$(mktemp -d)
    trap 'rm -rf "$stage"' EXIT
    DESTDIR=$stage cmake --install "$dir" --prefix /usr >/dev/null
    depends=$(packaging/debian-depends.sh "$stage" "$sysroot/.lorun-shlibs")
    cmake "$dir" -DLORUN_PACKAGE_DEPENDS="$depends" >/dev/null
    rm -f "$dir"/lorun-csi2_*.deb
    (cd "$dir" && cpack -G DEB >/dev/null)
    deb=$(ls "$dir"/lorun-csi2_*_"$arch".deb)
    sh tests/install/check-cross-package.sh "$deb" "$arch" "$triple" "$qemu" "$sysroot"
    echo "Package: $deb"
    ;;
esac
