#!/usr/bin/env bash
# The module SDK end to end: install it into a fresh prefix, build the template out of tree
# against that install (CMake package and pkg-config file), and load both results with the
# daemon's own loader through vigild-modcheck.
#   sdk_test.sh BUILD_DIR SOURCE_DIR MODCHECK GENERATOR CXX
set -euo pipefail
build=$1 source=$2 modcheck=$3 generator=$4 cxx=$5
work=$(mktemp -d /tmp/vdsdk.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --component sdk --prefix "$work/prefix" >/dev/null
for f in include/vigild/module.h lib/cmake/VigildModule/VigildModuleConfig.cmake \
         lib/pkgconfig/vigild-module.pc; do
  [[ -f $work/prefix/$f ]] || { echo "not installed: $f"; exit 1; }
done
grep -q "^prefix=$work/prefix\$" "$work/prefix/lib/pkgconfig/vigild-module.pc" \
  || { echo "vigild-module.pc names the wrong prefix"; exit 1; }

# The two commands a module author runs.
cmake -S "$source/sdk/template" -B "$work/build" -G "$generator" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$work/prefix" -DVD_MODULE_NAME=sdktest \
  >/dev/null
cmake --build "$work/build" >/dev/null
lib=$work/build/lib_vd_sdktest.so
out=$("$modcheck" "$lib") || { echo "$out"; echo "the template does not load"; exit 1; }
echo "$out"
grep -q 'OK: module "ExampleModule"' <<<"$out"

# The same source through pkg-config, as a build without CMake would do it.
cflags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags vigild-module)
# shellcheck disable=SC2086
"$cxx" -std=c++17 -shared -fPIC $cflags "$source/sdk/template/example_module.cpp" \
  -o "$work/lib_vd_pkgconfig.so"
"$modcheck" "$work/lib_vd_pkgconfig.so"

# A module asking for another base version must not find this SDK.
cp -r "$source/sdk/template" "$work/other"
sed -i 's/find_package(VigildModule 14.0 REQUIRED)/find_package(VigildModule 15.0 REQUIRED)/' \
  "$work/other/CMakeLists.txt"
if cmake -S "$work/other" -B "$work/other/build" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
     -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null 2>&1; then
  echo "an SDK of base version 14.0 was taken for 15.0"
  exit 1
fi
echo "sdk: install, template build and load all good"
