#!/usr/bin/env bash
# The recording test with the daemon cross-built for 32-bit ARM running
# under qemu-arm, the simulator and the card tools native, in one IPC
# namespace. Needs the ARM build in build-arm/ (scripts/run-tests makes it);
# without it the test says so and passes.
arm_daemon="${AVRECORD_ARM_DAEMON:-$AVRECORD_SOURCE_DIR/build-arm/record/AVRecord}"
if [ ! -x "$arm_daemon" ] || ! command -v qemu-arm-static >/dev/null; then
  echo "SKIP: no ARM daemon at $arm_daemon or no qemu-arm-static"
  exit 0
fi
AVRECORD_ARM_DAEMON="$arm_daemon" AVRECORD_E2E_SECONDS="${AVRECORD_E2E_SECONDS:-10}" \
  exec bash "$(dirname "$0")/avrecord_record_test.sh"
