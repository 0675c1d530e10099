#!/usr/bin/env bash
# What can be proven about the device build without a platform tree, from Debian packages:
#   1. Android.bp is formatted as bpfmt writes it, keeps CMake's sources, and passes
#      tools/bpcheck (host/device support of every dependency of this file, missing sources,
#      include folders, data and init_rc files, defaults, duplicate names).
#   2. Every C++ file a device module of Android.bp builds compiles (clang 19, -fsyntax-only)
#      with the device defaults and the module's own flags against Debian's AOSP headers, with
#      tools/android-check/compat/ standing in for the few bionic headers Debian lacks.
#   3. sepolicy/ compiles with checkpolicy over our stand-in base policy, neverallows included;
#      every type its contexts files name is declared; every property the code sets or reads by
#      name has a property_contexts line.
# Exits non-zero on any failure. The parcel bytes and docs/protocol.md are checked by the test
# suite (ivd_service_test, protocol_doc_in_step).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  blueprint-tools golang-go golang-github-google-blueprint-dev
  clang-19 android-platform-frameworks-native-headers android-libutils-dev
  android-libcutils-dev android-libbase-dev android-liblog-dev
  libjansson-dev libgtest-dev libgmock-dev
  checkpolicy m4
)
missing=()
for pkg in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

work="${ANDROID_CHECKS_DIR:-build/android-checks}"
mkdir -p "$work"
failed=0
fail() { echo "FAIL: $*"; failed=1; }

echo "== Android.bp"
fmt="$(bpfmt -d Android.bp)" || fail "bpfmt cannot parse Android.bp"
[ -z "$fmt" ] || { echo "$fmt"; fail "Android.bp is not formatted (bpfmt -w Android.bp)"; }
scripts/check-android-bp.sh || fail "Android.bp misses sources CMake builds"
GOPATH=/usr/share/gocode GO111MODULE=off GOCACHE="$PWD/$work/gocache" \
  go build -o "$work/bpcheck" ./tools/bpcheck || fail "tools/bpcheck does not build"
if [ -x "$work/bpcheck" ]; then
  "$work/bpcheck" check Android.bp || fail "Android.bp would not analyse"

  echo "== device compile"
  # Soong's device defaults, then Debian's AOSP headers behind our stand-ins. libstdc++ 12
  # marks a helper of std::stable_sort deprecated under C++20; the platform's libc++ does not.
  compat=tools/android-check/compat
  "$work/bpcheck" compile Android.bp clang++-19 -D__ANDROID__ -fno-exceptions -fno-rtti \
    -Wno-deprecated-declarations -include "$compat/prelude.h" -isystem "$compat" \
    -isystem /usr/include/android || fail "a device source does not compile"
fi

echo "== sepolicy"
base=tools/android-check/sepolicy
if m4 -E --fatal-warnings "$base/macros.m4" "$base/head.conf" "$base/platform.te" sepolicy/*.te \
    "$base/tail.conf" >"$work/policy.conf"; then
  checkpolicy -M -c 30 -o "$work/policy.bin" "$work/policy.conf" >/dev/null ||
    fail "sepolicy does not compile (or breaks a neverallow)"
else
  fail "sepolicy does not expand with m4"
fi
grep -q '^neverallow vigild ' sepolicy/vigild.te || fail "vigild.te lost its neverallow rules"
for type in $(grep -hoE 'u:object_r:[a-z0-9_]+:s0' sepolicy/*_contexts "$base"/*_contexts |
  cut -d: -f3 | sort -u); do
  grep -qE "^type $type[,;]" "$work/policy.conf" || fail "type $type of a contexts file is not declared"
done

echo "== properties"
# Names set or read by literal, and "setprop ctl.<action> <service>", which init checks as
# "ctl.<action>$<service>".
props="$(
  grep -rhoE '"(persist|ro|vold|sys)\.[A-Za-z0-9_.-]*[A-Za-z0-9_]"' src | tr -d '"' || true
  grep -rhoE 'setprop ctl\.[a-z_]+ [A-Za-z0-9_.-]+' src | awk '{print $2 "$" $3}' || true
  grep -rhoE '"ctl\.[a-z_]+", *"[A-Za-z0-9_.-]+"' src | tr -d '" ' | tr ',' '$' || true
)"
contexts="$(cat sepolicy/property_contexts "$base/platform_property_contexts" | grep -vE '^\s*(#|$)')"
for prop in $(echo "$props" | sort -u); do
  # An exact line names it; any other line is a prefix.
  found=0
  while read -r name _ kind _; do
    if [ "$name" = "$prop" ] || { [ "$kind" != exact ] && [ "${prop#"$name"}" != "$prop" ]; }; then
      found=1
      break
    fi
  done <<<"$contexts"
  [ $found -eq 1 ] || fail "property $prop has no property_contexts line"
done
echo "$(echo "$props" | sort -u | wc -l) properties checked"

if [ $failed -ne 0 ]; then
  echo "android checks: FAILED"
  exit 1
fi
echo "android checks: all passed"
