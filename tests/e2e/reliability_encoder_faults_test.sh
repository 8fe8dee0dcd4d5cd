#!/usr/bin/env bash
# Encoder faults during a recording: the simulator skips serial numbers,
# writes bad check words, pauses and publishes bursts that overrun the
# reader. After each fault the daemon is alive and recording again; at the
# end every recorded video frame is a frame the simulator published (hash
# membership over access units) and the index check passes. Frames lost per
# fault: frames published on the recorded stream in the fault's window less
# the frames recorded in it. RELIABILITY_FULL=1 repeats every fault 5 times
# (FAULT_ROUNDS), else once.
# Prints "RELIABILITY encoder-<fault>|faults|failures|figures" per fault.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
rounds=1
[ "${RELIABILITY_FULL:-0}" = 1 ] && rounds=${FAULT_ROUNDS:-5}
window=4
faults=("serial-gap 5" "corrupt-check 3" "pause 2" "burst 400")

make_card 4
start_camera
start_daemon
wait_log "CameraSetVideoForceIFrame, VideoId 0" 15
sleep 2

published() { "$sim" status --json | sed -nE 's/^\{"stream":0,.*"frames":([0-9]+).*/\1/p'; }
recorded() { sections | awk '{ n += $7 } END { print n + 0 }'; }

for fault in "${faults[@]}"; do
  name=${fault%% *}
  losses=()
  resumed=0
  for ((round = 1; round <= rounds; round++)); do
    p0=$(published)
    r0=$(recorded)
    "$sim" inject $fault >/dev/null || fail "avcam-sim inject $fault"
    sleep "$window"
    kill -0 "$daemonpid" 2>/dev/null || { fail "daemon gone after $fault"; break 2; }
    p1=$(published)
    r1=$(recorded)
    sleep 1
    [ "$(recorded)" -gt "$r1" ] && resumed=$((resumed + 1))
    loss=$(((p1 - p0) - (r1 - r0)))
    losses+=($((loss < 0 ? 0 : loss)))  # the two counts are read a moment apart
  done
  [ "$resumed" -eq "$rounds" ] || fail "$fault: recording resumed after $resumed of $rounds faults"
  sorted=$(printf '%s\n' "${losses[@]:-0}" | sort -n)
  rows+=("RELIABILITY encoder-$name|$rounds faults|FAILS|resumed=$resumed/$rounds frames_lost_per_fault_min=$(
    head -1 <<<"$sorted") max=$(tail -1 <<<"$sorted")")
done
stop_daemon

"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
: >"$work/recorded.h264"
while read -r file sno _; do
  "$card_tool" frames "$(printf 'hi%06d_%06d.mp4' "$file" "$sno")" --card "$card" --es "$work/part.h264" \
    >/dev/null 2>&1 || fail "frames of section $file/$sno"
  cat "$work/part.h264" >>"$work/recorded.h264"
done < <(sections)
python3 - "$samples/h264_1080p.h264" "$work/recorded.h264" <<'PY' || fail "recorded frames that were never published"
import hashlib, re, sys
def units(data):
    data = re.sub(rb'(?<!\x00)\x00\x00\x01', b'\x00\x00\x00\x01', data)
    out, unit, slice_seen = [], b'', False
    for nal in data.split(b'\x00\x00\x00\x01'):
        if not nal:
            continue
        kind = nal[0] & 31
        if unit and (kind in (7, 9) or (kind in (1, 5) and slice_seen)):
            out.append(unit)
            unit, slice_seen = b'', False
        unit += b'\x00\x00\x00\x01' + nal
        slice_seen = slice_seen or kind in (1, 5)
    return out + ([unit] if unit else [])
published = {hashlib.sha1(u).digest() for u in units(open(sys.argv[1], 'rb').read())}
recorded = units(open(sys.argv[2], 'rb').read())
foreign = sum(hashlib.sha1(u).digest() not in published for u in recorded)
print("recorded %d frames, %d not published" % (len(recorded), foreign))
sys.exit(1 if foreign or not recorded else 0)
PY
for r in "${rows[@]}"; do echo "${r/FAILS/$failures}"; done
finish
