#!/usr/bin/env bash
# The native daemon records onto a formatted card image mounted by a real
# kernel (User-mode Linux) across 2038-01-19 03:14:08 UTC, the second a
# signed 32-bit time cannot hold: the VM's clock starts 30 s before it and
# the recording goes on 6 s past it. It stops on SIGTERM and the card
# unmounts clean: see real_card_readback and check_recording for what is
# judged, and check_times_across for the times.
source "$(dirname "$0")/real_card_lib.sh"
export REAL_CARD_CLOCK=$((2147483648 - 30)) REAL_CARD_UNTIL=$((2147483648 + 6))
real_card_record 5
real_card_readback
check_recording "$(real_card_recorded_seconds)"
check_times_across 2147483648
rm -rf "$card"
finish
