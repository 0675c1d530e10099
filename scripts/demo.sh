#!/usr/bin/env bash
# The main job in one command: builds vigild if needed, then runs a short guided session on a
# fresh device root with the stand-in companion service. Every step prints what the service
# received and what changed on storage; the session fails (exit 1) when a step does not do
# what it should.
#
#   scripts/demo.sh                 build what it runs (dev preset), then run the session
#   scripts/demo.sh --help          this text
#   scripts/demo.sh --console [ADDR]   instead, serve the browser console (default
#                                   127.0.0.1:8080) and keep both running until Ctrl-C
#   VIGILD_BUILD_DIR=DIR scripts/demo.sh   use binaries already built in DIR, build nothing
#   VIGILD_TIME_SCALE=0.05 scripts/demo.sh slower daemon clocks (default 0.02)
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
case "${1:-}" in
    -h | --help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
esac
console=""
if [ "${1:-}" = --console ]; then console="${2:-127.0.0.1:8080}"; fi
scale="${VIGILD_TIME_SCALE:-0.02}"
timeout_s=20

# ---------------------------------------------------------------------------- build
if [ -n "${VIGILD_BUILD_DIR:-}" ]; then
    build="$(cd "$VIGILD_BUILD_DIR" && pwd)"
else
    build="$here/build/dev"
    if [ -x "$here/scripts/deps.sh" ]; then "$here/scripts/deps.sh"; fi
    # Only what the session runs; the tests are built by scripts/test.sh.
    (cd "$here" && cmake --preset dev >/dev/null &&
        cmake --build --preset dev --target vigild vd-standin vd-config-edit vd_logcat)
fi
vigild="$build/vigild"
standin="$build/tools/standin/vd-standin"
edit="$build/tools/demo/vd-config-edit"
logcat_lib="$build/modules/logcat/lib_vd_logcat.so"
for f in "$vigild" "$standin" "$edit" "$logcat_lib"; do
    [ -e "$f" ] || { echo "demo: missing $f (build first)" >&2; exit 1; }
done

# ---------------------------------------------------------------------------- device root
# Short, because the service socket's path must stay under 108 bytes.
ROOT="$(mktemp -d /tmp/vdd.XXXXXX)"
mkdir -p "$ROOT/sdcard" "$ROOT/system/lib64" "$ROOT/system/bin" "$ROOT/dev/__properties__" \
    "$ROOT/data/bugreports"
cp "$logcat_lib" "$ROOT/system/lib64/"
# As after an earlier boot: the storage root is known, so each module keeps its own folder.
printf '/sdcard/' > "$ROOT/dev/__properties__/persist.sys.vd.storage_path"

# The stand-in bug report tool: an empty zip archive and the platform tool's "OK:" line.
cat > "$ROOT/system/bin/bugreportz" <<'TOOL'
#!/bin/sh
name="bugreport-demo-$(date +%Y%m%d-%H%M%S).zip"
printf 'PK\005\006\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000' \
    > "$VIGILD_ROOT/data/bugreports/$name"
echo "OK:/data/bugreports/$name"
TOOL
chmod +x "$ROOT/system/bin/bugreportz"

svc_pid=""
daemon_pid=""
cleanup() {
    local status=$?
    set +e
    if [ -n "$daemon_pid" ]; then kill -KILL "$daemon_pid" 2>/dev/null; wait "$daemon_pid" 2>/dev/null; fi
    if [ -n "$svc_pid" ]; then kill -TERM "$svc_pid" 2>/dev/null; wait "$svc_pid" 2>/dev/null; fi
    if [ "${KEEP_ROOT:-0}" = 1 ]; then echo "device root kept: $ROOT"; else rm -rf "$ROOT"; fi
    exit "$status"
}
trap cleanup EXIT

# ---------------------------------------------------------------------------- helpers
# Colour only for a terminal.
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then b=$'\033[1m' r=$'\033[31m' n=$'\033[0m'; else b="" r="" n=""; fi
bold() { printf '\n%s%s%s\n' "$b" "$*" "$n"; }
fail() {
    printf '%sFAILED: %s%s\n' "$r" "$*" "$n"
    echo "--- last daemon lines"; tail -n 15 "$ROOT/vigild.log" 2>/dev/null || true
    exit 1
}
# Polls a shell condition for up to $timeout_s seconds.
wait_for() {
    local what="$1" cond="$2" i
    for ((i = 0; i < timeout_s * 10; i++)); do
        if eval "$cond"; then return 0; fi
        sleep 0.1
    done
    fail "$what"
}
snapshot() { (cd "$ROOT" && find sdcard data -type f -printf '%p %s\n' | sort); }
trace_mark=0
files_before=""
begin_step() {
    bold "== $1"
    trace_mark=$(wc -l < "$ROOT/standin.log")
    files_before="$(snapshot)"
}
end_step() {
    echo "service received:"
    # Without the time and number of each line, so repeats fold into one.
    tail -n +"$((trace_mark + 1))" "$ROOT/standin.log" | cut -d' ' -f3- | uniq -c \
        | sed -E 's/^ *1 (.*)/    \1/; s/^ *([0-9]+) (.*)/    \2  (x\1)/' | cut -c1-160
    echo "storage changes:"
    awk 'FNR == NR { before[$1] = $2; next }
         !($1 in before) { print "    new      " $1 " (" $2 " bytes)"; next }
         before[$1] != $2 { print "    changed  " $1 " (" before[$1] " -> " $2 " bytes)" }
         { delete before[$1] }
         END { for (f in before) print "    removed  " f }' \
        <(echo "$files_before") <(snapshot) | sort -k2 | grep . || echo "    (none)"
}
svc() { "$standin" --root "$ROOT" "$@"; }
prop() { cat "$ROOT/dev/__properties__/$1" 2>/dev/null || true; }
log_file="sdcard/Tellwick/logcat/logcat.log"
starts() { grep -c -- '--- LogcatModule started ---' "$ROOT/$log_file" 2>/dev/null || true; }

