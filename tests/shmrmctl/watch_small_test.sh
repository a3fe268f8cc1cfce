#!/bin/sh
# The live view on an 80x24 terminal (a tmux pane) with more monitors than fit: compact
# columns, every line within 80 columns, an "N more" marker, scrolling; then TERM=dumb and
# NO_COLOR. The node log does not grow while it refreshes.
set -eu
tool=$1
. "$(dirname "$0")/node_lib.sh"
node_setup shmrmctl-small
sockets="$base $base-dumb $base-nocolor"
write_config '<root><all><num><group>4</group><resource>2</resource><monitor>32</monitor></num></all>
<shmrm><log><level>16</level><size>1000000</size></log></shmrm></root>'
hold_node
"$tool" add group small-group
i=0
while [ "$i" -lt 32 ]; do "$tool" add monitor ping "mon-$i"; i=$((i + 1)); done
log_before=$(wc -c <"$work/install/log/shmrm.log")

pane() { tmux -L "$socket" capture-pane -p; }
shows() { pane | grep -q -- "$1"; }
tmux -L "$socket" new-session -d -x 80 -y 24 "\"$tool\" watch --interval 0.1; sleep 60"
wait_for "the monitors" shows "mon-0 "
wait_for "the more marker" shows "more monitors below"
# Compact columns, and no line wrapped: the title first, the marker on the last of 24 lines.
if shows "instdata"; then echo "the wide column set on 80 columns" >&2; pane >&2; exit 1; fi
pane | head -1 | grep -q "^shmrmctl watch"
[ "$(pane | sed -n 24p | cut -c1-3)" = "-- " ] || { pane >&2; exit 1; }
[ "$(pane | awk '{ if (length($0) > 80) n++ } END { print n + 0 }')" = 0 ]
if shows "mon-31"; then echo "mon-31 should be below" >&2; exit 1; fi
tmux -L "$socket" send-keys G
wait_for "the end after G" shows "mon-31"
tmux -L "$socket" send-keys g
wait_for "the top after g" shows "small-group"
tmux -L "$socket" send-keys NPage NPage
wait_for "a page down" shows "mon-2[0-9]"
sleep 1  # some refreshes
[ "$(wc -c <"$work/install/log/shmrm.log")" = "$log_before" ] || { echo "the log grew" >&2; exit 1; }
tmux -L "$socket" send-keys q

# TERM=dumb: no alternate screen, no escape sequences at all; NO_COLOR: no reverse video.
socket="$base-dumb"
tmux -L "$socket" new-session -d -x 80 -y 24 \
  "sleep 0.5; TERM=dumb \"$tool\" watch --interval 0.1; sleep 60"
tmux -L "$socket" pipe-pane -o "cat >>\"$work/dumb.out\""
wait_for "the dumb view" grep -q "mon-31" "$work/dumb.out"
"$tool" set monitor ping mon-0 stat 5
wait_for "a second dumb view" sh -c "[ \$(grep -c '^shmrmctl watch' \"$work/dumb.out\") -ge 2 ]"
tmux -L "$socket" send-keys q
if grep -q "$(printf '\033')" "$work/dumb.out"; then echo "escape sequences on TERM=dumb" >&2; exit 1; fi
socket="$base-nocolor"
tmux -L "$socket" new-session -d -x 80 -y 24 \
  "NO_COLOR=1 \"$tool\" watch --interval 0.1; sleep 60"
wait_for "the NO_COLOR view" shows "mon-0 "
"$tool" set monitor ping mon-0 stat 6
sleep 0.5
if tmux -L "$socket" capture-pane -p -e | grep -q "$(printf '\033')\[7m"; then
  echo "reverse video with NO_COLOR" >&2; exit 1
fi
echo "watch at 80x24: ok"
