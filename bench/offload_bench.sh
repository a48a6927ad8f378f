#!/usr/bin/env bash
# A whole card offloaded to 2 destinations, everything on a tmpfs so that the
# card is in memory and every side does the same work:
#   kd offload --hash xxh64 and --hash sha256 --no-mhl (the copy engine's own
#   verification), and once kd offload --hash xxh64 --reverify for the record;
#   against cp -r to each destination without any verification,
#   and against cp -r to each, then xxhsum -H1 (or sha256sum) of the card into
#   a list and xxhsum -c (sha256sum -c) of that list in both copies.
# The card: FILES files of mixed sizes, SIZE_MIB in all, in folders of 100:
# half the files are side files (a tenth of the bytes, 0.1 to 0.3 MiB), two
# fifths stills (0.5 to 1.5 MiB) and a tenth clips (1 to 9 MiB, half the
# bytes), in the default card's sizes.
# Each command runs in turn, several rounds, best wall time kept; the copies
# are removed before every run so each run writes new files (and kd offload
# finds no earlier manifest to resume from).
#
# Usage: bench/offload_bench.sh [BUILD] [ROUNDS] [FILES] [SIZE_MIB] [FOLDER]
#   BUILD     the build folder (default build/default)
#   ROUNDS    runs of each command (default 3)
#   FILES     files on the card (default 2000)
#   SIZE_MIB  bytes on the card in MiB (default 2048)
#   FOLDER    where the card and the copies go (default /dev/shm, a tmpfs)
set -euo pipefail

build=${1:-build/default}
rounds=${2:-3}
files=${3:-2000}
size_mib=${4:-2048}
folder=${5:-/dev/shm}
kd=$build/tools/kd
[ -x "$kd" ] || { echo "offload_bench: no $kd (build it first)" >&2; exit 2; }
for tool in xxhsum sha256sum bc; do
  command -v "$tool" >/dev/null || { echo "offload_bench: $tool not found" >&2; exit 2; }
done
# The card and two copies stay in memory at once.
need_kib=$((size_mib * 3 * 1024 + 262144))
avail_kib=$(df --output=avail -k "$folder" | tail -1)
((avail_kib > need_kib)) || { echo "offload_bench: $folder has ${avail_kib} KiB free, needs ${need_kib}" >&2; exit 2; }

work=$(mktemp -d "$folder/kd_offload_bench.$$.XXXXXX")
trap 'rm -rf "$work"' EXIT
card=$work/CARD

# The card's files, "kind size" a line, from a fixed seed: the same card on
# every machine. Of every 10 files 5 are side files, 4 stills and 1 a clip.
files_of_card() {
  awk -v n="$files" -v total="$((size_mib << 20))" 'BEGIN {
    srand(16)
    for (i = 0; i < n; i++) {
      k[i] = i % 10 < 5 ? 0 : i % 10 < 9 ? 1 : 2
      s[i] = k[i] == 0 ? 1 + rand() : k[i] == 1 ? 0.5 + rand() : 0.25 + 1.5 * rand()
      sum[k[i]] += s[i]
    }
    # Each kind gets its share of the bytes; within a kind sizes vary.
    share[0] = 0.10; share[1] = 0.40; share[2] = 0.50
    for (i = 0; i < n; i++) printf "%d %d\n", k[i], int(total * share[k[i]] * s[i] / sum[k[i]])
  }'
}

echo "Making the card: $files files, $size_mib MiB in $card" >&2
i=0
while read -r kind size; do
  dir=$(printf '%s/DCIM/%03dEOS5D' "$card" $((100 + i / 100)))
  ((i % 100 == 0)) && mkdir -p "$dir"
  case $kind in
    0) name=$(printf 'MVI_%04d.XML' "$i") ;;
    1) name=$(printf 'IMG_%04d.CR2' "$i") ;;
    *) name=$(printf 'MVI_%04d.MOV' "$i") ;;
  esac
  head -c "$size" /dev/urandom >"$dir/$name"
  i=$((i + 1))
done < <(files_of_card)
# Bytes of the files below a folder, leaving out manifests.
bytes_in() { find "$1" -path '*/ascmhl' -prune -o -name 'offload-report_*' -prune -o -type f -printf '%s\n' | awk '{ n += $1 } END { print n + 0 }'; }
card_bytes=$(bytes_in "$card")
card_mib=$(echo "$card_bytes / 1048576" | bc -l)

clean() { rm -rf "$work/a" "$work/b" "$work/sums"; mkdir -p "$work/a" "$work/b"; }
# "wall user+system" seconds of one run (after cleaning), output discarded. A
# failed run is fatal: a figure of a run that did not do its work is no figure.
seconds() {
  clean
  local TIMEFORMAT='%R %U %S' t wall user system
  if ! t=$({ time "$@" >/dev/null 2>"$work/stderr"; } 2>&1); then
    echo "offload_bench: $* failed:" >&2
    cat "$work/stderr" >&2
    exit 1
  fi
  read -r wall user system <<<"$t"
  echo "$wall $(echo "$user + $system" | bc -l)"
}
best() { printf '%s\n' "$@" | sort -g | head -1; }

