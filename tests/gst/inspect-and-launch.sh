#!/bin/sh
# gst-inspect-1.0 lists the element with its properties, caps and the camera's
# child properties, and prints no critical or warning; gst-launch-1.0 writes
# 300 PNG images from it and ends.
set -eu
plugin_dir=$1
producer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export GST_PLUGIN_PATH="$plugin_dir" GST_REGISTRY_1_0="$work/registry.bin"
printf '[system]\nstate = none\n[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\n' \
  > "$work/cameras.ini"
export LORUN_VIRTUAL_CAMERA="$work/cameras.ini"

gst-inspect-1.0 lorunsrc > "$work/inspect.txt" 2> "$work/inspect.err"
for expected in "GenTL camera source" "capture-buffers" "capture-error" "features" "device-id" "video/x-bayer" \
  "GRAY16_LE" "cam::ExposureTime" "device::DeviceID" "stream::StatFrameDelivered"; do
  grep -q -- "$expected" "$work/inspect.txt" || { echo "gst-inspect does not show $expected"; exit 1; }
done
if grep -E "CRITICAL|WARNING" "$work/inspect.txt" "$work/inspect.err"; then exit 1; fi

gst-launch-1.0 -e lorunsrc producer="$producer" num-buffers=300 ! videoconvert ! pngenc ! \
  multifilesink location="$work/frame-%03d.png" > "$work/launch.txt" 2>&1 || { cat "$work/launch.txt"; exit 1; }
if grep -E "CRITICAL|WARNING" "$work/launch.txt"; then exit 1; fi
count=$(ls "$work" | grep -c '^frame-.*\.png$')
[ "$count" -eq 300 ] || { echo "$count images, not 300"; exit 1; }
[ "$(head -c 4 "$work/frame-299.png" | tail -c 3)" = "PNG" ] || { echo "frame-299.png is no PNG image"; exit 1; }
# No camera at all: an element error that says so, and no critical or warning.
printf '[system]\nstate = none\n' > "$work/none.ini"
if LORUN_VIRTUAL_CAMERA="$work/none.ini" gst-launch-1.0 lorunsrc producer="$producer" ! fakesink \
  > "$work/none.txt" 2>&1; then
  echo "a pipeline without a camera ran"; exit 1
fi
grep -q "No camera" "$work/none.txt" || { cat "$work/none.txt"; exit 1; }
if grep -E "CRITICAL|WARNING" "$work/none.txt"; then exit 1; fi
echo "inspect and launch: ok"
