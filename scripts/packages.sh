# SPDX-License-Identifier: Apache-2.0
# Sourced by the other scripts: need_packages installs, by name, the Debian packages that are
# missing. It owns nothing and keeps nothing; running it again finds nothing to do.
# shellcheck shell=sh

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# can_install WHAT: says what to do and returns non-zero where nothing can be installed.
can_install() {
    if ! command -v apt-get >/dev/null; then
        echo "there is no apt-get here; install what these packages of Debian hold: $1" >&2
        return 1
    fi
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        echo "this is not root, and there is no sudo; run as root, then try again:" >&2
        echo "    apt-get update && apt-get install --no-install-recommends $1" >&2
        return 1
    fi
}

# apt_get WORD...: apt-get without questions. It waits for another one, five minutes at most: apt
# itself for the lock of dpkg, the loop for that of the lists.
apt_get() {
    apt_errors=$(mktemp) || return 1
    apt_tries=60
    until as_root env DEBIAN_FRONTEND=noninteractive LC_ALL=C \
        apt-get -q -y -o DPkg::Lock::Timeout=300 "$@" 2>"$apt_errors"; do
        cat "$apt_errors" >&2
        apt_tries=$((apt_tries - 1))
        if [ "$apt_tries" -eq 0 ] || ! grep -q 'Could not get lock' "$apt_errors"; then
            rm -f "$apt_errors"
            return 1
        fi
        echo "another apt is at work; waiting for it"
        sleep 5
    done
    cat "$apt_errors" >&2
    rm -f "$apt_errors"
}

# is_installed PACKAGE: one that nobody knows is not installed, and no reason to end.
is_installed() {
    dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# need_packages PACKAGE...: returns non-zero when a package could not be installed.
need_packages() {
    missing=
    for package in "$@"; do
        is_installed "$package" || missing="$missing $package"
    done
    missing=${missing# }
    [ -n "$missing" ] || return 0
    can_install "$missing" || return 1
    echo "installing: $missing"
    # $missing is a list of words on purpose.
    # shellcheck disable=SC2086
    if apt_get update && apt_get install --no-install-recommends $missing; then
        return 0
    fi
    echo "not installed: $missing" >&2
    return 1
}

# unpack_package PACKAGE FOLDER: the package's files below FOLDER, for one that must not be installed
# because it would change the system. Non-zero when it cannot be had.
unpack_package() {
    [ ! -d "$2/usr" ] || return 0
    mkdir -p "$2" && (cd "$2" && apt-get download -q "$1" && dpkg-deb -x "$1"_*.deb .)
}
