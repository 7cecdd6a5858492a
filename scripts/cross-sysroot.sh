#!/usr/bin/env bash
# Builds (once) a Debian bookworm sysroot for ARCH with the library's build and
# test dependencies under .cache/ARCH-sysroot (or TAMREL_SYSROOT), for
# cross-building with cmake/toolchains/ARCH.cmake and for running the result
# under qemu-user. Installs the cross compiler and qemu-user when missing.
# Prints the sysroot's path. Idempotent.
# usage: cross-sysroot.sh armhf|arm64
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-}
case $arch in
  armhf) triplet=arm-linux-gnueabihf ;;
  arm64) triplet=aarch64-linux-gnu ;;
  *) echo "usage: cross-sysroot.sh armhf|arm64" >&2; exit 2 ;;
esac
root=${TAMREL_SYSROOT:-$PWD/.cache/$arch-sysroot}
stamp=$root/.tamrel-complete

need=(debootstrap qemu-user "g++-$triplet")
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "Run: sudo apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" >&2
fi

[ -f "$stamp" ] && { echo "$root"; exit 0; }

rm -rf "$root"
mkdir -p "$root"
include=libcurl4-openssl-dev,libcjson-dev,libssl-dev,libgtest-dev,libgmock-dev,libcpp-httplib-dev,libstdc++-12-dev
# A foreign bootstrap only downloads the packages and unpacks the base set;
# unpack every downloaded package so that headers and libraries are in place.
debootstrap --foreign --arch="$arch" --variant=minbase --include="$include" bookworm "$root" >&2
for deb in "$root"/var/cache/apt/archives/*.deb; do
  dpkg-deb -x "$deb" "$root"
done
# Absolute symlinks inside the sysroot (libfoo.so -> /lib/...) must resolve
# inside it when the cross linker follows them.
find "$root" -xtype l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$root$target" "$link"
done
touch "$stamp"
echo "$root"
