#!/usr/bin/env bash
# A run that records no frame gives its section number back: a run on a
# stream the encoder publishes nothing on ends at the stream switch with
# nothing written, and the next run's section is number 1 of the file, not
# number 2 with an empty slot before it.
source "$(dirname "$0")/avrecord_e2e_lib.sh"

make_card 2
make_samples
start_sim --video0 "$samples/h264_1080p.h264"  # streams 1 and 2 stay silent
sim_set stream-type 2
start_daemon
wait_log "CameraSetVideoForceIFrame, VideoId 2" 15
sleep 2
sim_set stream-type 0
wait_log "StreamType Change" 10
wait_log "$recording_line" 15
sleep 2
stop_daemon

mapfile -t rows < <(sections)
[ "${#rows[@]}" -eq 1 ] || fail "expected one section, found ${#rows[@]}: ${rows[*]}"
read -r file sno _ <<<"${rows[0]:-x x}"
[ "$file $sno" = "0 1" ] || fail "the recorded section is file $file section $sno, not file 0 section 1"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
finish
