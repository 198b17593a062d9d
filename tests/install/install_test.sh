#!/bin/sh
# Installs the build into a fresh prefix, then builds and runs a consumer
# through the CMake package and through pkg-config, and checks that every
# place the version shows agrees.
# Usage: install_test.sh BUILD_DIR WORK_DIR PICTURE
set -eu
build=$1 work=$2 picture=$3
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

pc=$(find "$prefix" -name brivanta.pc)
export PKG_CONFIG_PATH="${pc%/*}"
version=$(pkg-config --modversion brivanta)
libdir=$(pkg-config --variable=libdir brivanta)
test -f "$libdir/libbrivanta.a"
test -f "$prefix/share/man/man1/brivanta.1"
soname=$(readelf -d "$libdir/libbrivanta.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
test "$soname" = "libbrivanta.so.${version%%.*}"
test "$("$prefix/bin/brivanta" --version)" = "brivanta $version"

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
test "$(cat "$work/cmake/package_version")" = "$version"
"$work/cmake/consumer" "$picture" "$version"
"$work/cmake/consumer_static" "$picture" "$version"

cc -o "$work/consumer-pc" "$here/consumer.c" $(pkg-config --cflags --libs brivanta)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" "$picture" "$version"
