#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Unpacks the packages into an empty root and uses them there: the tools on the simulated
# instrument, and the development files to build programs.
set -euo pipefail
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for package in "$@"; do
  dpkg-deb --extract "$package" "$root"
done
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
libraries=$(dirname "$(find "$root/usr/lib" -name libbist-talvero-hw-lib.so.0)")

LD_LIBRARY_PATH=$libraries "$root/usr/bin/talvero-sim" --fast -- \
  "$root/usr/bin/talvero-bist" report >/dev/null
for page in README.md docs/getting-started.md; do
  "$source/tests/documentation.sh" "$root/usr" "$source/$page"
done
echo "packages: the report passes, and programs build and run against them"
