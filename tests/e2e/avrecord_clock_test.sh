#!/usr/bin/env bash
# Clock rules of a record run, with the daemon under libfaketime: a run
# recording into midnight ends at 23:59:59 with the day-end lines and the
# next run starts in the new day; a step of the wall clock keeps the
# section up to 5 s and ends it beyond. The run compares two clocks that
# tick in whole seconds with different phases, so a step can read one
# second off either way: here 4 s must keep the section and 7 s must end
# it (the exact 5/6 s edge is covered by the unit tests on a fake clock).
source "$(dirname "$0")/avrecord_e2e_lib.sh"
faketime_lib=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1
if [ ! -f "$faketime_lib" ] || [ -n "${AVRECORD_ARM_DAEMON:-}" ]; then
  echo "SKIP: needs libfaketime and the native daemon"
  exit 0
fi

make_card 4
start_camera

# 1. Midnight.
day=$(date +%Y-%m-%d)
next_day=$(date -d "$day + 1 day" +%Y-%m-%d)
midnight=$(date -d "$next_day 00:00:00" +%s)
start_daemon LD_PRELOAD="$faketime_lib" FAKETIME="@$day 23:59:52"
wait_log "$recording_line" 10
wait_log ": 23:59:59" 15
wait_log "m_u32RecordEndTime = " 2
wait_log "$recording_line" 5 2
grep "$recording_line" "$log" | sed -n 2p | grep -q "\[$next_day 00:00:0" ||
  fail "the next run did not start in the new day: $(grep "$recording_line" "$log" | sed -n 2p)"
sleep 1
stop_daemon
mapfile -t rows < <(sections)
[ "${#rows[@]}" -eq 2 ] || fail "expected two sections around midnight, found ${#rows[@]}"
read -r _ _ start1 end1 _ <<<"${rows[0]}"
read -r _ _ _ end2 _ <<<"${rows[1]:-0 0 0 0}"
[ "$end1" -lt "$midnight" ] || fail "first section ends at $end1, midnight is $midnight"
[ "$end2" -ge "$midnight" ] || fail "second section's frames end at $end2, before midnight $midnight"

# 2. Clock jumps, through a time-offset file the daemon reads on every call.
: >"$log"
offset="$work/offset"
echo "+0" >"$offset"
start_daemon LD_PRELOAD="$faketime_lib" FAKETIME_TIMESTAMP_FILE="$offset" FAKETIME_NO_CACHE=1
wait_log "$recording_line" 10
sleep 1
echo "+4" >"$offset"
sleep 1.5
grep -q "Changed the time" "$log" && fail "a 4 s step ended the section"
sim_set codec-mode 1  # a fresh run, started with the clock at +4 s
wait_log "$recording_line" 10 2
sleep 1
echo "+11" >"$offset"
wait_log "Changed the time" 3
grep "Changed the time" "$log" | grep -Eq "CurrentDuration = ([0-9]+)" || fail "no durations in the jump line"
stop_daemon
finish