kd_xxh64() { "$kd" offload "$card" "$work/a" "$work/b" --hash xxh64; }
# The hash list has no sha256 kind: that run keeps none.
kd_sha256() { "$kd" offload "$card" "$work/a" "$work/b" --hash sha256 --no-mhl; }
kd_reverify() { "$kd" offload "$card" "$work/a" "$work/b" --hash xxh64 --reverify; }
cp_two() { cp -r "$card" "$work/a/" && cp -r "$card" "$work/b/"; }
# The usual by-hand workflow: copy, make a list of the card, check each copy
# against it.
cp_sum() {
  local -a sum check
  read -ra sum <<<"$1"
  read -ra check <<<"$2"
  cp_two
  (cd "$card" && find . -type f -print0 | xargs -0 "${sum[@]}") >"$work/sums"
  (cd "$work/a/CARD" && "${check[@]}" "$work/sums")
  (cd "$work/b/CARD" && "${check[@]}" "$work/sums")
}
cp_xxh64() { cp_sum "xxhsum -H1" "xxhsum -c --quiet"; }
cp_sha256() { cp_sum sha256sum "sha256sum -c --quiet"; }

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
declare -A runs
names=(kd_xxh64 kd_sha256 kd_reverify cp_two cp_xxh64 cp_sha256)
for ((r = 0; r < rounds; r++)); do
  for n in "${names[@]}"; do runs[$n]+="$(seconds "$n"),"; done
done
declare -A t cpu
for n in "${names[@]}"; do
  IFS=, read -ra list <<<"${runs[$n]}"
  read -r "t[$n]" "cpu[$n]" <<<"$(best "${list[@]}")"
done
# A check that kd offload did its work: both copies whole.
clean
kd_xxh64 >/dev/null 2>&1
for d in a b; do
  copied=$(bytes_in "$work/$d/CARD")
  [ "$copied" = "$card_bytes" ] || { echo "offload_bench: $work/$d/CARD holds $copied bytes, not $card_bytes" >&2; exit 1; }
done

printf 'Card: %d files, %.0f MiB on %s (%s), 2 destinations on the same; best of %d runs.\n' \
  "$files" "$card_mib" "$(df --output=fstype "$folder" | tail -1)" "$folder" "$rounds"
echo "Load average before: $load_before; after: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores."
echo
echo "| workflow | seconds | MiB/s of card | CPU seconds | against kd offload --hash xxh64 |"
echo "|---|---:|---:|---:|---:|"
row() {
  printf '| %s | %.2f | %.0f | %.2f | %s |\n' "$1" "${t[$2]}" "$(echo "$card_mib / ${t[$2]}" | bc -l)" "${cpu[$2]}" "$3"
}
ratio() { printf '%.2fx' "$(echo "${t[$1]} / ${t[kd_xxh64]}" | bc -l)"; }
row "kd offload --hash xxh64" kd_xxh64 "1.00x"
row "kd offload --hash sha256 --no-mhl" kd_sha256 "$(ratio kd_sha256)"
row "kd offload --hash xxh64 --reverify" kd_reverify "$(ratio kd_reverify)"
row "cp -r to each, no verification" cp_two "$(ratio cp_two)"
row "cp -r to each, xxhsum -H1 of the card, xxhsum -c in both copies" cp_xxh64 "$(ratio cp_xxh64)"
row "cp -r to each, sha256sum of the card, sha256sum -c in both copies" cp_sha256 "$(ratio cp_sha256)"
echo
goal() { if (($(echo "$1" | bc -l))); then echo "met"; else echo "MISSED"; fi; }
printf 'Goal: kd offload --hash xxh64 at most 1.1x the two cp -r: %.2fx (%s).\n' \
  "$(echo "${t[kd_xxh64]} / ${t[cp_two]}" | bc -l)" "$(goal "${t[kd_xxh64]} <= 1.1 * ${t[cp_two]}")"
printf 'Goal: kd offload --hash xxh64 at most a third of cp -r + xxhsum: %.2f of it (%s).\n' \
  "$(echo "${t[kd_xxh64]} / ${t[cp_xxh64]}" | bc -l)" "$(goal "${t[kd_xxh64]} <= ${t[cp_xxh64]} / 3")"
printf 'Goal: kd offload --hash xxh64 at most a third of cp -r + sha256sum: %.2f of it (%s).\n' \
  "$(echo "${t[kd_xxh64]} / ${t[cp_sha256]}" | bc -l)" "$(goal "${t[kd_xxh64]} <= ${t[cp_sha256]} / 3")"
printf 'Like for like: kd offload --hash sha256 takes %.2f of cp -r + sha256sum.\n' \
  "$(echo "${t[kd_sha256]} / ${t[cp_sha256]}" | bc -l)"
