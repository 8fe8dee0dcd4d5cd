#!/usr/bin/env bash
# A media file that reaches 249 MiB ends the section; the next section
# starts in the next file and the index header counts the full file as used.
# The card starts with file 0 a few hundred KiB short of the mark.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
run_line="CameraSetVideoForceIFrame, VideoId"

make_card 4
python3 - "$card/index000.bin" <<'PY'
import struct, sys, time
full = 0xF900000
size = full - 300 * 1024
now = int(time.time()) - 3600
with open(sys.argv[1], 'r+b') as f:
    f.seek(0x400)
    f.write(struct.pack('<8I16x', 0x46484652, 0, now - 600, now, size, 1, 1, 0))
    f.seek((1 + 8 * 256) * 64)
    f.write(struct.pack('<3I2H5I', 0x46484952, now - 600, now, 0, 1, 0, size, 15000, 0, 20).ljust(64, b'\0'))
PY
make_samples
start_sim --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
  --video2 "$samples/h265_720p.h265"
start_daemon
wait_log "File size  lager  over!" 30
wait_log "$run_line" 10 2
sleep 1
stop_daemon

mapfile -t rows < <(sections)
printf '%s\n' "${rows[@]}" | awk '$1 == 0 && $2 == 2' | grep -q . || fail "no second section in file 0"
printf '%s\n' "${rows[@]}" | awk '$1 == 1 && $2 == 1 && $5 == 0' | grep -q . || fail "no first section in file 1"
read -r used current <<<"$(python3 -c '
import struct, sys
h = open(sys.argv[1], "rb").read(32)
print(*struct.unpack_from("<2I", h, 0x18))' "$card/index000.bin")"
[ "$used $current" = "1 1" ] || fail "header: used $used, current $current (expected 1 1)"
finish
