#!/usr/bin/env bash
# Installs the project as a user or a packager would and checks the result.
#   install_test.sh prefix  SOURCE BUILD   installs BUILD with --prefix and DESTDIR
#   install_test.sh package SOURCE BUILD   configures a Debian-style tree, installs
#                                          it into a DESTDIR and builds the .deb
# Exits 0 when every check holds; prints each failed check.
set -uo pipefail
mode=$1 source=$2 build=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/kd-install-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
  echo "FAILED: $*" >&2
  failures=$((failures + 1))
}
check_file() { [[ -f $1 ]] || fail "missing $1"; }
check_absent() { [[ ! -e $1 ]] || fail "unexpected $1"; }
# check_line FILE LINE: FILE holds exactly this line.
check_line() { grep -qxF -- "$2" "$1" 2>/dev/null || fail "$1 lacks the line '$2'"; }
skip() {
  echo "SKIPPED: $*" >&2
}

# The service files verify: the unit with systemd's own checker (under ROOT, a
# DESTDIR, when given; its manual page from MANDIR), the entry with the
# desktop-file validator.
verify_services() {
  local unit=$1 entry=$2 mandir=$3 root=${4:-}
  if command -v systemd-analyze >/dev/null; then
    local out runtime=$work/runtime
    mkdir -p -m 0700 "$runtime"
    if [[ -n $root ]]; then
      # The user manager cannot look into another root: check a copy whose
      # program paths point into the DESTDIR (the paths themselves are
      # checked by check_tree).
      mkdir -p "$work/verify"
      sed "s|=/|=$root/|" "$root$unit" >"$work/verify/${unit##*/}"
      unit=$work/verify/${unit##*/}
    fi
    out=$(XDG_RUNTIME_DIR=$runtime MANPATH=$mandir systemd-analyze --user verify "$unit" 2>&1) ||
      fail "systemd-analyze: $out"
    [[ -z $out ]] || fail "systemd-analyze warns about $unit: $out"
  else
    skip "systemd-analyze is not installed"
  fi
  if command -v desktop-file-validate >/dev/null; then
    local out
    out=$(desktop-file-validate "$entry" 2>&1) || fail "desktop-file-validate: $out"
    [[ -z $out ]] || fail "desktop-file-validate warns about $entry: $out"
  else
    skip "desktop-file-validate is not installed"
  fi
}

# The files every install has, under ROOT with the prefix PREFIX and library
# folder LIBDIR; the service files name programs under PREFIX.
check_tree() {
  local root=$1 prefix=$2 libdir=$3 unitdir=$4 autostart=$5
  local p=$root$prefix
  for program in kd FerrimoHelper ferrimo-mount-agent; do
    [[ -x $p/bin/$program ]] || fail "missing program $p/bin/$program"
  done
  check_file "$p/$libdir/libKd.so.1"
  check_file "$p/$libdir/cmake/Kd/KdConfig.cmake"
  check_file "$p/$libdir/cmake/Kd/KdTargets.cmake"
  check_file "$p/$libdir/pkgconfig/kd.pc"
  check_line "$p/$libdir/pkgconfig/kd.pc" "libdir=$prefix/$libdir"
  check_file "$p/include/kd/log/KdLog.h"
  check_file "$p/include/kd/common/UniqueFd.h"
  check_absent "$p/include/kd/platform/linux"
  check_absent "$p/include/kd/log/KdLogTesting.h"
  for page in kd FerrimoHelper ferrimo-mount-agent; do check_file "$p/share/man/man1/$page.1"; done
  check_file "$p/share/bash-completion/completions/kd"
  check_file "$p/share/doc/ferrimo/helper.md"
  check_file "$p/share/doc/ferrimo/LICENSE"
  local unit=$root$unitdir/ferrimo-mount-agent.service
  local entry=$root$autostart/ferrimo-mount-agent.desktop
  check_file "$unit"
  check_file "$entry"
  check_line "$unit" "ExecStart=$prefix/bin/ferrimo-mount-agent"
  check_line "$unit" "WantedBy=graphical-session.target"
  check_line "$entry" "Exec=$prefix/bin/ferrimo-mount-agent"
  # Nothing lands in a multiarch library folder, which systemd never reads.
  [[ $libdir == lib ]] || check_absent "$p/$libdir/systemd"
}

# An application of its own against the library installed under PREFIX: with
# find_package(Kd) and with pkg-config.
check_consumer() {
  local prefix=$1 libdir=$2
  local data=$work/data
  mkdir -p "$data" && touch "$data/one.txt"
  local out
  if out=$(cmake -S "$source/tests/install/consumer" -B "$work/consumer" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" 2>&1 && cmake --build "$work/consumer" 2>&1); then
    out=$("$work/consumer/consumer" "$data" 2>&1) || fail "the consumer does not run: $out"
    [[ $out == *"guard /usr: 1"*"match: $data/one.txt"* ]] || fail "consumer printed: $out"
  else
    fail "the consumer does not build with find_package(Kd): $out"
  fi
  # Flags from kd.pc only: the project's own warnings and definitions stay private.
  local flags
  flags=$(PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig pkg-config --cflags --libs kd) ||
    fail "pkg-config does not know kd"
  if out=$(c++ -o "$work/consumer-pc" "$source/tests/install/consumer/main.cpp" $flags \
        -Wl,-rpath,"$prefix/$libdir" 2>&1); then
    out=$("$work/consumer-pc" "$data" 2>&1) || fail "the pkg-config consumer does not run: $out"
    [[ $out == *"match: $data/one.txt"* ]] || fail "pkg-config consumer printed: $out"
  else
    fail "the consumer does not build with pkg-config: $out"
  fi
  local exported
  exported=$(grep -h "INTERFACE_COMPILE_OPTIONS\|INTERFACE_COMPILE_DEFINITIONS\|kd_options" \
    "$prefix/$libdir/cmake/Kd/"*.cmake)
  [[ -z $exported ]] || fail "the exported target carries the project's flags: $exported"
}

case $mode in
prefix)
  libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
  # 1. A private prefix: everything below it, the autostart entry included.
  prefix=$work/opt/ferrimo
  out=$(cmake --install "$build" --prefix "$prefix" 2>&1) || fail "install --prefix: $out"
  check_tree "" "$prefix" "$libdir" "$prefix/lib/systemd/user" "$prefix/etc/xdg/autostart"
  outside=$(grep -v "^$prefix/" "$build/install_manifest.txt")
  [[ -z $outside ]] || fail "installed outside the prefix: $outside"
  verify_services "$prefix/lib/systemd/user/ferrimo-mount-agent.service" \
    "$prefix/etc/xdg/autostart/ferrimo-mount-agent.desktop" "$prefix/share/man"
  # man finds the installed page.
  if command -v man >/dev/null; then
    page=$(MANPATH=$prefix/share/man man -w kd 2>&1)
    [[ $page == "$prefix/share/man/man1/kd.1"* ]] || fail "man -w kd: $page"
    text=$(MANPATH=$prefix/share/man MANWIDTH=80 man kd 2>/dev/null)
    [[ $text == *"kd --help | --version"* ]] || fail "man kd shows: ${text:0:300}"
  fi
  "$prefix/bin/kd" --version | grep -qx "kd [0-9.]*" || fail "kd --version"
  # Completion offers kd's commands and a command's options, read from its help.
  complete_words() {
    bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kd
             echo "${COMPREPLY[*]}"' _ "$prefix/share/bash-completion/completions/kd" "$@"
  }
  words=$(complete_words "$prefix/bin/kd" ma)
  [[ $words == match ]] || fail "completion of 'kd ma': $words"
  words=$(complete_words "$prefix/bin/kd" match --nu)
  [[ $words == --null ]] || fail "completion of 'kd match --nu': $words"
  check_consumer "$prefix" "$libdir"

  # 2. The system prefix /usr/local into a DESTDIR: the autostart entry goes
  #    where desktops read it, the unit where systemd reads it.
  root=$work/root
  out=$(DESTDIR=$root cmake --install "$build" --prefix /usr/local 2>&1) ||
    fail "install DESTDIR: $out"
  check_tree "$root" /usr/local "$libdir" /usr/local/lib/systemd/user /etc/xdg/autostart
  check_absent "$root/usr/local/etc"
  verify_services /usr/local/lib/systemd/user/ferrimo-mount-agent.service \
    "$root/etc/xdg/autostart/ferrimo-mount-agent.desktop" "$root/usr/local/share/man" "$root"
  ;;
package)
  multiarch=$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
  libdir=lib/$multiarch
  tree=$work/build
  out=$(cmake -S "$source" -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE= \
    -DKD_BUILD_TESTS=OFF -DKD_BUILD_BENCH=OFF \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DCMAKE_INSTALL_LOCALSTATEDIR=/var -DCMAKE_INSTALL_LIBDIR="$libdir" \
    -DCMAKE_INSTALL_LIBEXECDIR="$libdir" 2>&1) || { echo "$out"; exit 1; }
  out=$(cmake --build "$tree" -j "$(nproc)" 2>&1) || { echo "$out"; exit 1; }
  root=$work/root
  out=$(DESTDIR=$root cmake --install "$tree" 2>&1) || fail "install DESTDIR: $out"
  check_tree "$root" /usr "$libdir" /usr/lib/systemd/user /etc/xdg/autostart
  verify_services /usr/lib/systemd/user/ferrimo-mount-agent.service \
    "$root/etc/xdg/autostart/ferrimo-mount-agent.desktop" "$root/usr/share/man" "$root"

  # The package: built by CPack, unpacked into a temporary root.
  out=$(cd "$tree" && cpack -G DEB 2>&1) || { echo "$out"; exit 1; }
  deb=$(ls "$tree"/ferrimo_*.deb 2>/dev/null | head -n1)
  [[ -f $deb ]] || { echo "no .deb: $out"; exit 1; }
  depends=$(dpkg-deb -f "$deb" Depends)
  for lib in libc6 libssl3 libarchive13 libblkid1 libmount1 libsystemd0 libpam0g; do
    [[ $depends == *"$lib"* ]] || fail "the package does not depend on $lib: $depends"
  done
  unpacked=$work/unpacked
  dpkg -x "$deb" "$unpacked" || fail "dpkg -x"
  check_tree "$unpacked" /usr "$libdir" /usr/lib/systemd/user /etc/xdg/autostart
  version=$(LD_LIBRARY_PATH=$unpacked/usr/$libdir "$unpacked/usr/bin/kd" --version)
  [[ $version == "kd $(dpkg-deb -f "$deb" Version)" ]] ||
    fail "kd --version from the package: $version"
  ;;
*)
  echo "usage: $0 prefix|package SOURCE BUILD" >&2
  exit 2
  ;;
esac

if ((failures)); then
  echo "$failures check(s) failed" >&2
  exit 1
fi
echo "all checks hold"
