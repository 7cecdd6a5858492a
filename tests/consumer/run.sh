#!/usr/bin/env bash
# Installs BUILD_DIR into a temporary prefix, then builds two hosts against
# the installed tree, one with find_package, one with pkg-config, and runs
# both: each must print the plug-in's uuid.
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(mktemp -d /tmp/tamrel-prefix-XXXXXX)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name tamrelcore.pc)")/..

cmake -S "$here" -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
[ "$("$prefix/consumer/static_host")" = f5f95dd ] || { echo "find_package host failed"; exit 1; }

export PKG_CONFIG_PATH=$libdir/pkgconfig
c++ -std=c++17 "$here/plugin_host.cpp" $(pkg-config --cflags tamrelcore) -ldl -o "$prefix/plugin_host"
[ "$("$prefix/plugin_host" "$(pkg-config --variable=libdir tamrelcore)/libtamrelcore.so")" = f5f95dd ] \
  || { echo "pkg-config host failed"; exit 1; }
for tool in tamrel-agent tamrel-ddi-server; do
  [ -x "$prefix/bin/$tool" ] || { echo "missing bin/$tool"; exit 1; }
done
echo "installed tree works: find_package and pkg-config hosts print f5f95dd"
