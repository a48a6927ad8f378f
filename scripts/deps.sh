#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need, when missing.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config
          libplist-dev libssl-dev libarchive-dev libmount-dev libblkid-dev libcli11-dev libsystemd-dev
          libgtest-dev libgmock-dev libbenchmark-dev
          util-linux passwd sudo procps exfatprogs exfat-fuse python3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
