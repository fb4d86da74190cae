#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests, on a fresh Debian 12 machine too: what is missing is installed first.
#   scripts/test.sh         everything: under 15 minutes on two cores
#   scripts/test.sh quick   a debug build with the unit, bus and hygiene tests: under 2 minutes
# A failing stage does not stop the later ones. The last line is the sum over all stages, in which a
# static check or a build counts as one; tests labelled slow are left out. The exit status is
# non-zero when something failed or, with SENTREL_MUST_RUN=1, was skipped. Everything is written
# below build/.
set -u
cd "$(dirname "$0")/.." || exit 1
. scripts/packages.sh

jobs=$(nproc)
logs=$PWD/build/test-logs
passed=0 failed=0 skipped=0

# count WHAT LOG COMMAND...: one check that passes or fails; its output is shown when it fails.
count() {
    local what=$1 log=$logs/$2
    shift 2
    if "$@" >"$log" 2>&1; then
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

# sum_up JUNIT_FILE: prints "PASSED FAILED SKIPPED". Skipped is only a test that is switched off or
# that said so itself; one that could not be run has failed.
sum_up() {
    python3 - "$1" <<'PYTHON'
import sys
import xml.etree.ElementTree as tree
passed = failed = skipped = 0
for case in tree.parse(sys.argv[1]).getroot().iter("testcase"):
    reason = case.find("skipped")
    text = "" if reason is None else reason.get("message", "")
    if case.get("status") == "run" and case.find("failure") is None:
        passed += 1
    elif case.get("status") == "disabled" or text.startswith("SKIP_"):
        skipped += 1
        print("skipped:", case.get("name"), file=sys.stderr)
    else:
        failed += 1
print(passed, failed, skipped)
PYTHON
}

# run_tests PRESET CTEST_ARGUMENT...; under the command in $runner, if any
runner=()
run_tests() {
    local preset=$1 junit=$logs/$1.xml log=$logs/$1-tests.log status sum
    shift
    rm -f "$junit"
    "${runner[@]}" ctest --test-dir "build/$preset" -j "$jobs" --timeout 120 --output-on-failure \
        --no-tests=error --output-junit "$junit" "$@" >"$log" 2>&1
    status=$?
    if ! sum=$(sum_up "$junit"); then
        sum="0 0 0"
        status=1
    fi
    # shellcheck disable=SC2086
    set -- $sum
    # A run that failed as a whole, or had no test in it, is a failure of its own.
    if [ "$2" -eq 0 ] && { [ "$status" -ne 0 ] || [ "$1" -eq 0 ]; }; then
        set -- "$1" 1 "$3"
    fi
    passed=$((passed + $1)) failed=$((failed + $2)) skipped=$((skipped + $3))
    [ "$2" -eq 0 ] || grep -Ev ' Passed  |^ +Start ' "$log" | tail -n 200
    echo "$preset tests: $1 passed, $2 failed, $3 skipped"
}

# sources FOLDER...: C and C++ files, one a line
sources() { find "$@" -name '*.h' -o -name '*.c' -o -name '*.cpp'; }

# SR_DBusConnection.cpp is laid out by hand: the lines of its log statements are fixed.
check_format() {
    sources service agent cli tests bench 2>/dev/null | grep -v '/SR_DBusConnection\.cpp$' |
        xargs clang-format --dry-run -Werror
}

check_tidy() {
    sources service/src agent cli | grep '\.cpp$' |
        xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/clang
}

check_cppcheck() {
    cppcheck -q -j "$jobs" --enable=warning,performance,portability --std=c++17 --language=c++ \
        --inline-suppr --suppressions-list=tests/cppcheck-suppressions.txt --error-exitcode=1 \
        -I build/clang/include service/src agent cli
}

check_coverage() {
    gcovr --root . --filter service/src/ --print-summary --fail-under-line 95 build/coverage
}

debug_stage() {
    count "debug build" debug.log configure_and_build debug && run_tests debug -L 'unit|bus|agent' -LE slow
}

format_stage() { count "format" format.log check_format; }

coverage_stage() {
    # Counts of an earlier run would add up.
    [ ! -d build/coverage ] || find build/coverage -name '*.gcda' -delete
    count "coverage build" coverage.log configure_and_build coverage || return
    run_tests coverage -LE slow
    count "95 % of the library's lines are run" gcovr.log check_coverage
    grep '^lines:' "$logs/gcovr.log"
}

asan_stage() {
    count "address and undefined behaviour sanitizer build" asan.log configure_and_build asan &&
        UBSAN_OPTIONS=print_stacktrace=1 run_tests asan -LE slow
}

tsan_stage() {
    count "thread sanitizer build" tsan.log configure_and_build tsan -- threads_tests || return
    # The thread sanitizer cannot place its shadow where the kernel randomises addresses widely.
    if setarch -R true 2>/dev/null; then
        runner=(setarch -R)
    fi
    TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/tsan-suppressions.txt" run_tests tsan -L threads
    runner=()
}

clang_stage() { count "clang++ build" clang.log configure_and_build clang; }

static_stage() {
    count "clang-tidy" tidy.log check_tidy
    count "cppcheck" cppcheck.log check_cppcheck
}

release_stage() {
    count "release build" release.log configure_and_build release -DSENTREL_TESTS=ON -- \
        service/all agent/all cli/all MainLoopRandomTest &&
        run_tests release -L 'hygiene|install|histories'
}

common="g++ cmake ninja-build pkg-config libdbus-1-dev libboost-dev libtomlplusplus-dev libre2-dev
    libgtest-dev dbus-daemon python3 binutils clang"
full="clang-format clang-tidy cppcheck gcovr util-linux mount e2fsprogs mandoc man-db doxygen
    abigail-tools systemd"

mkdir -p "$logs"
# The package lists are lists of words.
# shellcheck disable=SC2086
case ${1-full} in
quick)
    need_packages $common || exit 1
    stage "debug build, its unit, bus and hygiene tests" debug_stage
    ;;
full)
    need_packages $common $full || exit 1
    stage "format" format_stage
    stage "coverage" coverage_stage
    stage "address and undefined behaviour sanitizers" asan_stage
    stage "thread sanitizer" tsan_stage
    stage "clang++" clang_stage
    stage "static checks" static_stage
    stage "release, hygiene and installation" release_stage
    ;;
*)
    echo "usage: scripts/test.sh [quick]" >&2
    exit 2
    ;;
esac

echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ] && { [ "$skipped" -eq 0 ] || [ "${SENTREL_MUST_RUN-}" != 1 ]; }
