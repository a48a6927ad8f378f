#!/usr/bin/env bash
# Builds and runs the tests. Exits non-zero when a test fails.
#
# Usage: scripts/test.sh [preset]   one pass: default (the default), sanitize,
#                                   tsan, fuzz or format
#        scripts/test.sh --all      every pass CI runs (also when CI=true):
#   0. format:   clang-format-14 finds nothing to change in src, tools, tests,
#                bench and app;
#   1. default:  the whole build and every test;
#   2. fuzz:     each libFuzzer target for KD_FUZZ_SECONDS (20) from its seeds,
#                when clang is installed; the libraries build with clang's
#                lock checks (-Wthread-safety) as errors;
#   3. tsan:     the concurrent parts (log, runner, work queue, hashes, the
#                verified copy, the offload and the later check, with their
#                fault and root tests) under the thread sanitizer; tests of
#                single-threaded parsers and file operations run in pass 4;
#   4. sanitize: the whole suite under the address and undefined-behaviour
#                sanitizers (the packaging tests stay in the default pass).
# Each pass builds only the targets its tests need and ends with ctest's
# summary; the first pass that fails ends the run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

jobs="$(nproc)"
all=false
preset=default
for arg in "$@"; do
  case "$arg" in
    --all) all=true ;;
    -h | --help)
      sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'
      exit 0
      ;;
    *) preset="$arg" ;;
  esac
done
[ "${CI:-}" = "true" ] && all=true

# The tests of executables a pass did not build show up as "<target>_NOT_BUILT".
not_built='_NOT_BUILT$'

pass() {
  echo "=== $1 ($(date -u +%H:%M:%S), load $(cut -d' ' -f1-3 /proc/loadavg))"
}

run_default() {
  pass "default: build and every test"
  cmake --preset default >/dev/null
  cmake --build --preset default -j "$jobs"
  ctest --preset default -j "$jobs" --timeout 300
}

run_format() {
  pass "format: clang-format-14 over src tools tests bench app"
  find src tools tests bench app -path tests/third_party -prune -o \( -name '*.h' -o -name '*.cpp' \) \
    -print0 | xargs -0 clang-format-14 --dry-run -Werror
}

run_fuzz() {
  if ! command -v clang++ >/dev/null; then
    echo "=== fuzz: skipped, clang++ is not installed"
    return 0
  fi
  pass "fuzz: each target for ${KD_FUZZ_SECONDS:-20} s"
  cmake --preset fuzz -DKD_FUZZ_SECONDS="${KD_FUZZ_SECONDS:-20}" >/dev/null
  cmake --build --preset fuzz -j "$jobs" --target kd_fuzzers
  # Each fuzzer uses one core and starts no children: one per core.
  ctest --preset fuzz -j "$jobs"
}

run_tsan() {
  pass "tsan: the concurrent parts"
  cmake --preset tsan >/dev/null
  cmake --build --preset tsan -j "$jobs" --target kd_log_tests kd_tasks_tests kd_common_tests \
    kd_files_tests kd_files_root_tests
  # Of the root tests only the verified copy's and the offload's (full
  # volumes, cards and destinations unmounted mid-run): the others mount and
  # watch, with nothing concurrent.
  ctest --preset tsan -j "$jobs" --timeout 300 -L root -R '^(CopyRoot|OffloadRoot)\.'
  local serial='Operations|AscMhl|MhlInterop|MhlDirectoryHashes|PropertyList|PlistFormat|XmlReader'
  serial+='|Archives|WildcardTree|NameMatchesWildcard|SettingsFile|Path|LabelColors|FileNames'
  serial+='|TransferReport|Format|KdHashTool|KdFileCommands|KdToolOutput'
  ctest --preset tsan -j "$jobs" --timeout 300 -LE root \
    -E "$not_built|^install\.|^mount_agent\.|^($serial)\."
}

run_sanitize() {
  pass "sanitize: the whole suite"
  cmake --preset sanitize >/dev/null
  cmake --build --preset sanitize -j "$jobs" --target kd_all_tests
  ctest --preset sanitize -j "$jobs" --timeout 600 -E "$not_built|^install\."
}

if ! $all; then
  case "$preset" in
    default) run_default ;;
    sanitize) run_sanitize ;;
    tsan) run_tsan ;;
    fuzz) run_fuzz ;;
    format) run_format ;;
    *)
      echo "unknown preset: $preset" >&2
      exit 2
      ;;
  esac
  exit 0
fi

# The whole-suite pass comes last: CI reads ctest's summary in the closing lines.
run_format
run_default
run_fuzz
run_tsan
run_sanitize
