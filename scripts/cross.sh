#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds library, agent and command for another machine with Debian's cross compilers, and runs the
# unit tests by qemu-user.
#   scripts/cross.sh arm64|armhf
# The libraries of that machine are fetched by apt into build/sysroot-ARCH and unpacked there: the
# packages of this system are left as they are. Needs the compiler and qemu-user; installs them when
# they are missing.
set -eu
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/progress.sh

arch=${1:-}
case $arch in
arm64) tuple=aarch64-linux-gnu ;;
armhf) tuple=arm-linux-gnueabihf ;;
*)
    echo "usage: scripts/cross.sh arm64|armhf" >&2
    exit 2
    ;;
esac
# The tests are configured with python3 and this machine's compiler, too.
need_packages "g++-$tuple" qemu-user cmake ninja-build pkg-config python3 g++

sysroot=$PWD/build/sysroot-$arch
build=$PWD/build/cross-$arch
libraries="libc6-dev libstdc++-12-dev libdbus-1-dev libboost-dev libgtest-dev libre2-dev
    libseccomp-dev libtomlplusplus-dev libutfcpp-dev nlohmann-json3-dev"

# apt with a state of its own, in which nothing is installed, names all that is needed.
fetch() {
    state=$sysroot.apt
    rm -rf "$sysroot" "$state"
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$sysroot"
    : >"$state/status"
    set -- -q -y -o APT::Architecture="$arch" -o APT::Architectures="$arch" \
        -o Dir::State="$state" -o Dir::State::status="$state/status" \
        -o Dir::Cache="$state/cache" -o APT::Sandbox::User=root --no-install-recommends
    # A list of several that did not come is no reason to end: the next step says what is missing.
    apt-get "$@" update || echo "going on with the lists that came"
    # The list is one of words.
    # shellcheck disable=SC2086
    apt-get "$@" --download-only install $libraries || return
    for package in "$state"/cache/archives/*.deb; do
        dpkg-deb -x "$package" "$sysroot" || return
    done
    # Links to absolute places would lead out of it.
    find "$sysroot/usr/lib" -type l -lname '/*' | while read -r link; do
        ln -snf "$sysroot$(readlink "$link")" "$link"
    done
    rm -rf "$state"
    echo "$libraries" >"$sysroot/libraries"
}
build() {
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$arch.cmake" -DSENTREL_SYSROOT="$sysroot" \
        -DSENTREL_DLOG_LIBRARY= -DSENTREL_TESTS=ON -DSENTREL_WERROR=ON &&
        cmake --build "$build" -j "$(nproc)"
}

# Completion runs the command without the emulator; what asks the kernel for what qemu-user does not
# have is left to the machine itself.
run_tests() {
    LC_ALL=C.UTF-8 ctest --test-dir "$build" -L '^unit(-threads)?$' -E '^Completion\.' \
        --no-tests=error --output-on-failure
}

mkdir -p build
# One of an earlier list, or of a fetch that did not come to its end, is fetched anew.
[ "$(cat "$sysroot/libraries" 2>/dev/null)" = "$libraries" ] ||
    step "the libraries of $arch" "build/sysroot-$arch.log" fetch
step "the build for $arch" "$build.log" build
step "the tests for $arch" "$build-tests.log" run_tests
tail -n 20 "$build-tests.log" | grep 'tests passed'
for program in service/libsentrel-client.so agent/sentrel-agent cli/sentrel; do
    "$tuple-readelf" -h "$build/$program" | sed -n "s|^ *Machine: *|$program: |p"
done
