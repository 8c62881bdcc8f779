#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a separate application against it, once
# through find_package and once through pkg-config, then runs both and the installed qvtool.
# Nothing sets LD_LIBRARY_PATH: the installed files must find each other on their own.
# A cross build names its compiler in QV_PACKAGING_CXX and its CMake toolchain arguments in
# QV_PACKAGING_CMAKE_ARGS; its programs then run through the emulator.
#   check_packaging.sh BUILD_DIR WORK_DIR "EXTRA_CXX_FLAGS" [CMAKE_GENERATOR]
set -euo pipefail
build_dir=$1 work=$2 flags=${3:-} generator=${4:-Ninja}
unset LD_LIBRARY_PATH
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$work"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/ | head -n 1)

# shellcheck disable=SC2086
cmake -S "$here/consumer" -B "$work/cmake" -G "$generator" -DCMAKE_PREFIX_PATH="$work/prefix" \
    ${QV_PACKAGING_CMAKE_ARGS:-} \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
    -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086
${QV_PACKAGING_CXX:-c++} -std=c++17 $flags "$here/consumer/main.cpp" -o "$work/consumer-pc" \
    $(pkg-config --cflags --libs common_utilities) -Wl,-rpath,"$libdir"
"$work/consumer-pc"

# A program of the prefix starts from wherever the prefix was put.
"$work/prefix/bin/qvtool" version
