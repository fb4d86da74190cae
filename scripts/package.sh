#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages, in a copy of the tree, and has lintian look at them. What is missing to
# build is installed first. DEB_BUILD_OPTIONS is heeded: nocheck leaves the tests out.
#   scripts/package.sh [FOLDER]     into build/packages, or FOLDER
set -eu
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/progress.sh

out=${1:-build/packages}
mkdir -p "$out"
out=$(cd "$out" && pwd)
need_packages build-essential fakeroot lintian
if ! dpkg-checkbuilddeps 2>/dev/null; then
    can_install "$(dpkg-checkbuilddeps 2>&1 | sed 's/.*: //')"
    apt_get update
    apt_get build-dep --no-install-recommends ./
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/sentrel"
tar -c --exclude-vcs --exclude='./build' --exclude='./build-*' --exclude=__pycache__ . |
    tar -x -C "$scratch/sentrel"
build() { (cd "$scratch/sentrel" && dpkg-buildpackage "-j$(nproc)" -us -uc -b); }
step "the packages" "$out/build.log" build
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mv "$scratch"/*.deb "$scratch"/*.changes "$scratch"/*.buildinfo "$out"
allow=
[ "$(id -u)" -ne 0 ] || allow=--allow-root
# shellcheck disable=SC2086
lintian $allow --fail-on error,warning "$out"/*.changes
ls -l "$out"/*.deb
