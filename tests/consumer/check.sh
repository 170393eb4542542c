#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs the consumer
# program twice: configured by find_package(db-intf), and compiled with pkg-config.
# Usage: check.sh BUILD_DIR CONSUMER_SOURCE_DIR CMAKE
set -euo pipefail
build=$1 src=$2 cmake=${3:-cmake}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
for program in ipc-router ipc-status; do [ -x "$prefix/bin/$program" ]; done

"$cmake" -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$prefix/lib:${LD_LIBRARY_PATH:-} "$work/cmake-build/consumer" "$work"

libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -n 1)
export PKG_CONFIG_PATH=$libdir
mkdir -p "$work/pc"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc/consumer" "$src/main.cc" $(pkg-config --cflags --libs db-intf)
LD_LIBRARY_PATH=$(dirname "$libdir"):${LD_LIBRARY_PATH:-} "$work/pc/consumer" "$work/pc"
echo "consumer-check: find_package and pkg-config consumers built and ran"
