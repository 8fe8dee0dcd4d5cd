#!/usr/bin/env bash
# avrecord-card serve on a card recorded as the daemon records (pack, an
# ffmpeg clip of H.264 with AAC, 30 s from 08:00:00 on a stopped clock, so
# frame times fall on whole seconds) with two alarm events
# written into its event file. The JSON API answers as the index says and
# refuses bad input with 400 and a message while staying up. Then the card
# is written into a FAT32 image and served from it (--image), and headless
# Chromium uses the page as a person would (card_serve_page.py): it plays
# the section from a clicked moment and downloads a 10 s clip, which
# ffprobe reads as H.264 and AAC of the right length; the page plays on
# after a long pause and a stream cut short, and on the card folder
# overwritten by a later lap and served with --recover it shows the older
# lap's remnant as one. Screenshots of the timeline, the page, the phone
# and the remnant are kept in the build's test-artefacts/serve/.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
export TZ=UTC0
clients="$AVRECORD_SOURCE_DIR/tests/e2e/card_serve_clients.py"
field() { python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' "$1" "$2"; }
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
port=${url%/}
port=${port##*:}
# One server per port: a second one is refused.
expect 2 timeout 5 "$tool" serve --card "$card" --listen "127.0.0.1:$port"
[ "$err" = "avrecord-card serve: port $port is in use" ] || fail "second server on one port: $err"
# A crowd that connects while the server is held up (a loaded machine)
# waits in the kernel's queue instead of being dropped for a second.
crowd=$(python3 "$clients" "$port" crowd 100 "$server")
[ "$crowd" = '{"answered": 100, "connected": 100}' ] || fail "a hundred clients at once: $crowd"

# get PATH [CURL ARGS...]: the body in $body, the status in $code, the headers in $work/headers.
get() {
  local path=$1; shift
  code=$(curl -s -o "$work/body" -D "$work/headers" -w '%{http_code}' "$@" "$url${path#/}")
  body=$(cat "$work/body")
}

get /api/days
[ "$body" = '{"days":[{"day":"2026-03-10","start":1773100800,"end":1773187200,"sections":1,"events":2,"clock":[{"from":1773100800,"offset":0,"zone":"UTC"}]}]}' ] ||
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
refused 400 "/api/sections?from=1&to=5&to=5"
refused 400 "/api/sections?from=1%00junk&to=5"
refused 400 "/api/sections?from=1&to=5&=x"
refused 400 "/api/days?="
refused 400 "/api/sections?to=5"
refused 400 "/api/sections?from=1&to=5&x=1"
refused 400 "/api/events?from=1&to=5&type=3"
refused 400 "/api/section?name=../../index000.bin"
refused 400 "/api/check?frames=yes"
refused 400 "/api/clips?from=$start&to=$start" -X POST -d ''
# Both ends included: an hour is from T to T + 3599, a second more is refused.
refused 400 "/api/clips?from=$((start - 3601))&to=$((start - 1))" -X POST -d ''
refused 404 "/api/clips?from=$((start - 3600))&to=$((start - 1))" -X POST -d ''
refused 404 "/api/clips?from=$((start - 100))&to=$((start - 50))" -X POST -d ''
refused 404 "/api/play?at=$((start + 3600))"
refused 404 "/api/clips/12345"
refused 404 "/api/clips/777/file"
refused 404 "/index000.bin"
refused 404 "/../../etc/passwd" --path-as-is
refused 403 "/api/days" -H "Host: card.example.com"
printf 'GET /api/days HTTP/1.1\r\nHost: 127.0.0.1:%s\r\nHost: card.example.com\r\n\r\n' "$port" |
  python3 "$clients" "$port" raw >"$work/raw.json"
[ "$(field "$work/raw.json" status)" = 400 ] || fail "two Host headers: $(cat "$work/raw.json")"
get /api/days -H "Host: LOCALHOST:$port"
[ "$code" = 200 ] || fail "Host: LOCALHOST gave $code"

# What HTTP says about a wrong method, what was too large, and bodies.
refused 405 /api/days -X DELETE
grep -q '^Allow: GET, HEAD' "$work/headers" || fail "405 without Allow: GET, HEAD"
refused 405 /api/clips
grep -q '^Allow: POST' "$work/headers" || fail "405 without Allow: POST"
refused 414 "/api/days?from=$(head -c 3000 /dev/zero | tr '\0' 1)"
[[ "$body" == *"request line is longer than 2048 bytes"* ]] || fail "414 says $body"
refused 431 /api/days -H "X-Big: $(head -c 20000 /dev/zero | tr '\0' a)"
[[ "$body" == *"request headers are larger than 8192 bytes"* ]] || fail "431 says $body"
# No call takes a body, and none is read as parameters.
refused 413 /api/clips -d "from=$start&to=$((start + 10))"
[[ "$body" == *"no call here takes one"* ]] || fail "413 says $body"
# A POST without Content-Length has no body: it is answered at once.
refused 404 "/api/clips?from=$((start - 100))&to=$((start - 50))" -X POST --max-time 5
# A header line of 64 MiB costs the server no more than a few KiB.
memory() { sed -nE 's/^VmHWM:\s+([0-9]+) kB/\1/p' "/proc/$server/status"; }
before=$(memory)
python3 "$clients" "$port" bighead 64 >/dev/null
[ $(($(memory) - before)) -lt 16384 ] || fail "a 64 MiB header took the server from $before kB to $(memory) kB"

# Other sites' pages may not start clips; the server's own page may.
clip="/api/clips?from=$start&to=$((start + 10))"
refused 403 "$clip" -X POST -d '' -H "Origin: https://evil.example" -H "Sec-Fetch-Site: cross-site"
refused 403 "$clip" -X POST -d '' -H "Origin: https://evil.example"
refused 403 "$clip" -X POST -d '' -H "Sec-Fetch-Site: same-site"
refused 404 "/api/clips/$((id + 1))"  # none of the refused calls made a clip
get "$clip" -X POST -d '' -H "Origin: ${url%/}" -H "Sec-Fetch-Site: same-origin"
[ "$code" = 202 ] && [[ "$body" == '{"id":'$((id + 1))',"'* ]] || fail "the page's own clip request gave $code $body"

# Stuck clients: eight viewers that stop reading their stream, eight
# request heads that stop halfway and one that comes a byte a second. The
# API goes on answering; the heads are cut off with 408, the streams once
# they have not moved for the write timeout (30 s), and a video plays again.
python3 "$clients" "$port" stuck 8 8 1 $((start + 5)) 35 >"$work/stuck8.json"
cat "$work/stuck8.json"
[ "$(python3 -c 'import json, sys
r = json.load(open(sys.argv[1]))
print(r["days_status"], r["days_seconds_max"] < 1, r["streams_playing"], r["heads_cut"], r["heads_answers"],
      r["streams_cut"], r["video_after"])' "$work/stuck8.json")" = "200 True 8 9 [408] 8 200" ] ||
  fail "eight stuck clients: $(cat "$work/stuck8.json")"
# Fifty of each: sixteen streams play, the others are told to come back later.
python3 "$clients" "$port" stuck 50 50 0 $((start + 5)) 0 >"$work/stuck50.json"
cat "$work/stuck50.json"
[ "$(python3 -c 'import json, sys
r = json.load(open(sys.argv[1]))
print(r["days_status"], r["days_seconds_max"] < 1, r["streams_playing"], r["streams_busy"])' \
  "$work/stuck50.json")" = "200 True 16 34" ] || fail "fifty stuck clients: $(cat "$work/stuck50.json")"
get /api/info
[ "$code" = 200 ] || fail "server down after bad requests: $code"
get "/api/sections?from=0&to=4294967295"
sections=$body
get /api/status
[ "$code" = 404 ] || fail "a card that is not the camera's own has a recorder status: $code $body"
stop_server

# Served where the camera mounts its card, the page gets the recorder's
# published status as it stands; without one, 404.
root=$work/camera
mkdir -p "$root/media" "$root/tmp"
ln -s "$card" "$root/media/SDCard"
status='{"state":"card-failing","cause":"the card refuses writes","since":1779712345,"frames_lost":96}'
AVRECORD_ROOT=$root serve_card camera --card "$root/media/SDCard/"
get /api/status
[ "$code" = 404 ] || fail "recorder status without its file: $code $body"
echo "$status" >"$root/tmp/avrecord-status.json"
get /api/status
[ "$code $body" = "200 $status" ] || fail "recorder status: $code $body"
stop_server

# The same card written into a FAT32 image, served without mounting it:
# the same answers, and the page in the browser.
truncate -s 2G "$work/card.img"
expect 0 "$tool" format "$work/card.img" --init
expect 0 "$AVRECORD_SOURCE_DIR/scripts/fat-image" place "$work/card.img" "$card"
serve_card image --image "$work/card.img"
image_url=$url image_server=$server
get "/api/sections?from=0&to=4294967295"
[ "$body" = "$sections" ] || fail "sections from the image: $body"

# The next lap over the start of the card folder's file 0: 3 s recorded at
# 09:00:00 (packed into a card of its own, whose bytes, key-frame table and
# index are copied over), so the index describes the new lap and the older
# frames behind it are a remnant, which serve --recover offers, marked.
lap="$work/lap"
mkdir -p "$lap"
ff -f lavfi -i testsrc2=size=640x360:rate=25 -t 3 -pix_fmt yuv420p -c:v libx264 -preset veryfast -g 50 \
  -keyint_min 50 -sc_threshold 0 -bf 0 -x264-params repeat-headers=1 -f h264 "$work/lap.h264"
expect 0 "$tool" prealloc "$lap" --media 1
expect 0 faketime -f "2026-03-10 09:00:00" "$tool" pack "$work/lap.h264" --card "$lap" --codec h264 --json
size=$(sed -E 's/.*"size":([0-9]+).*/\1/' <<<"$out")
dd if="$lap/hi000000.mp4" of="$card/hi000000.mp4" bs=1 count="$size" conv=notrunc status=none
key_frame_table_mib=252
dd if="$lap/hi000000.mp4" of="$card/hi000000.mp4" bs=1M skip=$key_frame_table_mib seek=$key_frame_table_mib count=1 \
  conv=notrunc status=none
cp "$lap/index000.bin" "$card/index000.bin"
remnant=hi000000_000002.mp4
serve_card remnant --card "$card" --recover
get "/api/sections?from=0&to=4294967295"
[[ "$body" == *'{"name":"'$remnant'","start":'$((start + 4))','*'"remnant":true},{"name":"'$section'","start":'$((start + 3600))','*'"remnant":false}]}' ]] ||
  fail "sections with a remnant: $body"
if python3 "$AVRECORD_SOURCE_DIR/tests/e2e/card_serve_page.py" "$image_url" 2026-03-10 "$section" "$start" 5 \
  "$artefacts" "$work/downloads" "$url" "$remnant" >"$work/page.json"; then
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
server=$image_server
stop_server
[ "$failures" -eq 0 ] && echo "card serve: all passed"
exit "$failures"
