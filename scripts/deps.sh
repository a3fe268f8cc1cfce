#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
set -euo pipefail

packages=(cmake make g++ binutils pkg-config libpugixml-dev googletest libgtest-dev libgmock-dev
          libbenchmark-dev clang-format libcli11-dev nlohmann-json3-dev libfmt-dev tmux)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
