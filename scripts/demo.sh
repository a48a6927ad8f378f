#!/usr/bin/env bash
# Demo: builds everything, shows how camera cards are recognised, then the
# whole path on a sample card: the helper finds it on its mount and starts
# Ferrimo, which offloads it to two folders, verified. Where a display is
# there ($DISPLAY, or Xvfb started here) that is the real Ferrimo window,
# started in its scripting mode, and a picture of the finished window goes to
# docs/images/ferrimo-offload.png; elsewhere a stand-in runs kd offload.
#
# Usage: scripts/demo.sh [VOLUME...]
#   Without arguments, sample cards are made in a temporary folder (removed at
#   the end). With arguments, the given folders (such as /media/$USER/CARD) are
#   checked instead; nothing is written to them and nothing is offloaded.
set -euo pipefail
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

say "Installing missing Debian packages (if any)"
bash scripts/deps.sh

say "Configuring and building (build/default)"
if ! out=$(cmake --preset default 2>&1); then
  printf '%s\n' "$out" >&2
  exit 1
fi
cmake --build --preset default -j"$(nproc)"
kd=build/default/tools/kd

workdir=$(mktemp -d "${TMPDIR:-/tmp}/ferrimo-demo.XXXXXX")
cleanup() {
  [ -n "${xvfb_pid:-}" ] && kill "$xvfb_pid" 2>/dev/null
  [ -n "${card_mount:-}" ] && umount -l "$card_mount" 2>/dev/null && rmdir "$card_mount" 2>/dev/null
  [ -n "${demo_user:-}" ] && userdel "$demo_user" 2>/dev/null && rmdir "/media/$demo_user" 2>/dev/null
  rm -rf "$workdir"
}
trap cleanup EXIT
chmod 755 "$workdir"

# make_card NAME PATH... : a volume folder NAME holding the given files.
make_card() {
  local card="$workdir/$1"
  shift
  fill_card "$card" "$@"
  printf '%s\n' "$card"
}

# fill_card FOLDER PATH... : the given files below FOLDER.
fill_card() {
  local card="$1"
  shift
  mkdir -p "$card"
  for f in "$@"; do
    mkdir -p "$card/$(dirname "$f")"
    printf 'sample\n' >"$card/$f"
  done
}

# fill_photo_card FOLDER : a stills camera's card with a few MiB of clips,
# and the AppleDouble file and trash folder that a Mac leaves on it.
fill_photo_card() {
  local dcim="$1/DCIM/100EOS5D" f
  mkdir -p "$dcim" "$1/.Trashes/501"
  head -c 1300000 /dev/urandom >"$dcim/IMG_0001.CR2"
  head -c 1450000 /dev/urandom >"$dcim/IMG_0002.CR2"
  head -c 5200000 /dev/urandom >"$dcim/MVI_0003.MOV"
  head -c 11000 /dev/urandom >"$dcim/MVI_0003.THM"
  head -c 4096 /dev/zero >"$dcim/._IMG_0001.CR2"
  head -c 900000 /dev/urandom >"$1/.Trashes/501/IMG_0000.CR2"
  for f in IMG_0001.CR2 IMG_0002.CR2 MVI_0003.MOV MVI_0003.THM; do
    touch -d "2026-03-14 16:2${f:7:1}:05" "$dcim/$f"
  done
}

describe() {
  case "$1" in
    0) echo "CONTENTS/LASTCLIP.TXT" ;;
    1) echo "a root entry with the extension RDM" ;;
    2) echo "MEDIAPRO.XML at the root" ;;
    3) echo "a BPAV entry at the root" ;;
    4) echo "PRIVATE/AVCHD or AVCHD" ;;
    5) echo "DCIM with a folder beginning 100EOS" ;;
    6) echo "a project folder named like the volume, with its BIN file and clips" ;;
    7) echo "CONTENTS/CLIPS*/*/*.MXF clips" ;;
    8) echo "hs_param.bin at the root or one folder down" ;;
    9) echo "a DJI_ volume with ????_????_????????_*/*.mov clips" ;;
    *) echo "no known card layout: Ferrimo would not be started" ;;
  esac
}

