#!/usr/bin/env bash
# Builds hosts against an installed tree only and runs them; each must print
# the plug-in's uuid:
#   find_package: static_host (tamrelcore::static), plugin_host (dlopen of
#                 tamrelcore::plugin's file, built with tamrelcore::headers
#                 only, so it must not link the library or its dependencies)
#   pkg-config:   static_host built with `pkg-config --cflags --libs`
# With BUILD_DIR it first installs that build into a temporary prefix (or
# PREFIX), checks what the default install holds, and runs the installed
# agent against the installed test server. With --system it uses what is
# installed in /usr (a Debian package).
# usage: run.sh BUILD_DIR [PREFIX] | run.sh --system
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
fail() { echo "FAILED: $*"; exit 1; }
expect() {  # what, command...
  local what=$1; shift
  local out; out=$("$@") || fail "$what (exit $?)"
  [ "$out" = f5f95dd ] || fail "$what printed '$out'"
  echo "ok: $what"
}

if [ "$1" = --system ]; then
  prefix=/usr build=
  work=$(mktemp -d /tmp/tamrel-consumer-XXXXXX)
  trap 'rm -rf "$work"' EXIT
  pc=$(pkg-config --variable=pcfiledir tamrelcore)/tamrelcore.pc
else
  build=$(cd "$1" && pwd)
  if [ $# -ge 2 ]; then
    prefix=$2; mkdir -p "$prefix"; prefix=$(cd "$prefix" && pwd)
  else
    prefix=$(mktemp -d /tmp/tamrel-prefix-XXXXXX)
    trap 'rm -rf "$prefix"' EXIT
  fi
  work=$prefix/consumer-build
  cmake --install "$build" --prefix "$prefix" > /dev/null
  pc=$(find "$prefix" -name tamrelcore.pc)
  for f in include/tamrel/plugin/libtamrelcore.h include/tamrel/ddi/hawkbit_query.h \
      include/tamrel/properties/lookup.h bin/tamrel-agent etc/tamrel/agent.conf \
      lib/systemd/system/tamrel-agent.service share/tamrel-agent/attributes/os-release; do
    [ -e "$prefix/$f" ] || fail "$f not installed"
  done
  # The test server ships only on request, never with the agent.
  [ ! -e "$prefix/bin/tamrel-ddi-server" ] || fail "tamrel-ddi-server in the default install"
  cmake --install "$build" --prefix "$prefix" --component ddi-server > /dev/null
  [ -x "$prefix/bin/tamrel-ddi-server" ] || fail "component ddi-server installs no server"
fi
libdir=$(dirname "$(dirname "$pc")")
[ -e "$libdir/libtamrelcore.a" ] && [ -e "$libdir/libtamrelcore.so" ] \
  || fail "libraries not in $libdir"

# An installed tree must not point back into the source or build tree.
if [ -n "$build" ] && grep -rqs -e "$build" -e "$(dirname "$(dirname "$here")")/" \
    "$libdir/cmake" "$pc"; then
  fail "installed package files refer to the build or source tree"
fi

cmake -S "$here" -B "$work" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$work.log" 2>&1 \
  && cmake --build "$work" >> "$work.log" 2>&1 \
  || { cat "$work.log"; fail "find_package consumer build"; }
rm -f "$work.log"
expect "find_package, tamrelcore::static" "$work/static_host"
expect "find_package, dlopen of tamrelcore::plugin" "$work/plugin_host"
if readelf -d "$work/plugin_host" | grep -E 'NEEDED.*(tamrelcore|curl|cjson|crypto)'; then
  fail "tamrelcore::headers made plugin_host link the library or its dependencies"
fi

if [ -n "$build" ]; then
  PKG_CONFIG_PATH=$(dirname "$pc")
  export PKG_CONFIG_PATH
fi
# shellcheck disable=SC2046
c++ -std=c++17 "$here/static_host.cpp" $(pkg-config --cflags --libs tamrelcore) \
  -Wl,-rpath,"$(pkg-config --variable=libdir tamrelcore)" -o "$work/pc_host"
expect "pkg-config --cflags --libs" "$work/pc_host"
if [ -n "$build" ]; then
  BASE_CONFIG=$prefix/etc/tamrel/agent.conf "$here/agent_once.sh" "$prefix/bin"
fi
echo "installed tree works"
