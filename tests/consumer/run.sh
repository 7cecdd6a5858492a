#!/usr/bin/env bash
# Installs BUILD_DIR into a temporary prefix (or PREFIX when given), then
# builds hosts against the installed tree only and runs them; each must
# print the plug-in's uuid:
#   find_package: static_host (tamrelcore::static), plugin_host (dlopen of
#                 tamrelcore::plugin's file, headers only)
#   pkg-config:   static_host built with `pkg-config --cflags --libs`
# usage: run.sh BUILD_DIR [PREFIX]
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
if [ $# -ge 2 ]; then
  prefix=$2; mkdir -p "$prefix"; prefix=$(cd "$prefix" && pwd)
else
  prefix=$(mktemp -d /tmp/tamrel-prefix-XXXXXX)
  trap 'rm -rf "$prefix"' EXIT
fi
work=$prefix/consumer-build
expect() {  # what, command...
  local what=$1; shift
  local out; out=$("$@") || { echo "FAILED: $what (exit $?)"; exit 1; }
  [ "$out" = f5f95dd ] || { echo "FAILED: $what printed '$out'"; exit 1; }
  echo "ok: $what"
}

cmake --install "$build" --prefix "$prefix" > /dev/null
pc=$(find "$prefix" -name tamrelcore.pc)
libdir=$(dirname "$(dirname "$pc")")
for f in include/tamrel/plugin/libtamrelcore.h include/tamrel/ddi/hawkbit_query.h \
    include/tamrel/properties/lookup.h bin/tamrel-agent bin/tamrel-ddi-server; do
  [ -e "$prefix/$f" ] || { echo "FAILED: $f not installed"; exit 1; }
done
[ -e "$libdir/libtamrelcore.a" ] && [ -e "$libdir/libtamrelcore.so" ] \
  || { echo "FAILED: libraries not in $libdir"; exit 1; }

# An installed tree must not point back into the source or build tree.
if grep -rqs -e "$build" -e "$(dirname "$(dirname "$here")")/" "$libdir/cmake" "$pc"; then
  echo "FAILED: installed package files refer to the build or source tree"; exit 1
fi

cmake -S "$here" -B "$work" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$prefix/consumer.log" 2>&1 \
  && cmake --build "$work" >> "$prefix/consumer.log" 2>&1 \
  || { cat "$prefix/consumer.log"; echo "FAILED: find_package consumer build"; exit 1; }
expect "find_package, tamrelcore::static" "$work/static_host"
expect "find_package, dlopen of tamrelcore::plugin" "$work/plugin_host"

export PKG_CONFIG_PATH=$(dirname "$pc")
# shellcheck disable=SC2046
c++ -std=c++17 "$here/static_host.cpp" $(pkg-config --cflags --libs tamrelcore) \
  -Wl,-rpath,"$(pkg-config --variable=libdir tamrelcore)" -o "$work/pc_host"
expect "pkg-config --cflags --libs" "$work/pc_host"
# The installed agent finds the installed plug-in on its own.
printf 'address = http://127.0.0.1:9\ntenant-id = t\ncontroller-id = c\ntoken = x\ndownload-dir = %s/dl\n' \
  "$prefix" > "$prefix/agent.conf"
"$prefix/bin/tamrel-agent" --once --config "$prefix/agent.conf" > "$prefix/demo.log" 2>&1
grep -q "plug-in $libdir/libtamrelcore\.so.* (f5f95dd)" "$prefix/demo.log" \
  || { cat "$prefix/demo.log"; echo "FAILED: installed agent"; exit 1; }
echo "ok: installed tamrel-agent loads the installed plug-in"
echo "installed tree works"
