#!/usr/bin/env bash
# Builds (once) a Debian bookworm armhf sysroot with the library's build and
# test dependencies under .cache/armhf-sysroot, for cross-building and for
# running the result under qemu-arm. Idempotent.
set -euo pipefail
cd "$(dirname "$0")/.."
root=${ARMHF_SYSROOT:-$PWD/.cache/armhf-sysroot}
stamp=$root/.tamrel-complete

need=(debootstrap qemu-user g++-arm-linux-gnueabihf)
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "Run: sudo apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}"
fi

[ -f "$stamp" ] && { echo "$root"; exit 0; }

rm -rf "$root"
mkdir -p "$root"
include=libcurl4-openssl-dev,libcjson-dev,libssl-dev,libgtest-dev,libgmock-dev,libcpp-httplib-dev,libstdc++-12-dev
# A foreign bootstrap only downloads the packages and unpacks the base set;
# unpack every downloaded package so that headers and libraries are in place.
debootstrap --foreign --arch=armhf --variant=minbase --include="$include" bookworm "$root" >&2
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
