#!/usr/bin/env bash
# Builds the release preset and runs every benchmark, printing one table of medians and ratios
# (vigild beside its peer, each pair measured in the same run). Takes about ten minutes.
# Usage: scripts/bench.sh [options of bench/run_bench.py, e.g. --only inproc,daemon]
#   --quick runs every part once on small inputs (CI: that they build and run, ~30 s);
#   --only delete1m adds the opt-in million-file deletion (about 1 GiB of tmpfs per tree).
# BENCH_BUILD names another build folder (default: build/release, the preset's own).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# strace counts the deletion's system calls.
if ! command -v strace >/dev/null; then
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get install -y -q --no-install-recommends strace
fi
build="$(realpath -m "${BENCH_BUILD:-build/release}")"
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" -j "$(nproc)" --target vd_bench
exec python3 bench/run_bench.py --build "$build" "$@"
