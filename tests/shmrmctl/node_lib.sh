# Sourced by the terminal tests: a node of their own (an install directory, a namespace, a
# holder) and tmux servers, all gone when the script exits.
#   node_setup NAME        work directory, VEX_IPC_NAMESPACE, VEX_INSTALL_PATH, tmux socket base
#   write_config XML       etc/vex.xml of the node
#   hold_node              starts `shmrmctl hold` and waits until it holds the region
#   wait_for WHAT CMD...   polls CMD a few hundred times; never a timed assertion
# Expects $tool (the shmrmctl binary); tmux servers named in $sockets are killed at exit.
node_setup() {
  work=$(mktemp -d)
  base="$1-$$"
  socket=$base
  sockets=$base
  holder=""
  export VEX_IPC_NAMESPACE="$base" VEX_INSTALL_PATH="$work/install"
  mkdir -p "$work/install/etc"
  trap node_cleanup EXIT
}
node_cleanup() {
  for s in $sockets; do tmux -L "$s" kill-server 2>/dev/null || true; done
  if [ -n "$holder" ]; then kill "$holder" 2>/dev/null || true; wait "$holder" || true; fi
  rm -rf "$work"
}
write_config() {
  printf '%s\n' "$1" >"$work/install/etc/vex.xml"
}
wait_for() {
  what=$1; shift
  i=0
  until "$@"; do
    i=$((i + 1))
    if [ "$i" -gt 300 ]; then echo "never saw: $what" >&2; tmux -L "$socket" capture-pane -p >&2 || true; exit 1; fi
    sleep 0.1
  done
}
hold_node() {
  "$tool" hold >"$work/hold.out" &
  holder=$!
  wait_for "the holder" grep -q ready "$work/hold.out"
}