if (($# > 0)); then
  volumes=("$@")
  say "Checking the given volumes"
else
  say "Making sample cards in $workdir"
  volumes=(
    "$(make_card CARD CONTENTS/CLIPS001/C0001/C0001.MXF CONTENTS/CLIPS001/C0001/C0001M01.XML)"
    "$(fill_photo_card "$workdir/PHOTO_CARD" && printf '%s\n' "$workdir/PHOTO_CARD")"
    "$(make_card SHOOT1 SHOOT1/SHOOT1_AVID.ale SHOOT1/SHOOT1_BIN.bin SHOOT1/SHOO_0001.mov)"
    "$(make_card DJI_0001 0001_0042_20240315_A/DJI_0042.mov)"
    "$(make_card USB_STICK Documents/notes.txt .DS_Store)"
  )
  for v in "${volumes[@]}"; do
    (cd "$workdir" && find "${v#"$workdir"/}" -type f | sort | sed 's/^/    /')
  done
fi

say "$kd detect ${volumes[*]}"
"$kd" detect "${volumes[@]}" | tee "$workdir/codes.txt"

say "What the codes mean"
while IFS=$'\t' read -r code path; do
  printf '  %-3s %-14s %s\n' "$code" "$(basename "$path")" "$(describe "$code")"
done <"$workdir/codes.txt"
cat <<'EOF'

On a mount, FerrimoHelper checks the newest removable volume the same way and
starts Ferrimo with "-ferrimoVolume <volume>" only for codes 0 to 9.
Details: docs/cards.md. Try also: build/default/tools/kd match '<folder>/*/*.mov'
EOF

(($# > 0)) && exit 0

# The helper itself, as the system runs it on a mount, in an application
# folder whose Contents/MacOS/Ferrimo starts the real Ferrimo window when a
# display is there: with --auto-offload to two folders (a RAID and a shuttle
# drive), every copy read back from the device and the card read twice,
# quitting when done and saving a picture of the finished window. Without a
# display it is a stand-in that runs kd offload the same way.
helper=build/default/src/FerrimoHelper
ferrimo=build/default/Ferrimo.app/Contents/MacOS/Ferrimo
app="$workdir/Ferrimo.app"
offload="$workdir/offload"
raid="$offload/RAID"
shuttle="$offload/SHUTTLE"
shot="$offload/ferrimo-offload.png"
mkdir -p "$app/Contents/MacOS" "$raid" "$shuttle"

display=${DISPLAY:-}
if [ -x "$ferrimo" ] && [ -z "$display" ] && command -v Xvfb >/dev/null; then
  exec {xvfb_fd}<> <(:)
  Xvfb -displayfd "$xvfb_fd" -screen 0 1024x900x24 -nolisten tcp >/dev/null 2>&1 &
  xvfb_pid=$!
  read -r -t 10 -u "$xvfb_fd" number && display=":$number"
fi
if [ -x "$ferrimo" ] && [ -n "$display" ]; then
  use_window=true
  {
    cat <<'LAUNCHER'
#!/bin/bash
# Starts the real Ferrimo for the demo (written by scripts/demo.sh): the
# helper's arguments, then the scripting options.
(IFS=$'\t'; printf '%s\n' "$*") >>"${0%/*}/launches.log"
LAUNCHER
    printf '%q "$@" --auto-offload %q --auto-offload %q --reverify --source-verify --quit-when-done --screenshot %q >%q 2>&1\n' \
      "$PWD/$ferrimo" "$raid" "$shuttle" "$shot" "$offload/progress.txt"
    # shellcheck disable=SC2016
    printf 'echo $? >%q && mv %q %q\n' "$offload/status.new" "$offload/status.new" "$offload/status"
  } >"$app/Contents/MacOS/Ferrimo"
else
  use_window=false
  {
    cat <<'STANDIN'
#!/bin/bash
# A stand-in for Ferrimo, written by scripts/demo.sh.
(IFS=$'\t'; printf '%s\n' "$*") >>"${0%/*}/launches.log"
[ "$1" = -ferrimoVolume ] || exit 2
STANDIN
    # shellcheck disable=SC2016 # $2 and $? are the stand-in's
    printf '%q offload "$2" %q %q --reverify --source-verify >%q 2>%q\n' "$PWD/$kd" "$raid" "$shuttle" \
      "$offload/summary.txt" "$offload/progress.txt"
    # shellcheck disable=SC2016
    printf 'echo $? >%q && mv %q %q\n' "$offload/status.new" "$offload/status.new" "$offload/status"
  } >"$app/Contents/MacOS/Ferrimo"
fi
chmod 755 "$app/Contents/MacOS/Ferrimo"
chmod 777 "$app/Contents/MacOS"
home="$workdir/home"
mkdir -p "$home"

if [ "$(id -u)" -eq 0 ] && command -v useradd >/dev/null && command -v setpriv >/dev/null; then
  # Root's user folders would be those of the user at the console, and a
  # server has none: the demo runs the helper as a throwaway ordinary user.
  demo_user="ferrimo-demo$$"
  demo_user=${demo_user:0:30}
  useradd -M -d "$home" -s /usr/sbin/nologin -U "$demo_user"
  chown "$demo_user:" "$home"
  chown -R "$demo_user:" "$offload"
  card_mount="/media/$demo_user/PHOTO_CARD"
  mkdir -p "$card_mount"
  say "Mounting a sample card (tmpfs) at $card_mount"
  mount -t tmpfs -o size=16m,mode=0755 tmpfs "$card_mount"
  fill_photo_card "$card_mount"
  touch "$card_mount"
  (cd "$card_mount" && find . -type f -printf '    %-46P %9s bytes  %TY-%Tm-%Td %TH:%TM\n' | sort -k1,1)
  run_helper() {
    (cd "$app" && env -i HOME="$home" USER="$demo_user" PATH=/usr/bin:/bin DISPLAY="$display" \
      setpriv --reuid="$demo_user" --regid="$demo_user" --clear-groups -- "$OLDPWD/$helper" "$@")
  }
else
  say "Not root: no card can be mounted, so the helper finds no removable volume"
  run_helper() {
    (cd "$app" && env -i HOME="$home" PATH=/usr/bin:/bin DISPLAY="$display" "$OLDPWD/$helper" "$@")
  }
fi

say "Running FerrimoHelper in $app (it waits 2 seconds for the volume to settle)"
run_helper
echo "exit status: $?"
sleep 0.3

say "The helper's log ($home/.local/state/Quillfen/FerrimoHelper.1.log)"
sed 's/^/    /' "$home/.local/state/Quillfen/FerrimoHelper.1.log"

if $use_window; then
  say "Ferrimo: the real window (display $display${xvfb_pid:+, Xvfb started by the demo})"
else
  say "Ferrimo: a stand-in running kd offload (no display: neither \$DISPLAY nor Xvfb)"
fi
say "How Ferrimo was started"
if [ -s "$app/Contents/MacOS/launches.log" ]; then
  sed 's/^/    Contents\/MacOS\/Ferrimo /; s/\t/ /g' "$app/Contents/MacOS/launches.log"
  card=$card_mount
  if $use_window; then
    say "Ferrimo offloads $card to $raid and $shuttle (--reverify --source-verify) and quits when done"
  else
    say "The stand-in Ferrimo runs: kd offload $card $raid $shuttle --reverify --source-verify"
  fi
  for ((i = 0; i < 600; i++)); do
    [ -e "$offload/status" ] && break
    sleep 0.1
  done
  [ -e "$offload/status" ] || { echo "Ferrimo did not end within a minute" >&2; exit 1; }
  status=$(cat "$offload/status")
else
  echo "    (not started)"
  card="$workdir/PHOTO_CARD"
  status=0
  if $use_window; then
    say "Offloading the sample card in the Ferrimo window directly"
    DISPLAY="$display" "$ferrimo" -ferrimoVolume "$card" --auto-offload "$raid" --auto-offload "$shuttle" \
      --reverify --source-verify --quit-when-done --screenshot "$shot" >"$offload/progress.txt" 2>&1 ||
      status=$?
  else
    say "Offloading the sample card directly: kd offload $card $raid $shuttle --reverify --source-verify"
    "$kd" offload "$card" "$raid" "$shuttle" --reverify --source-verify >"$offload/summary.txt" \
      2>"$offload/progress.txt" || status=$?
  fi
fi
if $use_window; then
  log="$home/.local/state/Quillfen/Ferrimo.1.log"
  say "Ferrimo's log ($log)"
  [ -f "$log" ] && grep -v ' - \(Version\|Path\|System\|Running in\)' "$log" | sed 's/^/    /'
  if [ -s "$shot" ]; then
    mkdir -p docs/images
    cp "$shot" docs/images/ferrimo-offload.png
    echo "    The finished window: docs/images/ferrimo-offload.png"
  fi
else
  sed 's/^/    /' "$offload/summary.txt"
fi
echo "exit status: $status"
if [ "$status" != 0 ]; then
  echo "Ferrimo's messages:" >&2
  sed 's/^/    /' "$offload/progress.txt" >&2
  exit 1
fi

name=$(basename "$card")
say "What $raid/$name holds (the card's .Trashes and ._ file stay behind)"
(cd "$raid/$name" && find . -type f -printf '    %-46P %9s bytes  %TY-%Tm-%Td %TH:%TM\n' | sort -k1,1)
if diff -r -x ascmhl -x 'offload-report_*' "$raid/$name" "$shuttle/$name" >/dev/null; then
  echo "    $shuttle/$name holds the same files, and a manifest and a report of its own"
else
  echo "    $shuttle/$name differs:" &&
    diff -r -x ascmhl -x 'offload-report_*' "$raid/$name" "$shuttle/$name" | sed 's/^/    /'
fi

manifest=$(find "$raid/$name/ascmhl" -name '*.mhl' | sort | tail -n1)
say "The first file in the manifest $manifest"
sed -n '/<hash>/,/<\/hash>/{p;/<\/hash>/q}' "$manifest"

report=$(find "$raid/$name" -maxdepth 1 -name 'offload-report_*.csv' | sort | tail -n1)
say "The transfer report ${report%.csv}.html (a page that prints well), as CSV"
sed 's/^/    /' "$report"

say "Checking the copy later, without the card: kd verify --no-mhl $raid/$name"
"$kd" verify --no-mhl "$raid/$name" 2>/dev/null | sed 's/^/    /'
