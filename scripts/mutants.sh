#!/usr/bin/env bash
# Mutation check: which injected faults does the test suite catch?
#
# Copies the working tree (tracked and untracked non-ignored files, never build/) to a
# temporary folder, configures one dev build there, runs the suite once as it is, then for
# every fault of scripts/mutants.list: applies it, rebuilds incrementally, runs ctest, notes
# which tests failed, and puts the file back. The real working tree is never written to.
#
# Usage: scripts/mutants.sh [--only ID]... [--list] [--jobs N] [--timeout S] [--keep]
#                           [--rev REV] [--faults FILE] [--out FILE]
#   --only ID    run only this fault (may be given more than once)
#   --list       print the faults and exit (checks that each snippet is still found)
#   --jobs N     build and ctest parallelism (default 2)
#   --timeout S  per-test timeout in seconds (default 60; a test with its own TIMEOUT keeps it)
#   --keep       keep the temporary folder (its path is printed)
#   --rev REV    test a committed revision (git archive REV) instead of the working tree,
#                e.g. HEAD while others are in the middle of an edit that does not build
#   --faults F   the fault list (default scripts/mutants.list)
#   --out F      also write the table to F (written only at the end)
#
# Fault list format: blocks separated by blank lines, "#" starts a comment line.
#   id: config-dropped-restart
#   subsystem: config
#   what: one line saying what the fault does
#   note: optional, e.g. why the suite misses it
#   file: src/config/config_validation.cpp
#   - original text, one or more lines, taken literally (must occur exactly once)
#   + replacement text, one or more lines ("+" alone is an empty line; no "+" deletes)
# The "- " / "+ " prefix is two characters; everything after it is literal, indentation
# included. The first original line may start in the middle of a source line. A fault may
# name several places (another file: line followed by its own - and + lines), e.g. the code
# before and after a move: the first place where its text is found exactly once is used.
#
# Result per fault: "caught by N tests (names)", "MISSED", "snippet not found",
# "snippet not unique", "file not found" or "build failed" (a fault that does not compile
# proves nothing about the tests; fix its entry). Tests that already fail without any fault
# are reported once and never counted as catching anything.
set -uo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/.." && pwd)"
faults="$here/mutants.list"
jobs=2
timeout=60
keep=0
list_only=0
out=""
rev=""
only=()

usage() { sed -n '2,/^set -uo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; }

while [ $# -gt 0 ]; do
    case "$1" in
        --only) only+=("${2:?--only needs an id}"); shift 2 ;;
        --list) list_only=1; shift ;;
        --jobs) jobs="${2:?--jobs needs a number}"; shift 2 ;;
        --timeout) timeout="${2:?--timeout needs seconds}"; shift 2 ;;
        --keep) keep=1; shift ;;
        --rev) rev="${2:?--rev needs a revision}"; shift 2 ;;
        --faults) faults="$(cd "$(dirname "$2")" && pwd)/$(basename "$2")"; shift 2 ;;
        --out) out="$2"; shift 2 ;;
        -h|--help) usage; exit 0 ;;
        *) echo "mutants: unknown option $1" >&2; usage >&2; exit 2 ;;
    esac
