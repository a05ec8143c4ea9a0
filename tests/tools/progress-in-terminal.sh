#!/bin/sh
# The grab progress line in a real terminal (tmux): while frames come there is
# one progress line, rewritten in place, and the summary follows at the end.
set -u
tool=$1
cti=$2
dir=$(mktemp -d)
server=lorun-progress-$$
trap 'tmux -L "$server" kill-server 2>/dev/null; rm -rf "$dir"' EXIT
printf '[camera0]\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 100\n' > "$dir/cameras.ini"
tmux -L "$server" new-session -d -s grab -x 160 -y 40 \
  "LORUN_VIRTUAL_CAMERA='$dir/cameras.ini' '$tool' grab -t 4 --producer '$cti'; echo EXIT=\$?; sleep 60"
sleep 2
during=$(tmux -L "$server" capture-pane -p -t grab)
lines=$(printf '%s\n' "$during" | grep -c ' fps ')
sleep 5
after=$(tmux -L "$server" capture-pane -p -t grab)
printf 'While grabbing:\n%s\n\nAfter:\n%s\n' "$during" "$after"
[ "$lines" -eq 1 ] || { echo "expected one progress line while grabbing, saw $lines"; exit 1; }
printf '%s\n' "$after" | grep -q '^Summary' || { echo "no summary"; exit 1; }
printf '%s\n' "$after" | grep -q 'EXIT=0' || { echo "the tool failed"; exit 1; }
