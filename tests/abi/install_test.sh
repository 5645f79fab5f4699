#!/bin/sh
# Installs the library below a directory of its own, and builds and runs a program against it, found with CMake's
# find_package() and with pkg-config.
# Usage: install_test.sh <build directory> <source directory> <cmake> <C compiler> <C flags>
set -eu
build=$1 source=$2 cmake=$3 cc=$4 flags=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

DESTDIR='' "$cmake" --install "$build" --prefix "$prefix" >"$work/log" || { cat "$work/log"; exit 1; }

echo "find_package"
"$cmake" -S "$source/tests/abi/install" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="$flags" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
"$cmake" --build "$work/consumer" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
"$work/consumer/consumer" >"$work/version"

echo "pkg-config"
libdir=$(dirname "$(find "$prefix" -name 'libvwincompat.so')")
options=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs vwincompat)
# shellcheck disable=SC2086  # the options are words
$cc $flags "$source/tests/abi/install/consumer.c" -o "$work/by_pkg_config" $options
LD_LIBRARY_PATH=$libdir "$work/by_pkg_config" >/dev/null

echo "one version"
PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --modversion vwincompat | diff - "$work/version"
ls "$libdir/libvwincompat.so.$(cat "$work/version")"
