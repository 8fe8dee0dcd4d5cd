#!/usr/bin/env bash
# Alarm events in event000.bin while recording inside a TIME_SCOPE_DIFF
# segment: record type 2 watches alarm source 0 (alarm type 4), with 10 s of
# pre-record and 10 s of delay; record type 3 marks only while sources 0 and
# 2 are active together (alarm type 8).
source "$(dirname "$0")/avrecord_e2e_lib.sh"
run_line="CameraSetVideoForceIFrame, VideoId"

make_card 4
make_samples
start_sim --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
  --video2 "$samples/h265_720p.h265"
today=$(date +%w)
for k in 0 1 3 4 5; do sim_set segment "$today" "$k" 00:00-00:00 0; done
sim_set segment "$today" 2 00:00-23:59 2
sim_set day-mode "$today" 3
sim_set prerecord 2
sim_set delay 0
start_daemon
wait_log "$run_line" 10

# events: "info_sum type; entry start end type" lines of file 0's slot.
events() {
  python3 - "$card/event000.bin" <<'PY'
import struct, sys
f = open(sys.argv[1], 'rb')
magic, fileno, start, end, total = struct.unpack('<5I', f.read(20))
if magic != 0x464D4541:
    print('none')
    sys.exit()
print('slot', total)
for i in range(total):
    f.seek(0x100000 + 48 * i)
    e = f.read(48)
    flag, s, t = struct.unpack_from('<3I', e)
    print('event', s, t, e[0x18])
PY
}

sleep 12
on=$(date +%s)
"$sim" alarm 0 on >/dev/null || fail "alarm on"
sleep 5
off=$(date +%s)
"$sim" alarm 0 off >/dev/null || fail "alarm off"
sleep 12
mapfile -t got < <(events)
[ "${got[0]:-}" = "slot 1" ] || fail "expected one event, got: ${got[*]}"
read -r _ start end type <<<"${got[1]:-event 0 0 0}"
[ "$type" = 4 ] || fail "alarm type $type, expected 4"
[ $((on - 10 - start)) -le 2 ] && [ $((start - (on - 10))) -le 2 ] || fail "event starts at $start, alarm at $on"
[ $((end - (off + 10))) -le 2 ] && [ $(((off + 10) - end)) -le 2 ] || fail "event ends at $end, alarm off at $off"

# Record type 3: source 0 alone marks nothing; with source 2 it does.
sim_set segment "$today" 2 00:00-23:59 3
"$sim" alarm 0 on >/dev/null
sleep 3
[ "$(events | head -1)" = "slot 1" ] || fail "source 0 alone made an event under record type 3"
"$sim" alarm 2 on >/dev/null
sleep 3
"$sim" alarm 0 off >/dev/null
"$sim" alarm 2 off >/dev/null
sleep 12
mapfile -t got < <(events)
[ "${got[0]:-}" = "slot 2" ] || fail "expected a second event, got: ${got[*]}"
read -r _ _ _ type <<<"${got[2]:-event 0 0 0}"
[ "$type" = 8 ] || fail "second event has alarm type $type, expected 8"

if "$card_tool" search --help >/dev/null 2>&1; then
  "$card_tool" search --card "$card" --from "$((on - 3600))" --to "$(($(date +%s) + 60))" --type 4 \
    >"$work/search4.txt" 2>&1 || fail "search --type 4: $(cat "$work/search4.txt")"
  grep -q "he000000_000000.mp4" "$work/search4.txt" || fail "search --type 4 misses the event: $(cat "$work/search4.txt")"
fi
stop_daemon
finish
