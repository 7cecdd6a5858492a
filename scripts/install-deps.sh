#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when they are missing.
# Idempotent: does nothing when everything is present. As non-root it only prints
# the command to run.
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config make
          libcurl4-openssl-dev libcjson-dev libssl-dev
          libgtest-dev libgmock-dev libcpp-httplib-dev python3 help2man)
# Extra groups, selected by arguments: fuzz (clang + libFuzzer runtime),
# valgrind, peer (SWUpdate for scripts/peer-test.sh), installers (RAUC and
# SWUpdate for tests/installers_test.sh).
for extra in "$@"; do
  case "$extra" in
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    valgrind) packages+=(valgrind) ;;
    peer) packages+=(swupdate openssl cpio) ;;
    installers) packages+=(rauc squashfs-tools dbus systemd swupdate libubootenv-tool openssl cpio curl) ;;
    *) echo "install-deps: unknown group '$extra'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run: sudo apt-get update && sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q "${missing[@]}"
