#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages, in a copy of the tree, and has lintian look at them. What is missing to
# build is installed first. DEB_BUILD_OPTIONS is heeded: nocheck leaves the tests out.
#   scripts/package.sh [FOLDER]     into build/packages, or FOLDER
set -eu
cd "$(dirname "$0")/.."
. scripts/packages.sh

out=${1:-build/packages}
mkdir -p "$out"
out=$(cd "$out" && pwd)
# Empty cells are profiles, versions and architectures, which are left out of the names.
needed=$(sed -n '/^Build-Depends:/,/^[A-Z][a-z-]*:/p' debian/control | tr ',' '\n' |
    sed -n 's/^\(Build-Depends:\)\{0,1\} *\([a-z][a-z0-9.+-]*\).*/\2/p' |
    sed -e 's/^debhelper-compat$/debhelper/' -e '/^dh-sequence-installsysusers$/d' \
        -e 's/^dh-sequence-python3$/dh-python/' -e 's/^python3$/python3/')
# shellcheck disable=SC2086
need_packages $needed build-essential fakeroot lintian

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/sentrel"
tar -c --exclude-vcs --exclude='./build' --exclude='./build-*' --exclude=__pycache__ . |
    tar -x -C "$scratch/sentrel"
(cd "$scratch/sentrel" && dpkg-buildpackage -us -uc -b)
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mv "$scratch"/*.deb "$scratch"/*.changes "$scratch"/*.buildinfo "$out"
allow=
[ "$(id -u)" -ne 0 ] || allow=--allow-root
# shellcheck disable=SC2086
lintian $allow --fail-on error,warning "$out"/*.changes
ls -l "$out"/*.deb
