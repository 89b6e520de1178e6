#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Boots a guest on what kernel/packages.sh has unpacked, with a directory of programs as its /programs,
# whose shell script "steps" it runs. What that leaves in /results is unpacked into a directory.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
unpacked=build/kernel
work=$1
results=$2
longest=90 # seconds

# The guest's board.
dtb=$(echo "$unpacked"/guest/usr/lib/linux-image-*/freescale/imx8mp-evk.dtb)
dtc -q -I dtb -O dts "$dtb" | cat - kernel/instrument.dts |
  dtc -q -I dts -O dtb -o "$unpacked/instrument.dtb"

# Its first file system.
root=$unpacked/root
rm -rf "$root" "$results"
mkdir -p "$root"/{bin,lib,programs,run} "$results"
cp "$unpacked/guest/bin/busybox" "$root/bin"
cp kernel/init "$root"
for module in i2c-dev i2c-mux i2c-mux-pca954x fixed reset-imx7 phy-fsl-imx8m-pcie i2c-imx; do
  file=$(find "$unpacked/guest/lib/modules" -name "$module.ko.xz")
  mkdir -p "$root/lib/modules"
  xz -dc "$file" >"$root/lib/modules/$module.ko"
done
libraries=build/sysroot/usr/lib/aarch64-linux-gnu
for library in ld-linux-aarch64.so.1 libc.so.6 libgcc_s.so.1 libm.so.6 libpciaccess.so.0 \
  libstdc++.so.6 libtinyxml2.so.9 libudev.so.1 libz.so.1; do
  cp -L "$libraries/$library" "$root/lib"
done
cp -r "$work"/. "$root/programs"
(cd "$root" && find . | cpio --quiet -o -H newc) | gzip -1 >"$unpacked/initrd.gz"

# QEMU has no PCA9536: a memory stands for each, and kernel/expanders.cpp for what the chip does.
devices=()
multiplexer() { # BUS ADDRESS
  devices+=(-device "pca9548,bus=$1,address=$2")
}
expander() { # BUS
  devices+=(-device "at24c-eeprom,bus=$1,address=0x41,rom-size=256")
}
bus=i2c-bus.2
multiplexer $bus 0x70
multiplexer $bus/pca9548/i2c.1 0x71
multiplexer $bus/pca9548/i2c.2 0x71
expander $bus/pca9548/i2c.1/pca9548/i2c.2
expander $bus/pca9548/i2c.2/pca9548/i2c.2
expander $bus/pca9548/i2c.0
expander $bus/pca9548/i2c.7

port() { # SWITCH DEVICE CHASSIS NAME
  devices+=(-device "xio3130-downstream,bus=$1,addr=$2.0,chassis=$3,slot=$2,hotplug=off,id=$4")
}
devices+=(-device "x3130-upstream,bus=dw-pcie,id=switch")
port switch 1 1 port1
port switch 5 1 port5
port switch 7 1 port7
port switch 9 1 port9
devices+=(-device "x3130-upstream,bus=port9,id=shim")
port shim 1 2 shim-port1
port shim 5 2 shim-port5

# The first serial port is connected to QEMU's test interface, by which the guest drives lines from
# outside; the second is the console; the third takes the results. Nobody else can be at the other end
# of a socket in a directory of our own.
sockets=$(mktemp -d)
trap 'rm -rf "$sockets"' EXIT
socket=$sockets/qtest
qemu=$unpacked/qemu
loader=$(find "$qemu/lib64/" -name 'ld-linux-*.so.*')
libs=$(dirname "$(find "$qemu/usr/lib" -name 'libglib-2.0.so.0' | head -n 1)")
status=0
timeout "$longest" "$loader" --library-path "$libs:${libs/usr\//}" \
  "$qemu/usr/bin/qemu-system-aarch64" -L "$qemu/usr/share/qemu" \
  -M imx8mp-evk -smp 1 -accel tcg -m 512M -display none -monitor none -no-reboot -net none \
  -kernel "$unpacked"/guest/boot/vmlinuz-* -dtb "$unpacked/instrument.dtb" \
  -initrd "$unpacked/initrd.gz" -append "console=ttymxc1 panic=-1 loglevel=4" \
  -qtest "unix:$socket,server=on,wait=off" -qtest-log /dev/null -serial "unix:$socket" \
  -serial "file:$results/console" -serial "file:$results/tar" "${devices[@]}" 2>"$results/qemu" || status=$?
if [ "$status" != 0 ] || ! tar -xf "$results/tar" -C "$results"; then
  cat "$results/qemu" "$results/console" >&2
  [ "$status" != 124 ] || echo "the guest was ended after $longest s" >&2
  exit 1
fi
