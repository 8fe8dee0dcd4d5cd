#!/usr/bin/env bash
# kill -9 loop of the daemon: AVRecord records the simulator's streams onto a
# preallocated card and is killed with SIGKILL at a random moment, 0.5-5 s
# after its start. After every kill: the index check reports nothing outside
# the media file being recorded (the torn tail of the cut section is
# allowed), the indexed frames of the cut section read back, and the card's
# file set (names and sizes) is unchanged. RELIABILITY_FULL=1 runs 200
# cycles (KILL_CYCLES), else 2 kills 2-3.5 s in.
# Prints "RELIABILITY kill-9-daemon|cycles|failures|figures".
source "$(dirname "$0")/avrecord_e2e_lib.sh"
source "$(dirname "$0")/reliability_lib.sh"
cycles=2
min_ms=2000
max_ms=3500
if [ "${RELIABILITY_FULL:-0}" = 1 ]; then
  cycles=${KILL_CYCLES:-200}
  min_ms=500
  max_ms=5000
fi

make_card 4
start_camera
file_set "$card" >"$work/files.before"

# "NAME INDEXED" of the current file's last section, or "none 0".
last_section() {
  local current
  current=$(python3 -c 'import struct,sys; print(struct.unpack_from("<I", open(sys.argv[1],"rb").read(32), 28)[0])' \
    "$card/index000.bin")
  sections | awk -v f="$current" '$1 == f { name = sprintf("hi%06d_%06d.mp4", $1, $2); n = $7 }
    END { if (name) print name, n; else print "none 0" }'
}

corrupt=0
recorded=0  # kills after which the cut section held frames
lost_list=()
for ((cycle = 1; cycle <= cycles; cycle++)); do
  start_daemon
  delay=$((min_ms + RANDOM % (max_ms - min_ms + 1)))
  sleep "$((delay / 1000)).$(printf '%03d' $((delay % 1000)))"
  kill -KILL "$daemonpid" 2>/dev/null
  wait "$daemonpid" 2>/dev/null
  daemonpid=
  current=$(python3 -c 'import struct,sys; print(struct.unpack_from("<I", open(sys.argv[1],"rb").read(32), 28)[0])' \
    "$card/index000.bin")
  "$card_tool" check --card "$card" --json >"$work/check" 2>&1
  if grep '"type":"problem"' "$work/check" | grep -qv "\"file\":$current,"; then
    corrupt=$((corrupt + 1))
    fail "cycle $cycle: $(grep '"type":"problem"' "$work/check" | grep -v "\"file\":$current," | head -2)"
  fi
  read -r name indexed < <(last_section)
  if [ "$name" != none ] && [ "$indexed" -gt 0 ]; then
    read_back=$("$card_tool" frames "$name" --card "$card" 2>/dev/null | tail -1 | sed -nE 's/^([0-9]+) frames.*/\1/p')
    lost_list+=($((indexed - ${read_back:-0})))
    recorded=$((recorded + 1))
  fi
  file_set "$card" | cmp -s - "$work/files.before" || fail "cycle $cycle: the card's file set changed"
done

read -r p50 p99 < <(percentiles "${lost_list[@]}")
echo "RELIABILITY kill-9-daemon|$cycles cycles|$failures|corrupt_indexes=$corrupt sections=$(section_count)" \
  "frames_lost_per_kill_p50=$p50 p99=$p99"
finish
