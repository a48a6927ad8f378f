#!/usr/bin/env bash
# Installs the project as a user or a packager would and checks the result.
#   install_test.sh prefix  SOURCE BUILD   installs BUILD with --prefix and DESTDIR
#   install_test.sh package SOURCE BUILD   configures a Debian-style tree, installs
#                                          it into a DESTDIR and builds the .deb
# Exits 0 when every check holds; prints each failed check.
set -uo pipefail
mode=$1 source=$2 build=$3
ferrimo_built=OFF
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
# check_text FILE TEXT: FILE holds this text on one of its lines.
check_text() { grep -qF -- "$2" "$1" 2>/dev/null || fail "$1 lacks '$2'"; }
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
  # systemd's autostart generator makes no second agent from the entry (it
  # would run for every user, whatever they enabled). It looks at an entry
  # whose program exists, so only where the programs are really installed.
  local generator=/usr/lib/systemd/user-generators/systemd-xdg-autostart-generator
  if [[ -z $root && -x $generator ]]; then
    local units=$work/generated
    mkdir -p "$units"
    XDG_CONFIG_DIRS=${entry%/autostart/*} XDG_CONFIG_HOME=$work/no-config \
      "$generator" "$units" "$units" "$units" 2>/dev/null
    local made
    made=$(find "$units" -name '*ferrimo*')
    [[ -z $made ]] || fail "the autostart generator made units from the entry: $made"
  elif [[ -z $root ]]; then
    skip "systemd's autostart generator is not installed"
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
  local root=$1 prefix=$2 libdir=$3 unitdir=$4 autostart=$5 polkit=$6
  local p=$root$prefix
  for program in kd FerrimoHelper ferrimo-mount-agent kd-privileged; do
    [[ -x $p/bin/$program ]] || fail "missing program $p/bin/$program"
  done
  check_file "$p/$libdir/libKd.so.1"
  check_file "$p/$libdir/cmake/Kd/KdConfig.cmake"
  check_file "$p/$libdir/cmake/Kd/KdTargets.cmake"
  check_file "$p/$libdir/pkgconfig/kd.pc"
  check_line "$p/$libdir/pkgconfig/kd.pc" "libdir=$prefix/$libdir"
  check_file "$p/include/kd/log/KdLog.h"
  check_file "$p/include/kd/files/KdFileManager.h"
  check_file "$p/include/kd/KdExport.h"
  # Only <kd/...> headers: internal ones stay in the source tree.
  check_file "$p/include/kd/files/offload/Offload.h"
  check_file "$p/include/kd/files/mhl/MhlHistory.h"
  check_file "$p/include/kd/files/mhl/MhlManifest.h"
  for header in platform/linux files/offload/OffloadInternal.h files/offload/TransferReport.h common/WorkQueue.h \
    log/KdLogTesting.h helper/FerrimoHelper.h; do
    check_absent "$p/include/kd/$header"
  done
  for folder in common log files; do check_absent "$p/include/$folder"; done
  for page in kd FerrimoHelper ferrimo-mount-agent kd-privileged; do
    check_file "$p/share/man/man1/$page.1.gz"
  done
  # The offload window, where the mount agent finds it without settings, with
  # its launcher, desktop entry, icon and manual page.
  if [[ $ferrimo_built == ON ]]; then
    [[ -x $p/libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo ]] ||
      fail "missing $p/libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo"
    [[ $(readlink "$p/bin/ferrimo") == ../libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo ]] ||
      fail "$p/bin/ferrimo is not the link to Ferrimo: $(readlink "$p/bin/ferrimo")"
    check_file "$p/share/applications/ferrimo.desktop"
    check_file "$p/share/icons/hicolor/scalable/apps/ferrimo.svg"
    check_file "$p/share/man/man1/ferrimo.1.gz"
    if command -v desktop-file-validate >/dev/null; then
      out=$(desktop-file-validate "$p/share/applications/ferrimo.desktop" 2>&1) ||
        fail "desktop-file-validate ferrimo.desktop: $out"
    fi
  fi
  check_file "$p/share/bash-completion/completions/kd"
  if [[ $prefix == /usr ]]; then
    check_file "$p/share/zsh/vendor-completions/_kd"
  else
    check_file "$p/share/zsh/site-functions/_kd"
  fi
  check_file "$p/share/doc/ferrimo/helper.md"
  check_file "$p/share/doc/ferrimo/LICENSE"
  for package in ferrimo libkd1 libkd-dev; do
    check_file "$p/share/doc/$package/copyright"
    check_file "$p/share/doc/$package/changelog.Debian.gz"
  done
  local unit=$root$unitdir/ferrimo-mount-agent.service
  local entry=$root$autostart/ferrimo-mount-agent.desktop
  check_file "$unit"
  check_file "$entry"
  check_line "$unit" "ExecStart=$prefix/bin/ferrimo-mount-agent"
  check_line "$unit" "WantedBy=graphical-session.target"
  check_line "$entry" "Exec=$prefix/bin/ferrimo-mount-agent"
  check_line "$entry" "X-systemd-skip=true"
  check_line "$entry" "X-GNOME-HiddenUnderSystemd=true"
  # pkexec starts the co-process only under the action that names it.
  local policy=$root$polkit/com.quillfen.ferrimo.privileged.policy
  check_text "$policy" ">$prefix/bin/kd-privileged</annotate>"
  if command -v xmllint >/dev/null; then
    xmllint --noout "$policy" 2>/dev/null || fail "$policy is not well-formed"
  fi
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
    # The library finds the co-process of its own installation, not of the
    # prefix the tree was configured for.
    [[ $out == *"privileged helper: $(realpath "$prefix")/bin/kd-privileged"* ]] ||
      fail "the installed library does not find its kd-privileged: $out"
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
  # Every installed header stands on its own with only <includedir> on the
  # path: it includes nothing that was left out.
  local all=$work/all-headers.cpp
  (cd "$prefix/include" && find kd -name '*.h' | sort | sed 's/.*/#include <&>/') >"$all"
  out=$(c++ -std=c++20 -fsyntax-only -I"$prefix/include" "$all" 2>&1) ||
    fail "the installed headers do not compile on their own: $out"
  local exported
  exported=$(grep -h "INTERFACE_COMPILE_OPTIONS\|INTERFACE_COMPILE_DEFINITIONS\|kd_options" \
    "$prefix/$libdir/cmake/Kd/"*.cmake)
  [[ -z $exported ]] || fail "the exported target carries the project's flags: $exported"
}

