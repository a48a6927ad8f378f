#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need, when missing.
# systemd (systemd-analyze, its pkg-config file), desktop-file-utils, man-db:
# checks of the installed files; file and dpkg-dev: the .deb and its
# dependencies (CPack with dpkg-shlibdeps); dbus-daemon, python3-dbus and
# python3-gi: the mount agent's scope test (a private user bus). libglib2.0-bin
# (gio), gvfs (its trash back end), unzip and xxhash (xxhsum): the trash and archive tests read
# what the library writes with the desktop's own tools (not linked). lintian:
# Debian's checks of the packages; zsh: the zsh completion's test. The python3-*
# packages run the ASC MHL reference tool of the hash-list interop tests.
# clang, clang-format-14 and libclang-rt-14-dev: the format check and the fuzz
# pass (libFuzzer, and the libraries' lock checks). qt6-base-dev: the Ferrimo
# window (Qt 6 Widgets, D-Bus, QTest); xvfb and fonts-dejavu-core: the demo's
# display for the window and its picture.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config
          libplist-dev libssl-dev libarchive-dev libmount-dev libblkid-dev libcli11-dev libsystemd-dev
          libpam0g-dev libxxhash-dev libgtest-dev libgmock-dev libbenchmark-dev lintian zsh
          util-linux passwd sudo procps libxml2-utils exfatprogs exfat-fuse xxhash python3
          systemd desktop-file-utils man-db file dpkg-dev
          dbus-daemon python3-dbus python3-gi libglib2.0-bin gvfs unzip
          python3-click python3-lxml python3-packaging python3-pathspec python3-requests
          python3-xxhash python3-dateutil clang clang-format-14 libclang-rt-14-dev
          qt6-base-dev xvfb fonts-dejavu-core)
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
