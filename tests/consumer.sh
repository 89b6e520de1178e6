#!/usr/bin/env bash
# Installs a build into an empty directory and uses it there as a stranger would: a program built
# with CMake, one with pkg-config, each run on the installed simulated instrument.
set -euo pipefail
build=$1
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/installed" >/dev/null
cp -r "$source" "$work/consumer"
cd "$work"

run_it() { # PROGRAM
  local output
  output=$(LD_LIBRARY_PATH=$libraries installed/bin/talvero-sim --instrument proto-2 -- "$1")
  echo "$1: $output"
  [ "$output" = "TALVERO PROTO-2 SPB" ]
}

libraries=$(dirname "$(find "$PWD/installed" -name libbist-talvero-hw-lib.so.0)")
cmake -S consumer -B with-cmake -DCMAKE_PREFIX_PATH="$work/installed" >/dev/null
cmake --build with-cmake >/dev/null
run_it with-cmake/consumer

PKG_CONFIG_PATH=$(dirname "$(find "$PWD/installed" -name '*.pc')")
export PKG_CONFIG_PATH
mkdir with-pkg-config
# shellcheck disable=SC2046  # the flags are words
c++ consumer/main.cpp -o with-pkg-config/consumer \
  $(pkg-config --cflags --libs bist-talvero-hw-lib)
run_it with-pkg-config/consumer

installed/bin/talvero-sim --list | grep -q '^proto-2'
installed/bin/talvero-sim -- installed/bin/talvero-bist board
