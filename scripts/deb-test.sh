#!/usr/bin/env bash
# Install test of the amd64 packages in build-deb/amd64 (made by `make deb`)
# in a fresh Debian bookworm chroot: apt installs them from a local package
# directory and resolves their dependencies from the mirror, then the checks
# of scripts/deb-test-inside.sh run. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deb-chroot.sh
debs=$PWD/build-deb/amd64
root=$PWD/build-deb/chroot-test
ls "$debs"/tamrel-agent_*_amd64.deb > /dev/null 2>&1 \
  || { echo "deb-test: no packages in $debs; run make deb first" >&2; exit 1; }
command -v dpkg-scanpackages > /dev/null \
  || DEBIAN_FRONTEND=noninteractive apt-get install -y -q dpkg-dev

start=$SECONDS
trap chroot_close EXIT
chroot_open "$root" systemd,cmake,g++,make,ninja-build,pkg-config,binutils security
echo "deb-test: chroot ready ($(( SECONDS - start ))s)"
mkdir -p "$root/srv/debs" "$root/srv/tests"
cp "$debs"/*.deb "$root/srv/debs/"
rm -f "$root"/srv/debs/*-dbgsym_*.deb
(cd "$root/srv/debs" && dpkg-scanpackages . > Packages 2> /dev/null)
echo "deb [trusted=yes] file:/srv/debs ./" >> "$root/etc/apt/sources.list"
cp -r tests/consumer scripts/deb-test-inside.sh "$root/srv/tests/"
chroot_run "$root" /bin/bash /srv/tests/deb-test-inside.sh
echo "deb-test: done in $(( SECONDS - start ))s"