done
case "$jobs" in ''|*[!0-9]*) echo "mutants: --jobs needs a number" >&2; exit 2 ;; esac
case "$timeout" in ''|*[!0-9]*) echo "mutants: --timeout needs seconds" >&2; exit 2 ;; esac
[ -f "$faults" ] || { echo "mutants: no fault list at $faults" >&2; exit 2; }
if [ -n "$out" ]; then
    case "$out" in /*) ;; *) out="$PWD/$out" ;; esac
fi

# The fault list parser and the one-spot editor. Commands:
#   ids                      ids in list order, one per line
#   show ID                  "id<TAB>subsystem<TAB>file<TAB>what"
#   check ID TREE            "ok<TAB>file" | file not found | snippet not found | snippet not unique
#   apply ID TREE BACKUP     applies the fault to TREE/file after copying it to BACKUP; prints
#                            what check prints
tool() {
    python3 - "$faults" "$@" <<'PY'
import os, shutil, sys

def parse(path):
    faults, cur, errors = [], None, []
    def close():
        if cur is not None:
            faults.append(cur)
    with open(path, encoding="utf-8") as f:
        for n, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if line.startswith("#"):
                continue
            if line.strip() == "":
                close(); cur = None
                continue
            if cur is None:
                cur = {"line": n, "alts": []}
            alt = cur["alts"][-1] if cur["alts"] else None
            if line.startswith("- ") or line == "-" or line.startswith("+ ") or line == "+":
                if alt is None:
                    errors.append("%s:%d: text before any file:" % (path, n))
                    continue
                if line[0] == "-":
                    alt["orig"].append(line[2:])
                else:
                    alt["repl"].append(line[2:]); alt["has_repl"] = True
            elif ":" in line:
                key, _, value = line.partition(":")
                key, value = key.strip(), value.strip()
                if key == "file":
                    # Another file: line is another place where the same fault may live
                    # (the code before or after a move); the first one found is used.
                    cur["alts"].append({"file": value, "orig": [], "repl": [], "has_repl": False})
                else:
                    cur[key] = value
            else:
                errors.append("%s:%d: cannot read %r" % (path, n, line))
    close()
    seen = set()
    for f in faults:
        for key in ("id", "subsystem", "what"):
            if not f.get(key):
                errors.append("%s:%d: fault without %s" % (path, f["line"], key))
        if not f["alts"]:
            errors.append("%s:%d: fault without file" % (path, f["line"]))
        for alt in f["alts"]:
            if not alt["orig"]:
                errors.append("%s:%d: %s without original text" % (path, f["line"], alt["file"]))
        if f.get("id") in seen:
            errors.append("%s:%d: id %s used twice" % (path, f["line"], f.get("id")))
        seen.add(f.get("id"))
    if errors:
        sys.stderr.write("\n".join(errors) + "\n")
        sys.exit(3)
    return faults

faults = parse(sys.argv[1])
cmd, args = sys.argv[2], sys.argv[3:]
by_id = {f["id"]: f for f in faults}

def find(fid):
    if fid not in by_id:
        sys.stderr.write("mutants: no fault %s in the list\n" % fid)
        sys.exit(4)
    return by_id[fid]

def state_of(alt, tree):
    path = os.path.join(tree, alt["file"])
    if not os.path.isfile(path):
        return "file not found", path, None
    with open(path, encoding="utf-8", errors="surrogateescape") as src:
        text = src.read()
    count = text.count("\n".join(alt["orig"]))
    if count == 0:
        return "snippet not found", path, text
    if count > 1:
        return "snippet not unique", path, text
    return "ok", path, text

# The first place where the snippet occurs exactly once; else the first place's problem.
def state(f, tree):
    first = None
    for alt in f["alts"]:
        result, path, text = state_of(alt, tree)
        if result == "ok":
            return result, path, text, alt
        if first is None:
            first = (result, path, text, alt)
    return first

if cmd == "ids":
    for f in faults:
        print(f["id"])
elif cmd == "show":
    f = find(args[0])
    print("\t".join([f["id"], f["subsystem"], " or ".join(a["file"] for a in f["alts"]),
                     f["what"]]))
elif cmd == "check":
    f = find(args[0])
    result, _, _, alt = state(f, args[1])
    print(result if result != "ok" else "ok\t" + alt["file"])
elif cmd == "apply":
    f = find(args[0])
    tree, backup = args[1], args[2]
    result, path, text, alt = state(f, tree)
    if result != "ok":
        print(result)
        sys.exit(0)
    # Only ever edits inside the copy.
    if not os.path.realpath(path).startswith(os.path.realpath(tree) + os.sep):
        sys.stderr.write("mutants: refusing to edit %s outside %s\n" % (path, tree))
        sys.exit(5)
    shutil.copy2(path, backup)
    repl = "\n".join(alt["repl"]) if alt["has_repl"] else ""
    text = text.replace("\n".join(alt["orig"]), repl, 1)
    with open(path, "w", encoding="utf-8", errors="surrogateescape") as dst:
        dst.write(text)
    print("ok\t" + alt["file"])
else:
    sys.stderr.write("mutants: unknown tool command %s\n" % cmd)
    sys.exit(2)
PY
}

all_ids="$(tool ids)" || exit 2
if [ ${#only[@]} -gt 0 ]; then
    for id in "${only[@]}"; do tool show "$id" >/dev/null || exit 2; done
    ids=("${only[@]}")
else
    mapfile -t ids <<<"$all_ids"
fi

if [ "$list_only" = 1 ]; then
    # Checked against the real tree, read-only.
    for id in "${ids[@]}"; do
        IFS=$'\t' read -r fid sub file what < <(tool show "$id")
        printf '%-32s %-9s %-44s %s\n' "$fid" "$sub" "$file" "$what"
        st="$(tool check "$id" "$root")"
        case "$st" in ok*) ;; *) printf '%-32s   !! %s\n' "" "$st" ;; esac
    done
    exit 0
fi

tmp="$(mktemp -d "${TMPDIR:-/tmp}/vigild-mutants.XXXXXX")"
src="$tmp/src"
bld="$tmp/build"
logs="$tmp/logs"
mkdir -p "$src" "$bld" "$logs"
cleanup() {
    if [ "$keep" = 1 ]; then
        echo "mutants: kept $tmp" >&2
    else
        rm -rf "$tmp"
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { echo "mutants: $*" >&2; }

# 1. The copy: what git would see as the working tree, without build/ and ignored files;
#    or, with --rev, that commit's files. Either way only read from the real tree.
if [ -n "$rev" ]; then
    commit="$(git -C "$root" rev-parse --verify "$rev^{commit}")" ||
        { say "no revision $rev"; exit 2; }
    tested="commit $commit"
    say "copying $tested to $src"
    git -C "$root" archive --format=tar "$commit" | tar -xf - -C "$src" ||
        { say "copy failed"; exit 2; }
else
    tested="working tree of $root at $(date -u '+%Y-%m-%d %H:%M UTC') (HEAD $(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo none))"
    say "copying the $tested to $src"
    (cd "$root" && git ls-files -co --exclude-standard -z) |
        python3 -c '
import os, sys
for p in sys.stdin.buffer.read().split(b"\0"):
    if p and not p.startswith(b"build/") and os.path.lexists(p):
        sys.stdout.buffer.write(p + b"\0")' |
        (cd "$root" && tar --null -T - -cf -) | tar -xf - -C "$src" ||
        { say "copy failed"; exit 2; }
fi

# 2. One dev build.
run() { nice -n 10 "$@"; }
say "configuring (log: $logs/configure.log)"
(cd "$src" && run cmake --preset dev -B "$bld") >"$logs/configure.log" 2>&1 ||
    { say "configure failed, see $logs/configure.log"; keep=1; exit 2; }
say "building (log: $logs/build-base.log)"
run cmake --build "$bld" -j "$jobs" >"$logs/build-base.log" 2>&1 ||
    { say "the unchanged tree does not build, see $logs/build-base.log"; keep=1; exit 2; }

# Runs the suite; prints the failed test names, one per line, sorted.
run_suite() {
    local log="$1"
    rm -f "$bld/Testing/Temporary/LastTestsFailed.log"
    run ctest --test-dir "$bld" -j "$jobs" --timeout "$timeout" >"$log" 2>&1
    local rc=$?
    if [ -f "$bld/Testing/Temporary/LastTestsFailed.log" ]; then
        sed -n 's/^[0-9]*://p' "$bld/Testing/Temporary/LastTestsFailed.log" | sort -u
    elif [ $rc -ne 0 ]; then
        echo "(ctest itself failed, see $(basename "$log"))"
    fi
}

# 3. The suite as it is: whatever fails here is no evidence against a fault.
say "running the unchanged suite (log: $logs/ctest-base.log)"
mapfile -t prefail < <(run_suite "$logs/ctest-base.log")
if [ ${#prefail[@]} -gt 0 ]; then
    say "already failing without any fault: ${prefail[*]}"
fi
is_prefail() {
    local t
    for t in "${prefail[@]}"; do [ "$t" = "$1" ] && return 0; done
    return 1
}

# 4. One fault at a time.
table=()
caught=0
missed=0
other=0
header="$(printf '%-32s %-9s %s' "id" "subsystem" "result")"
for id in "${ids[@]}"; do
    IFS=$'\t' read -r fid sub file what < <(tool show "$id")
    say "[$fid] $what"
    backup="$tmp/backup"
    st="$(tool apply "$id" "$src" "$backup")" || { say "[$fid] could not apply"; st="apply error"; }
    result=""
    case "$st" in ok$'\t'*) file="${st#ok$'\t'}"; st=ok ;; esac
    if [ "$st" != ok ]; then
        result="$st"
        other=$((other + 1))
    else
        if ! run cmake --build "$bld" -j "$jobs" >"$logs/build-$fid.log" 2>&1; then
            result="build failed (see build-$fid.log)"
            other=$((other + 1))
        else
            mapfile -t failed < <(run_suite "$logs/ctest-$fid.log")
            names=()
            for t in "${failed[@]}"; do is_prefail "$t" || names+=("$t"); done
            if [ ${#names[@]} -gt 0 ]; then
                joined="$(printf '%s, ' "${names[@]}")"
                plural=s; [ ${#names[@]} -eq 1 ] && plural=""
                result="caught by ${#names[@]} test$plural (${joined%, })"
                caught=$((caught + 1))
            else
                result="MISSED"
                missed=$((missed + 1))
            fi
        fi
        # Back to the original, byte for byte (a new mtime, so the next build recompiles it).
        cp "$backup" "$src/$file" && touch "$src/$file"
    fi
    line="$(printf '%-32s %-9s %s' "$fid" "$sub" "$result")"
    table+=("$line")
    say "[$fid] $result"
done

summary="mutants: $caught caught, $missed missed"
[ "$other" -gt 0 ] && summary="$summary, $other not run (see the table)"
{
    echo "# tested: $tested"
    echo "$header"
    printf '%s\n' "${table[@]}"
    if [ ${#prefail[@]} -gt 0 ]; then
        echo "already failing without any fault (not counted): ${prefail[*]}"
    fi
    echo "$summary"
} | tee ${out:+"$out"}
[ "$missed" -eq 0 ] && [ "$other" -eq 0 ]