# The shared library exports its interface only: the public classes are
# there, the internals (work queue, platform implementation, helpers of the
# subsystems) are not.
check_exports() {
  local lib=$1 symbols
  symbols=$(nm -D --defined-only -C "$lib" 2>&1) || { fail "nm -D $lib: $symbols"; return; }
  for name in "KdFileManager::copyFile(" "KdLog::sharedController(" "KdTaskEx::runTask(" \
    "KdLocalPaths::isPathSystemDirectory(" "kd::platform()" "kd::offloadCard(" \
    "kd::verifyFolder(" "kd::MhlHistory::load(" "kd::ReadAhead::next(" "kd::loadSettings(" \
    "kd::path::append(" "kd::dateDescription"; do
    grep -qF -- " $name" <<<"$symbols" || fail "$lib does not export $name"
  done
  for name in "kd::WorkQueue::" "kd::LinuxPlatform::" "kd::offload::" "kd::parseMountTable(" \
    "kd::readMountTable(" "kd::isRemovableMedia(" "kd::transferReportHtml("; do
    ! grep -qF -- " $name" <<<"$symbols" || fail "$lib exports the internal $name"
  done
}

# How the installed programs link the library: each links libKd.so.1 and
# loads the one installed beside it, as an application of its own does.
# kd-privileged, the co-process that runs as root, uses none of it (its
# CMakeLists.txt says why): it links nothing of the library.
check_programs() {
  local prefix=$1 libdir=$2 program want needed out ferrimo_row=""
  local ferrimo=$prefix/libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo
  [[ ! -e $ferrimo ]] || ferrimo_row="$ferrimo|shared"
  while IFS='|' read -r program want; do
    [[ -n $program ]] || continue
    needed=$(readelf -d "$program" 2>&1 | grep -o 'Shared library: \[libKd[^]]*\]')
    if [[ $want == shared ]]; then
      [[ $needed == *"[libKd.so.1]"* ]] || fail "$program does not link libKd.so.1"
      out=$(ldd "$program" 2>&1 | grep libKd)
      loaded=$(sed -n 's/.*=> \(.*\) (0x.*/\1/p' <<<"$out")
      [[ -n $loaded && $(realpath "$loaded") == "$(realpath "$prefix/$libdir/libKd.so.1")" ]] ||
        fail "$program loads: $out"
      # Nothing but the library's folder, and never an empty entry (the
      # working folder).
      runpath=$(readelf -d "$program" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]$/\2/p')
      [[ $program != "$prefix/"* || -z $runpath || $runpath =~ ^\$ORIGIN/[^:]*$ ]] ||
        fail "$program has the RPATH '$runpath'"
    else
      [[ -z $needed ]] || fail "$program links $needed"
    fi
  done <<TABLE
$work/consumer/consumer|shared
$prefix/bin/kd|shared
$prefix/bin/FerrimoHelper|shared
$prefix/bin/ferrimo-mount-agent|shared
$prefix/bin/kd-privileged|none
$ferrimo_row
TABLE
}

