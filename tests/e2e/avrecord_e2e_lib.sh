# Shared steps of the AVRecord end-to-end tests (sourced, not run): a card
# directory under a private AVRECORD_ROOT with a fake mount table and card
# device, avcam-sim as the camera's encoder and configuration server, and the
# daemon itself (natively, or the ARM build under qemu-arm when
# AVRECORD_ARM_DAEMON points at it).
set -uo pipefail

card_tool="$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card"
sim="$AVRECORD_BUILD_DIR/apps/avcam-sim/avcam-sim"
daemon="$AVRECORD_BUILD_DIR/record/AVRecord"
samples="$AVRECORD_BUILD_DIR/samples"
if [ ! -x "$sim" ]; then
  echo "SKIP: avcam-sim is not built"
  exit 0
fi
work=$(mktemp -d)
root="$work/root"
card="$root/media/SDCard/"
log="$work/avrecord.log"
simpid=
daemonpid=
failures=0
recording_line="Now RotateAngle"  # the writer took a run's first key frame
# The simulator's status as the daemon stopped (forced key frames asked and
# done); a real-card lane keeps it in the VM's work folder.
sim_status_file="${REAL_CARD_WORK:-$work}/sim-status.txt"

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

cleanup() {
  [ -n "$daemonpid" ] && kill -KILL "$daemonpid" 2>/dev/null
  [ -n "$simpid" ] && kill -TERM "$simpid" 2>/dev/null
  wait 2>/dev/null
  if [ -n "${AVRECORD_E2E_KEEP:-}" ]; then echo "kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

finish() {
  if [ "$failures" -ne 0 ]; then
    [ -n "$simpid" ] && save_sim_status
    echo "--- avcam-sim status (forced key: frame it was published at, after the frame it was asked at) ---"
    cat "$sim_status_file" 2>/dev/null
    echo "--- daemon log (last 40 lines) ---"
    tail -40 "$log" 2>/dev/null
    # What the stream reader said: its start, wraps, serial gaps and resyncs.
    echo "--- stream reader ---"
    grep "AVStreamGetAVDataThread" "$log" 2>/dev/null | grep -v "^$" | head -40
    exit 1
  fi
  echo "PASS"
  exit 0
}

# make_card MEDIA_FILES: the card's file set in a directory, mounted and
# present as far as the daemon can tell.
make_card() {
  mkdir -p "$root/proc" "$root/dev" "$card"
  echo "/dev/mmcblk1p1 /media/SDCard vfat rw,relatime 0 0" >"$root/proc/mounts"
  : >"$root/dev/mmcblk1p1"
  "$card_tool" prealloc "$card" --media "${1:-4}" >/dev/null || { echo "FAIL: prealloc"; exit 1; }
}

make_samples() {
  "$AVRECORD_SOURCE_DIR/scripts/make-samples" "$samples" || { echo "FAIL: make-samples"; exit 1; }
}

# start_sim ARGS...: avcam-sim run in this namespace; waits until it serves.
start_sim() {
  "$sim" run "$@" 2>"$work/sim.err" &
  simpid=$!
  for _ in $(seq 50); do
    "$sim" status >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  echo "FAIL: avcam-sim did not come up: $(cat "$work/sim.err")"
  exit 1
}

# start_camera [ARGS...]: the simulator publishing the three test streams.
start_camera() {
  make_samples
  start_sim --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
    --video2 "$samples/h265_720p.h265" "$@"
}

# diff_day_segment K TYPE: today becomes a TIME_SCOPE_DIFF day recording in
# segment K (all day, record type TYPE); the other segments are empty.
diff_day_segment() {
  local today k
  today=$(date +%w)
  for k in 0 1 2 3 4 5; do
    [ "$k" = "$1" ] || sim_set segment "$today" "$k" 00:00-00:00 0
  done
  sim_set segment "$today" "$1" 00:00-23:59 "$2"
  sim_set day-mode "$today" 3
}

sim_set() { "$sim" set "$@" >/dev/null || fail "avcam-sim set $*"; }

save_sim_status() { "$sim" status >"$sim_status_file" 2>&1; }

# The force-I-frame requests the simulator answered, from its saved status.
forced_key_frames() {
  [ -f "$sim_status_file" ] || { [ -n "$simpid" ] && save_sim_status; }
  sed -nE 's/.*force-I-frames ([0-9]+).*/\1/p' "$sim_status_file" 2>/dev/null | grep . || echo 0
}

# start_daemon [ENV=VALUE...]: AVRecord with the test root, under the
# command in daemon_wrapper when a test sets one; its log in $log.
daemon_wrapper=()
start_daemon() {
  local run=("$daemon")
  [ -n "${AVRECORD_ARM_DAEMON:-}" ] && run=(qemu-arm-static -L /usr/arm-linux-gnueabihf "$AVRECORD_ARM_DAEMON")
  env AVRECORD_ROOT="$root" "$@" "${daemon_wrapper[@]}" "${run[@]}" 2>>"$log" &
  daemonpid=$!
}

# stop_daemon: SIGTERM (and a second one, which must be ignored); the
# process must leave with status 0 after its exit line.
stop_daemon() {
  kill -TERM "$daemonpid"
  sleep 0.5
  kill -TERM "$daemonpid" 2>/dev/null
  wait "$daemonpid"
  local rc=$?
  daemonpid=
  save_sim_status
  [ "$rc" -eq 0 ] || fail "daemon exited $rc after SIGTERM"
  grep -q "RecordStop AVRecord exit!!!" "$log" || fail "no exit line after SIGTERM"
  [ "$(grep -c 'Get a signal -- SIGTERM' "$log")" -eq 1 ] || fail "the second SIGTERM was not ignored"
}

# wait_log PATTERN SECONDS [COUNT]: waits until PATTERN appears COUNT times.
wait_log() {
  local want=${3:-1}
  for _ in $(seq $(($2 * 10))); do
    [ "$(grep -c -- "$1" "$log" 2>/dev/null)" -ge "$want" ] && return 0
    sleep 0.1
  done
  fail "no '$1' (x$want) in the log within $2 s"
  return 1
}

# sections: one line per section on the card, "file section start end
# offset size frames width height rate", read straight from index000.bin.
sections() {
  python3 - "$card/index000.bin" <<'PY'
import struct, sys
f = open(sys.argv[1], 'rb')
head = f.read(236)
magic, version, _, _, _, file_sum, used, current = struct.unpack_from('<8I', head)
if magic != 0x46484953:
    sys.exit('bad index header')
for n in range(file_sum):
    f.seek(0x400 + 48 * n)
    rec = struct.unpack('<8I', f.read(32))
    if rec[0] != 0x46484652:
        continue
    for s in range(1, rec[6] + 1):
        f.seek((s + (n + 8) * 256) * 64)
        sec = f.read(64)
        flag, start, end, fno, sno, off, size, frames = struct.unpack_from('<3I2H3I', sec)
        width, height, rate = struct.unpack_from('<2HB', sec, 0x24)
        if flag == 0x46484952:
            print(n, sno, start, end, off, size, frames, width, height, rate)
PY
}

section_count() { sections | wc -l; }

# check_recording SECONDS: the card holds one section of the 1080p H.264
# stream, about SECONDS long, whose elementary stream is one contiguous run
# of what the simulator published looping the sample (every start code four
# bytes long), from a key frame on, with as many access units as indexed.
check_recording() {
  local seconds=$1 rows file sno start end offset size frames width height rate
  mapfile -t rows < <(sections)
  [ "${#rows[@]}" -eq 1 ] || { fail "expected one section, found ${#rows[@]}: ${rows[*]}"; return; }
  read -r file sno start end offset size frames width height rate <<<"${rows[0]}"
  [ "$width x $height @ $rate" = "1920 x 1080 @ 25" ] || fail "section media $width x $height @ $rate"
  # A liveness floor only: on a loaded machine (more so inside the VM or
  # under qemu-arm) the simulator publishes below 25 fps; a frame lost on
  # the way fails the contiguity check below instead.
  [ "$frames" -ge $(((seconds - 2) * 25 / 2)) ] || fail "only $frames frames in ${seconds} s"
  [ $((end - start)) -ge $((seconds - 2)) ] || fail "section spans $((end - start)) s"
  check_section_stream "$file" "$sno" "$frames"
}

# check_section_stream FILE SECTION FRAMES: the section's elementary stream
# is a run of the published 1080p sample from a key frame on, with FRAMES
# access units. A forced key frame makes the simulator jump to the sample's
# next key frame, so the run may break at a key frame once per force-I-frame
# request it answered; every break is named with where it falls.
check_section_stream() {
  local name
  name=$(printf 'hi%06d_%06d.mp4' "$1" "$2")
  "$card_tool" frames "$name" --card "$card" --es "$work/recorded.h264" >/dev/null 2>"$work/frames.err" ||
    fail "frames --es: $(cat "$work/frames.err")"
  python3 - "$samples/h264_1080p.h264" "$work/recorded.h264" "$3" "$(forced_key_frames)" <<'PY' || fail "$name: recorded stream differs from the input"
import bisect, re, sys
data = open(sys.argv[1], 'rb').read()
data = re.sub(rb'(?<!\x00)\x00\x00\x01', b'\x00\x00\x00\x01', data)  # as published
got = open(sys.argv[2], 'rb').read()
forced = int(sys.argv[4])
key = b'\x00\x00\x00\x01\x67'
if not got.startswith(key):
    sys.exit('recording does not start with a key frame')
units = [m.start() for m in re.finditer(rb'\x00\x00\x00\x01[\x65\x41]', got)]
def where(offset):
    return f'byte {offset} (access unit {bisect.bisect_left(units, offset) + 1})'
stream = data * 3
gops = [m.start() for m in re.finditer(re.escape(key), got)] + [len(got)]
at, breaks = None, []
for start, end in zip(gops, gops[1:]):
    gop = got[start:end]
    if at is not None and stream[at:at + len(gop)] == gop:
        at = (at + len(gop)) % len(data)
        continue
    found = stream.find(gop)
    if found < 0:
        sys.exit(f'recorded bytes from {where(start)} to byte {end} are no run of the published stream')
    if at is not None:
        breaks.append(f'stream breaks at {where(start)}: sample byte {found % len(data)} follows where {at} was due')
    at = (found + len(gop)) % len(data)
for line in breaks:
    print('  ' + line)
if len(breaks) > forced:
    sys.exit(f'{len(breaks)} breaks in the recorded stream, {forced} forced key frames to explain them')
count = len(units)
if count != int(sys.argv[3]):
    sys.exit(f'{count} access units in the stream, {sys.argv[3]} in the index')
PY
}

# events FILE_NO: "slot SUM" (or "none"), then "event START END TYPE" per
# entry of the media file's alarm-event slot in event000.bin.
events() {
  python3 - "$card/event000.bin" "$1" <<'PY'
import struct, sys
f, n = open(sys.argv[1], 'rb'), int(sys.argv[2])
f.seek(256 * n)
magic, _, _, _, total = struct.unpack('<5I', f.read(20))
if magic != 0x464D4541:
    sys.exit(print('none'))
print('slot', total)
for i in range(total):
    f.seek(0x100000 + 0x20000 * n + 48 * i)
    e = f.read(48)
    print('event', *struct.unpack_from('<2I', e, 4), e[0x18])
PY
}
