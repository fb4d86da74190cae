#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs the library into an empty prefix and plays the stranger who uses it from there.
# install_test.sh STEP SOURCE SCRATCH VERSION; the step `install` comes first, the others need it.
set -eu
step=$1 source=$2 scratch=$3 version=$4
prefix=$scratch/prefix
here=$source/tests/install
CXX=${CXX:-c++} CC=${CC:-cc}
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"

# The program must do without a bus: there is none at this address.
run() {
    LD_LIBRARY_PATH=$prefix/lib DBUS_SYSTEM_BUS_ADDRESS=unix:path=$scratch/no-bus "$1"
}

case $step in
install)
    rm -rf "$scratch"
    cmake -S "$source" -B "$scratch/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib \
        -DSENTREL_AGENT=OFF -DSENTREL_CLI=OFF -DSENTREL_TESTS=OFF -DSENTREL_WERROR=OFF
    cmake --build "$scratch/build"
    cmake --install "$scratch/build"
    ;;
files)
    (cd "$prefix" && find . ! -type d | sed 's|^\./||' | LC_ALL=C sort) >"$scratch/installed"
    grep -v '^#' "$here/files.txt" | sed "s/@VERSION@/$version/" | LC_ALL=C sort >"$scratch/listed"
    diff -u "$scratch/listed" "$scratch/installed"
    ;;
paths)
    # Where it was built is nobody's business, and would be wrong elsewhere.
    # The prefix itself may stand below it, as here.
    if grep -rahoE "${source}[^\"; ]*" "$prefix" | grep -vF "$prefix"; then
        exit 1
    fi
    ;;
c)
    # shellcheck disable=SC2046
    $CC -std=c99 -Wall -Wextra -Wpedantic -Werror "$here/stranger.c" -o "$scratch/c" \
        $(pkg-config --cflags --libs sentrel-client)
    run "$scratch/c"
    ;;
cxx)
    # shellcheck disable=SC2046
    $CXX -std=c++17 -Wall -Wextra -Werror "$here/stranger.cpp" -o "$scratch/cxx" \
        $(pkg-config --cflags --libs sentrel-client)
    run "$scratch/cxx"
    ;;
cmake)
    cmake -S "$here/package" -B "$scratch/package" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$scratch/package"
    run "$scratch/package/stranger"
    ;;
version)
    [ "$(pkg-config --modversion sentrel-client)" = "$version" ]
    # The CMake package refuses another major version.
    mkdir -p "$scratch/refused"
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(refused LANGUAGES CXX)' \
        "find_package(sentrel-client $((${version%%.*} + 1)) REQUIRED)" \
        >"$scratch/refused/CMakeLists.txt"
    if cmake -S "$scratch/refused" -B "$scratch/refused/build" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" 2>"$scratch/refused/stderr"; then
        exit 1
    fi
    grep -q 'version: '"$version" "$scratch/refused/stderr"
    ;;
esac
