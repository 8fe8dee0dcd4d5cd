#!/usr/bin/env bash
# Alarm events in event000.bin while recording inside a TIME_SCOPE_DIFF
# segment: record type 2 watches alarm source 0 (alarm type 4), with 10 s of
# pre-record and 10 s of delay; the event is found by a search for type 4.
source "$(dirname "$0")/avrecord_e2e_lib.sh"

make_card 4
start_camera
diff_day_segment 2 2
sim_set prerecord 2
sim_set delay 0
start_daemon
wait_log "$recording_line" 10

sleep 12
on=$(date +%s)
"$sim" alarm 0 on >/dev/null || fail "alarm on"
sleep 5
off=$(date +%s)
"$sim" alarm 0 off >/dev/null || fail "alarm off"
sleep 12
mapfile -t got < <(events 0)
[ "${got[0]:-}" = "slot 1" ] || fail "expected one event, got: ${got[*]}"
read -r _ start end type <<<"${got[1]:-event 0 0 0}"
[ "$type" = 4 ] || fail "alarm type $type, expected 4"
[ $((on - 10 - start)) -le 2 ] && [ $((start - (on - 10))) -le 2 ] || fail "event starts at $start, alarm at $on"
[ $((end - (off + 10))) -le 2 ] && [ $(((off + 10) - end)) -le 2 ] || fail "event ends at $end, alarm off at $off"

"$card_tool" search --card "$card" --from "$((on - 3600))" --to "$(($(date +%s) + 60))" --type 4 \
  >"$work/search.txt" 2>&1 || fail "search --type 4: $(cat "$work/search.txt")"
grep -q "he000000_000000.mp4" "$work/search.txt" || fail "search --type 4 misses the event: $(cat "$work/search.txt")"
stop_daemon
finish
