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
"$(dirname "$0")/build-and-run.sh" "$prefix" "$src" "$cmake" "$work"
echo "consumer-check: find_package and pkg-config consumers built and ran"
