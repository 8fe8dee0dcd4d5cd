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

# 4. The card.
mapfile -t rows < <(sections)
[ "${#rows[@]}" -eq 1 ] || fail "expected one section, found ${#rows[@]}: ${rows[*]}"
read -r file sno start end offset size frames width height rate <<<"${rows[0]}"
[ "$width x $height @ $rate" = "1920 x 1080 @ 25" ] || fail "section media $width x $height @ $rate"
[ "$frames" -ge $(((seconds - 2) * 25)) ] || fail "only $frames frames in ${seconds} s"
[ $((end - start)) -ge $((seconds - 2)) ] || fail "section spans $((end - start)) s"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"

# 5. Every frame, in order, as the simulator published it.
name=$(printf 'hi%06d_%06d.mp4' "$file" "$sno")
"$card_tool" frames "$name" --card "$card" --es "$work/recorded.h264" >/dev/null 2>"$work/frames.err" ||
  fail "frames --es: $(cat "$work/frames.err")"
python3 - "$samples/h264_1080p.h264" "$work/recorded.h264" "$frames" <<'PY' || fail "recorded stream differs from the input"
import re, sys
data = open(sys.argv[1], 'rb').read()
data = re.sub(rb'(?<!\x00)\x00\x00\x01', b'\x00\x00\x00\x01', data)  # as published
got = open(sys.argv[2], 'rb').read()
if not got.startswith(b'\x00\x00\x00\x01\x67'):
    sys.exit('recording does not start with a key frame')
loops = len(got) // len(data) + 2
if (data * loops).find(got) < 0:
    sys.exit('recorded bytes are not a contiguous run of the published stream')
units = got.count(b'\x00\x00\x00\x01\x65') + got.count(b'\x00\x00\x00\x01\x41')
if units != int(sys.argv[3]):
    sys.exit(f'{units} access units in the stream, {sys.argv[3]} in the index')
PY
finish
