#!/bin/sh
# The live view in a real terminal (a tmux pane): it shows the tables, follows a change, and
# on q leaves the alternate screen and exits 0.
set -eu
tool=$1
work=$(mktemp -d)
export VEX_IPC_NAMESPACE="shmrmctl-watch-$$" VEX_INSTALL_PATH="$work/install"
socket="shmrmctl-watch-$$"
holder=""
cleanup() {
  tmux -L "$socket" kill-server 2>/dev/null || true
  if [ -n "$holder" ]; then kill "$holder" 2>/dev/null || true; wait "$holder" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/install/etc"
cat >"$work/install/etc/vex.xml" <<'XML'
<root><all><num><group>4</group><resource>2</resource><monitor>2</monitor></num></all></root>
XML

"$tool" hold >"$work/hold.out" &
holder=$!
# Bounded waits: a few hundred polls, never a timed assertion.
wait_for() {  # wait_for DESCRIPTION COMMAND...
  what=$1; shift
  i=0
  until "$@"; do
    i=$((i + 1))
    if [ "$i" -gt 300 ]; then echo "never saw: $what" >&2; tmux -L "$socket" capture-pane -p >&2 || true; exit 1; fi
    sleep 0.1
  done
}
wait_for "the holder" grep -q ready "$work/hold.out"
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
