#!/usr/bin/env bash
# Soak by hand: builds the daemon, the logcat module and the soak test in build/soak (or the
# folder given), then feeds the real daemon COMMANDS commands (100,000 by default) through
# the stand-in service and prints the daemon's descriptor and memory figures.
# Usage: scripts/soak.sh [commands] [build-folder]
set -euo pipefail
cd "$(dirname "$0")/.."
commands="${1:-100000}"
build="${2:-build/soak}"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVIGILD_TESTS=ON
fi
cmake --build "$build" -j "$(nproc)" --target soak_test
VIGILD_SOAK_COMMANDS="$commands" "$build/tests/soak_test" --gtest_brief=1
