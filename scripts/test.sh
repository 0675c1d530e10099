#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole suite.
# Usage: scripts/test.sh [preset]   (dev by default; also release, asan, tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
scripts/deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"
