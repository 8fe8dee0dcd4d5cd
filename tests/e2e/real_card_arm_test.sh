#!/usr/bin/env bash
# As real_card_record_test.sh with the daemon cross-built for 32-bit ARM,
# run under qemu-arm inside the VM, for 15 s. Needs the ARM build in
# build-arm/ (scripts/run-tests makes it before the native tests run).
arm_daemon="${AVRECORD_ARM_DAEMON:-$AVRECORD_SOURCE_DIR/build-arm/record/AVRecord}"
if [ ! -x "$arm_daemon" ] || ! command -v qemu-arm-static >/dev/null; then
  echo "SKIP: no ARM daemon at $arm_daemon or no qemu-arm-static"
  exit 0
fi
source "$(dirname "$0")/real_card_lib.sh"
real_card_record 15 "$arm_daemon"
real_card_check 15
finish
