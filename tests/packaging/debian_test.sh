#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The Debian packages in a fresh system: installed, tried by their own tests and by the first guide as
# it is written, upgraded, purged.
#   debian_test.sh SOURCE SCRATCH
# Takes minutes and the network. SENTREL_PACKAGES names a folder of finished packages, and
# SENTREL_BASE_SYSTEM a tar file of a fresh system; otherwise both are made.
set -eu
source=$1 scratch=$2

skip() {
    echo "skipped: $1"
    [ "${SENTREL_MUST_RUN:-}" != 1 ] || exit 1
    exit 77
}
[ "$(id -u)" -eq 0 ] || skip "a system is made by root only"
command -v debootstrap >/dev/null || skip "debootstrap is not installed"
unshare -m true 2>/dev/null || skip "no mount namespace can be made here"

rm -rf "$scratch"
mkdir -p "$scratch/root"
packages=${SENTREL_PACKAGES:-}
if [ -z "$packages" ]; then
    packages=$scratch/packages
    DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" "$source/scripts/package.sh" "$packages"
fi
if [ -n "${SENTREL_BASE_SYSTEM:-}" ]; then
    tar -x -f "$SENTREL_BASE_SYSTEM" -C "$scratch/root"
else
    debootstrap --variant=minbase bookworm "$scratch/root"
fi

# The packages, and the same with a higher version.
mkdir "$scratch/root/old" "$scratch/root/new" "$scratch/root/tests"
for package in "$packages"/*.deb; do
    case $package in
    *-dbgsym_*) continue ;;
    esac
    cp "$package" "$scratch/root/old/"
    rm -rf "$scratch/unpacked"
    dpkg-deb -R "$package" "$scratch/unpacked"
    version=$(sed -n 's/^Version: //p' "$scratch/unpacked/DEBIAN/control")
    sed -i -e "s/^Version: .*/&+next/" -e "s/(= $version)/(= $version+next)/g" \
        "$scratch/unpacked/DEBIAN/control"
    dpkg-deb -b "$scratch/unpacked" "$scratch/root/new/" >/dev/null
done
cp "$source/debian/tests/build" "$source/debian/tests/call" "$scratch/root/tests/"
sed -n 's/^Depends: //p' "$source/debian/tests/control" | tr ',' '\n' |
    grep -v sentrel | sort -u >"$scratch/root/tests/depends"
# No service is started in there.
printf '#!/bin/sh\nexit 101\n' >"$scratch/root/usr/sbin/policy-rc.d"
chmod 755 "$scratch/root/usr/sbin/policy-rc.d"

cat >"$scratch/root/tests/inside" <<'INSIDE'
#!/bin/sh
set -eu
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
apt="apt-get -q -y --no-install-recommends -o Dpkg::Use-Pty=0"
fail() {
    echo "FAILED: $1" >&2
    exit 1
}
leftovers() {
    find / -xdev \( -path /proc -o -path /sys -o -path /old -o -path /new -o -path /tests \) \
        -prune -o -iname '*sentrel*' -print
}

