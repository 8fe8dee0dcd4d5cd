#!/usr/bin/env bash
# Every parameter change that would make the recorded stream inconsistent
# ends the section with its log line and the next section starts; the audio
# enable alone does not; the end of a TIME_SCOPE_DIFF segment ends the run;
# a card that disappears ends the run and the process, once it is back.
source "$(dirname "$0")/avrecord_e2e_lib.sh"

make_card 4
start_camera --audio "$samples/g711a.alaw" --audio-codec g711a
start_daemon

runs_recorded() { grep -c "$recording_line" "$log"; }
wait_log "$recording_line" 15

# split "LOG LINE" SET-ARGS...: the change ends the run with the line and
# the next run starts.
split() {
  local line=$1 before
  shift
  sleep 1.5
  before=$(runs_recorded)
  sim_set "$@"
  wait_log "$line" 5 || return
  wait_log "$recording_line" 10 $((before + 1))
}

split "Video Encoding Change!  0 change to 1" encoding 0 1
split "Video FrameRate Change!  25 change to 30" video-standard 0
split "Video Record StreamType Change ! ( 1 != 0 )" stream-type 1
split "StreamType\[1\] Resolution Change ! ( W:320 != 640" width 1 320
split "Video codec mode change !  0 change to 2" codec-mode 2
split "Video Rotate mode change !  0 change to 1" rotate 1

# Audio enable alone does not end the run; the next run records with audio,
# and a change of the audio encoding then ends it.
sim_set audio-enable 1
sleep 1.5
[ "$(grep -c 'Record Over' "$log")" -eq $(($(runs_recorded) - 1)) ] || fail "audio enable alone ended the run"
before=$(runs_recorded)
sim_set record-enable 0
wait_log "Video Record Enable close !" 5
sleep 1
sim_set record-enable 1
wait_log "$recording_line" 10 $((before + 1))
split "Audio Encoding Change!  [0-9]* change to 3" audio-encoding 3

# A TIME_SCOPE_DIFF day: recording inside segment 2, which then ends now.
before=$(runs_recorded)
diff_day_segment 2 0
wait_log "VideoRecord TIME_SCOPE_DIFF" 10
wait_log "$recording_line" 10 $((before + 1))
# The run's own line: the alarm thread of the run before logs the same text
# at its own pace.
run_over="StartRecord [0-9]* *TIME_SCOPE_DIFF Record Time Over"
sleep 1
over=$(grep -c "$run_over" "$log")
before=$(runs_recorded)
sim_set segment "$(date +%w)" 2 "00:00-$(date +%H:%M)" 0
wait_log "$run_over" 5 $((over + 1))
sim_set day-mode "$(date +%w)" 1
wait_log "$recording_line" 10 $((before + 1))

# Card removed while recording: the run ends; the process leaves once the
# card is back.
sleep 1
rm "$root/dev/mmcblk1p1"
wait_log "Stop Record" 5
sleep 1.5
kill -0 "$daemonpid" 2>/dev/null || fail "left while the card is away"
: >"$root/dev/mmcblk1p1"
wait "$daemonpid"
rc=$?
daemonpid=
[ "$rc" -eq 0 ] || fail "exit $rc after the card came back"
grep -q "RecordStop AVRecord exit!!!" "$log" || fail "no exit line after the card came back"

# One section per run; the stream-1 section at that stream's size.
count=$(section_count)
[ "$count" -eq "$(runs_recorded)" ] || fail "$count sections for $(runs_recorded) runs"
sections | awk '$8 == 640 && $9 == 360' | grep -q . || fail "no section of stream 1 at 640x360"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
finish
