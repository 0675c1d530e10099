#!/usr/bin/env bash
# Soak: the real daemon with the logcat module fed COMMANDS commands (100,000 by default)
# through the stand-in service, deployed-file rewrites and deletions in between. Fails when a
# command is not taken and answered in order or the descriptors grow; prints the daemon's
# descriptor and memory figures. Any preset builds it (asan and tsan too).
# Usage: scripts/soak.sh [commands] [preset]
set -euo pipefail
cd "$(dirname "$0")/.."
commands="${1:-100000}"
preset="${2:-release}"
build="build/soak-$preset"
cmake --preset "$preset" -B "$build" -DVIGILD_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target vd_bench_daemon vigild vd_logcat
root="$(mktemp -d /tmp/vds.XXXXXX)"  # short: the service socket lives in it
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/sdcard/Tellwick" "$root/system/lib64" "$root/dev/__properties__"
printf /sdcard/ >"$root/dev/__properties__/persist.sys.vd.storage_path"
cp "$build/modules/logcat/lib_vd_logcat.so" "$root/system/lib64/"
"$build/bench/vd_bench_daemon" soak "$build/vigild" "$root" "$commands"
