#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests, on a fresh Debian 12 machine too: what is missing is installed first.
#   scripts/test.sh         everything: under 15 minutes on two cores
#   scripts/test.sh quick   a debug build and what needs no root: under 2 minutes once it is built
# tests/where.txt says which tests run in which build. A failing stage does not stop the later ones.
# The last line is the sum over all stages, in which a static check or a build counts as one. The
# exit status is non-zero when something failed or, with SENTREL_MUST_RUN=1, was skipped. Everything
# is written below build/.
set -u
cd "$(dirname "$0")/.." || exit 1
. scripts/packages.sh
. scripts/progress.sh

jobs=$(nproc)
logs=$PWD/build/test-logs
mode=everything
passed=0 failed=0 skipped=0
skips=()

# count WHAT LOG COMMAND...: one check that passes or fails; its output is shown when it fails.
count() {
    local what=$1 log=$logs/$2
    shift 2
    if with_progress "$what" "$log" "$@"; then
        passed=$((passed + 1))
        echo "ok: $what"
    else
        failed=$((failed + 1))
        tail -n 200 "$log"
        echo "FAILED: $what (all of it: $log)"
        return 1
    fi
}

# stage NAME FUNCTION: runs it and says how long it took.
stage() {
    local start=$SECONDS
    echo "== $1"
    "$2"
    echo "== $1: $((SECONDS - start)) s"
}

