#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time on its corpus.
# Usage: scripts/fuzz.sh [seconds per target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/deps.sh
cmake --preset fuzz
cmake --build --preset fuzz -j "$(nproc)"
shopt -s nullglob
ran=0
artifacts="build/fuzz/artifacts"
mkdir -p "$artifacts"
for target in build/fuzz/fuzz/*_fuzzer; do
  name=$(basename "$target")
  corpus="fuzz/corpus/${name%_fuzzer}"
  work=$(mktemp -d)
  [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
  echo "-- $name for ${seconds}s"
  # A crash fails the run (pipefail); its input is kept in $artifacts.
  "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts/$name-" \
    "$work" 2>&1 | tail -n 12
  rm -rf "$work"
  ran=$((ran + 1))
done
echo "fuzz targets run: $ran"
