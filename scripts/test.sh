#!/usr/bin/env bash
# Builds everything and runs every test. Exits non-zero when a test fails.
# Usage: scripts/test.sh [preset]   (default, sanitize or tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
preset="${1:-default}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset" -j "$(nproc)" --timeout 300
