#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the benchmarks of a build, then prints the figures of the two libraries given. The benchmarks
# reach neither this machine's hardware nor a simulator, whose interposed calls would cost the library
# and its floor differently: a private mount namespace gets a /sys of plain files, copied from the
# simulated instrument.
set -euo pipefail
build=$(cd "$1" && pwd)
figures=("$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/figures.sh" "$build/bench/load-time" "${@:2}")

fail() {
  echo "bench: $*" >&2
  exit 1
}

private=(unshare --mount)
[ "$(id -u)" = 0 ] || private+=(--map-root-user)
"${private[@]}" mount -t tmpfs bench /sys 2>/dev/null ||
  fail "neither root rights nor user namespaces are available to mount a private /sys"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The first prototype, which has to look at every I2C device before it knows that there is no PMB.
{
  printf '[board]\nstraps=100000\n[gpio]\n81=high\n[pci]\n[module 0-0050]\nid=2\n'
  printf 'top=i2c-0\nsystem=i2c-0\nsolution=i2c-0\n[i2c]\n0-0041=pca9536\n'
  printf '1-%04x=eeprom\n' {16..34}
} >"$work/instrument.conf"

# shellcheck disable=SC2016  # expanded by the shell on the instrument
"$build/simulator/talvero-sim" --instrument "$work/instrument.conf" -- bash -ec '
  cp -a "$UMOCKDEV_DIR/sys" "$1"
  for config in /sys/bus/pci/devices/*/config; do
    cat "$config" >"$1/${config#/sys/}"
  done
  for line in 80 81 82 133 135 {167..171}; do
    echo "$line" >/sys/class/gpio/export
    mkdir "$1/class/gpio/gpio$line"
    for attribute in direction value; do
      cat "/sys/class/gpio/gpio$line/$attribute" >"$1/class/gpio/gpio$line/$attribute"
    done
  done' - "$work/sys"

# What the kernel shows of an expander with a driver.
expander=$work/sys/devices/i2c-0/0-0041
chip=$expander/gpio/gpiochip504
mkdir -p "$expander"/{driver,of_node,power} "$chip"/{device,power,subsystem}
touch "$expander/modalias" "$chip"/{label,ngpio,uevent}
echo 504 >"$chip/base"

# shellcheck disable=SC2016
SYSTEMD_DEVICE_VERIFY_SYSFS=0 "${private[@]}" bash -ec '
  mount -t tmpfs bench /sys
  cp -a "$1/." /sys
  # On x86 libpciaccess opens /proc/mtrr at each initialisation and never closes it.
  ulimit -n 1000000 2>/dev/null || ulimit -n "$(ulimit -Hn)"
  exec "$2"' - "$work/sys" "$build/bench/talvero-bench"

echo
"${figures[@]}"
