#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes a root directory of Debian arm64 with the given packages and all that they depend on:
# unpacked, not installed, so that nothing on this machine changes and no rights are needed. Does
# nothing when that is there already.
set -euo pipefail
root=$1
shift

# Made anew for another list, and for a new release of the C library.
wanted="$(dpkg-query -W -f '${Version}' libc6) $*"
[ "$(cat "$root/made-of" 2>/dev/null)" != "$wanted" ] || exit 0
rm -rf "$root"
mkdir -p "$root"/usr/{bin,lib,sbin} "$root"/var/lib/dpkg/info "$root"/apt/{cache,state}
root=$(cd "$root" && pwd)
ln -s usr/{bin,lib,sbin} "$root"

# This machine's package sources, but no package counts as installed.
apt=(
  apt-get -o APT::Architecture=arm64 -o APT::Architectures::=arm64 -o Dir::State="$root/apt/state"
  -o Dir::State::status=/dev/null -o Dir::Cache="$root/apt/cache" -o APT::Sandbox::User=
)
"${apt[@]}" update
"${apt[@]}" install --yes --no-install-recommends --download-only "$@"

for package in "$root"/apt/cache/archives/*.deb; do
  dpkg-deb --fsys-tarfile "$package" | tar --extract --keep-directory-symlink -C "$root"
done

# A package database from which dpkg-shlibdeps learns, by its path here, what package has a library.
database=$root/var/lib/dpkg
echo 1 >"$database/info/format"
for package in "$root"/apt/cache/archives/*.deb; do
  rm -rf "$root/apt/control"
  dpkg-deb --control "$package" "$root/apt/control"
  [ -e "$root/apt/control/shlibs" ] || continue
  sed '/^Package:/a Status: install ok installed' "$root/apt/control/control" >>"$database/status"
  echo >>"$database/status"
  name=$(dpkg-deb --field "$package" Package)
  ! grep -qx 'Multi-Arch: same' "$root/apt/control/control" || name+=:arm64
  dpkg-deb --fsys-tarfile "$package" | tar --list |
    sed "s|^\./lib/|./usr/lib/|; s|^\.|$root|" >"$database/info/$name.list"
  for file in shlibs symbols; do
    [ ! -e "$root/apt/control/$file" ] || mv "$root/apt/control/$file" "$database/info/$name.$file"
  done
done
rm -r "$root/apt"
echo "$wanted" >"$root/made-of"