# ---------------------------------------------------------------------------- session
bold "device root: $ROOT (time scale $scale)"
"$standin" --root "$ROOT" serve --verbose ${console:+--http "$console"} > "$ROOT/standin.log" 2>&1 &
svc_pid=$!
wait_for "the stand-in service did not start" "[ -S '$ROOT/dev/binder/com.tandril.vd.Ivd_service' ]"
VIGILD_ROOT="$ROOT" VIGILD_TIME_SCALE="$scale" "$vigild" 2> "$ROOT/vigild.log" &
daemon_pid=$!
echo "stand-in service pid $svc_pid, vigild pid $daemon_pid"
wait_for "vigild did not come up" "grep -q 'getState' '$ROOT/standin.log'"
if [ -n "$console" ]; then
    wait_for "the console did not start" "grep -q 'console at http' '$ROOT/standin.log'"
    bold "console: $(grep -o 'http://[^ ]*' "$ROOT/standin.log" | head -n 1)  (open it in a browser; Ctrl-C ends)"
    wait "$svc_pid"
    exit 0
fi

begin_step 'fresh_connect: the daemon reports its versions, configuration and state'
svc send fresh_connect
wait_for "no version report" "tail -n +$((trace_mark + 1)) '$ROOT/standin.log' | grep -q LogcatModule"
wait_for "no state report" "tail -n +$((trace_mark + 1)) '$ROOT/standin.log' | grep -q sendState"
end_step

begin_step 'config_get: the configuration document'
svc send config_get:
wait_for "no configuration sent" "tail -n +$((trace_mark + 1)) '$ROOT/standin.log' | grep -q sendConfig"
end_step

begin_step 'start: every enabled module starts'
svc send start:
svc wait-state running --timeout "$timeout_s" >/dev/null || fail "not running"
wait_for "the logcat module did not start" "[ \"\$(starts)\" -ge 1 ]"
[ "$(prop persist.sys.vd.autostart)" = true ] || fail "autostart not recorded"
end_step
echo "persist.sys.vd.autostart = $(prop persist.sys.vd.autostart)"

begin_step 'config_set: a new command for LogcatModule only; that module alone restarts'
before=$(starts)
"$edit" "$ROOT/sdcard/Tellwick/config.json" LogcatModule Command \
    'for i in 1 2 3 4 5 6 7 8 9 10; do echo demo tick $i; sleep 1; done' > "$ROOT/new-config.json" \
    || fail "could not edit the configuration"
svc config set "$ROOT/new-config.json" >/dev/null
wait_for "the logcat module did not run the new command" "grep -q 'demo tick 1' '$ROOT/$log_file'"
svc wait-state running --timeout "$timeout_s" >/dev/null || fail "not running after the change"
end_step
echo "LogcatModule starts: $before -> $(starts); the log now ends with:"
tail -n 3 "$ROOT/$log_file" | sed 's/^/    /'
grep -q 'demo tick' "$ROOT/sdcard/Tellwick/config.json" || fail "the file does not hold the change"

begin_step 'the deployed configuration file is deleted; the daemon writes it back'
rm "$ROOT/sdcard/Tellwick/config.json"
wait_for "the configuration file was not written back" "[ -s '$ROOT/sdcard/Tellwick/config.json' ]"
end_step
grep -q 'demo tick' "$ROOT/sdcard/Tellwick/config.json" || fail "the written-back file lost the change"
echo "written back with the configuration in force"

begin_step 'bug report: persist.sys.vd.tw_bugreport = true, with a stand-in bugreportz'
printf 'true' > "$ROOT/dev/__properties__/persist.sys.vd.tw_bugreport"
wait_for "no bug report archive" "ls '$ROOT'/sdcard/Tellwick/TwBugreport-* >/dev/null 2>&1"
wait_for "the request was not cleared" "[ \"\$(prop persist.sys.vd.tw_bugreport)\" = false ]"
wait_for "no status to the service" "tail -n +$((trace_mark + 1)) '$ROOT/standin.log' | grep -q updateTwBugreportStatus"
end_step
echo "persist.sys.vd.tw_bugreport = $(prop persist.sys.vd.tw_bugreport)"

begin_step 'delete_logs: the log folders are emptied (config.json stays)'
svc send delete_logs
wait_for "no delete request to the service" "tail -n +$((trace_mark + 1)) '$ROOT/standin.log' | grep -q getDeleteLogsParam"
wait_for "the bug report archive is still there" "! ls '$ROOT'/sdcard/Tellwick/TwBugreport-* >/dev/null 2>&1"
[ -s "$ROOT/sdcard/Tellwick/config.json" ] || fail "the configuration file was deleted"
end_step

begin_step 'stop: every module stops'
svc send stop:
svc wait-state stopped --timeout "$timeout_s" >/dev/null || fail "not stopped"
end_step
[ "$(prop persist.sys.vd.autostart)" = false ] || fail "autostart not cleared"
echo "persist.sys.vd.autostart = $(prop persist.sys.vd.autostart)"

bold "== what the service holds now"
svc status | sed 's/^/    /' | cut -c1-160
bold "session complete"
