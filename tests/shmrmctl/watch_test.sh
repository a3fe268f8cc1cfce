#!/bin/sh
# The live view in a real terminal (a tmux pane): it shows the tables, follows a change, and
# on q leaves the alternate screen and exits 0.
set -eu
tool=$1
. "$(dirname "$0")/node_lib.sh"
node_setup shmrmctl-watch
write_config '<root><all><num><group>4</group><resource>2</resource><monitor>2</monitor></num></all></root>'
hold_node
"$tool" add group watched-group
"$tool" add monitor ping watched-mon

tmux -L "$socket" new-session -d -x 160 -y 40 \
  "\"$tool\" watch --interval 0.2; echo \"exit=\$?\" >\"$work/exit\"; sleep 60"
pane() { tmux -L "$socket" capture-pane -p; }
shows() { pane | grep -q -- "$1"; }
wait_for "the tables" shows "watched-group"
wait_for "the monitor table" shows "watched-mon"
shows "grpcnt" && shows "resources"
"$tool" set group watched-group sv changed-now
wait_for "the change" shows "changed-now"
[ "$(tmux -L "$socket" display -p '#{alternate_on}')" = 1 ]

tmux -L "$socket" send-keys q
wait_for "the exit" test -s "$work/exit"
grep -qx "exit=0" "$work/exit"
[ "$(tmux -L "$socket" display -p '#{alternate_on}')" = 0 ]
if shows "watched-group"; then echo "the view stayed on the screen" >&2; exit 1; fi
echo "watch: ok"
