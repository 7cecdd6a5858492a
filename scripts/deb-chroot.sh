# shellcheck shell=bash
# Fresh Debian bookworm amd64 chroots for the package scripts, sourced by
# deb-build.sh and deb-test.sh. A debootstrapped base with the given packages
# is cached as a tarball (TAMREL_CHROOT_CACHE, default /var/cache/tamrel);
# every chroot_open unpacks a fresh copy. The caller's EXIT trap must call
# chroot_close, which unmounts and removes the chroot; it never removes a
# tree that still has mounts. Sourcing this file turns SIGINT and SIGTERM
# into an exit, so that the EXIT trap runs for them too.
# usage: chroot_open ROOT PACKAGES(comma-separated) [security]; chroot_run ROOT CMD...

chroot_mounts=()
chroot_root=
trap 'exit 130' INT
trap 'exit 143' TERM

# The Debian mirror apt already uses (deb822 or one-line sources).
chroot_mirrors() {
  local uris
  uris=$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
           /etc/apt/sources.list.d/*.sources 2>/dev/null \
         | sed -n -e 's/^URIs:[[:space:]]*//p' \
                  -e 's/^deb[[:space:]]\+\(\[[^]]*\][[:space:]]\+\)\?//p' | awk '{print $1}' || true)
  mirror=$(echo "$uris" | grep -E '/debian/?$' | head -n1 || true)
  security=$(echo "$uris" | grep -E '/debian-security/?$' | head -n1 || true)
  mirror=${mirror:-http://deb.debian.org/debian}
  security=${security:-http://deb.debian.org/debian-security}
}

chroot_close() {
  local i
  for ((i = ${#chroot_mounts[@]} - 1; i >= 0; i--)); do
    umount "${chroot_mounts[$i]}" 2>/dev/null || umount -l "${chroot_mounts[$i]}" || true
  done
  chroot_mounts=()
  [ -n "$chroot_root" ] || return 0
  if grep -q " $chroot_root/" /proc/mounts; then
    echo "chroot: mounts left under $chroot_root; not removing it" >&2
    return 1
  fi
  rm -rf --one-file-system "$chroot_root"
  chroot_root=
}

chroot_open() {  # ROOT PACKAGES [security]
  local root=$1 packages=$2 cache=${TAMREL_CHROOT_CACHE:-/var/cache/tamrel} base m
  [ "$(id -u)" -eq 0 ] || { echo "chroot: needs root (debootstrap, chroot, mount)" >&2; return 1; }
  command -v debootstrap > /dev/null \
    || DEBIAN_FRONTEND=noninteractive apt-get install -y -q debootstrap
  chroot_mirrors
  if grep -q " $root/" /proc/mounts; then
    echo "chroot: $root has mounts from an earlier run; unmount them first" >&2
    return 1
  fi
  chroot_root=$root
  rm -rf --one-file-system "$root"
  base=$cache/bookworm-amd64-$(echo "$packages $mirror" | md5sum | cut -c1-12).tar
  if [ ! -f "$base" ]; then
    mkdir -p "$cache" "$root"
    debootstrap --variant=minbase --include="$packages" bookworm "$root" "$mirror" >&2
    rm -rf "$root"/var/cache/apt/archives/*.deb "$root"/var/lib/apt/lists/*
    tar -C "$root" -cf "$base.tmp" . && mv "$base.tmp" "$base"
    rm -rf --one-file-system "$root"
  fi
  mkdir -p "$root"
  tar -C "$root" -xf "$base"
  {
    echo "deb $mirror bookworm main"
    echo "deb $mirror bookworm-updates main"
    [ "${3:-}" != security ] || echo "deb $security bookworm-security main"
  } > "$root/etc/apt/sources.list"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  for m in proc sys dev dev/pts; do
    case $m in
      proc) mount -t proc proc "$root/proc" ;;
      sys) mount -t sysfs sysfs "$root/sys" ;;
      *) mount --bind "/$m" "$root/$m" ;;
    esac
    chroot_mounts+=("$root/$m")
  done
}

chroot_run() {  # ROOT CMD...
  local root=$1; shift
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@"
}
