#!/usr/bin/env bash
# Non-blank, non-comment lines of the tests against the code they test (src/, tools/,
# modules/, include/): C and C++ sources and headers, Python, shell and JavaScript.
# Usage: scripts/test-ratio.sh
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  git ls-files -co --exclude-standard -- "$@" |
    grep -E '\.(c|cc|cpp|h|hpp|py|sh|js)$' |
    while read -r f; do [ -f "$f" ] && cat "$f"; done |
    grep -vE '^\s*$|^\s*(//|#[^a-z!]|#$|/?\*|\*/)' | wc -l
}
tests=$(count tests)
code=$(count src tools modules include)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d, code %d, ratio %.2f\n", t, c, t / c }'
