#!/bin/sh
# Installs the build tree $1 into a prefix below $2 and builds the examples in $3 against it, with
# CMake's find_package and with pkg-config. $4 is the compiler, $5 holds its extra flags.
set -eu
build=$1 work=$2 examples=$3 compiler=$4 flags=$5

rm -rf "$work"
mkdir -p "$work"
DESTDIR='' cmake --install "$build" --prefix "$work/prefix" --component client-dev >/dev/null

cmake -G Ninja -S "$examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake" >/dev/null

package=$(find "$work/prefix" -name gpio-client.pc)
PKG_CONFIG_PATH=$(dirname "$package")
export PKG_CONFIG_PATH
# The words of the flags are meant to be split.
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $flags "$examples/watch_pins.cpp" -o "$work/watch_pins" \
    $(pkg-config --cflags --libs gpio-client)

for program in "$work/cmake/list_pins" "$work/watch_pins"; do
    status=0
    "$program" nonsense 2>"$work/errors" || status=$?
    [ "$status" -eq 1 ]
    grep -q 'invalid argument' "$work/errors"
done
