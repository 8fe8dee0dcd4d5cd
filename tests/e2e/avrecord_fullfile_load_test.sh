#!/usr/bin/env bash
# A card left as a power cut or kill -9 leaves it in the turn in which the
# current media file became full: file record and last section at the full
# mark, the header still naming that file and counting it unused. The next
# daemon records on into the next file and keeps every section of the full
# one byte for byte.
source "$(dirname "$0")/avrecord_e2e_lib.sh"

make_card 3
python3 - "$card" <<'PY'
import struct, sys, time
card = sys.argv[1]
full, now = 0xF900100, int(time.time()) - 3600
with open(card + 'index000.bin', 'r+b') as f:
    f.seek(0x18)
    f.write(struct.pack('<2I', 1, 1))  # file 0 used, file 1 current
    for n in (0, 1):
        start = now - 1200 * (2 - n)
        f.seek(0x400 + 48 * n)
        f.write(struct.pack('<8I16x', 0x46484652, n, start, start + 600, full, 1, 1, 0))
        f.seek((1 + (n + 8) * 256) * 64)
        f.write(struct.pack('<3I2H5I', 0x46484952, start, start + 600, n, 1, 0, full, 15000, 0, 20)
                .ljust(64, b'\0'))
PY
before=$(sections)
start_camera
diff_day_segment 0 2
start_daemon
wait_log "$recording_line" 20
sleep 4
stop_daemon

after=$(sections)
for n in 0 1; do
  [ "$(grep "^$n " <<<"$before")" = "$(grep "^$n " <<<"$after")" ] ||
    fail "file $n's sections changed: $(grep "^$n " <<<"$after")"
done
grep -q '^2 1 ' <<<"$after" || fail "no section in file 2: $after"
read -r used current <<<"$(python3 -c '
import struct, sys
print(*struct.unpack_from("<2I", open(sys.argv[1], "rb").read(32), 0x18))' "$card/index000.bin")"
[ "$used $current" = "2 2" ] || fail "header: used $used, current $current (expected 2 2)"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "check: $(cat "$work/check.txt")"
finish
