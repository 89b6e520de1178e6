#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Unpacks what a guest is made of: Debian's arm64 kernel and busybox, and a QEMU that has the machine
# below them. Nothing on this machine changes. Does nothing when that is there already.
set -euo pipefail
root=$1
kernel=linux-image-6.12-arm64

# Made anew for another version of this file.
wanted=$(sha256sum <"$0")
[ "$(cat "$root/made-of" 2>/dev/null)" != "$wanted" ] || exit 0
rm -rf "$root"
mkdir -p "$root"/{apt,guest,qemu}
root=$(cd "$root" && pwd)

# This machine's package sources, and the backports of that which Debian itself comes from. No
# package counts as installed.
# shellcheck disable=SC2016  # apt's own variables
site=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Codename: bookworm' |
  head -n 1)
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
  "${site:-http://deb.debian.org/debian} bookworm-backports main" >"$root/apt/backports.list"
cp -r /etc/apt/sources.list.d "$root/apt/sources"
mv "$root/apt/backports.list" "$root/apt/sources/talvero-backports.list"
apt() { # ARCHITECTURE COMMAND [ARGUMENT...]
  local directory=$root/apt/$1
  mkdir -p "$directory"/{state,cache/archives/partial}
  "${@:2:1}" -o APT::Architecture="$1" -o APT::Architectures::="$1" -o APT::Sandbox::User= \
    -o Dir::Etc::sourceparts="$root/apt/sources" -o Dir::State="$directory/state" \
    -o Dir::State::status=/dev/null -o Dir::Cache="$directory/cache" "${@:3}"
}

host=$(dpkg --print-architecture)
apt "$host" apt-get update
apt "$host" apt-get install --yes --no-install-recommends --download-only \
  --target-release bookworm-backports qemu-system-arm
for package in "$root/apt/$host"/cache/archives/*.deb; do
  dpkg-deb --fsys-tarfile "$package" | tar --extract --keep-directory-symlink -C "$root/qemu"
done

apt arm64 apt-get update
image=$(apt arm64 apt-cache depends "$kernel" | sed -n 's/.*Depends: \(linux-image-[^ ]*\)$/\1/p')
cd "$root/apt"
apt arm64 apt-get download "$image" busybox-static
dpkg-deb --fsys-tarfile linux-image-*.deb | tar --extract -C "$root/guest" --wildcards \
  './boot/vmlinuz-*' '*/freescale/imx8mp-evk.dtb' './lib/modules/*/kernel/drivers/*'
dpkg-deb --fsys-tarfile busybox-static_*.deb | tar --extract -C "$root/guest" ./bin/busybox
rm -rf "$root/apt"
echo "$wanted" >"$root/made-of"
