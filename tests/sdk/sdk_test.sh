#!/usr/bin/env bash
# The install end to end: install everything into a fresh prefix, run every installed program
# from there (each answers --version with "NAME VERSION"), build the module template out of
# tree against that install (CMake package, pkg-config file, strict warnings) and check the
# results with the installed vigild-modcheck.
#   sdk_test.sh BUILD_DIR SOURCE_DIR MODCHECK GENERATOR CXX   (MODCHECK: unused, the installed
#   one is run)
set -euo pipefail
build=$1 source=$2 generator=$4 cxx=$5
work=$(mktemp -d /tmp/vdsdk.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
version=$(sed -n 's/^project(vigild VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
for name in vigild vigild-modcheck vigild-config vd-standin; do
  [[ -x $prefix/bin/$name ]] || { echo "not installed: bin/$name"; exit 1; }
done
# From a folder of its own with no library path: what the binary needs, it finds itself.
for program in "$prefix"/bin/*; do
  out=$(cd "$work" && env -u LD_LIBRARY_PATH "$program" --version) \
    || { echo "$program --version failed: $out"; exit 1; }
  [[ $out == "$(basename "$program") $version" ]] \
    || { echo "$program --version says \"$out\""; exit 1; }
  env -u LD_LIBRARY_PATH "$program" --help >/dev/null || { echo "$program --help failed"; exit 1; }
done
modcheck=$prefix/bin/vigild-modcheck

grep -q "^prefix=$prefix\$" "$prefix/lib/pkgconfig/vigild-module.pc" \
  || { echo "vigild-module.pc names the wrong prefix"; exit 1; }

# The template is what authors copy: no casts that drop const, no unbounded copies.
if grep -nE 'const_cast|strcpy|\(char ?\*\)' "$source/sdk/template/example_module.cpp"; then
  echo "the template casts const away or copies without a bound"
  exit 1
fi

# The two commands a module author runs, with warnings that catch a dropped const.
cmake -S "$source/sdk/template" -B "$work/build" -G "$generator" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" -DVD_MODULE_NAME=sdktest \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wcast-qual -Wwrite-strings -Werror" >/dev/null
cmake --build "$work/build" >/dev/null
lib=$work/build/lib_vd_sdktest.so
out=$("$modcheck" "$lib") || { echo "$out"; echo "the template does not load"; exit 1; }
echo "$out"
grep -q 'checked: ' <<<"$out"
grep -q 'OK: module "ExampleModule"' <<<"$out"

# The same source through pkg-config, as a build without CMake would do it.
cflags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags vigild-module)
# shellcheck disable=SC2086
"$cxx" -std=c++17 -shared -fPIC -Wcast-qual -Wwrite-strings -Werror $cflags \
  "$source/sdk/template/example_module.cpp" -o "$work/lib_vd_pkgconfig.so"
"$modcheck" "$work/lib_vd_pkgconfig.so"

# A module asking for another base version must not find this SDK.
cp -r "$source/sdk/template" "$work/other"
sed -i 's/find_package(VigildModule 14.0 REQUIRED)/find_package(VigildModule 15.0 REQUIRED)/' \
  "$work/other/CMakeLists.txt"
if cmake -S "$work/other" -B "$work/other/build" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
     -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
  echo "an SDK of base version 14.0 was taken for 15.0"
  exit 1
fi
echo "install: every program runs from the prefix; sdk: template build and check all good"
