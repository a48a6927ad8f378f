#!/usr/bin/env bash
# The verified copy on one file, everything on a tmpfs so that every side
# does the same work in memory:
#   kd copy --verify sha256 to 2 destinations
#   against cp to each, then sha256sum of the source and both copies,
#   and against a single-threaded loop of 64 KiB chunks with an unbuffered
#   write, a seek back and a read back per destination (kd_copy_literal_bench);
#   kd copy --verify none against cp to each of the 2 destinations.
# Each command runs in turn, several rounds, best wall time kept; the copies
# are removed before every run so each run writes new files.
#
# Usage: bench/copy_bench.sh [BUILD] [SIZE_MIB] [ROUNDS] [FOLDER]
#   BUILD     the build folder (default build/default)
#   SIZE_MIB  size of the file (default 1024)
#   ROUNDS    runs of each command (default 3)
#   FOLDER    where the files go (default /dev/shm, a tmpfs)
set -euo pipefail

build=${1:-build/default}
size_mib=${2:-1024}
rounds=${3:-3}
folder=${4:-/dev/shm}
kd=$build/tools/kd
literal=$build/bench/kd_copy_literal_bench
for tool in "$kd" "$literal"; do
  [ -x "$tool" ] || { echo "copy_bench: no $tool (build it first)" >&2; exit 2; }
done

work=$(mktemp -d "$folder/kd_copy_bench.$$.XXXXXX")
trap 'rm -rf "$work"' EXIT
src=$work/source.mov
head -c "$((size_mib << 20))" /dev/urandom >"$src"

clean() { rm -rf "$work/a" "$work/b"; mkdir -p "$work/a" "$work/b"; }
# Wall seconds of one run (after cleaning), output discarded.
seconds() {
  clean
  local TIMEFORMAT='%R' t
  t=$({ time "$@" >/dev/null 2>&1; } 2>&1)
  echo "$t"
}
best() { printf '%s\n' "$@" | sort -g | head -1; }
mibps() { printf '%.0f' "$(echo "$size_mib / $1" | bc -l)"; }

kd_sha() { "$kd" copy --verify sha256 "$src" "$work/a/x" "$work/b/x"; }
cp_sha() { cp "$src" "$work/a/x" && cp "$src" "$work/b/x" && sha256sum "$src" "$work/a/x" "$work/b/x"; }
loop_sha() { "$literal" "$src" "$work/a/x" "$work/b/x"; }
kd_none() { "$kd" copy --verify none "$src" "$work/a/x" "$work/b/x"; }
cp_two() { cp "$src" "$work/a/x" && cp "$src" "$work/b/x"; }

declare -A runs
names=(kd_sha cp_sha loop_sha kd_none cp_two)
for ((r = 0; r < rounds; r++)); do
  for n in "${names[@]}"; do runs[$n]+="$(seconds "$n") "; done
done
declare -A t
for n in "${names[@]}"; do t[$n]=$(best ${runs[$n]}); done

echo "File: ${size_mib} MiB on $(df --output=fstype "$folder" | tail -1) ($folder), 2 destinations; best of ${rounds} runs."
echo "Load average: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores."
echo
echo "| workflow | seconds | MiB/s of source | kd copy is |"
echo "|---|---:|---:|---:|"
row() { printf '| %s | %.2f | %s | %s |\n' "$1" "$2" "$(mibps "$2")" "$3"; }
row "kd copy --verify sha256" "${t[kd_sha]}" ""
row "cp to each, sha256sum of all three" "${t[cp_sha]}" "$(printf '%.1fx faster' "$(echo "${t[cp_sha]} / ${t[kd_sha]}" | bc -l)")"
row "single-threaded 64 KiB loop, read back" "${t[loop_sha]}" "$(printf '%.1fx faster' "$(echo "${t[loop_sha]} / ${t[kd_sha]}" | bc -l)")"
row "kd copy --verify none" "${t[kd_none]}" ""
row "cp to each" "${t[cp_two]}" "$(printf '%.2fx the throughput' "$(echo "${t[cp_two]} / ${t[kd_none]}" | bc -l)")"
