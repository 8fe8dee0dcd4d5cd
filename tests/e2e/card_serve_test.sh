#!/usr/bin/env bash
# avrecord-card serve on a card recorded as the daemon records (pack, an
# ffmpeg clip of H.264 with AAC, 30 s from 08:00:00 on a stopped clock, so
# frame times fall on whole seconds) with two alarm events
# written into its event file. The JSON API answers as the index says and
# refuses bad input with 400 and a message while staying up. Then the card
# is written into a FAT32 image and served from it (--image), and headless
# Chromium uses the page as a person would (card_serve_page.py): it plays
# the section from a clicked moment and downloads a 10 s clip, which
# ffprobe reads as H.264 and AAC of the right length. Screenshots of the
# timeline and the page are kept in the build's test-artefacts/serve/.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
export TZ=UTC0
card="$work/card"
artefacts="$AVRECORD_BUILD_DIR/test-artefacts/serve"
mkdir -p "$card" "$work/downloads" "$artefacts"

if "$tool" --help | grep -q "web page is not part of this build"; then
  echo "card serve: not in this build, skipped"
  exit 0
fi

day_start=1773100800                # 2026-03-10 00:00:00 UTC
start=$((day_start + 8 * 3600))     # the section's first frame
ff() { ffmpeg -nostdin -loglevel error -y "$@" || fail "ffmpeg $*"; }
ff -f lavfi -i testsrc2=size=640x360:rate=25 -t 30 -pix_fmt yuv420p -c:v libx264 -preset veryfast -g 50 \
  -keyint_min 50 -sc_threshold 0 -bf 0 -x264-params repeat-headers=1 -f h264 "$work/clip.h264"
ff -f lavfi -i sine=frequency=440:sample_rate=16000 -t 30 -c:a aac -b:a 32k -f adts "$work/tone.aac"
expect 0 "$tool" prealloc "$card" --media 1
expect 0 faketime -f "2026-03-10 08:00:00" "$tool" pack "$work/clip.h264" --card "$card" --codec h264 \
  --audio "$work/tone.aac" --audio-codec aac
section=hi000000_000001.mp4
# Alarm events of types 4 (08:00:06-08:00:12) and 1 (08:00:20-08:00:21) in media file 0.
put 0 "41454d4600000000$(le32 $((start + 6)))$(le32 $((start + 21)))0200000000000000" "$card/event000.bin"
counts=$(printf '%016d' 0)  # data size and frames, unused here
put $((0x100000)) "41444546$(le32 $((start + 6)))$(le32 $((start + 12)))${counts}000000000419" "$card/event000.bin"
put $((0x100000 + 48)) "41444546$(le32 $((start + 20)))$(le32 $((start + 21)))${counts}000001000119" \
  "$card/event000.bin"

# serve_card NAME CARD-OPTIONS...: starts a server; its address in $url, its process in $server.
serve_card() {
  local name=$1; shift
  "$tool" serve "$@" --listen 127.0.0.1:0 >"$work/$name.out" 2>"$work/$name.err" &
  server=$!
  for _ in $(seq 100); do grep -q "^serving" "$work/$name.out" && break; sleep 0.1; done
  url=$(sed -nE 's/^serving .* at (http[^ ]+) .*/\1/p' "$work/$name.out")
  [ -n "$url" ] || { fail "serve $* did not start: $(cat "$work/$name.err")"; exit 1; }
}
stop_server() {
  kill -TERM "$server"
  wait "$server" || fail "serve exited $? on SIGTERM"
}
expect 2 "$tool" serve --card "$card" --listen 127.0.0.1
expect 2 "$tool" serve --card "$card" --listen 127.0.0.1:65536
expect 1 "$tool" serve --card "$work/nowhere"
serve_card dir --card "$card"

# get PATH [CURL ARGS...]: the body in $body, the status in $code.
get() {
  local path=$1; shift
  code=$(curl -s -o "$work/body" -w '%{http_code}' "$@" "$url${path#/}")
  body=$(cat "$work/body")
}

get /api/days
[ "$body" = '{"days":[{"day":"2026-03-10","start":1773100800,"end":1773187200,"sections":1,"events":2}]}' ] ||
  fail "days: $body"
get "/api/sections?from=2026-03-10T08:00:29&to=2026-03-10T09:00:00"
[[ "$body" == *'"name":"'$section'","start":'$start',"end":'$((start + 29))',"size":'*'"frame_rate":25,"width":640,"height":360,"audio":"aac"'* ]] ||
  fail "sections overlapping the range: $body"
get "/api/events?from=$start&to=$((start + 3600))&type=4"
[[ "$body" == *'"events":[{"name":"he000000_000000.mp4","start":'$((start + 6))',"end":'$((start + 12))',"type":4'*'}]}' ]] ||
  fail "events of type 4: $body"
