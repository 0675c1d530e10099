#!/usr/bin/env bash
# Installs what building and testing vigild needs on Debian bookworm, skipping what is there.
set -euo pipefail

packages=(
  cmake ninja-build pkg-config g++ make
  libjansson-dev android-liblog-dev libcli11-dev libcpp-httplib-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
)

missing=()
for pkg in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
