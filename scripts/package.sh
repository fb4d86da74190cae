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
need_packages build-essential fakeroot lintian
if ! dpkg-checkbuilddeps 2>/dev/null; then
    as_root apt-get update -q
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get build-dep -q -y --no-install-recommends ./
fi

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
