#!/bin/sh
# Runs a Windows program under Wine: the cross build's CMAKE_CROSSCOMPILING_EMULATOR.
#   WINEPREFIX=<dir> sh cmake/wine-run.sh program.exe [args...]
# Wine's long-lived processes (the wineserver and the prefix's own services) are started here,
# once, detached from the caller's output and kept up for a minute after the last program ends.
# Started by a test program instead, they would inherit its output and keep CTest waiting for
# them. The first run also creates the prefix.
set -e
: "${WINEPREFIX:?WINEPREFIX must name the Wine prefix to use}"
export WINEPREFIX
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe=}"

mkdir -p "$(dirname "$WINEPREFIX")"
# One caller at a time starts them; the lock's descriptor is not handed to what is started.
exec 9>"$WINEPREFIX.lock"
flock 9
if wineserver -p60 </dev/null >/dev/null 2>&1 9>&-; then
  wine wineboot </dev/null >/dev/null 2>&1 9>&-
fi
flock -u 9
exec 9>&-
exec wine "$@"
