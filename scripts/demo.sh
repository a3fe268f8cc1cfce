#!/usr/bin/env bash
# Builds vexshmrm and runs a two-process node from the example install directory.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target node_demo example_install >/dev/null
build/default/examples/node_demo --install build/default/examples/install
