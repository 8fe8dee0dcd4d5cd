#!/usr/bin/env bash
# AVRecord against avcam-sim over real IPC: a device without recording
# capability leaves at once; a 20 s recording of the 1080p H.264 stream is
# one section holding every published frame from the first key frame on,
# byte for byte; the card passes the index check; SIGTERM ends the process
# with status 0 after its exit line (a second SIGTERM is ignored), but only
# once the schedule allows recording again.
# AVRECORD_E2E_SECONDS (default 20) sets the length of the recording.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
seconds=${AVRECORD_E2E_SECONDS:-20}

# 1. "T0" device: exit 0 before anything is logged or attached.
mkdir -p "$root/param"
printf '[CPLD]\nStorageCapability=1\n' >"$root/param/CPLD.conf"
start_daemon
wait "$daemonpid"
rc=$?
daemonpid=
[ "$rc" -eq 0 ] || fail "T0 device: exit $rc"
[ ! -s "$log" ] || fail "T0 device logged: $(head -3 "$log")"
[ "$(ipcs -m -q | grep -c '^0x')" -eq 0 ] || fail "T0 device created IPC objects"
printf '[CPLD]\nStorageCapability=2\n' >"$root/param/CPLD.conf"

# 2. A recording.
make_card 4
start_camera
start_daemon
wait_log "$recording_line" 15
sleep "$seconds"

# 3. SIGTERM while the schedule forbids recording: the process waits.
sim_set record-enable 0
wait_log "Video Record Enable close" 5
kill -TERM "$daemonpid"
sleep 2
kill -0 "$daemonpid" 2>/dev/null || fail "left while the schedule forbids recording"
sim_set record-enable 1
stop_daemon

# 4. The card: one section with every frame, in order, as published.
check_recording "$seconds"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
finish