case $mode in
prefix)
  libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
  ferrimo_built=$(sed -n 's/^KD_BUILD_FERRIMO:BOOL=//p' "$build/CMakeCache.txt")
  # 1. A private prefix: everything below it, the autostart entry and the
  #    polkit action included.
  prefix=$work/opt/ferrimo
  out=$(cmake --install "$build" --prefix "$prefix" 2>&1) || fail "install --prefix: $out"
  check_tree "" "$prefix" "$libdir" "$prefix/lib/systemd/user" "$prefix/etc/xdg/autostart" \
    "$prefix/share/polkit-1/actions"
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
  # --version and --help answer and start nothing (the helper would otherwise
  # run, log and look for cards).
  home=$work/home
  mkdir -p "$home"
  for program in kd FerrimoHelper ferrimo-mount-agent; do
    out=$(HOME=$home XDG_STATE_HOME=$home/state XDG_CONFIG_HOME=$home/config \
      timeout 10 "$prefix/bin/$program" --version 2>&1)
    [[ $out =~ ^$program\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "$program --version: $out"
  done
  out=$(HOME=$home XDG_STATE_HOME=$home/state XDG_CONFIG_HOME=$home/config \
    timeout 10 "$prefix/bin/FerrimoHelper" --help 2>&1)
  [[ $out == "Usage: FerrimoHelper [-setup]"* ]] || fail "FerrimoHelper --help: $out"
  left=$(find "$home" -mindepth 1)
  [[ -z $left ]] || fail "--version or --help ran the helper: $left"
  # Completion offers kd's commands and a command's options, read from its
  # help (digits in names included), in bash and in zsh.
  complete_bash() {
    bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kd
             echo "${COMPREPLY[*]}"' _ "$prefix/share/bash-completion/completions/kd" "$@"
  }
  # zsh: the completion system's own functions stand in for an interactive
  # shell, and compadd prints what it is offered, one word a line.
  complete_zsh() {
    zsh -f -c '
      compadd() {
        if [[ $1 == -a ]]; then print -rl -- ${(P)2}; else [[ $1 == -- ]] && shift; print -rl -- "$@"; fi
      }
      _call_program() { shift; eval "$*"; }
      _files() { print -r -- FILES; }
      _command_names() { print -r -- COMMANDS; }
      file=$1; shift; words=("$@"); CURRENT=$#; PREFIX=${words[CURRENT]}
      source "$file"' _ "$prefix/share/zsh/site-functions/_kd" "$@"
  }
  # EXPECTED|WORDS TYPED: what completes the last word, in bash and in zsh.
  while IFS='|' read -r expected line; do
    read -ra typed <<<"$line"
    words=$(complete_bash "$prefix/bin/kd" "${typed[@]}")
    [[ $words == "$expected" ]] || fail "bash completion of 'kd ${typed[*]}': $words"
    if command -v zsh >/dev/null; then
      words=$(complete_zsh "$prefix/bin/kd" "${typed[@]}" |
        awk -v typed="${typed[-1]}" 'index($0, typed) == 1' | paste -sd' ')
      [[ $words == "$expected" ]] || fail "zsh completion of 'kd ${typed[*]}': $words"
    fi
  done <<'TABLE'
match|ma
--null|match --nu
--sha256|hash --sha2
FerrimoHelper|logs Ferr
TABLE
  command -v zsh >/dev/null || skip "zsh is not installed"
  check_consumer "$prefix" "$libdir"
  check_exports "$prefix/$libdir/libKd.so.1"
  check_programs "$prefix" "$libdir"

  # 2. The system prefix /usr/local into a DESTDIR: the autostart entry goes
  #    where desktops read it, the unit where systemd reads it, the polkit
  #    action where polkit reads it.
  root=$work/root
  out=$(DESTDIR=$root cmake --install "$build" --prefix /usr/local 2>&1) ||
    fail "install DESTDIR: $out"
  check_tree "$root" /usr/local "$libdir" /usr/local/lib/systemd/user /etc/xdg/autostart \
    /usr/share/polkit-1/actions
  check_absent "$root/usr/local/etc"
  check_absent "$root/usr/local/share/polkit-1"
  verify_services /usr/local/lib/systemd/user/ferrimo-mount-agent.service \
    "$root/etc/xdg/autostart/ferrimo-mount-agent.desktop" "$root/usr/local/share/man" "$root"
  ;;
package)
  multiarch=$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
  libdir=lib/$multiarch
  tree=$work/build
  # Configured as Debian's tools do; the library folder is the multiarch one
  # without being asked.
  out=$(cmake -S "$source" -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE= \
    -DKD_BUILD_TESTS=OFF -DKD_BUILD_BENCH=OFF \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DCMAKE_INSTALL_LOCALSTATEDIR=/var 2>&1) || { echo "$out"; exit 1; }
  out=$(cmake --build "$tree" -j "$(nproc)" 2>&1) || { echo "$out"; exit 1; }
  ferrimo_built=$(sed -n 's/^KD_BUILD_FERRIMO:BOOL=//p' "$tree/CMakeCache.txt")
  root=$work/root
  out=$(DESTDIR=$root cmake --install "$tree" 2>&1) || fail "install DESTDIR: $out"
  check_tree "$root" /usr "$libdir" /usr/lib/systemd/user /etc/xdg/autostart \
    /usr/share/polkit-1/actions
  verify_services /usr/lib/systemd/user/ferrimo-mount-agent.service \
    "$root/etc/xdg/autostart/ferrimo-mount-agent.desktop" "$root/usr/share/man" "$root"

  # The packages: built by CPack, unpacked together into a temporary root.
  out=$(cd "$tree" && cpack -G DEB 2>&1) || { echo "$out"; exit 1; }
  debs=()
  for package in ferrimo libkd1 libkd-dev; do
    deb=$(ls "$tree/${package}_"*.deb 2>/dev/null | head -n1)
    [[ -f $deb ]] || { echo "no $package .deb: $out"; exit 1; }
    debs+=("$deb")
  done
  unpacked=$work/unpacked
  for deb in "${debs[@]}"; do dpkg -x "$deb" "$unpacked" || fail "dpkg -x $deb"; done
  check_tree "$unpacked" /usr "$libdir" /usr/lib/systemd/user /etc/xdg/autostart \
    /usr/share/polkit-1/actions
  # The packaged programs link libKd.so.1 from the system's library folder,
  # without an RPATH.
  for program in bin/kd bin/FerrimoHelper bin/ferrimo-mount-agent \
    libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo; do
    [[ $program != libexec/* || -e $unpacked/usr/$program ]] || continue
    dynamic=$(readelf -d "$unpacked/usr/$program" 2>&1)
    [[ $dynamic == *"Shared library: [libKd.so.1]"* ]] || fail "packaged $program does not link libKd.so.1"
    ! grep -q "RPATH\|RUNPATH" <<<"$dynamic" || fail "packaged $program has an RPATH"
  done
  version=$(dpkg-deb -f "${debs[0]}" Version)
  out=$(LD_LIBRARY_PATH=$unpacked/usr/$libdir "$unpacked/usr/bin/kd" --version)
  [[ $out == "kd ${version%-*}" ]] || fail "kd --version from the package: $out"
  # Each file in the package it belongs to.
  contents() { dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./|/|'; }
  ferrimo=$(contents "${debs[0]}") lib=$(contents "${debs[1]}") dev=$(contents "${debs[2]}")
  grep -qx "/usr/$libdir/libKd.so.1" <<<"$lib" || fail "libkd1 lacks libKd.so.1"
  ! grep -q "/libKd.so$\|/include/\|/cmake/\|/pkgconfig/" <<<"$lib" ||
    fail "libkd1 holds development files"
  for file in "/usr/$libdir/libKd.so" /usr/include/kd/log/KdLog.h \
    "/usr/$libdir/pkgconfig/kd.pc" "/usr/$libdir/cmake/Kd/KdConfig.cmake"; do
    grep -qx "$file" <<<"$dev" || fail "libkd-dev lacks $file"
  done
  ! grep -q "libKd\|/include/" <<<"$ferrimo" || fail "ferrimo holds library files"
  # What the packages need, said in their control files.
  # The library needs what it links; the programs need the library of their
  # own build, and what the agent uses itself (libmount, libsystemd).
  for lib in libc6 libssl3 libarchive13 libblkid1 libmount1 libsystemd0 libpam0g; do
    depends=$(dpkg-deb -f "${debs[1]}" Depends)
    [[ $depends == *"$lib"* ]] || fail "${debs[1]##*/} does not depend on $lib: $depends"
  done
  for lib in "libkd1 (= $version)" libc6 libmount1 libsystemd0; do
    depends=$(dpkg-deb -f "${debs[0]}" Depends)
    [[ $depends == *"$lib"* ]] || fail "${debs[0]##*/} does not depend on $lib: $depends"
  done
  if [[ $ferrimo_built == ON ]]; then
    [[ $(dpkg-deb -f "${debs[0]}" Depends) == *libqt6widgets6* ]] ||
      fail "ferrimo does not depend on Qt: $(dpkg-deb -f "${debs[0]}" Depends)"
    grep -qx /usr/libexec/ferrimo/Ferrimo.app/Contents/MacOS/Ferrimo <<<"$ferrimo" ||
      fail "the ferrimo package lacks Ferrimo"
  fi
  [[ $(dpkg-deb -f "${debs[0]}" Recommends) == *"sudo | pkexec"* ]] ||
    fail "ferrimo does not recommend sudo or pkexec"
  [[ $(dpkg-deb -f "${debs[2]}" Depends) == *"libkd1 (= $version)"* ]] ||
    fail "libkd-dev does not depend on its libkd1"
  description=$(dpkg-deb -f "${debs[0]}" Description)
  ! grep -q '^ *;' <<<"$description" || fail "a CMake list in the description: $description"
  control() { dpkg-deb --ctrl-tarfile "$1" | tar -xO "./$2" 2>/dev/null; }
  control "${debs[0]}" conffiles | grep -qx /etc/xdg/autostart/ferrimo-mount-agent.desktop ||
    fail "the autostart entry is not a conffile"
  control "${debs[1]}" triggers | grep -qx "activate-noawait ldconfig" ||
    fail "libkd1 has no ldconfig trigger"
  control "${debs[1]}" shlibs | grep -q "^libKd 1 libkd1" || fail "libkd1 has no shlibs"

  # Debian's checker: no errors, and no warning but those explained in
  # lintian-suppressed.
  if command -v lintian >/dev/null; then
    report=$(lintian --no-cfg --suppress-tags-from-file "$source/tests/install/lintian-suppressed" \
      "${debs[@]}" 2>&1)
    problems=$(grep '^[EW]: ' <<<"$report")
    [[ -z $problems ]] || fail "lintian: $problems"
  else
    skip "lintian is not installed"
  fi

  # Installed into this system and removed again, where that touches nothing
  # someone installed: every file goes, nothing is left behind.
  if ((EUID != 0)); then
    skip "installing the packages needs root"
  elif dpkg-query -W -f='${db:Status-Status}\n' ferrimo libkd1 libkd-dev 2>/dev/null |
    grep -qv '^not-installed$'; then
    skip "the packages are installed on this system already"
  else
    snapshot() { find /etc /usr /var/lib/dpkg/info -xdev 2>/dev/null | sort; }
    snapshot >"$work/before"
    purge() { DEBIAN_FRONTEND=noninteractive dpkg --purge libkd-dev ferrimo libkd1 2>&1; }
    trap 'purge >/dev/null; rm -rf "$work"' EXIT
    if out=$(DEBIAN_FRONTEND=noninteractive dpkg -i "${debs[@]}" 2>&1); then
      ldconfig -p | grep -q "libKd.so.1 " || fail "ldconfig does not know libKd.so.1 once installed"
      check_text /usr/share/polkit-1/actions/com.quillfen.ferrimo.privileged.policy \
        ">/usr/bin/kd-privileged</annotate>"
      out=$(/usr/bin/kd --version 2>&1) || fail "the installed kd: $out"
    else
      fail "dpkg -i: $out"
    fi
    out=$(purge) || fail "dpkg --purge: $out"
    trap 'rm -rf "$work"' EXIT
    snapshot >"$work/after"
    left=$(diff "$work/before" "$work/after")
    [[ -z $left ]] || fail "installing and removing the packages changed the system: $left"
    ! ldconfig -p | grep -q "libKd.so" || fail "ldconfig still knows libKd once removed"
  fi
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
