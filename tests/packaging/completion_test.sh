#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The completion offers what the command's help names, and evaluates nothing.
#   completion_test.sh COMPLETION COMMAND
set -eu
# shellcheck disable=SC1090
source "$1"
help=$("$2" --help)

# What is offered for the last of these words, sorted, on one line.
offered() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _sentrel
    printf '%s\n' "${COMPREPLY[@]:-}" | LC_ALL=C sort | tr '\n' ' '
}
expect() {
    if [ "$2" != "$3" ]; then
        printf '%s\n  expected: %s\n  found:    %s\n' "$1" "$3" "$2"
        exit 1
    fi
}
words() {
    printf '%s\n' "$help" | sed -nE "$1" | LC_ALL=C sort | tr '\n' ' '
}

expect "operations" "$(offered sentrel '')" "$(words 's/^  ([a-z][a-z-]*) +[^ ].*/\1/p')"
expect "options" "$(offered sentrel -)" "$(words 's/^  (--[a-z-]+) .*/\1/p')"
expect "after an option" "$(offered sentrel --trace rm)" "rmmod "
expect "raw" "$(offered sentrel raw ins)" "insmod "
expect "verbs" "$(offered sentrel systemctl rest)" "restart "
expect "nothing after errors" "$(offered sentrel errors '')" " "

cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT
# The names would do harm if they were evaluated.
# shellcheck disable=SC2016
touch 'a$(touch evil)' 'a;touch evil'
expect "files" "$(offered sentrel mount a)" 'a$(touch evil) a;touch evil '
[ ! -e evil ] || expect "a file's name was evaluated" yes no
