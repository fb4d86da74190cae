#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library's binary interface, as abidw reads it from the headers and a build with debugging
# information.
#   abi.sh store LIBRARY HEADERS DUMP     at a release
#   abi.sh compare LIBRARY HEADERS DUMP   fails on anything but additions
#   abi.sh sees LIBRARY HEADERS DUMP      fails when a comparison does not see a member that moved
set -eu
step=$1 library=$2 headers=$3 dump=$4
skip() {
    echo "skipped: $1"
    [ "${SENTREL_MUST_RUN:-}" != 1 ] || exit 1
    exit 77
}
command -v abidiff >/dev/null || skip "abigail-tools is not installed"
[ "$step" = store ] || [ "$(uname -m)" = x86_64 ] || skip "the stored interface is of x86-64"
# Ends with abidiff's own: bit 4, the interface changed; bit 8, in a way that breaks programs; 1 and
# 2, abidiff itself failed.
compare() {
    abidiff --no-added-syms --headers-dir2 "$headers" --drop-private-types "$1" "$library"
}

case $step in
store)
    mkdir -p "$(dirname "$dump")"
    abidw --headers-dir "$headers" --drop-private-types --no-comp-dir-path --no-corpus-path \
        --out-file "$dump.new" "$library"
    # With the places of declarations: without them abidiff takes every type for a private one.
    # Behind the first line: abidiff knows the file by its beginning.
    sed '1a <!-- SPDX-License-Identifier: Apache-2.0 -->' "$dump.new" >"$dump"
    rm "$dump.new"
    ;;
compare)
    code=0
    compare "$dump" || code=$?
    [ "$code" -eq 0 ] || {
        echo "the binary interface has changed: $code"
        exit 1
    }
    ;;
sees)
    moved=$(mktemp)
    trap 'rm -f "$moved"' EXIT
    sed '/layout-offset-in-bits/{N;/returnValue/s/in-bits=.[0-9]*/in-bits='"'"'8/}' "$dump" >"$moved"
    code=0
    compare "$moved" || code=$?
    [ "$code" -ge 4 ] || {
        echo "a member that moved was not seen: $code"
        exit 1
    }
    ;;
*)
    exit 2
    ;;
esac
