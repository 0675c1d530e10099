#!/usr/bin/env bash
# Android.bp is kept in step with the tree by hand; this fails when a source file under src/,
# a unit test or a fuzz target is missing from it.
set -euo pipefail
cd "$(dirname "$0")/.."
missing=0
while IFS= read -r file; do
  if ! grep -q "\"$file\"" Android.bp; then
    echo "Android.bp does not list $file"
    missing=1
  fi
done < <(find src tests/unit fuzz -name '*.cpp' ! -path 'src/main.cpp' | sort)
grep -q '"src/main.cpp"' Android.bp || { echo "Android.bp does not list src/main.cpp"; missing=1; }
exit $missing
