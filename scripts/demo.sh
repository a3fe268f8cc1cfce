#!/usr/bin/env bash
# Builds vexshmrm and shmrmctl, then runs a simulated node: a holder and worker processes that
# change the shared status, shown live (in a terminal; otherwise as a few snapshots).
#   scripts/demo.sh [shmrmctl demo options, e.g. --seconds 60 --workers 5 --once]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target shmrmctl >/dev/null
exec build/default/tools/shmrmctl/shmrmctl demo "$@"