# Key frames every 2 s: a click at 08:00:05 plays from the one at 08:00:04.
get "/api/play?at=2026-03-10T08:00:05"
[[ "$body" == *'"codec":"h264","alarm_types":[1,4],"alarms":["alarm input","motion"],"key_time":'$((start + 4))'}' ]] ||
  fail "play: $body"
get /api/check
[ "$body" = '{"consistent":true,"problems":[]}' ] || fail "check: $body"
# A clip from 08:00:05 to 08:00:13 (both included) reads from the key frame
# at 08:00:04: its progress never counts more frames done than in all.
get "/api/clips?from=$((start + 5))&to=$((start + 13))" -X POST -d ''
id=$(sed -E 's/.*"id":([0-9]+).*/\1/' <<<"$body")
for _ in $(seq 100); do get "/api/clips/$id"; [[ "$body" == *'"state":"done"'* ]] && break; sleep 0.1; done
[[ "$body" == *'"frames":225,"frames_total":225,'* ]] || fail "clip progress: $body"
# The played stream is fragmented MP4 whose header already describes its
# audio (the recorded mono 16 kHz AAC), as a player that starts early needs.
get "/api/video?at=$((start + 5))"
audio=$(ffprobe -v error -select_streams a -show_entries stream=profile,sample_rate,channels -of csv=p=0 "$work/body")
[ "$code" = 200 ] && [ "$audio" = "LC,16000,1" ] || fail "played stream: $code, audio $audio"

# Bad input: 400 (404 for what is not there), a message, and the server stays up.
refused() {  # CODE PATH [CURL ARGS...]
  local want=$1; shift
  get "$@"
  [ "$code" = "$want" ] && [[ "$body" == '{"error":"'?*'"}' ]] || fail "$* gave $code $body, not $want"
}
refused 400 "/api/sections?from=$((start + 10))&to=$start"
refused 400 "/api/sections?from=2026-02-30T08:00:00&to=$start"
refused 400 "/api/sections?from=-1&to=5"
refused 400 "/api/sections?from=99999999999999999999&to=5"
refused 400 "/api/sections?from=1&to=2&from=3"
refused 400 "/api/sections?to=5"
refused 400 "/api/sections?from=1&to=5&x=1"
refused 400 "/api/events?from=1&to=5&type=3"
refused 400 "/api/section?name=../../index000.bin"
refused 400 "/api/check?frames=yes"
refused 400 "/api/days?from=$(head -c 3000 /dev/zero | tr '\0' 1)"
refused 400 "/api/clips?from=$start&to=$start" -X POST -d ''
refused 400 "/api/clips?from=$start&to=$((start + 3601))" -X POST -d ''
refused 404 "/api/clips?from=$((start - 100))&to=$((start - 50))" -X POST -d ''
refused 404 "/api/play?at=$((start + 3600))"
refused 404 "/api/clips/12345"
refused 404 "/api/clips/777/file"
refused 404 "/index000.bin"
refused 404 "/../../etc/passwd" --path-as-is
refused 403 "/api/days" -H "Host: card.example.com"
get /api/info
[ "$code" = 200 ] || fail "server down after bad requests: $code"
get "/api/sections?from=0&to=4294967295"
sections=$body
stop_server

# The same card written into a FAT32 image, served without mounting it:
# the same answers, and the page in the browser.
truncate -s 2G "$work/card.img"
expect 0 "$tool" format "$work/card.img" --init
expect 0 "$AVRECORD_SOURCE_DIR/scripts/fat-image" place "$work/card.img" "$card"
serve_card image --image "$work/card.img"
get "/api/sections?from=0&to=4294967295"
[ "$body" = "$sections" ] || fail "sections from the image: $body"
if python3 "$AVRECORD_SOURCE_DIR/tests/e2e/card_serve_page.py" "$url" 2026-03-10 "$section" "$start" 5 \
  "$artefacts" "$work/downloads" >"$work/page.json"; then
  cat "$work/page.json"
  clip=$(sed -E 's/.*"clip": "([^"]+)".*/\1/' "$work/page.json")
  streams=$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "$clip" | tr '\n' ' ')
  [ "$streams" = "h264 aac " ] || fail "clip streams: $streams"
  duration=$(ffprobe -v error -select_streams v -show_entries stream=duration -of csv=p=0 "$clip")
  python3 -c "import sys; sys.exit(abs(float('$duration') - 10) > 0.04)" || fail "clip lasts $duration s, not 10"
else
  fail "$(cat "$work/page.json")"
fi

stop_server
[ "$failures" -eq 0 ] && echo "card serve: all passed"
exit "$failures"
