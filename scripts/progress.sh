# SPDX-License-Identifier: Apache-2.0
# Sourced by the other scripts, which bash runs: with_progress shows that a long step lives.
# shellcheck shell=bash

# How far a log has come: "DONE TOTAL WHAT", from the last line of ninja, ctest or cppcheck in it.
progress_of() {
    tail -c 30000 "$1" 2>/dev/null | sed -nE \
        -e 's|^\[([0-9]+)/([0-9]+)\].*[ /]([^ /]+)$|\1 \2 \3|p' \
        -e 's|^ *([0-9]+)/([0-9]+) Test +#[0-9]+: ([^ ]+) .*|\1 \2 \3|p' \
        -e 's|^([0-9]+)/([0-9]+) files checked .*|\1 \2 files|p' | tail -n 1
}

# say_progress WHAT LOG START BAR: one line, or with BAR the line of a terminal anew.
say_progress() {
    local count='' total='' at='' bar='' text
    read -r count total at < <(progress_of "$2") || true
    text="$((SECONDS - $3)) s"
    if [ "${total:-0}" -gt 0 ]; then
        text="$count of $total, $text"
        # What ninja runs as a line of the shell ends with a colon.
        [ "$at" = : ] || text="$text, at $at"
        printf -v bar '%*s' $((20 * count / total)) ''
        printf -v bar '[%-20s] ' "${bar// /#}"
    fi
    if [ -n "$4" ]; then
        text="   $1: $bar$text"
        printf '\r%-79s' "${text:0:79}"
    else
        echo "   $1: $text"
    fi
}

# Until it is ended, or the script is gone: a bar on a terminal, elsewhere a line every ten seconds.
report_progress() {
    local what=$1 log=$2 start=$SECONDS every=10 bar='' never
    if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
        every=1 bar=yes
    fi
    trap '[ -z "$bar" ] || printf "\r%79s\r" ""; exit 0' TERM
    exec {never}<> <(:)
    while kill -0 $$ 2>/dev/null; do
        # Nothing ever comes: a wait that leaves no process behind.
        read -r -t "$every" -u "$never" || say_progress "$what" "$log" "$start" "$bar"
    done
}

# with_progress WHAT LOG COMMAND...: the command's output goes to LOG. Returns as the command does.
with_progress() {
    local what=$1 log=$2 status=0 reporter
    shift 2
    : >"$log"
    report_progress "$what" "$log" &
    reporter=$!
    "$@" >"$log" 2>&1 || status=$?
    kill "$reporter" 2>/dev/null
    wait "$reporter" 2>/dev/null
    return "$status"
}

# step WHAT LOG COMMAND...: the same; when the command fails, the end of its output is shown.
step() {
    local status=0
    with_progress "$@" || status=$?
    [ "$status" -eq 0 ] && return
    tail -n 60 "$2" >&2
    echo "FAILED: $1 (all of it: $2)" >&2
    return "$status"
}
