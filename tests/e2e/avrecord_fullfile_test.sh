#!/usr/bin/env bash
# A media file that reaches 249 MiB ends the section and the next section
# starts in the next file. Here every file of a two-file card is in use and
# overwriting is on: the next file is the oldest one, taken up afresh, and
# its old alarm events are forgotten (a new alarm is event 0 of its slot).
source "$(dirname "$0")/avrecord_e2e_lib.sh"

make_card 2
python3 - "$card" <<'PY'
import struct, sys, time
card = sys.argv[1]
full, now = 0xF900000, int(time.time()) - 3600
def file_record(n, size, start):
    return struct.pack('<8I16x', 0x46484652, n, start, start + 600, size, 1, 1, 0)
def section(n, size, start):
    return struct.pack('<3I2H5I', 0x46484952, start, start + 600, n, 1, 0, size, 15000, 0, 20).ljust(64, b'\0')
with open(card + 'index000.bin', 'r+b') as f:
    f.seek(0x18)
    f.write(struct.pack('<2I', 2, 1))  # both files used, file 1 current
    for n, size, start in ((0, full, now - 7200), (1, full - 300 * 1024, now - 1200)):
        f.seek(0x400 + 48 * n)
        f.write(file_record(n, size, start))
        f.seek((1 + (n + 8) * 256) * 64)
        f.write(section(n, size, start))
with open(card + 'event000.bin', 'r+b') as f:  # file 0 held three events
    f.write(struct.pack('<5I', 0x464D4541, 0, now - 7200, now - 7000, 3))
PY
start_camera
diff_day_segment 0 2
start_daemon
wait_log "File size  lager  over!" 30
wait_log "$recording_line" 10 2
"$sim" alarm 0 on >/dev/null
sleep 2
"$sim" alarm 0 off >/dev/null
sleep 12
stop_daemon

mapfile -t rows < <(sections)
printf '%s\n' "${rows[@]}" | awk '$1 == 1 && $2 == 2' | grep -q . || fail "no second section in file 1"
printf '%s\n' "${rows[@]}" | awk '$1 == 0 && $2 == 1 && $5 == 0' | grep -q . || fail "file 0 not taken up afresh"
read -r used current <<<"$(python3 -c '
import struct, sys
print(*struct.unpack_from("<2I", open(sys.argv[1], "rb").read(32), 0x18))' "$card/index000.bin")"
[ "$used $current" = "2 0" ] || fail "header: used $used, current $current (expected 2 0)"
[ "$(events 0 | head -1)" = "slot 1" ] || fail "file 0's event slot: $(events 0 | head -1), expected the one new event"
finish
