#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time on its corpus,
# then prints each target's throughput (executions per second; every target should reach
# 1,000: a slower one spends its time outside the code under test).
# Usage: scripts/fuzz.sh [seconds per target]
# FUZZ_BUILD names another build folder (default: build/fuzz, the preset's own).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
build="${FUZZ_BUILD:-build/fuzz}"
scripts/deps.sh
cmake --preset fuzz -B "$build"
cmake --build "$build" -j "$(nproc)"
shopt -s nullglob
ran=0
artifacts="$build/artifacts"
mkdir -p "$artifacts"
summary=""
for target in "$build"/fuzz/*_fuzzer; do
  name=$(basename "$target")
  corpus="fuzz/corpus/${name%_fuzzer}"
  work=$(mktemp -d)
  log="$work.log"
  [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
  echo "-- $name for ${seconds}s"
  # A crash fails the run (pipefail); its input is kept in $artifacts.
  "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts/$name-" \
    "$work" >"$log" 2>&1 || { tail -n 40 "$log"; rm -rf "$work" "$log"; exit 1; }
  tail -n 12 "$log"
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  slow=""
  [ "${rate:-0}" -lt 1000 ] && slow=" (below 1000 exec/s)"
  line=$(printf '%-18s %8s exec/s  %10s runs%s' "$name" "${rate:-?}" "${runs:-?}" "$slow")
  echo "-- $line"
  summary+="$line"$'\n'
  rm -rf "$work" "$log"
  ran=$((ran + 1))
done
echo "fuzz targets run: $ran"
printf '%s' "$summary"
