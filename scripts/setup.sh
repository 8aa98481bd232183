#!/usr/bin/env bash
# Installs what building and testing Ostrel needs on a fresh Debian machine.
# Only missing packages are installed; pass extra package names as arguments.
set -euo pipefail
need=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev zlib1g-dev clang libclang-rt-14-dev
  abigail-tools doxygen "$@")
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
