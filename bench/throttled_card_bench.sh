#!/usr/bin/env bash
# A card that reads at a camera card's speed: kd offload --hash xxh64 to two
# tmpfs folders against one plain read of the same files (cat to /dev/null),
# both under the same read limit. The card is read once for both copies and
# its verification, so the offload should take at most about as long as the
# plain read (the goal: 1.02 times).
#
# The card: an ext4 image in /dev/shm on a loop device, FILES files of
# SIZE_MIB MiB in all (random bytes, so nothing compresses or dedups). The
# limit: the block-I/O controller's read limit on the loop device, for a
# cgroup that each timed command runs in alone: cgroup v2's io.max where the
# io controller is there, else cgroup v1's blkio.throttle.read_bps_device.
# (Device-mapper's delay target adds latency, not a rate, and may be missing;
# it is not used.) The card is mounted afresh, read-only, before every run,
# so that nothing of it is in the page cache. Each command runs ROUNDS times
# in turn; the best wall time is kept. Root only.
#
# Usage: bench/throttled_card_bench.sh [BUILD] [ROUNDS] [FILES] [SIZE_MIB] [RATE_MIB]
#   BUILD     the build folder (default build/default)
#   ROUNDS    runs of each command (default 3)
#   FILES     files on the card (default 64)
#   SIZE_MIB  bytes on the card in MiB (default 1024)
#   RATE_MIB  the read limit in MiB/s (default 100)
set -euo pipefail

build=${1:-build/default}
rounds=${2:-3}
files=${3:-64}
size_mib=${4:-1024}
rate_mib=${5:-100}
kd=$build/tools/kd
[ "$(id -u)" -eq 0 ] || { echo "throttled_card_bench: needs root (loop device, cgroup)" >&2; exit 2; }
[ -x "$kd" ] || { echo "throttled_card_bench: no $kd (build it first)" >&2; exit 2; }
for tool in losetup mkfs.ext4 bc; do
  command -v "$tool" >/dev/null || { echo "throttled_card_bench: $tool not found" >&2; exit 2; }
done
need_kib=$((size_mib * 3 * 1024 + 262144))
avail_kib=$(df --output=avail -k /dev/shm | tail -1)
((avail_kib > need_kib)) || { echo "throttled_card_bench: /dev/shm has ${avail_kib} KiB free, needs ${need_kib}" >&2; exit 2; }

# Where the limit can be set.
cgroup=""
limit_file=""
if [ -f /sys/fs/cgroup/cgroup.controllers ] && grep -qw io /sys/fs/cgroup/cgroup.controllers; then
  cgroup_parent=/sys/fs/cgroup
  limit_file=io.max
elif [ -f /sys/fs/cgroup/blkio/blkio.throttle.read_bps_device ]; then
  cgroup_parent=/sys/fs/cgroup/blkio
  limit_file=blkio.throttle.read_bps_device
else
  echo "throttled_card_bench: no block-I/O controller (cgroup v2 io or v1 blkio) to limit reads with" >&2
  exit 2
fi

work=$(mktemp -d /dev/shm/kd_throttled_bench.$$.XXXXXX)
image=$work/card.img
mnt=$work/CARD
loop=""
cleanup() {
  mountpoint -q "$mnt" 2>/dev/null && umount "$mnt"
  [ -n "$loop" ] && losetup -d "$loop"
  [ -n "$cgroup" ] && [ -d "$cgroup" ] && rmdir "$cgroup"
  rm -rf "$work"
}
trap cleanup EXIT

echo "Making the card: $files files, $size_mib MiB, on a loop device" >&2
truncate -s $((size_mib + size_mib / 10 + 64))M "$image"
mkfs.ext4 -q -F -m 0 "$image"
loop=$(losetup --find --show "$image")
mkdir -p "$mnt" "$work/a" "$work/b"
mount "$loop" "$mnt"
mkdir -p "$mnt/DCIM/100CLIP"
per_file=$(((size_mib << 20) / files))
for ((i = 0; i < files; i++)); do
  head -c "$per_file" /dev/urandom >"$mnt/DCIM/100CLIP/C$(printf %04d "$i").MXF"
done
sync
umount "$mnt"

majmin=$(lsblk -dno MAJ:MIN "$loop" | tr -d ' ')
cgroup=$cgroup_parent/kd_throttled_bench.$$
mkdir "$cgroup"
if [ "$limit_file" = io.max ]; then
  echo "$majmin rbps=$((rate_mib << 20))" >"$cgroup/io.max"
else
  echo "$majmin $((rate_mib << 20))" >"$cgroup/$limit_file"
fi

# Runs a command in the limited cgroup on a freshly mounted card; its wall
# time in seconds on standard output.
timed() {
  rm -rf "${work:?}/a/"* "${work:?}/b/"*
  mount -o ro "$loop" "$mnt"
  local start end
  start=$(date +%s.%N)
  sh -c 'echo $$ >"$1/cgroup.procs" && shift && exec "$@"' sh "$cgroup" "$@" >/dev/null
  end=$(date +%s.%N)
  umount "$mnt"
  echo "$end - $start" | bc
}

# Every file of the card once, in name order, as a copy tool would.
plain_read='find "$0" -type f -print0 | sort -z | xargs -0 cat >/dev/null'

best_read=""
best_kd=""
for ((r = 1; r <= rounds; r++)); do
  t_read=$(timed bash -c "$plain_read" "$mnt")
  t_kd=$(timed "$kd" offload "$mnt" "$work/a" "$work/b" --hash xxh64)
  echo "round $r: plain read ${t_read} s, kd offload ${t_kd} s" >&2
  if [ -z "$best_read" ] || (($(echo "$t_read < $best_read" | bc))); then best_read=$t_read; fi
  if [ -z "$best_kd" ] || (($(echo "$t_kd < $best_kd" | bc))); then best_kd=$t_kd; fi
done

ratio=$(echo "scale=3; $best_kd / $best_read" | bc)
rate=$(echo "scale=1; $size_mib / $best_read" | bc)
printf 'card %d MiB in %d files, read limit %d MiB/s (%s)\n' "$size_mib" "$files" "$rate_mib" "$limit_file"
printf 'plain read (cat)             %8.2f s  (%s MiB/s)\n' "$best_read" "$rate"
printf 'kd offload --hash xxh64, 2x  %8.2f s  (%sx the plain read; goal 1.02x)\n' "$best_kd" "$ratio"
