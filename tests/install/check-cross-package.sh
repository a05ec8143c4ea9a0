#!/bin/sh
# Checks a cross-built Debian package and uses it unpacked, under qemu-user:
#   check-cross-package.sh DEB ARCH TRIPLE QEMU SYSROOT
# Its architecture and dependencies, the producer in the target's GenTL folder,
# libcsi with its SONAME, pkg-config and CMake files in the multiarch folder,
# the profile script's variable for the target's pointer width, and the
# unpacked tool listing the producer and grabbing from the virtual camera.
set -eu
deb=$1 arch=$2 triple=$3 qemu=$4 sysroot=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "check-cross-package: $*" >&2; exit 1; }

[ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "Architecture is not $arch"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for library in libc6 libstdc++6 libaravis libpng libboost-program-options libboost-filesystem libtinyxml liburiparser; do
  echo "$depends" | grep -q "$library" || fail "the package does not depend on $library"
done

dpkg-deb -x "$deb" "$work/root"
libdir=$work/root/usr/lib/$triple
cti=$libdir/gentl/lorun_csi2.cti
[ -f "$cti" ] || fail "no producer in usr/lib/$triple/gentl"
case "$arch" in
  arm64) machine=AArch64 variable=GENICAM_GENTL64_PATH ;;
  armhf) machine=ARM variable=GENICAM_GENTL32_PATH ;;
  *) fail "unknown architecture $arch" ;;
esac
readelf -h "$cti" | grep -q "Machine: *$machine" || fail "the producer is not built for $machine"
soname=$(readelf -d "$libdir/libcsi.so.1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libcsi.so.1" ] || fail "libcsi's SONAME is '$soname'"

pc_libdir=$(PKG_CONFIG_PATH=$libdir/pkgconfig PKG_CONFIG_LIBDIR= pkg-config --variable=libdir libcsi)
[ "$(realpath "$pc_libdir")" = "$(realpath "$libdir")" ] || fail "pkg-config's libdir is $pc_libdir"
grep -q "lib/$triple/libcsi.so.1" "$libdir"/cmake/libcsi/libcsiTargets-*.cmake || fail "the CMake package names another folder"

profile=$work/root/etc/profile.d/lorun-gentl.sh
grep -q "export $variable=\"/usr/lib/$triple/gentl" "$profile" || fail "the profile script does not set $variable"

printf '[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\n' > "$work/cameras.ini"
tool() {
  env "$variable=$libdir/gentl" LORUN_VIRTUAL_CAMERA="$work/cameras.ini" \
    "$qemu" -L "$sysroot" -E "LD_LIBRARY_PATH=$libdir" "$work/root/usr/bin/lorun-gentl" "$@"
}
tool producers | grep -q "$cti" || fail "the unpacked tool does not find the producer on $variable"
tool grab -n 5 > "$work/grab.txt" || { cat "$work/grab.txt"; fail "the unpacked tool could not grab"; }
grep -Eq '^Frames +5$' "$work/grab.txt" || { cat "$work/grab.txt"; fail "the unpacked tool did not grab 5 frames"; }
echo "package $arch: ok"
