#!/usr/bin/env bash
# As real_card_record_test.sh with the daemon cross-built for 32-bit ARM
# (static, 64-bit time), run under qemu-arm inside the VM, across
# 2038-01-19 03:14:08 UTC. Needs the ARM build in build-arm/
# (scripts/run-tests makes it before the native tests run).
arm_daemon="${AVRECORD_ARM_DAEMON:-$AVRECORD_SOURCE_DIR/build-arm/record/AVRecord}"
if [ ! -x "$arm_daemon" ] || ! command -v qemu-arm-static >/dev/null; then
  echo "SKIP: no ARM daemon at $arm_daemon or no qemu-arm-static"
  exit 0
fi
source "$(dirname "$0")/real_card_lib.sh"
export REAL_CARD_CLOCK=$((2147483648 - 30)) REAL_CARD_UNTIL=$((2147483648 + 6))
real_card_record 5 "$arm_daemon"
real_card_readback
check_recording "$(real_card_recorded_seconds)"
check_times_across 2147483648
rm -rf "$card"
finish
