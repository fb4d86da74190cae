#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Shows the whole road of a call: builds everything, starts a bus and an agent of its own, and lets
# the agent mount, make a node, fail and be away. Every step is checked; a step that does not behave
# ends the script with 1.
#
#   scripts/demo.sh [--trace]     --trace: print the library's log of each call
#
# As root everything is shown, in a mount namespace of the script's own, so that nothing of it is
# seen outside. Without root it says what it leaves out. The machine's own bus is not touched.
set -euo pipefail
cd "$(dirname "$0")/.."
readonly build=build/demo

usage() {
    sed -n 's/^#   //p' scripts/demo.sh
    exit "$1"
}

trace=()
inside=
for argument in "$@"; do
    case $argument in
        --trace) trace=(--trace) ;;
        --inside) inside=1 ;;
        --help) usage 0 ;;
        *) usage 2 >&2 ;;
    esac
done

build() {
    cmake --preset release -B "$build" && cmake --build "$build" --parallel "$(nproc)"
}

prepare() {
    # shellcheck source=scripts/packages.sh
    . scripts/packages.sh
    # shellcheck source=scripts/progress.sh
    . scripts/progress.sh
    need_packages g++ cmake ninja-build pkg-config libdbus-1-dev libboost-dev dbus-daemon \
        libtomlplusplus-dev libre2-dev libseccomp-dev libutfcpp-dev nlohmann-json3-dev mount util-linux || exit 1
    echo "building (into $build) ..."
    step "the build" "$build.log" build
}

# enter PROPAGATION: goes on in a mount namespace of the script's own, or says why not and returns.
enter() {
    local refusal
    if refusal=$(unshare -m --propagation "$1" true 2>&1); then
        exec unshare -m --propagation "$1" scripts/demo.sh --inside "${trace[@]}"
    fi
    echo "a mount namespace with propagation $1: $refusal"
}

# Where nothing can be made private, as in a chroot whose root is no mount point, nothing needs to be
# if nothing is shared: a mount that is made on a shared one is shared itself.
nothing_is_shared() {
    local probe status=0
    probe=$(mktemp -d)
    # shellcheck disable=SC2016
    unshare -m --propagation unchanged sh -c '
        mount -t tmpfs probe "$1" || exit
        grep -F " $1 " /proc/self/mountinfo >"$1/line"
        ! grep -q " shared:" "$1/line" && [ -s "$1/line" ]
        status=$?
        umount "$1"
        exit "$status"' sh "$probe" || status=$?
    rmdir "$probe"
    return "$status"
}

if [ -z "$inside" ]; then
    mkdir -p build
    prepare
    if [ "$(id -u)" -eq 0 ]; then
        enter private
        if unshare -m --propagation unchanged true 2>/dev/null; then
            ! nothing_is_shared || enter unchanged
            echo "with propagation unchanged, what is mounted would be seen outside"
        fi
        echo "there is no mount namespace of its own here: what needs root is left out"
    fi
fi

# --- from here on: with the programs built, and as root in a mount namespace of our own

readonly sentrel=$build/cli/sentrel
readonly agent=$build/agent/sentrel-agent
readonly mnt=/run/media/demo
work=$(mktemp -d "${TMPDIR:-/tmp}/sentrel-demo.XXXXXX")
bus_pid=
agent_pid=
steps=0
left_out=0

end_process() {
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

clean_up() {
    end_process "$agent_pid"
    end_process "$bus_pid"
    rm -rf --one-file-system "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

failed() {
    echo "FAILED: $1" >&2
    [ ! -s "$work/agent.log" ] || sed 's/^/    agent log: /' "$work/agent.log" >&2
    exit 1
}

title() {
    steps=$((steps + 1))
    printf '\n%d. %s\n' "$steps" "$1"
}

leave_out() {
    left_out=$((left_out + 1))
    printf '\n-  left out: %s\n' "$1"
}

# call EXIT-STATUS WORD... : runs the command, shows what it said, and checks how it ended. Its
# standard output is left in $output.
output=
call() {
    local expected=$1 status=0
    shift
    printf '   $ sentrel %s\n' "$*"
    "$sentrel" "${trace[@]}" "$@" >"$work/out" 2>"$work/err" || status=$?
    output=$(cat "$work/out")
    sed 's/^/     /' "$work/out" "$work/err"
    case $status in
        125) printf '     exit status 125: the exchange failed, or wrong usage\n' ;;
        126) printf '     exit status 126: refused or failed by the agent\n' ;;
        127) printf '     exit status 127: no agent there\n' ;;
        *) [ "$1" = version ] || [ "$1" = errors ] ||
            printf '     status 0 (OK), return value %d, which is also the exit status\n' "$status" ;;
    esac
    [ "$status" -eq "$expected" ] || failed "exit status $status instead of $expected"
}

# says TEXT FILE : the file of the last call holds the text.
says() {
    grep -qF -- "$1" "$work/$2" || failed "'$1' was not said"
}

# check WHAT COMMAND... : the command succeeds.
check() {
    local what=$1
    shift
    "$@" || failed "$what"
    echo "   checked: $what"
}

has_options() {
    local option options
    options=,$(findmnt -n -o OPTIONS --mountpoint "$mnt"),
    for option in "$@"; do
        [[ $options = *,$option,* ]] || return 1
    done
}

not_mounted() {
    ! mountpoint -q "$mnt"
}

