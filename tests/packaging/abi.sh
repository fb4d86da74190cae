#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library's binary interface, as abidw reads it from the headers and a build with debugging
# information.
#   abi.sh store LIBRARY HEADERS DUMP     at a release
#   abi.sh compare LIBRARY HEADERS DUMP   fails on anything but additions
set -eu
step=$1 library=$2 headers=$3 dump=$4
command -v abidiff >/dev/null || {
    echo "skipped: abigail-tools is not installed"
    [ "${SENTREL_MUST_RUN:-}" != 1 ] || exit 1
    exit 77
}
case $step in
store)
    mkdir -p "$(dirname "$dump")"
    abidw --headers-dir "$headers" --drop-private-types --no-comp-dir-path --no-corpus-path \
        --out-file "$dump.new" "$library"
    # Behind the first line: abidiff knows the file by its beginning.
    sed '1a <!-- SPDX-License-Identifier: Apache-2.0 -->' "$dump.new" >"$dump"
    rm "$dump.new"
    ;;
compare)
    # Bit 4: the interface changed; bit 8: in a way that breaks programs; 1 and 2: abidiff's own.
    code=0
    abidiff --no-added-syms --headers-dir2 "$headers" --drop-private-types "$dump" "$library" || code=$?
    [ "$code" -eq 0 ] || {
        echo "the binary interface has changed: $code"
        exit 1
    }
    ;;
*)
    exit 2
    ;;
esac
