#!/usr/bin/env bash
# kill -9 loop: the card tool's pack records a 60 s clip through the frame
# writer onto a preallocated card and is killed at a random moment within
# the time an uninterrupted run takes. After every kill: the index
# check reports nothing outside the file being recorded (its torn tail is
# allowed), the cut section's indexed frames read back, and the card's file
# set (names and sizes) is unchanged: recording never creates, grows or
# removes a file. RELIABILITY_FULL=1 runs 200 cycles (KILL_CYCLES), else 5.
# Prints "RELIABILITY kill-9-pack|cycles|failures|figures".
set -uo pipefail
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/reliability_lib.sh"
cycles=5
[ "${RELIABILITY_FULL:-0}" = 1 ] && cycles=${KILL_CYCLES:-200}
card="$work/card"
mkdir "$card"
ffmpeg -loglevel error -y -f lavfi -i testsrc=size=640x360:rate=25 -t 60 -pix_fmt yuv420p -c:v libx264 -g 50 \
  -bsf:v h264_mp4toannexb -f h264 "$work/clip.h264" || { echo "FAIL: ffmpeg"; exit 1; }
expect 0 "$tool" prealloc "$card" --media 4
file_set "$card" >"$work/files.before"

# The indexed video frames of the current file's last section, and its name.
last_section() {
  python3 - "$card/index000.bin" <<'PY'
import struct, sys
f = open(sys.argv[1], "rb")
current = struct.unpack("<I", f.read(236)[28:32])[0]
f.seek(0x400 + 48 * current)
record = f.read(48)
flag, file_no = struct.unpack_from("<II", record)
sections = struct.unpack_from("<I", record, 24)[0]
if flag != 0x46484652 or sections == 0:
    print("none 0"); sys.exit()
f.seek(0x20000 + 0x4000 * file_no + 64 * sections)
section = f.read(64)
print("hi%06d_%06d.mp4 %d" % (file_no, sections, struct.unpack_from("<I", section, 24)[0]))
PY
}

clip_frames=1500
corrupt=0
mid_run=0  # kills that cut a run short
lost_list=()
# How long an uninterrupted run takes: kills fall anywhere inside it.
started=$(date +%s%N)
"$tool" pack "$work/clip.h264" --card "$card" >/dev/null 2>&1 || fail "uninterrupted pack"
run_ms=$((($(date +%s%N) - started) / 1000000 + 1))

for ((cycle = 1; cycle <= cycles; cycle++)); do
  "$tool" pack "$work/clip.h264" --card "$card" >/dev/null 2>&1 &
  pid=$!
  delay=$((RANDOM % run_ms))
  sleep "$((delay / 1000)).$(printf '%03d' $((delay % 1000)))"
  kill -KILL "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  current=$("$tool" info --card "$card" --json | head -1 | sed -E 's/.*"current_file":([0-9]+).*/\1/')
  "$tool" check --card "$card" --json >"$work/check" 2>&1
  if grep -q '"type":"problem"' "$work/check"; then
    if grep '"type":"problem"' "$work/check" | grep -qv "\"file\":$current,"; then
      corrupt=$((corrupt + 1))
      fail "cycle $cycle: $(grep -v "\"file\":$current," "$work/check" | head -2)"
    fi
  fi
  read -r name indexed < <(last_section)
  if [ "$name" != none ]; then
    read_back=$("$tool" frames "$name" --card "$card" 2>/dev/null | tail -1 | sed -nE 's/^([0-9]+) frames.*/\1/p')
    lost_list+=($((indexed - ${read_back:-0})))
    [ -n "${KILL_TRACE:-}" ] && echo "cycle $cycle: $name indexed $indexed read $read_back"
    [ "$indexed" -lt "$clip_frames" ] && mid_run=$((mid_run + 1))
  fi
  file_set "$card" | cmp -s - "$work/files.before" || fail "cycle $cycle: the card's file set changed"
done

read -r p50 p99 < <(percentiles "${lost_list[@]}")
echo "RELIABILITY kill-9-pack|$cycles cycles|$failures|run_ms=$run_ms corrupt_indexes=$corrupt kills_mid_run=$mid_run frames_lost_per_kill_p50=$p50 p99=$p99"
[ "$failures" -eq 0 ] && echo "kill -9 loop: all passed"
exit $((failures > 0))