start_bus() {
    cat >"$work/bus.conf" <<END
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
END
    local line
    mkfifo "$work/ready"
    dbus-daemon --nofork --nopidfile --config-file="$work/bus.conf" --print-address=1 \
        >"$work/ready" 2>"$work/bus.log" &
    bus_pid=$!
    # The line comes when the bus listens, an end of file when it could not.
    read -r -t 20 line <"$work/ready" || {
        cat "$work/bus.log" >&2
        failed "the bus did not start"
    }
    rm "$work/ready"
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus"
}

# What this demonstration's agent may do, and nothing else: the first of the shipped examples.
readonly example=packaging/rules.d-examples/00-first-steps.toml

# The rules must be closed to the writing of others.
prepare_rules() {
    umask 022
    mkdir "$work/rules"
}

# The place that the example names; in the namespace that is this script's own, /run is empty.
prepare_place() {
    mount -t tmpfs -o mode=755 demo /run
    mkdir -p /run/media/demo
}

start_agent() {
    mkfifo "$work/started"
    "$agent" --rules "$work/rules" --audit-stderr \
        2> >(tee -p -a "$work/agent.log" >"$work/started") &
    agent_pid=$!
    local line=
    while read -r -t 20 line <&4; do
        case $line in *serving*) break ;; esac
    done 4<"$work/started"
    rm "$work/started"
    case $line in
        *serving*) printf '   (%s)\n' "$line" ;;
        *) failed "the agent did not start" ;;
    esac
}

stop_agent() {
    end_process "$agent_pid"
    agent_pid=
}

# wait_for_line TEXT: until the agent has said it.
wait_for_line() {
    local line
    while read -r -t 20 line <&5; do
        case $line in *"$1"*) return 0 ;; esac
    done 5< <(tail -n +1 -f --pid="$agent_pid" "$work/agent.log")
    return 1
}

# Whether the agent may take a caller's descriptor over.
descriptors_can_be_taken() {
    [ "$(id -u)" -eq 0 ] || [ "$(cat /proc/sys/kernel/yama/ptrace_scope 2>/dev/null || echo 0)" = 0 ]
}

show_root() {
    title "The agent mounts a file system in memory for its caller (SR_Mount)"
    call 0 mount -t tmpfs -o size=1m,mode=755 demo "$mnt"
    findmnt --mountpoint "$mnt" | sed 's/^/     /'
    check "without set-user-ID programs, devices or programs at all" \
        has_options nosuid nodev noexec
    check "a tmpfs is mounted there" \
        test "$(findmnt -n -o FSTYPE --mountpoint "$mnt")" = tmpfs

    title "It makes a device node (SR_Mknod)"
    call 0 mknod -m 600 "$mnt/null" c 1 3
    find "$mnt/null" -ls | sed 's/^/     /'
    check "it is a character device" test -c "$mnt/null"
    check "it is number 1:3" test "$(stat -c '%t:%T' "$mnt/null")" = 1:3
    call 126 mknod "$mnt/disk" b 8 0
    says "a rule forbids this" out
    check "there is no such node" test ! -e "$mnt/disk"

    title "It unmounts (SR_Umount)"
    call 0 umount "$mnt"
    check "nothing is mounted there any more" not_mounted

    title "A tool that fails: its own words on the caller's output, its exit code as the result"
    call 32 mount -t tmpfs -o size=much demo "$mnt"
    check "the tool said something" test -n "$output"
}

echo "sentrel: a demonstration on a bus of its own"
prepare_rules
as_root=
if [ -n "$inside" ]; then
    as_root=1
    prepare_place
fi
start_bus

title "The command knows its versions and the status codes"
call 0 version
says "interface v1.0" out
call 0 errors
says "RULE_NO_FOUND" out

title "Nobody serves yet: what a caller gets when the agent is away"
call 127 mount -t tmpfs demo "$mnt"
says "COMM_NO_SERVICE" err

title "An agent without rules refuses everything"
start_agent
call 126 mount -t tmpfs demo "$mnt"
says "RULE_NO_FOUND" err
check "nothing was mounted" not_mounted

title "Rules: what is allowed, to whom; a check says whether they can be used"
sed 's/^/     /' $example
install -m 644 $example "$work/rules"
"$agent" --check "$work/rules" | sed 's/^/     /' || failed "the rules are not right"
kill -HUP "$agent_pid"
check "the agent has taken them" wait_for_line "4 loaded"

if [ -n "$as_root" ]; then
    show_root
else
    leave_out "mounting, making a device node and unmounting need root"
fi

if descriptors_can_be_taken; then
    title "A refusal comes with its reason"
    call 126 mount -t ext4 /dev/sda1 "$mnt"
    says "no rule allows this" out

    title "Words with blanks and quotes arrive as they are"
    call 126 mount -t tmpfs demo "$mnt/it's \"not\" there"
    check "the audit has them" wait_for_line "/it's"
else
    leave_out "this machine lets only root take a descriptor over (yama/ptrace_scope)"
fi

title "Every request left a line in the audit, before it and after it; a refusal too"
grep -E 'phase=' "$work/agent.log" | tail -n 3 | fold -s -w 95 | sed 's/ $//; s/^/     /'
check "the refusal is there" grep -q "decision=deny status=7" "$work/agent.log"

title "Arguments that cannot be read are refused before anything is started"
call 126 raw mount "-t tmpfs 'no closing quote"
says "status 1, FAIL" err

title "The agent has gone: what a caller gets then"
stop_agent
call 127 umount "$mnt"
says "COMM_NO_SERVICE" err

summary="all $steps steps behaved as they should"
[ "$left_out" -eq 0 ] || summary="$summary; $left_out left out, see above"
printf '\nDone: %s.\n' "$summary"
