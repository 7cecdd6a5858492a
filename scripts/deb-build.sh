#!/usr/bin/env bash
# Builds the Debian packages from a copy of the work tree into
# build-deb/ARCH/ and checks them with lintian (errors and warnings fail).
#   amd64: dpkg-buildpackage on this machine; missing build dependencies are
#          installed with `apt-get build-dep` from debian/control.
#   armhf: dpkg-buildpackage --host-arch=armhf in a bookworm amd64 chroot
#          (scripts/deb-chroot.sh) with the cross toolchain and the armhf build
#          dependencies through multiarch. dpkg-shlibdeps needs the armhf
#          packages in a dpkg database to give the packages their Depends,
#          which a plain sysroot does not have; the chroot keeps the foreign
#          architecture off this machine's apt.
# The suite runs in `make test`, so the package build only builds, unless
# DEB_BUILD_OPTIONS is set without nocheck.
# usage: deb-build.sh [amd64|armhf]
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-amd64}
[ "$arch" = amd64 ] || [ "$arch" = armhf ] || { echo "usage: deb-build.sh [amd64|armhf]" >&2; exit 2; }
out=$PWD/build-deb/$arch
version=$(sed -n 's/^project(tamrelcore VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
packaged=$(dpkg-parsechangelog -l debian/changelog -S Version)
if [ "${packaged%%-*}" != "$version" ]; then
  echo "deb: debian/changelog has $packaged, CMakeLists.txt $version" >&2
  exit 1
fi
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-nocheck parallel=${JOBS:-2}}
profiles=
case " $DEB_BUILD_OPTIONS " in *" nocheck "*) profiles=nocheck ;; esac
[ "$arch" = armhf ] && profiles=cross${profiles:+,$profiles}

as_root() {
  [ "$(id -u)" -eq 0 ] || { echo "deb: run as root, or run first: sudo $*" >&2; exit 1; }
  "$@"
}
missing=()
for p in dpkg-dev debhelper lintian; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  as_root apt-get update -q
  DEBIAN_FRONTEND=noninteractive as_root apt-get install -y -q "${missing[@]}"
fi

copy_tree() {  # DIR: the tracked and new files of the work tree
  mkdir -p "$1"
  git ls-files -z --cached --others --exclude-standard \
    | while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done \
    | tar --null -T - -cf - | tar -xf - -C "$1"
}

rm -rf "$out"
mkdir -p "$out"
if [ "$arch" = amd64 ]; then
  src=$out/tamrel-$version
  copy_tree "$src"
  if ! (cd "$src" && dpkg-checkbuilddeps ${profiles:+-P "$profiles"} 2>/dev/null); then
    DEBIAN_FRONTEND=noninteractive as_root apt-get build-dep -y -q \
      ${profiles:+-P "$profiles"} "$src"
  fi
  (cd "$src" && dpkg-buildpackage -us -uc -b ${profiles:+--build-profiles="$profiles"})
  rm -rf "$src"
else
  . scripts/deb-chroot.sh
  root=$PWD/build-deb/chroot-armhf
  trap chroot_close EXIT
  chroot_open "$root" build-essential,crossbuild-essential-armhf,debhelper,cmake,ninja-build,pkg-config
  copy_tree "$root/srv/tamrel-$version"
  chroot_run "$root" /bin/sh -euc "
    dpkg --add-architecture armhf
    apt-get update -q
    apt-get build-dep -y -q -a armhf -P '$profiles' /srv/tamrel-$version
    cd /srv/tamrel-$version
    DEB_BUILD_OPTIONS='$DEB_BUILD_OPTIONS' dpkg-buildpackage -us -uc -b --host-arch=armhf \
      --build-profiles='$profiles'"
  cp "$root"/srv/*.deb "$root"/srv/*.buildinfo "$root"/srv/*.changes "$out/"
  chroot_close
fi

cd "$out"
lintian --fail-on error,warning tamrel_"$packaged"_"$arch".changes
if [ "$arch" = armhf ]; then
  dpkg-deb --fsys-tarfile libtamrelcore1_"$packaged"_armhf.deb \
    | tar -xOf - --wildcards './usr/lib/*/libtamrelcore.so.*.*' > plugin.check
  header=$(readelf -h plugin.check)
  rm -f plugin.check
  if ! grep -q 'Class:.*ELF32' <<< "$header" || ! grep -q 'Machine:.*ARM$' <<< "$header"; then
    echo "deb: the armhf plug-in is not ELF32 ARM" >&2
    exit 1
  fi
  echo "deb: the armhf plug-in is ELF32 ARM"
fi
ls -l "$out"
