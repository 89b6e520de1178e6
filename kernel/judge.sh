#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs kernel/steps in a guest and the same on the simulated instrument, and compares.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
results=build/kernel/results
simulated=build/kernel/simulated

fail() {
  echo "kernel: $*" >&2
  exit 1
}

work=build/kernel/work
rm -rf "$work" "$simulated"
mkdir -p "$work" "$simulated"
cp build/aarch64/kernel/{answers,expanders,fabric,kernel-tests} build/aarch64/bist/talvero-bist \
  kernel/steps "$work"
cp -L build/aarch64/libbist-talvero-hw-lib.so.0 build/aarch64/libtalvero-platform.so.0 "$work"
kernel/boot.sh "$work" "$results"

[ "$(cat "$results/tests.status")" = 0 ] || {
  grep -v '       OK \]\|RUN      \]' "$results/tests" >&2
  fail "tests failed on the real kernel"
}
echo "tests on the real kernel: $(grep -o '[0-9]* tests' "$results/tests" | tail -n 1) passed"

# Compares what a guest and the simulated instrument have said. They differ as it is listed, with
# reasons; what is no longer so must leave the list.
compare() { # NAME FILE-OF-THE-SIMULATED
  # Of a report, without what it says of the run: times, versions and the machine.
  diff <(sed '/^  "format"/,$d' "$results/$1") <(sed '/^  "format"/,$d' "$2") | grep '^[<>]' >"$2.differences" || true
  diff -u --label "kernel/differences/$1" --label "< real kernel, > ${2##*/}" \
    <(grep '^[<>]' "kernel/differences/$1") "$2.differences" >&2 ||
    fail "the simulated instrument and the real kernel differ: $2 and $results/$1"
  echo "$1: $(wc -l <"$2") lines as on the real kernel, but for $(wc -l <"$2.differences") listed"
}

simulate() { # COMMAND...
  build/dev/simulator/talvero-sim --fast --instrument kernel/instrument.conf -- "$@"
}

# As tests/CMakeLists.txt starts the tests.
simulate_aarch64() { # PROGRAM
  qemu-aarch64-static -E "LD_LIBRARY_PATH=$PWD/build/sysroot/usr/lib/aarch64-linux-gnu" \
    -E "LD_PRELOAD=$PWD/build/aarch64/tests/libexec-in-qemu.so" \
    build/aarch64/simulator/talvero-sim --fast --instrument kernel/instrument.conf -- "$1"
}

simulate build/dev/kernel/answers >"$simulated/answers"
compare answers "$simulated/answers"
simulate_aarch64 build/aarch64/kernel/answers >"$simulated/answers-aarch64"
compare answers "$simulated/answers-aarch64"

# The guest's root port has a trained link by then, as kernel/steps says.
simulate sh -c 'build/dev/simulator/talvero-sim set "pci root link-status=0x2012" &&
  exec build/dev/bist/talvero-bist --json report --power-cycle' >"$simulated/report.json"
[ "$(cat "$results/report.status")" = 0 ] || fail "the report fails on the real kernel: $results/report.json"
compare report.json "$simulated/report.json"

# What has been captured there is the same instrument here, and once more.
[ "$(cat "$results/capture.status")" = 0 ] || fail "not all can be captured: $results/capture"
build/dev/simulator/talvero-sim --fast --instrument "$results/captured.conf" -- \
  build/dev/bist/talvero-bist --json report --power-cycle >"$simulated/replayed.json" ||
  fail "the report fails on the replay of the capture: $simulated/replayed.json"
compare report.json "$simulated/replayed.json"
build/dev/simulator/talvero-sim --fast --instrument "$results/captured.conf" -- \
  build/dev/bist/talvero-bist capture "$simulated/captured.conf" >/dev/null
diff -u <(grep -v '^#' "$results/captured.conf") <(grep -v '^#' "$simulated/captured.conf") >&2 ||
  fail "the replay of the capture is captured otherwise"
sed -n 's/^# Not //p' "$results/captured.conf" >"$simulated/remarks"
diff -u <(grep -v '^#' kernel/differences/captured.conf) "$simulated/remarks" >&2 ||
  fail "the capture has other remarks than are listed"
diff -u "$results/lines.before" "$results/lines.after" >&2 ||
  fail "the capture leaves other lines exported"
echo "captured.conf: $(wc -l <"$results/captured.conf") lines, replayed and captured again"
