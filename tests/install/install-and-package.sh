#!/bin/sh
# Installs the build into a staging folder and uses it from there only: a C
# program with pkg-config, a CMake project with find_package, and the installed
# tool grabbing from the virtual camera through GENICAM_GENTL64_PATH. Then
# builds the Debian package and checks its dependencies and contents.
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
stage=$work/stage
prefix=/opt/lorun

DESTDIR=$stage cmake --install "$build" --prefix $prefix >/dev/null
root=$stage$prefix
ls "$root/lib/gentl/lorun_csi2.cti" "$root/bin/lorun-gentl" "$root/include/libcsi/libcsi.h" >/dev/null
soname=$(objdump -p "$root/lib/libcsi.so" | awk '/SONAME/ {print $2}')
[ "$soname" = "libcsi.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }
grep -q "$prefix/lib/gentl" "$root/etc/profile.d/lorun-gentl.sh"

# Move the staged tree: nothing may point back into the build or the source.
mv "$root" "$work/moved"
root=$work/moved

echo "== pkg-config"
export PKG_CONFIG_PATH=$root/lib/pkgconfig
cc -o "$work/app-pc" "$here/app.c" $(pkg-config --cflags --libs libcsi)
LD_LIBRARY_PATH=$root/lib "$work/app-pc" | grep '^libcsi 1\.'

echo "== find_package"
mkdir "$work/project"
cp "$here/app.c" "$work/project/"
cp "$here/CMakeLists.txt.in" "$work/project/CMakeLists.txt"
cmake -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$root" >/dev/null
cmake --build "$work/project/build" >/dev/null
"$work/project/build/app" | grep '^libcsi 1\.'

echo "== the installed tool"
printf '[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\n' > "$work/cameras.ini"
GENICAM_GENTL64_PATH=$root/lib/gentl LORUN_VIRTUAL_CAMERA=$work/cameras.ini \
  "$root/bin/lorun-gentl" producers | grep -q "$root/lib/gentl/lorun_csi2.cti"
GENICAM_GENTL64_PATH=$root/lib/gentl LORUN_VIRTUAL_CAMERA=$work/cameras.ini \
  "$root/bin/lorun-gentl" grab -n 20 > "$work/grab.txt"
grep -E '^Frames +20$' "$work/grab.txt"

# The GStreamer plugin, found in the system's plugin folder of the prefix
# (GStreamer's own list of system folders pointed there, GST_PLUGIN_PATH
# unset) and loading the producer installed with it.
plugins=""
if [ -f "$build/gst/libgstlorun.so" ]; then
  plugins=$(pkg-config --variable=pluginsdir gstreamer-1.0 | sed "s#^$(pkg-config --variable=prefix gstreamer-1.0)/##")
  echo "== the installed GStreamer plugin ($plugins)"
  (
    unset GST_PLUGIN_PATH GST_PLUGIN_PATH_1_0 GENICAM_GENTL64_PATH GENICAM_GENTL32_PATH
    export GST_PLUGIN_SYSTEM_PATH_1_0="$root/$plugins:/usr/$plugins" GST_REGISTRY_1_0="$work/registry.bin"
    gst-inspect-1.0 lorunsrc | grep -q "$root/$plugins/libgstlorun.so"
    LORUN_VIRTUAL_CAMERA=$work/cameras.ini \
      gst-launch-1.0 -q lorunsrc num-buffers=5 ! fakesink
  )
fi

echo "== the Debian package"
(cd "$build" && cpack -G DEB -B "$work/package" >/dev/null)
deb=$(ls "$work"/package/lorun-csi2_*.deb)
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for library in libaravis libpng libboost-program-options libboost-filesystem libtinyxml liburiparser; do
  echo "$depends" | grep -q "$library" || { echo "the package does not depend on $library"; exit 1; }
done
# Every dependency is satisfiable here, as dpkg -i needs.
for package in $(echo "$depends" | tr ',' '\n' | sed 's/(.*//; s/|.*//'); do
  dpkg -s "$package" >/dev/null 2>&1 || { echo "the dependency $package is not installable here"; exit 1; }
done
dpkg-deb -x "$deb" "$work/unpacked"
grep -q '/usr/lib/gentl' "$work/unpacked/etc/profile.d/lorun-gentl.sh"
GENICAM_GENTL64_PATH=$work/unpacked/usr/lib/gentl LORUN_VIRTUAL_CAMERA=$work/cameras.ini \
  LD_LIBRARY_PATH=$work/unpacked/usr/lib "$work/unpacked/usr/bin/lorun-gentl" grab -n 5 | grep -E '^Frames +5$'
if [ -n "$plugins" ]; then
  ls "$work/unpacked/usr/$plugins/libgstlorun.so" >/dev/null
  echo "$depends" | grep -q libgstreamer || { echo "the package does not depend on GStreamer"; exit 1; }
fi
echo "install and package: ok"
