#!/usr/bin/env bash
# Builds the Debian packages from a copy of the work tree into
# build-deb/ARCH/ and checks them with lintian (errors and warnings fail).
#   amd64: dpkg-buildpackage on this machine; missing build dependencies are
#          installed with `apt-get build-dep` from debian/control.
#   armhf, arm64: dpkg-buildpackage --host-arch=ARCH in a bookworm amd64
#          chroot (scripts/deb-chroot.sh) with the cross toolchain and the
#          ARCH build dependencies through multiarch. dpkg-shlibdeps needs the
#          ARCH packages in a dpkg database to give the packages their
#          Depends, which a plain sysroot does not have; the chroot keeps the
#          foreign architecture off this machine's apt. The plug-in's ELF
#          header is checked to be for ARCH.
# The suite runs in `make test`, so the package build only builds, unless
# DEB_BUILD_OPTIONS is set without nocheck.
# usage: deb-build.sh [amd64|armhf|arm64]
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-amd64}
# The ELF class and machine readelf -h shows for the plug-in of a cross build.
case $arch in
  amd64) ;;
  armhf) elf_class=ELF32 elf_machine=ARM ;;
  arm64) elf_class=ELF64 elf_machine=AArch64 ;;
  *) echo "usage: deb-build.sh [amd64|armhf|arm64]" >&2; exit 2 ;;
esac
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
[ "$arch" = amd64 ] || profiles=cross${profiles:+,$profiles}

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
  root=$PWD/build-deb/chroot-$arch
  trap chroot_close EXIT
  chroot_open "$root" build-essential,crossbuild-essential-$arch,debhelper,cmake,ninja-build,pkg-config
  copy_tree "$root/srv/tamrel-$version"
  chroot_run "$root" /bin/sh -euc "
    dpkg --add-architecture $arch
    apt-get update -q
    apt-get build-dep -y -q -a $arch -P '$profiles' /srv/tamrel-$version
    cd /srv/tamrel-$version
    DEB_BUILD_OPTIONS='$DEB_BUILD_OPTIONS' dpkg-buildpackage -us -uc -b --host-arch=$arch \
      --build-profiles='$profiles'"
  cp "$root"/srv/*.deb "$root"/srv/*.buildinfo "$root"/srv/*.changes "$out/"
  chroot_close
fi

cd "$out"
lintian --fail-on error,warning tamrel_"$packaged"_"$arch".changes
if [ "$arch" != amd64 ]; then
  dpkg-deb --fsys-tarfile libtamrelcore1_"$packaged"_"$arch".deb \
    | tar -xOf - --wildcards './usr/lib/*/libtamrelcore.so.*.*' > plugin.check
  header=$(readelf -h plugin.check)
  rm -f plugin.check
  if ! grep -q "Class: *$elf_class\$" <<< "$header" \
     || ! grep -q "Machine: *$elf_machine\$" <<< "$header"; then
    echo "deb: the $arch plug-in is not $elf_class $elf_machine:" >&2
    grep -E 'Class:|Machine:' <<< "$header" >&2
    exit 1
  fi
  echo "deb: the $arch plug-in is $elf_class $elf_machine"
fi
ls -l "$out"
