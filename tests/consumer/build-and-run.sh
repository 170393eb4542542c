#!/usr/bin/env bash
# Builds and runs the consumer program twice against the libdb-intf installed
# under PREFIX: configured by find_package(db-intf), and compiled with
# pkg-config. Scratch files go to WORK_DIR.
# Usage: build-and-run.sh PREFIX CONSUMER_SOURCE_DIR CMAKE WORK_DIR
set -euo pipefail
prefix=$1 src=$2 cmake=$3 work=$4
pcdir=$(dirname "$(find "$prefix" -name db-intf.pc -print -quit)")
libdir=$(dirname "$pcdir")

"$cmake" -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir:${LD_LIBRARY_PATH:-} "$work/cmake-build/consumer" "$work"

mkdir -p "$work/pc"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc/consumer" "$src/main.cc" $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs db-intf)
LD_LIBRARY_PATH=$libdir:${LD_LIBRARY_PATH:-} "$work/pc/consumer" "$work/pc"
