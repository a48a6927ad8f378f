#!/usr/bin/env bash
# kd hash against openssl dgst on one large file held in the page cache, side
# by side: MD5, SHA-1 and SHA-512, each tool run in turn, several rounds, best
# time of each kept (the least disturbed by other work on the machine). The
# CPU column is user plus system time of those runs: kd reads on a second
# thread, so it spends a little more CPU to take less time.
#
# Usage: bench/hash_bench.sh [KD] [SIZE_MIB] [ROUNDS]
#   KD        the kd tool (default build/default/tools/kd)
#   SIZE_MIB  size of the test file in MiB (default 1024)
#   ROUNDS    runs of each tool per digest (default 5)
# The file is made in ${TMPDIR:-/tmp} and removed at the end.
set -euo pipefail

kd=${1:-build/default/tools/kd}
size_mib=${2:-1024}
rounds=${3:-5}
[ -x "$kd" ] || { echo "hash_bench: no kd tool at $kd (build it first)" >&2; exit 2; }
command -v openssl >/dev/null || { echo "hash_bench: openssl not found" >&2; exit 2; }

file=$(mktemp "${TMPDIR:-/tmp}/kd_hash_bench.$$.XXXXXX")
trap 'rm -f "$file"' EXIT
head -c "$((size_mib << 20))" /dev/urandom >"$file"
cat "$file" >/dev/null
cat "$file" >/dev/null

# "wall user+system" seconds of one run, output discarded.
seconds() {
  local TIMEFORMAT='%R %U %S' t
  t=$({ time "$@" >/dev/null; } 2>&1)
  set -- $t
  echo "$1 $(echo "$2 + $3" | bc -l)"
}
# The run with the least wall time.
best() { printf '%s\n' "$@" | sort -g | head -1; }
mibps() { printf '%.0f' "$(echo "$size_mib / $1" | bc -l)"; }

echo "File: ${size_mib} MiB in the page cache; best of ${rounds} rounds each."
echo "Load average before: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores."
echo
echo "| Digest | kd hash (MiB/s) | openssl dgst (MiB/s) | kd / openssl | CPU s, kd / openssl |"
echo "|---|---:|---:|---:|---:|"
for algo in md5 sha1 sha512; do
  kd_runs=() ossl_runs=()
  for ((r = 0; r < rounds; r++)); do
    kd_runs+=("$(seconds "$kd" hash "--$algo" "$file")")
    ossl_runs+=("$(seconds openssl dgst "-$algo" "$file")")
  done
  read -r k kcpu <<<"$(best "${kd_runs[@]}")"
  read -r o ocpu <<<"$(best "${ossl_runs[@]}")"
  printf '| %s | %s | %s | %.2f | %.2f / %.2f |\n' "$algo" "$(mibps "$k")" "$(mibps "$o")" \
    "$(echo "$o / $k" | bc -l)" "$kcpu" "$ocpu"
done
echo
echo "Load average after: $(cut -d' ' -f1-3 /proc/loadavg)."