$apt update
# Manual pages and documents too.
rm -f /etc/dpkg/dpkg.cfg.d/*exclude*
echo "== install"
$apt install /old/*.deb
getent group sentrel >/dev/null || fail "the group is not there"
[ -f /lib/systemd/system/sentrel-agent.service ] || fail "the unit is not there"
[ -L /etc/systemd/system/multi-user.target.wants/sentrel-agent.service ] || fail "not enabled"
for file in system.d/org.sentrel.sr_agent.conf system-services/org.sentrel.sr_agent.service \
    interfaces/org.sentrel.sr_agent.xml; do
    [ -f "/usr/share/dbus-1/$file" ] || fail "$file is not there"
done
[ -d /etc/sentrel/rules.d ] || fail "there is no place for rules"
sentrel version
sentrel-agent --version

echo "== the packages' tests"
xargs -a /tests/depends $apt install
for test in build call; do
    export AUTOPKGTEST_TMP=$(mktemp -d)
    sh "/tests/$test" || fail "test $test"
    rm -rf "$AUTOPKGTEST_TMP"
done

echo "== the first guide"
guide=/usr/share/doc/libsentrel-client-dev/first-call.md
# block LANGUAGE: the guide's first block of it
block() {
    zcat -f "$guide"* | sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" | sed -e '1d' -e '/^```/,$d'
}
as_me() { setpriv --reuid=me --regid=me --init-groups "$@"; }
mounted() { mountpoint -q /run/media/x || fail "$1: nothing is mounted"; }
off() {
    as_me sentrel umount /run/media/x
    ! mountpoint -q /run/media/x || fail "$1: still mounted"
}
useradd --create-home me
usermod -aG sentrel me
block toml >/etc/sentrel/rules.d/10-first.toml
sentrel-agent --check
mkdir -p /run/media/x /run/dbus
# The system's own bus of this system; it starts the agent at the first call.
dbus-daemon --system --fork
as_me sentrel mount -t tmpfs -o size=1m none /run/media/x
mounted "the command"
off "the command"
as_me sentrel doctor
cd /home/me
block c >first.c
# shellcheck disable=SC2046
cc -std=c99 first.c $(pkg-config --cflags --libs sentrel-client) -o first
as_me ./first
mounted "C"
off "C"
{
    block cpp | sed -e '/^#include/!d'
    printf 'int main() {\n'
    block cpp | sed -e '/^#include/d'
    printf '}\n'
} >first.cpp
# shellcheck disable=SC2046
c++ -std=c++17 first.cpp $(pkg-config --cflags --libs sentrel-client) -o first-cpp
as_me ./first-cpp
mounted "C++"
off "C++"
block python >first.py
[ "$(as_me python3 first.py)" = "0 b''" ] || fail "Python says something else"
mounted "Python"
off "Python"

echo "== with the unit's capabilities"
owner() {
    dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.GetConnectionUnixProcessID string:org.sentrel.sr_agent |
        sed 's/.* //'
}
first=$(owner)
kill "$first"
timeout 30 tail --pid="$first" -f /dev/null || fail "the agent does not end"
cat >/etc/sentrel/rules.d/20-node.toml <<'TOML'
[[rule]]
name   = "a node"
agent  = "sr_mknod"
permit = true
user   = "me"
path   = "/dev/trial"
kind   = "c"
major  = 1
minor  = 3
owner  = "me"
TOML
unit=/lib/systemd/system/sentrel-agent.service
kept=$(sed -n 's/^CapabilityBoundingSet=//p' "$unit" | tr ' ' '\n' |
    sed 's/^CAP_\(.*\)/,+\1/' | tr 'A-Z\n' 'a-z ' | tr -d ' ')
mkfifo /tests/served
setpriv --no-new-privs --bounding-set="-all$kept" sentrel-agent --audit-stderr 2>/tests/served &
agent=$!
exec 3</tests/served
while read -r line <&3; do
    case $line in
    *serving*) break ;;
    esac
done
cat <&3 >&2 &
as_me sentrel mount -t tmpfs -o size=1m none /run/media/x
mounted "with the unit's capabilities"
off "with the unit's capabilities"
as_me sentrel mknod /dev/trial c 1 3
[ "$(stat -c '%U %a %t %T' /dev/trial)" = "me 600 1 3" ] || fail "the node is another"
exec 3<&-
kill "$agent"
wait "$agent" || fail "the agent ended with $?"
kill "$(cat /run/dbus/pid)"
rm -r /dev/trial /etc/sentrel/rules.d/*.toml /run/media/x
cd /
userdel -r me 2>/dev/null

echo "== upgrade"
printf '# kept\n' >/etc/sentrel/rules.d/50-kept.toml
$apt install /new/*.deb
for package in $(dpkg-query -W -f '${Package}\n' '*sentrel*'); do
    case $(dpkg-query -W -f '${db:Status-Status} ${Version}' "$package") in
    "installed "*+next) ;;
    *) fail "$package is not upgraded" ;;
    esac
done
[ -s /etc/sentrel/rules.d/50-kept.toml ] || fail "the administrator's rule is gone"
sentrel version

echo "== remove and purge"
$apt remove sentrel-agent
[ -s /etc/sentrel/rules.d/50-kept.toml ] || fail "the administrator's rule is gone"
$apt purge $(dpkg-query -W -f '${Package}\n' '*sentrel*')
[ -s /etc/sentrel/rules.d/50-kept.toml ] || fail "the administrator's rule is gone"
rm /etc/sentrel/rules.d/50-kept.toml
rmdir /etc/sentrel/rules.d /etc/sentrel
left=$(leftovers)
[ -z "$left" ] || fail "left behind: $left"
# The group stays, as system groups do: files may still be its own.
left=$(grep -rl sentrel /etc | grep -v '^/etc/g\(roup\|shadow\)-\{0,1\}$' || true)
[ -z "$left" ] || fail "left behind in: $left"
[ -z "$(dpkg --audit)" ] || fail "dpkg is not content"
echo "== done"
INSIDE
# shellcheck disable=SC2016
unshare -m -p -f --kill-child sh -c '
    mount -t proc proc "$1/proc" && mount -t tmpfs tmpfs "$1/tmp" &&
    exec chroot "$1" sh /tests/inside' sh "$scratch/root"
rm -rf "$scratch"
