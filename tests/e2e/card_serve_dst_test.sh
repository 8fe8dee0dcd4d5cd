#!/usr/bin/env bash
# The card tool on the days the clocks change. One card holds four 30 s
# sections packed on stopped clocks, each from 15 s before a change:
# Europe/Berlin's spring and autumn changes (01:00 UTC) and
# America/New_York's (02:00 local). In each zone the day list gives the
# change days 23 and 25 hours with the clock's offsets, local times of the
# skipped hour are refused and those of the repeated hour mean the first,
# search prints the repeated hour with its zone, and the SVG timeline counts
# the hours that pass. Then headless Chromium uses the page on Berlin's
# 25-hour day (card_serve_dst_page.py).
set -uo pipefail
source "$(dirname "$0")/lib.sh"
for zone in Europe/Berlin America/New_York; do
  [ -f "/usr/share/zoneinfo/$zone" ] || { echo "SKIP: no time zone data for $zone"; exit 0; }
done
if "$tool" --help | grep -q "web page is not part of this build"; then
  echo "card serve: not in this build, skipped"
  exit 0
fi
faketime_lib=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1
[ -f "$faketime_lib" ] || { echo "SKIP: needs libfaketime"; exit 0; }
card="$work/card"
mkdir -p "$card"

ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=320x180:rate=25 -t 30 -pix_fmt yuv420p \
  -c:v libx264 -preset veryfast -g 50 -bf 0 -x264-params repeat-headers=1 -f h264 "$work/clip.h264" ||
  fail "ffmpeg"
expect 0 "$tool" prealloc "$card" --media 1
utc() { date -u -d "$1" +%s; }
berlin_spring=$(utc 2026-03-29T01:00:00Z)
berlin_autumn=$(utc 2026-10-25T01:00:00Z)
ny_spring=$(utc 2026-03-08T07:00:00Z)
ny_autumn=$(utc 2026-11-01T06:00:00Z)
# In the order of time: a file's sections never go back in time.
for change in "$ny_spring" "$berlin_spring" "$berlin_autumn" "$ny_autumn"; do
  # libfaketime preloaded, not its wrapper, whose semaphore other tests can hold.
  expect 0 env TZ=UTC0 LD_PRELOAD="$faketime_lib" FAKETIME="$(date -u -d "@$((change - 15))" '+%Y-%m-%d %H:%M:%S')" \
    "$tool" pack "$work/clip.h264" --card "$card" --codec h264
done

# serve_card ZONE: the card served by the tool running in ZONE.
serve_card() {
  TZ=$1 "$tool" serve --card "$card" --listen 127.0.0.1:0 >"$work/serve.out" 2>"$work/serve.err" &
  server=$!
  for _ in $(seq 100); do grep -q "^serving" "$work/serve.out" && break; sleep 0.1; done
  url=$(sed -nE 's/^serving .* at (http[^ ]+) .*/\1/p' "$work/serve.out")
  [ -n "$url" ] || { fail "serve did not start: $(cat "$work/serve.err")"; exit 1; }
}
stop_server() { kill -TERM "$server"; wait "$server" || fail "serve exited $? on SIGTERM"; }
get() { code=$(curl -s -o "$work/body" -w '%{http_code}' "$url${1#/}"); body=$(cat "$work/body"); }

# check_zone ZONE SPRING-DAY SPRING-CHANGE AUTUMN-DAY AUTUMN-CHANGE ZONES...
check_zone() {
  local zone=$1 spring_day=$2 spring=$3 autumn_day=$4 autumn=$5 winter=$6 summer=$7 winter_offset=$8
  local summer_offset=$((winter_offset + 3600)) days
  serve_card "$zone"
  get /api/days
  days=$(python3 -c 'import json, sys; [print(d["day"], d["end"] - d["start"], d["sections"], " ".join(
    "%s/%s/%s" % (c["from"], c["offset"], c["zone"]) for c in d["clock"])) for d in json.load(sys.stdin)["days"]]' \
    <<<"$body")
  grep -q "^$spring_day 82800 1 [0-9]*/$winter_offset/$winter $spring/$summer_offset/$summer\$" <<<"$days" ||
    fail "$zone: the spring day is not 23 hours with the change at $spring: $days"
  grep -q "^$autumn_day 90000 1 [0-9]*/$summer_offset/$summer $autumn/$winter_offset/$winter\$" <<<"$days" ||
    fail "$zone: the autumn day is not 25 hours with the change at $autumn: $days"
  echo "$zone days:"
  sed 's/^/  /' <<<"$days"
  # The skipped hour is no time; the repeated one means its first occurrence.
  local last_summer_hour
  last_summer_hour=$(TZ=$zone date -d "@$((autumn - 1))" +%H)
  get "/api/sections?from=${spring_day}T$(TZ=$zone date -d "@$spring" +%H):30:00&to=$spring"
  [ "$code" = 400 ] || fail "$zone: a time of the skipped hour was taken: $code $body"
  get "/api/sections?from=${autumn_day}T$last_summer_hour:30:00&to=${autumn_day}T$last_summer_hour:59:59"
  [[ "$body" == '{"from":'$((autumn - 1800))',"to":'$((autumn - 1))',"sections":[{'* ]] ||
    fail "$zone: the repeated hour did not mean its first occurrence: $body"
  stop_server
  # search prints the repeated hour with the zone.
  expect 0 env TZ="$zone" "$tool" search --card "$card" --from $((autumn - 60)) --to $((autumn + 60))
  [[ "$out" == *" $last_summer_hour:59:45 $summer "*" $last_summer_hour:00:14 $winter "* ]] ||
    fail "$zone: search: $out"
  expect 0 env TZ="$zone" "$tool" timeline --card "$card" --day "$autumn_day" -o "$work/autumn.svg"
  local hours
  hours=$(grep -c '<text class="hour"' "$work/autumn.svg")
  [ "$hours" -eq 26 ] || fail "$zone: the 25-hour day's timeline has $((hours - 1)) hours"
}
check_zone Europe/Berlin 2026-03-29 "$berlin_spring" 2026-10-25 "$berlin_autumn" CET CEST 3600
check_zone America/New_York 2026-03-08 "$ny_spring" 2026-11-01 "$ny_autumn" EST EDT -18000

serve_card Europe/Berlin
if python3 "$AVRECORD_SOURCE_DIR/tests/e2e/card_serve_dst_page.py" "$url" 2026-10-25 hi000000_000003.mp4 \
  "$berlin_autumn" >"$work/page.json"; then
  cat "$work/page.json"
else
  fail "$(cat "$work/page.json")"
fi
stop_server
[ "$failures" -eq 0 ] && echo "card serve across daylight-saving days: all passed"
exit "$failures"