# configure_and_build PRESET [OPTION]... [-- TARGET...]
configure_and_build() {
    local preset=$1 options=() targets=()
    shift
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    [ $# -le 1 ] || targets=(--target "${@:2}")
    cmake --preset "$preset" "${options[@]}" &&
        cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
}

# run_tests PRESET: those that the list names; under the command in $runner, if any
runner=()
# One more at once than there are processors: many of them wait for something.
run_tests() {
    local junit=$logs/$1.xml log=$logs/$1-tests.log labels lines status=0
    labels=$(python3 -B tests/where.py labels "$mode" "$1")
    with_progress "$1 tests" "$log" "${runner[@]}" ctest --test-dir "build/$1" -L "$labels" \
        -j "$((jobs + 1))" --timeout 120 --output-on-failure --no-tests=error --output-junit "$junit" ||
        status=$?
    if ! lines=$(python3 -B tests/where.py sum "$junit"); then
        lines="0 0 0"
        status=1
    fi
    local sum why
    # shellcheck disable=SC2207
    sum=($(head -n 1 <<<"$lines"))
    # A run that failed as a whole, or had no test in it, is a failure of its own.
    if [ "${sum[1]}" -eq 0 ] && { [ "$status" -ne 0 ] || [ "${sum[0]}" -eq 0 ]; }; then
        sum[1]=1
    fi
    passed=$((passed + sum[0])) failed=$((failed + sum[1])) skipped=$((skipped + sum[2]))
    while read -r why; do
        [ -z "$why" ] || skips+=("$1: $why")
    done < <(tail -n +2 <<<"$lines")
    [ "${sum[1]}" -eq 0 ] || grep -Ev ' Passed  |^ +Start ' "$log" | tail -n 200
    echo "$1 tests: ${sum[0]} passed, ${sum[1]} failed, ${sum[2]} skipped"
}

# sources FOLDER...: C and C++ files, one a line
sources() { find "$@" -name '*.h' -o -name '*.c' -o -name '*.cpp'; }

# SR_DBusConnection.cpp is laid out by hand: the lines of its log statements are fixed.
check_format() {
    sources service agent cli tests bench 2>/dev/null | grep -v '/SR_DBusConnection\.cpp$' |
        xargs clang-format --dry-run -Werror
}

# In a shell of its own, since the sum is that of the whole pipe. Its lines say how far it is.
check_tidy() (
    set -o pipefail
    # The large ones first, so that none of them is the last.
    # shellcheck disable=SC2046
    files=$(ls -S $(sources service/src agent cli | grep '\.cpp$'))
    all=$(wc -l <<<"$files")
    # shellcheck disable=SC2016
    xargs -P "$jobs" -n 1 sh -c '
        clang-tidy --quiet -p build/asan "$1" && echo "looked at $1"' sh <<<"$files" 2>&1 |
        {
            n=0
            # Line by line: an awk may wait for a whole buffer of them.
            while IFS= read -r line; do
                if [[ $line == "looked at "* ]]; then
                    n=$((n + 1))
                    line="[$n/$all] ${line#looked at }"
                fi
                printf '%s\n' "$line"
            done
        }
)

check_cppcheck() {
    cppcheck -j "$jobs" --enable=warning,performance,portability --std=c++17 --language=c++ \
        --inline-suppr --suppressions-list=tests/cppcheck-suppressions.txt --error-exitcode=1 \
        -I build/asan/include -I agent service/src agent cli
}

check_shell() { shellcheck -x .ci/run scripts/*.sh tests/*/*.sh; }

check_coverage() {
    gcovr --root . --filter service/src/ --print-summary --fail-under-line 95 build/coverage
}

# check_ran PRESET...: nothing that the list names was left out, in any build.
check_ran() {
    python3 -B tests/where.py ran tests/where.txt "$mode" "$logs" "${@/#/build/}"
}

# What a report of a sanitizer needs of debugging information, and no more: a fifth of a build's time.
lines_only=(-DCMAKE_C_FLAGS_DEBUG=-g1 -DCMAKE_CXX_FLAGS_DEBUG=-g1)

debug_stage() {
    count "debug build" debug.log configure_and_build debug || return
    run_tests debug
    count "each test has run where the list says" ran.log check_ran debug
}

format_stage() { count "format" format.log check_format; }

coverage_stage() {
    # Counts of an earlier run would add up.
    [ ! -d build/coverage ] || find build/coverage -name '*.gcda' -delete
    count "coverage build" coverage.log configure_and_build coverage "${lines_only[@]}" || return
    run_tests coverage
    count "95 % of the library's lines are run" gcovr.log check_coverage
    grep '^lines:' "$logs/gcovr.log"
}

# By clang++, for its warnings too; and without precompiled headers, so that a test that lacks an
# include of its own is found.
asan_stage() {
    count "address and undefined behaviour sanitizer build" asan.log configure_and_build asan \
        "${lines_only[@]}" &&
        UBSAN_OPTIONS=print_stacktrace=1 run_tests asan
}

tsan_stage() {
    count "thread sanitizer build" tsan.log configure_and_build tsan "${lines_only[@]}" -- \
        threads_tests || return
    # The thread sanitizer cannot place its shadow where the kernel randomises addresses widely.
    if setarch -R true 2>/dev/null; then
        runner=(setarch -R)
    fi
    TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/tsan-suppressions.txt" run_tests tsan
    runner=()
}

static_stage() {
    count "clang-tidy" tidy.log check_tidy
    count "cppcheck" cppcheck.log check_cppcheck
    count "shellcheck" shellcheck.log check_shell
}

release_stage() {
    count "release build" release.log configure_and_build release -DSENTREL_TESTS=ON -- \
        service/all agent/all cli/all release_tests &&
        run_tests release
}

# What `quick` runs is known from its own build, which need only be configured here.
list_stage() {
    count "debug configured" debug.log cmake --preset debug &&
        count "each test has run where the list says" ran.log \
            check_ran debug coverage asan tsan release
}

common="g++ cmake ninja-build pkg-config libdbus-1-dev libboost-dev libtomlplusplus-dev libre2-dev
    libseccomp-dev libutfcpp-dev nlohmann-json3-dev libgtest-dev dbus-daemon dbus-bin
    dbus-system-bus-common python3 binutils clang util-linux mount"
full="libclang-rt-14-dev clang-format clang-tidy cppcheck gcovr e2fsprogs mandoc man-db doxygen
    abigail-tools systemd shellcheck"

mkdir -p "$logs"
# The package lists are lists of words.
# shellcheck disable=SC2086
case ${1-full} in
quick)
    mode=quick
    need_packages $common || exit 1
    rm -f "$logs"/*.xml
    stage "debug build and its tests" debug_stage
    ;;
full)
    need_packages $common $full || exit 1
    # Installed, it would take the place of the system's own bus.
    unpack_package dbus-broker build/dbus-broker >"$logs/dbus-broker.log" 2>&1 ||
        echo "dbus-broker cannot be had (see $logs/dbus-broker.log)"
    export SENTREL_DBUS_BROKER=$PWD/build/dbus-broker/usr/bin
    rm -f "$logs"/*.xml
    stage "format" format_stage
    stage "coverage" coverage_stage
    stage "address and undefined behaviour sanitizers" asan_stage
    stage "thread sanitizer" tsan_stage
    stage "static checks" static_stage
    stage "release, hygiene and installation" release_stage
    stage "what has run" list_stage
    ;;
*)
    echo "usage: scripts/test.sh [quick]" >&2
    exit 2
    ;;
esac

[ ${#skips[@]} -eq 0 ] || printf '%s\n' "${skips[@]}"
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ] && { [ "$skipped" -eq 0 ] || [ "${SENTREL_MUST_RUN-}" != 1 ]; }
