#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds the benchmarks and their peers, optimised, and runs them against a private bus.
#
#   scripts/bench.sh [quick] [-o DIRECTORY] [WORKLOAD...]
#
# `quick` makes an eighth of the rounds. Workloads: call where threads growth soak loop drain
# serving parts; all of them when none is named, which takes some minutes. Writes results.txt,
# results.json, results.svg and the details of `where` into DIRECTORY, build/bench-results unless
# given. SENTREL_BENCH_BUILD names another build directory than build/bench.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${SENTREL_BENCH_BUILD:-$root/build/bench}

# In a mount namespace of its own the run has a /dev with nothing but what it needs, so that
# syslog(3) reaches the run's log and not the machine's.
run_with_private_dev() {
    dev=$(mktemp -d)
    mount -t tmpfs sentrel-bench "$dev"
    for node in null zero full random urandom; do
        : >"$dev/$node"
        mount --bind "/dev/$node" "$dev/$node"
    done
    mkdir "$dev/shm"
    ln -s /proc/self/fd "$dev/fd"
    mount --move "$dev" /dev
    rmdir "$dev"
    exec "$@"
}

if [ "${1:-}" = --with-private-dev ]; then
    shift
    run_with_private_dev "$@"
fi

# shellcheck source=scripts/packages.sh
. "$root/scripts/packages.sh"
# shellcheck source=scripts/progress.sh
. "$root/scripts/progress.sh"

quick=
output=$root/build/bench-results
while [ $# -gt 0 ]; do
    case $1 in
        quick) quick=--quick ;;
        -o) shift && output=$1 ;;
        -*) sed -n '5,11s/^# \{0,1\}//p' "$0" >&2 && exit 2 ;;
        *) break ;;
    esac
    shift
done

need_packages g++ cmake ninja-build pkg-config libdbus-1-dev libboost-dev \
    libsystemd-dev libglib2.0-dev libsdbus-c++-dev libuv1-dev libevent-dev libbenchmark-dev \
    dbus-daemon dbus-bin systemd python3 strace valgrind util-linux mount
build() {
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSENTREL_BENCH=ON \
        -DSENTREL_AGENT=OFF -DSENTREL_CLI=OFF && ninja -C "$build"
}
mkdir -p "$root/build"
step "the benchmarks' build" "$root/build/bench.log" build

# shellcheck disable=SC2086
set -- python3 -B "$root/bench/run.py" --build "$build" --output "$output" $quick "$@"
if unshare --mount true 2>/dev/null; then
    exec unshare --mount "$0" --with-private-dev "$@" --private-dev
fi
exec "$@"
