#!/usr/bin/env bash
# Installs a build into an empty directory and uses it there as a stranger would: a program built
# with CMake, one with pkg-config, each run on the installed simulated instrument.
set -euo pipefail
build=$1
emulator=("${@:2}")  # of a build for another machine; the environment has its compiler
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/installed" >/dev/null
cp -r "$source" "$work/consumer"
cd "$work"

run_it() { # PROGRAM
  local output
  output=$("${emulator[@]}" installed/bin/talvero-sim --instrument proto-2 -- "$1")
  echo "$1: $output"
  [ "$output" = "TALVERO PROTO-2 SPB" ]
}

libraries=$(dirname "$(find "$PWD/installed" -name libbist-talvero-hw-lib.so.0)")
cmake -G Ninja -S consumer -B with-cmake -DCMAKE_PREFIX_PATH="$work/installed" >/dev/null
cmake --build with-cmake >/dev/null
run_it with-cmake/consumer

PKG_CONFIG_PATH=$(dirname "$(find "$PWD/installed" -name '*.pc')")
export PKG_CONFIG_PATH
mkdir with-pkg-config
# shellcheck disable=SC2046,SC2086  # the flags are words
${CXX:-c++} consumer/main.cpp -o with-pkg-config/consumer ${LDFLAGS:-} -Wl,-rpath,"$libraries" \
  $(pkg-config --cflags --libs bist-talvero-hw-lib)
run_it with-pkg-config/consumer

"${emulator[@]}" installed/bin/talvero-sim --list | grep -q '^proto-2'
"${emulator[@]}" installed/bin/talvero-sim -- installed/bin/talvero-bist board
