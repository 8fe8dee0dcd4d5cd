#!/usr/bin/env bash
# avrecord-card search and timeline on a card prepared in a plain directory
# with a few recorded sections and alarm events written into its index:
# rows and JSON of a search, the overlap rule at the range edges, a valid
# SVG day picture, and the exit codes of bad usage and a missing index.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
card="$work/card"
mkdir "$card"
export TZ=UTC0

command -v python3 >/dev/null || { echo "card search: python3 missing, skipped"; exit 0; }

expect 0 "$tool" prealloc "$card" --media 2
# Day 2026-03-10 (UTC): file 0 with sections 08:00-09:00 and 10:00-11:00,
# file 1 with 12:00-24:00; alarm events of types 1 and 8 in file 1.
python3 - "$card" <<'PY'
import struct, sys
card = sys.argv[1]
day = 1773100800  # 2026-03-10 00:00:00 UTC
def at(h, m=0): return day + h * 3600 + m * 60
def put(name, offset, data):
    with open(f"{card}/{name}", "r+b") as f:
        f.seek(offset); f.write(data)
def file_head(n, start, end, sections):
    put("index000.bin", 0x400 + 48 * n, struct.pack("<8I16x", 0x46484652, n, start, end, 0, 1, sections, 0))
def section(n, s, start, end):
    put("index000.bin", (s + (n + 8) * 256) * 64,
        struct.pack("<3I2H5I2H5B19x", 0x46484952, start, end, n, s, 0, 1000 * s, 25 * (end - start), 1, 20,
                    1920, 1080, 25, 1, 0, 0, 1))
def event_slot(n, start, total, kind):
    put("event000.bin", 256 * n, struct.pack("<6IB11x220x", 0x464D4541, n, start, 0, total, 0, kind))
def event(n, i, start, end, kind):
    put("event000.bin", 0x100000 + 0x20000 * n + 48 * i,
        struct.pack("<5I2H2B22x", 0x46454441, start, end, 500, 15 * (end - start), n, i, kind, 15))
file_head(0, at(8), at(11), 2)
section(0, 1, at(8), at(9))
section(0, 2, at(10), at(11))
file_head(1, at(12), at(24), 1)
section(1, 1, at(12), at(24))
event_slot(1, at(12, 30), 2, 1)
event(1, 0, at(12, 30), at(12, 31), 1)
event(1, 1, at(18), at(18, 5), 8)
PY

expect 0 "$tool" search --card "$card" --from 2026-03-10T07:00:00 --to 2026-03-10T10:30:00
[ "$(wc -l <<<"$out")" -eq 2 ] || fail "search rows: $out"
grep -q '^hi000000_000001.mp4  2026-03-10 08:00:00  2026-03-10 09:00:00 *1000 *90000 *25$' <<<"$out" ||
  fail "search row: $out"

expect 0 "$tool" search --card "$card" --from 1773100800 --to 1773187199 --json
[ "$(wc -l <<<"$out")" -eq 3 ] || fail "search json rows: $out"
[[ "$out" == *'{"name":"hi000001_000001.mp4","start":1773144000,"end":1773187199,"size":1000,"frames":1080000,"frame_rate":25}'* ]] ||
  fail "search json (midnight end): $out"

expect 0 "$tool" search --card "$card" --from 2026-03-10T00:00:00 --to 2026-03-10T23:00:00 --type 8
[[ "$out" == *"he000001_000001.mp4"* && "$out" != *"he000001_000000"* ]] || fail "alarm search: $out"
expect 0 "$tool" search --card "$card" --from 2026-03-10T08:30:00 --to 2026-03-10T08:45:00
[[ "$out" == "no recordings from"* ]] || fail "search inside a section: $out"

expect 0 "$tool" timeline --card "$card" --day 2026-03-10 -o "$work/day.svg"
[[ "$out" == *"3 sections, 2 alarm events"* ]] || fail "timeline summary: $out"
python3 - "$work/day.svg" <<'PY' || fail "timeline is not the expected SVG"
import sys, xml.etree.ElementTree as E
n = "{http://www.w3.org/2000/svg}"
root = E.parse(sys.argv[1]).getroot()
bars = [r for r in root.iter(n + "rect") if r.get("class")]
assert root.tag == n + "svg", root.tag
assert len([b for b in bars if b.get("class") == "section"]) == 3, bars
assert {b.get("class") for b in bars if b.get("class") != "section"} == {"alarm alarm-type-1", "alarm alarm-type-8"}
assert all(b.find(n + "title").text.startswith(("hi0", "he0")) for b in bars)
PY

expect 2 "$tool" search --card "$card" --from 2026-03-10T07:00:00
expect 2 "$tool" search --card "$card" --from 2026-02-30T07:00:00 --to 1
expect 2 "$tool" search --card "$card" --from 10 --to 5
expect 2 "$tool" search --card "$card" --from 1 --to 5 --type 3
expect 2 "$tool" timeline --card "$card" --day 2026-13-01 -o "$work/x.svg"
expect 2 "$tool" timeline --card "$card" --day 2026-03-10
expect 1 "$tool" search --card "$work/nowhere" --from 1 --to 5
[[ "$err" == "avrecord-card search: cannot search $work/nowhere/"* ]] || fail "missing card message: $err"
expect 1 "$tool" timeline --card "$work/nowhere" --day 2026-03-10 -o "$work/x.svg"

[ "$failures" -eq 0 ] && echo "card search: all passed"
exit "$failures"
