#!/usr/bin/env bash
# Configuration faults during a recording: out-of-range bytes in the shared
# configuration record (pre-record and delay indexes above their tables,
# unknown audio and video encodings, stream modes, record types, video
# standard, cover mode). After each the daemon is alive and, where the
# settings still allow it, recording goes on;
# nothing reads outside a table (run with AVRECORD_FAULT_DAEMON set to the
# sanitizer build's AVRecord, any report in the log fails); the index check
# passes at the end. Values the simulator's checked settings refuse (stream
# type 7, today's day mode 9, segment hours 99, rotation 200) go in through
# "set --unchecked": the daemon stays up, a stream type naming no stream is
# logged and changes nothing, and once the settings are sane again it
# records. Day modes and segments that hold no time of day stop recording,
# as the schedule says.
# Prints "RELIABILITY config-faults|faults|failures|figures".
source "$(dirname "$0")/avrecord_e2e_lib.sh"
daemon=${AVRECORD_FAULT_DAEMON:-$daemon}
today=$(date +%w)
faults=("prerecord 255" "delay 255" "prerecord 7" "delay 9" "audio-enable 1" "audio-encoding 200"
  "encoding 0 99" "stream-mode 0 255" "codec-mode 255" "video-standard 255" "record-type 255"
  "lack-space 200" "width 0 4096" "height 0 65535" "--unchecked stream-type 7" "--unchecked stream-type 255"
  "--unchecked rotate 200" "--unchecked day-mode $today 9"
  "--unchecked day-mode $today 3 segment $today 0 99:00-99:99 0" "--unchecked segment $today 0 00:00-99:99 200")

make_card 4
start_camera
start_daemon
wait_log "CameraSetVideoForceIFrame, VideoId 0" 30
recorded() { sections | awk '{ n += $7 } END { print n + 0 }'; }

kept=0
for fault in "${faults[@]}"; do
  before=$(recorded)
  sim_set $fault
  sleep 2
  kill -0 "$daemonpid" 2>/dev/null || { fail "daemon gone after '$fault'"; break; }
  if [ "$(recorded)" -gt "$before" ]; then
    kept=$((kept + 1))
  elif [[ $fault == *stream-type* ]]; then
    fail "a stream type naming no stream changed the recording ('$fault')"
  fi
done
grep -qE "Param error, nStreamType = (7|255)" "$log" || fail "no log line for the stream type naming no stream"
sim_set width 0 1920 height 0 1080 stream-type 0 day-mode "$today" 1 rotate 0
before=$(recorded)
sleep 6
[ "$(recorded)" -gt "$before" ] || fail "no recording once the settings were sane again"
stop_daemon
if grep -qE 'AddressSanitizer|runtime error:' "$log"; then
  fail "sanitizer report: $(grep -E 'AddressSanitizer|runtime error:' "$log" | head -2)"
fi
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
echo "RELIABILITY config-faults|${#faults[@]} faults|$failures|recording_went_on=$kept/${#faults[@]}" \
  "sanitizer=$([ "$daemon" = "${AVRECORD_FAULT_DAEMON:-}" ] && echo on || echo off)"
finish
