#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The Debian packages in a fresh system: installed, tried by their own tests, upgraded, purged.
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
[ -f /usr/share/dbus-1/system.d/org.sentrel.sr_agent.conf ] || fail "the policy is not there"
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
[ -z "$(dpkg --audit)" ] || fail "dpkg is not content"
echo "== done"
INSIDE
unshare -m -p -f --kill-child sh -c '
    mount -t proc proc "$1/proc" && mount -t tmpfs tmpfs "$1/tmp" &&
    exec chroot "$1" sh /tests/inside' sh "$scratch/root"
rm -rf "$scratch"
