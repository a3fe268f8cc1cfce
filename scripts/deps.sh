#!/usr/bin/env bash
# Installs the Debian packages a profile needs, when any is missing:
#   scripts/deps.sh          everything the build and the tests need (the default), and makes the
#                            pugixml source package reachable for the Windows cross build (apt-get
#                            source needs a deb-src entry: one is added beside the machine's own
#                            sources, mirroring them);
#   scripts/deps.sh demo     only what building the library and shmrmctl takes (scripts/demo.sh).
set -euo pipefail

demo_packages=(cmake make g++ binutils pkg-config libpugixml-dev libcli11-dev nlohmann-json3-dev
               libfmt-dev libcpp-httplib-dev)
profile=${1:-all}
case $profile in
  demo) packages=("${demo_packages[@]}") ;;
  all)
    packages=("${demo_packages[@]}" googletest libgtest-dev libgmock-dev libbenchmark-dev
              clang-format tmux python3-matplotlib gcovr doxygen scdoc man-db zsh systemd
              g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine wine64
              clang libclang-rt-14-dev chromium python3-websocket prometheus wrk) ;;
  *) echo "usage: $0 [all|demo]" >&2; exit 2 ;;
esac

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

updated=""
update() {
  if [ -z "$updated" ]; then
    $sudo apt-get update -qq
    updated=1
  fi
}

src_list=/etc/apt/sources.list.d/vexshmrm-src.sources
if [ "$profile" = all ] && [ ! -e "$src_list" ] && [ -e /etc/apt/sources.list.d/debian.sources ] &&
   ! grep -rqs '^Types:.*deb-src\|^deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  echo "adding deb-src entries: $src_list"
  sed 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
    $sudo tee "$src_list" >/dev/null
  update
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
