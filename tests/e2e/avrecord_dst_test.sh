#!/usr/bin/env bash
# Daylight-saving days, with the daemon under libfaketime in the zones
# Europe/Berlin (clocks change at 01:00 UTC) and America/New_York (at 02:00
# local time). The schedule and the midnight split follow the local clock;
# the card keeps UTC. Every change day is a Sunday, so the schedule of
# weekday 0 is the one in force.
# - Midnight before a 23-hour and before a 25-hour day: the section ends at
#   local 23:59:59 and the next starts after local midnight.
# - Recording all day across the spring change: one section, no clock jump.
# - A window the spring change skips (02:00-03:00) records nothing; the next
#   window (03:00-04:00) starts at the change.
# - A window holding the repeated hour (01:00-02:00 in New York) records on
#   through the change in one section.
# - A window inside the repeated hour (01:30-02:00) records twice: up to the
#   change and again when the clock shows 01:30 the second time.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
faketime_lib=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1
if [ ! -f "$faketime_lib" ] || [ -n "${AVRECORD_ARM_DAEMON:-}" ]; then
  echo "SKIP: needs libfaketime and the native daemon"
  exit 0
fi
for zone in Europe/Berlin America/New_York; do
  [ -f "/usr/share/zoneinfo/$zone" ] || { echo "SKIP: no time zone data for $zone"; exit 0; }
done

start_camera
offset="$work/offset"
zone=

# set_clock LOCAL-TIME: the daemon's clock shows LOCAL-TIME of $zone now.
set_clock() {
  local target
  target=$(TZ=$zone date -d "$1" +%s)
  printf '%+d\n' $((target - $(date +%s))) >"$offset"
}

# run_from ZONE LOCAL-TIME: a new card, and the daemon started in ZONE
# with its clock at LOCAL-TIME.
run_from() {
  zone=$1
  rm -rf "$root"
  make_card 4
  : >"$log"
  set_clock "$2"
  start_daemon TZ="$zone" LD_PRELOAD="$faketime_lib" FAKETIME_TIMESTAMP_FILE="$offset" FAKETIME_NO_CACHE=1
}

# sunday MODE [HH:MM-HH:MM...]: Sunday's record mode and its first segments.
sunday() {
  local mode=$1 k=0
  shift
  for k in 0 1 2 3 4 5; do sim_set segment 0 "$k" "${1:-00:00-00:00}" 0; shift $(($# > 0)); done
  sim_set day-mode 0 "$mode"
}

utc() { date -u -d "$1" +%s; }

# expect_sections DESCRIPTION START-MIN START-MAX END-MIN END-MAX ...: the
# card holds one section per group of four bounds, start and end within them.
expect_sections() {
  local what=$1 rows i start end
  shift
  mapfile -t rows < <(sections)
  echo "$what: ${#rows[@]} section(s):$(for r in "${rows[@]}"; do read -r _ _ s e _ <<<"$r"; printf ' %s..%s' \
    "$(date -u -d "@$s" +%H:%M:%SZ)" "$(date -u -d "@$e" +%H:%M:%SZ)"; done)"
  [ "${#rows[@]}" -eq $(($# / 4)) ] || { fail "$what: expected $(($# / 4)) section(s), found ${#rows[@]}"; return; }
  for ((i = 0; i < ${#rows[@]}; i++)); do
    read -r _ _ start end _ <<<"${rows[$i]}"
    local b=("${@:$((i * 4 + 1)):4}")
    [ "$start" -ge "${b[0]}" ] && [ "$start" -le "${b[1]}" ] && [ "$end" -ge "${b[2]}" ] && [ "$end" -le "${b[3]}" ] ||
      fail "$what: section $((i + 1)) runs $start..$end, wanted start ${b[0]}..${b[1]}, end ${b[2]}..${b[3]}"
  done
}

no_line() { grep -q -- "$1" "$log" && fail "$2: $(grep -m1 -- "$1" "$log")"; }

# 1. Midnight before the 23-hour day in Berlin and before the 25-hour day in
#    New York: split at local midnight, the next run in the new local day.
sunday 1
sim_set day-mode 6 1
for case in "Europe/Berlin 2026-03-28 2026-03-28T23:00:00Z" "America/New_York 2026-10-31 2026-11-01T04:00:00Z"; do
  read -r z day midnight_utc <<<"$case"
  next_day=$(date -d "$day + 1 day" +%Y-%m-%d)
  midnight=$(utc "$midnight_utc")
  run_from "$z" "$day 23:59:52"
  wait_log ": 23:59:59" 15 && wait_log "$recording_line" 5 2
  grep "$recording_line" "$log" | sed -n 2p | grep -q "\[$next_day 00:00:0" ||
    fail "$z: the next run did not start in the new day: $(grep "$recording_line" "$log" | sed -n 2p)"
  sleep 1
  stop_daemon
  # The next section starts after midnight or, joined to the one before,
  # where that one ended.
  expect_sections "$z midnight" $((midnight - 10)) $((midnight - 4)) $((midnight - 3)) $((midnight - 1)) \
    $((midnight - 2)) $((midnight + 2)) "$midnight" $((midnight + 5))
done

# 2. Berlin, the spring change while recording all day: one section, the
#    log's local times go from 01:59 to 03:00.
change=$(utc 2026-03-29T01:00:00Z)
run_from Europe/Berlin "2026-03-29 01:59:52"
wait_log "$recording_line" 10
sleep 12
stop_daemon
no_line "Changed the time" "the change of the local clock was taken for a clock jump"
[ "$(grep -c "Record Over" "$log")" -eq 1 ] || fail "the section ended before the stop: $(grep -m1 "Record Over" "$log")"
grep -q "\[2026-03-29 03:00:0" "$log" || fail "no log line at 03:00 local after the change"
expect_sections "Berlin spring, all day" $((change - 9)) $((change - 2)) $((change + 3)) $((change + 14))

# 3. Berlin, a window the spring change skips records nothing; the window
#    after it starts at the change.
sunday 3 02:00-03:00 03:00-04:00
run_from Europe/Berlin "2026-03-29 01:59:55"
wait_log "$recording_line" 15
sleep 2
stop_daemon
grep -q "NowSec = 10800 RecordStartSec = 10800 RecordEndSec = 14400" "$log" ||
  fail "the schedule did not see 03:00 right after 01:59"
expect_sections "Berlin spring, windows 02-03 and 03-04" "$change" $((change + 3)) $((change + 1)) $((change + 8))

# 4. New York, a window holding the repeated hour records on through the
#    autumn change in one section.
change=$(utc 2026-11-01T06:00:00Z)
sunday 3 01:00-02:00
run_from America/New_York "2026-11-01 01:59:52 EDT"
wait_log "$recording_line" 10
sleep 12
stop_daemon
no_line "Record Time Over" "the window ended at the autumn change"
expect_sections "New York autumn, window 01-02" $((change - 9)) $((change - 2)) $((change + 3)) $((change + 14))

# 5. New York, a window inside the repeated hour records twice.
sunday 3 01:30-02:00
run_from America/New_York "2026-11-01 01:59:52 EDT"
wait_log "Record Time Over" 15
sleep 1
set_clock "2026-11-01 01:29:55 EST"  # half an hour on, while nothing records
wait_log "$recording_line" 15 2
sleep 2
stop_daemon
second=$(utc 2026-11-01T06:30:00Z)
expect_sections "New York autumn, window 01:30-02" $((change - 9)) $((change - 2)) $((change - 2)) "$change" \
  "$second" $((second + 3)) $((second + 1)) $((second + 8))
finish
