#!/usr/bin/env bash
# The native daemon on the real card with the VM's clock 20 s before the
# card's last second, 2106-02-07 06:28:15 UTC (tests/e2e/real_card_2106_steps.sh).
# The run must end at that second with nothing stored past it, the daemon
# must say once that it waits for the clock, and record again once the clock
# is set back (to 2030-03-17): two sections, the first ending exactly at the
# last second, the second from the set-back on, each frame for frame as
# published, and search, MP4 export and the page's API find the first by
# its time.
source "$(dirname "$0")/real_card_lib.sh"
last=4294967295
waiting_line="not recording until the clock is set"
real_card_steps=$AVRECORD_SOURCE_DIR/tests/e2e/real_card_2106_steps.sh
REAL_CARD_CLOCK=$((last - 20)) real_card_record 0
real_card_readback

first=$(cat "$vm/first-frame-clock") stop=$(cat "$vm/stop-clock")
mapfile -t rows < <(sections)
[ "${#rows[@]}" -eq 2 ] || fail "expected two sections, found ${#rows[@]}: ${rows[*]}"
read -r file1 sno1 start1 end1 _ _ frames1 _ <<<"${rows[0]:-}"
read -r file2 sno2 start2 end2 _ _ frames2 _ <<<"${rows[1]:-}"
for n in 1 2; do
  eval "echo \"  section \$sno$n: \$start$n (\$(date -u -d @\$start$n +%FT%TZ)) to \$end$n (\$(date -u -d @\$end$n +%FT%TZ)), \$frames$n frames\""
done
echo "  clock set to $((last - 20)), first frame at $first; set back to 1900000000 at $(cat "$vm/set-back-from"), stop at $stop"
[ "${start1:-0}" -ge $((last - 20)) ] && [ "${start1:-0}" -le "$first" ] || fail "first section starts at ${start1:-?}"
[ "${end1:-0}" = "$last" ] || fail "first section ends at ${end1:-?}, not at the card's last second"
[ "${start2:-0}" -ge 1900000000 ] && [ "${start2:-0}" -lt $((1900000000 + 30)) ] || fail "second section starts at ${start2:-?}"
[ "${end2:-0}" -ge $((stop - 2)) ] && [ "${end2:-0}" -le "$stop" ] || fail "second section ends at ${end2:-?}, stopped at $stop"
[ "${file1:-x}" = "${file2:-y}" ] || fail "the sections are in files ${file1:-?} and ${file2:-?}"
for n in 1 2; do
  eval "check_section_stream \$file$n \$sno$n \$frames$n; check_frame_times \$file$n \$sno$n \$start$n \$end$n"
done
check_key_entries "${file1:-0}" "${start1:-0}" "${end1:-0}" "${start2:-0}" "${end2:-0}"
check_found_by_time "$(printf 'hi%06d_%06d.mp4' "${file1:-0}" "${sno1:-0}")" "${start1:-0}" "$last" \
  $((last - 6)) "$last" "${start1:-0}" "$last"
rm -rf "$card"

[ "$(grep -c "$waiting_line" "$log")" -eq 1 ] || fail "expected one waiting line in the log: $(grep "$waiting_line" "$log")"
grep -q "the clock left the card's time range" "$log" || fail "no line for the run's end at the card's last second"
grep -q "within the card's time range again: recording" "$log" || fail "no line when recording went on"
grep "$waiting_line" "$log" | sed 's/^/  log: /'
finish
