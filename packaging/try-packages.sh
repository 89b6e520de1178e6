#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the packages into an empty root and uses them there: the tools on the simulated
# instrument, and the development files to build programs. Then the platform's package takes the
# stand-in's place, and the ones of before are upgraded.
#
#     try-packages.sh PACKAGE...
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers} "$root/var/log"
: >"$root/var/lib/dpkg/available"
# What is on every such machine counts as installed.
dpkg-query -W -f '${db:Status-Status} ${Package} ${Version} ${Architecture} ${Provides}\n' |
  awk '$1 == "installed" {
    print "Package: " $2 "\nStatus: install ok installed\nVersion: " $3 "\nArchitecture: " $4
    print "Maintainer: nobody\nDescription: none\n"
  }' >"$root/var/lib/dpkg/status"

in_root() {
  dpkg --root="$root" --force-not-root --force-script-chrootless --log=/dev/null "$@" >>"$work/log" 2>&1 ||
    { cat "$work/log" >&2; exit 1; }
}

installed() { # whether a package is
  [ "$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Makes a package of the given control fields that has one file.
make_package() { # NAME FILE CONTROL-LINE...
  local directory=$work/$1 name=$1 file=$2
  shift 2
  mkdir -p "$directory/DEBIAN" "$directory/$(dirname "$file")"
  echo "$name" >"$directory/$file"
  printf '%s\n' "Package: $name" 'Maintainer: nobody' 'Description: none' \
    "Architecture: $(dpkg --print-architecture)" "$@" >"$directory/DEBIAN/control"
  dpkg-deb --root-owner-group --build "$directory" "$work/$name.deb" >/dev/null
}

fail() {
  echo "packages: $*" >&2
  exit 1
}

# Upgrades what an earlier version had in two packages.
library=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
make_package libbist-talvero-hw-lib0 "$library/libtalvero-platform.so.0" 'Version: 0.1.0'
make_package talvero-bist /usr/bin/talvero-sim 'Version: 0.1.0' 'Depends: libbist-talvero-hw-lib0 (= 0.1.0)'
in_root --install "$work"/{libbist-talvero-hw-lib0,talvero-bist}.deb
in_root --install "$@"
for package in "$@"; do
  installed "$(dpkg-deb --field "$package" Package)" || fail "$package is not installed"
done
grep -q ELF "$root/usr/bin/talvero-sim" "$root$library/libtalvero-platform.so.0" ||
  fail "files of the version before are still there"

LD_LIBRARY_PATH=$root$library "$root/usr/bin/talvero-sim" --fast -- \
  "$root/usr/bin/talvero-bist" report >/dev/null
for page in README.md docs/getting-started.md; do
  "$source/tests/documentation.sh" "$root/usr" "$source/$page"
done

# The platform's own package, and back.
cp "$root$library/libtalvero-platform.so.0" "$work/standin"
make_package platform "$library/libtalvero-platform.so.0" 'Version: 7' 'Provides: libtalvero-platform0' \
  'Conflicts: libtalvero-platform-standin' 'Replaces: libtalvero-platform-standin'
in_root --auto-deconfigure --install "$work/platform.deb"
installed libtalvero-platform-standin && fail "the stand-in is still installed"
for package in libbist-talvero-hw-lib0 libbist-talvero-hw-lib-dev talvero-bist talvero-sim; do
  installed "$package" || fail "the platform's package has removed $package"
done
[ "$(cat "$root$library/libtalvero-platform.so.0")" = platform ] || fail "not the platform's library"
standin=$(printf '%s\n' "$@" | grep standin)
in_root --force-depends --remove platform
in_root --install "$standin"
cmp -s "$root$library/libtalvero-platform.so.0" "$work/standin" || fail "not the stand-in again"

# Nothing stays behind.
in_root --purge talvero-bist talvero-sim libbist-talvero-hw-lib-dev libbist-talvero-hw-lib0 \
  libtalvero-platform-standin
left=$(find "$root" -path "$root/var" -prune -o ! -type d -print)
[ -z "$left" ] || fail "left behind: $left"
echo "packages: installed, upgraded, replaced and removed; the report passes, and programs build and run"
