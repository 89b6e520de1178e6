#!/usr/bin/env bash
# Unpacks the packages into an empty root and uses them there: the tools on the simulated
# instrument, and the development files to build a program.
set -euo pipefail
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for package in "$@"; do
  dpkg-deb --extract "$package" "$root"
done
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/consumer
libraries=$(dirname "$(find "$root/usr/lib" -name libbist-talvero-hw-lib.so.0)")
export LD_LIBRARY_PATH=$libraries

"$root/usr/bin/talvero-sim" --fast -- "$root/usr/bin/talvero-bist" report >/dev/null
cmake -G Ninja -S "$source" -B "$root/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$root/consumer" >/dev/null
output=$("$root/usr/bin/talvero-sim" --instrument proto-2 -- "$root/consumer/consumer")
[ "$output" = "TALVERO PROTO-2 SPB" ]
echo "packages: the report passes, and a program builds and runs against them"
