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

# need_packages PACKAGE...: returns non-zero when a package could not be installed.
need_packages() {
    missing=
    for package in "$@"; do
        state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)
        [ "$state" = installed ] || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    echo "installing:$missing"
    # $missing is a list of words on purpose.
    # shellcheck disable=SC2086
    as_root apt-get update -q &&
        as_root env DEBIAN_FRONTEND=noninteractive \
            apt-get install -q -y --no-install-recommends $missing
}
