#!/usr/bin/env bash
# avcam-sim against a ring consumer built on the ring reader ("avcam-sim
# read"), in this script's own IPC namespace: every published frame of the
# three streams (and the G.711 audio of the main ring) arrives once, in
# order and byte-identical to the input access units; a forced key frame is
# the very next record of its stream and arrives within one frame interval;
# injected faults reach the reader as they should; stopping the simulator
# leaves no System V object behind.
# AVCAM_SIM_E2E_SECONDS (default 10) sets the length of the streaming run.
set -uo pipefail
sim="$AVRECORD_BUILD_DIR/apps/avcam-sim/avcam-sim"
samples="$AVRECORD_BUILD_DIR/samples"
seconds=${AVCAM_SIM_E2E_SECONDS:-10}
work=$(mktemp -d)
simpid=
cleanup() { [ -n "$simpid" ] && kill -TERM "$simpid" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

"$AVRECORD_SOURCE_DIR/scripts/make-samples" "$samples" || { echo "FAIL: make-samples"; exit 1; }
inputs=(--video0 "$samples/h264_1080p.h264" --video1 "$samples/h265_720p.h265" --video2 "$samples/h264_360p.h264"
        --audio "$samples/g711a.alaw" --audio-codec g711a)

ipc_objects() { ipcs -m -q | grep -c '^0x'; }

# json FILE STREAM FIELD: a number from the reader's or the status's lines.
json() { grep "\"stream\":$2," "$1" | sed -E "s/.*\"$3\":([0-9.-]+).*/\1/"; }

# The input as the encoder publishes it: every start code in four-byte form,
# repeated to cover LENGTH bytes.
expected() {  # file length out
  python3 - "$1" "$2" "$3" <<'PY'
import re, sys
data = open(sys.argv[1], 'rb').read()
if not sys.argv[1].endswith(('.alaw', '.ulaw', '.aac')):
    data = re.sub(rb'(?<!\x00)\x00\x00\x01', b'\x00\x00\x00\x01', data)
need = int(sys.argv[2])
open(sys.argv[3], 'wb').write((data * (need // len(data) + 1))[:need])
PY
}

start_sim() {
  "$sim" run "${inputs[@]}" "$@" 2>"$work/sim.err" &
  simpid=$!
}

stop_sim() {
  kill -"${1:-INT}" "$simpid"
  wait "$simpid"
  local rc=$?
  simpid=
  [ "$rc" -eq 0 ] || fail "run exited $rc after SIG${1:-INT}: $(cat "$work/sim.err")"
  [ "$(ipc_objects)" -eq 0 ] || fail "objects left after SIG${1:-INT}: $(ipcs -m -q)"
}

# 1. Streaming: the reader is there first and starts on the first record.
mkdir "$work/out"
"$sim" read --seconds "$seconds" --out "$work/out" >"$work/read.json" &
reader=$!
sleep 0.5
start_sim
wait "$reader" || fail "read exited $?"
"$sim" status --json >"$work/status.json" || fail "status"
stop_sim INT

frame_files=(video0.bin video1.bin video2.bin)
input_files=("$samples/h264_1080p.h264" "$samples/h265_720p.h265" "$samples/h264_360p.h264")
for s in 0 1 2; do
  frames=$(json "$work/read.json" $s frames)
  published=$(json "$work/status.json" $s frames)
  [ "$(json "$work/read.json" $s first_serial)" = 1 ] || fail "stream $s did not start at serial 1"
  [ "$(json "$work/read.json" $s gaps)" = 0 ] || fail "stream $s: serial gaps"
  [ "$(json "$work/read.json" $s repeats)" = 0 ] || fail "stream $s: repeated or old serials"
  [ "$frames" -ge $((seconds * 25 - 25)) ] || fail "stream $s: only $frames frames in ${seconds}s"
  # The status is taken after the reader has gone and the simulator goes on
  # publishing meanwhile, for more than a few frames on a loaded machine;
  # a frame lost inside the reader's window is a serial gap above.
  [ "$frames" -ge $((published - 25)) ] || fail "stream $s: $frames frames read, $published published"
  got="$work/out/${frame_files[$s]}"
  expected "${input_files[$s]}" "$(stat -c %s "$got")" "$work/expected"
  cmp -s "$got" "$work/expected" || fail "stream $s payloads differ from the input access units"
done
[ "$(json "$work/read.json" 0 audio_frames)" -ge $((seconds * 25 - 25)) ] || fail "audio frames missing"
expected "$samples/g711a.alaw" "$(stat -c %s "$work/out/audio.bin")" "$work/expected"
cmp -s "$work/out/audio.bin" "$work/expected" || fail "audio payloads differ from the input"

# 2. Forced key frames on streams 0 and 1 (each in the middle of a GOP).
for s in 0 1; do
  start_sim
  sleep 0.5
  "$sim" read --seconds 4 --streams $s --force-iframe $s --force-after-ms 2600 >"$work/force.json" \
    || fail "read (force) exited $?"
  "$sim" status --json >"$work/status.json"
  stop_sim TERM
  asked=$(json "$work/status.json" $s force_asked)
  key=$(json "$work/status.json" $s force_key)
  [ "$key" = $((asked + 1)) ] || fail "stream $s: forced key frame is frame $key, asked after frame $asked"
  latency=$(sed -nE 's/.*"latency_ms":([0-9.-]+).*/\1/p' "$work/force.json")
  awk -v l="$latency" 'BEGIN { exit !(l >= 0 && l <= 40 + 25) }' \
    || fail "stream $s: forced key frame after $latency ms"
done

# 3. Faults. A serial gap is delivered with its gap; a burst that stays
#    inside the ring loses nothing; after a pause the reader goes on from the
#    writer's new pass; corrupt check words make the reader give up the
#    record and go on from the next key frame.
start_sim
sleep 0.3
"$sim" read --seconds 9 >"$work/faults.json" &
reader=$!
sleep 2
"$sim" inject serial-gap 7 --stream 0 || fail "inject serial-gap"
"$sim" inject burst 30 --stream 1 || fail "inject burst"
"$sim" inject pause 1 --stream 2 || fail "inject pause"
sleep 1
"$sim" inject corrupt-check 2 --stream 0 || fail "inject corrupt-check"
wait "$reader"
"$sim" status --json >"$work/status.json"
stop_sim INT
for s in 0 1 2; do
  [ "$(json "$work/faults.json" $s repeats)" = 0 ] || fail "faults: stream $s repeated serials"
  last=$(json "$work/faults.json" $s last_serial)
  newest=$(json "$work/status.json" $s serial)
  [ "$last" -ge $((newest - 6)) ] || fail "faults: stream $s stopped at serial $last, writer at $newest"
done
[ "$(json "$work/faults.json" 0 gaps)" = 2 ] || fail "faults: stream 0 gaps $(json "$work/faults.json" 0 gaps), not 2"
[ "$(json "$work/faults.json" 1 gaps)" = 0 ] || fail "faults: the burst lost frames"
[ "$(json "$work/faults.json" 2 gaps)" = 0 ] || fail "faults: the pause lost frames"

# 4. --speed 4 --no-loop publishes one pass of each input four times faster
#    and then stops; the watchdog block lists its 17 slots.
start_sim --speed 4 --no-loop
sleep 3.5
"$sim" status --json >"$work/status.json"
sleep 0.5
"$sim" status --json >"$work/status2.json"
[ "$("$sim" watchdog --json | grep -c '"slot":')" = 17 ] || fail "watchdog does not list 17 slots"
stop_sim INT
for s in 0 1 2; do
  frames=$(json "$work/status.json" $s frames)
  [ "$frames" -ge 200 ] || fail "--speed 4: stream $s published $frames frames in 3.5 s"
  [ "$frames" = "$(json "$work/status2.json" $s frames)" ] || fail "--no-loop: stream $s went on after one pass"
done

# 5. Bad inputs: one clear line, non-zero exit, nothing created.
bad() {  # code args...
  local code=$1; shift
  "$sim" "$@" >/dev/null 2>"$work/err"
  local got=$?
  [ "$got" -eq "$code" ] || fail "avcam-sim $* exited $got, not $code"
  [ "$(wc -l <"$work/err")" -eq 1 ] || fail "avcam-sim $*: not one line: $(cat "$work/err")"
  [ "$(ipc_objects)" -eq 0 ] || fail "avcam-sim $* left objects"
}
bad 1 run --video0 "$work/missing.h264"
bad 1 run --video0 "$samples/g711a.alaw"
bad 2 run --video3 "$samples/h264_360p.h264"
bad 2 run --video0 "$samples/h264_360p.h264" --fps 0
bad 2 run --audio "$samples/g711a.alaw" --audio-codec mp3
bad 2 set foo 1
bad 2 set width 3 640
bad 1 set width 1 640
bad 2 inject serial-gap 5 --stream 3
bad 1 status
bad 2 frobnicate

exit $((failures > 0))
