#!/usr/bin/env bash
# Builds vexshmrm and shmrmctl (nothing else: no tests, examples or benchmarks), then runs a
# simulated node: a holder and worker processes that change the shared status, shown live (in a
# terminal; otherwise as a few snapshots). Installs only the packages that build needs.
#   scripts/demo.sh [shmrmctl demo options, e.g. --seconds 60 --workers 5 --once]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh demo
cmake --preset demo >/dev/null
cmake --build --preset demo -j "$(nproc)" >/dev/null
exec build/demo/tools/shmrmctl/shmrmctl demo "$@"
