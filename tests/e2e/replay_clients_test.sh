#!/usr/bin/env bash
# avrecord-replay against real players: ffmpeg and ffprobe over their
# default transport (UDP) and TCP replay a range frame for frame as the card
# holds it (H.264 with G.711, H.265 with AAC); GStreamer's rtspsrc, in ONVIF
# mode (paced and fast) and plain, does the same and ends by itself; an
# ONVIF replay across a gap carries the extension's marks on both sides of
# it; credentials, options and the session cap are refused as they should be.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
replay="$AVRECORD_BUILD_DIR/apps/avrecord-replay/avrecord-replay"
client="$AVRECORD_SOURCE_DIR/tests/e2e/replay_rtsp_client.py"

ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
# Camera streams: no B-frames, a key frame every second.
src=(-f lavfi -i testsrc=size=640x360:rate=25 -t 10 -pix_fmt yuv420p)
ff "${src[@]}" -c:v libx264 -bf 0 -g 25 -bsf:v h264_mp4toannexb -f h264 "$work/clip.h264"
ff "${src[@]}" -c:v libx265 -x265-params log-level=error:keyint=25:bframes=0 -f hevc "$work/clip.h265"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 10 -c:a pcm_alaw -f alaw "$work/tone.alaw"
ff -f lavfi -i sine=frequency=440:sample_rate=16000 -t 10 -c:a aac -f adts "$work/tone.aac"

# Card one: two 10 s sections of H.264 with G.711 A-law, 50 s apart.
t0=1795582800  # 2026-11-25T05:00:00Z
card="$work/card" card265="$work/card265"
mkdir "$card" "$card265"
expect 0 "$tool" prealloc "$card" --media 2
expect 0 faketime "@$t0" "$tool" pack "$work/clip.h264" --card "$card" --codec h264 --audio "$work/tone.alaw" --audio-codec g711a
expect 0 faketime "@$((t0 + 60))" "$tool" pack "$work/clip.h264" --card "$card" --codec h264 --audio "$work/tone.alaw" --audio-codec g711a
# Card two: H.265 with AAC.
expect 0 "$tool" prealloc "$card265" --media 1
expect 0 faketime "@$t0" "$tool" pack "$work/clip.h265" --card "$card265" --codec h265 --audio "$work/tone.aac" --audio-codec aac

# start_replay NAME ARGS...: runs the server on a free port, sets $port.
pids=()
start_replay() {
  local name=$1; shift
  "$replay" --rtsp-port 0 --http-port 0 "$@" >"$work/$name.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do
    port=$(sed -nE 's#.*rtsp://[0-9.]+:([0-9]+)/replay.*#\1#p' "$work/$name.log" | head -1)
    [ -n "$port" ] && return
    sleep 0.1
  done
  fail "$name did not start: $(cat "$work/$name.log")"
}
trap 'kill "${pids[@]}" 2>/dev/null; rm -rf "$work"' EXIT

start_replay open --card "$card"
open=$port
start_replay hevc --card "$card265"
hevc=$port
mkdir -p "$work/root/opt/app/config"
printf '[AVRecordReplay]\nUser=viewer\nPassword=s3cret pass\nMaxClients=3\n' >"$work/root/opt/app/config/CustomTools.cfg"
AVRECORD_ROOT="$work/root" start_replay locked --card "$card" --listen 127.0.0.1
locked=$port
grep -q "listening on 127.0.0.1 only" "$work/open.log" || fail "no word of loopback only: $(cat "$work/open.log")"

# url PORT [CREDENTIALS@]: the whole first section as a plain player asks
# for it (RFC 3339 start, seconds since 1970 as the end). pack writes a
# clip faster than real time, so the card's seconds run behind its frames:
# the end leaves room, the next section starts 60 s after the first.
url() { echo "rtsp://${2:-}127.0.0.1:$1/replay?start=$(date -u -d "@$t0" +%Y-%m-%dT%H:%M:%SZ)&end=$((t0 + 20))"; }

# decoded_md5 INPUT [ffmpeg input options]: one MD5 a decoded picture.
decoded_md5() {
  local input=$1; shift
  timeout 60 ffmpeg -v error "$@" -i "$input" -map 0:v -fps_mode passthrough -f framemd5 - 2>/dev/null |
    grep -v '^#' | awk -F', *' '{print $NF}'
}

# The card's own pictures of section 1.
expect 0 "$tool" frames hi000000_000001.mp4 --card "$card" --es "$work/s1.h264"
decoded_md5 "$work/s1.h264" >"$work/want.md5"
[ "$(wc -l <"$work/want.md5")" = 250 ] || fail "card frames: $(wc -l <"$work/want.md5")"

for transport in udp tcp; do
  decoded_md5 "$(url $open)" -rtsp_transport $transport >"$work/got-$transport.md5"
  cmp -s "$work/want.md5" "$work/got-$transport.md5" ||
    fail "ffmpeg over $transport: $(wc -l <"$work/got-$transport.md5") pictures, not the card's 250"
done
# ffprobe over its default transport: both tracks of the range.
probed=$(timeout 60 ffprobe -v error -count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 \
  "$(url $open)")
[[ "$probed" == "h264,250"$'\n'"pcm_alaw,2"[0-9][0-9] ]] || fail "ffprobe reads: $probed"

# H.265 with AAC over TCP: pictures as recorded, audio decodable.
expect 0 "$tool" frames hi000000_000001.mp4 --card "$card265" --es "$work/s265.h265"
decoded_md5 "$work/s265.h265" >"$work/want265.md5"
decoded_md5 "$(url $hevc)" -rtsp_transport tcp >"$work/got265.md5"
cmp -s "$work/want265.md5" "$work/got265.md5" || fail "H.265 over TCP: $(wc -l <"$work/got265.md5") pictures differ"
probed=$(timeout 60 ffprobe -v error -rtsp_transport tcp -show_entries stream=codec_name,sample_rate -of csv=p=0 \
  "$(url $hevc)")
[ "$probed" = "$(printf 'hevc\naac,16000')" ] || fail "ffprobe reads the H.265 card as: $probed"

# GStreamer plays the range the description announces, frame for frame, and
# ends by itself at its end (RTCP BYE): in ONVIF mode over its default
# transport (TCP) and over UDP, and plain rtspsrc over its default (UDP).
# The three run side by side: each takes the range's 10 s. Beside them the
# fast ONVIF replay a VMS fills a hole with (Rate-Control: no) over TCP,
# which takes well under a second: it must end by itself within 20 s.
# On its way down after the end of stream, rtspsrc's PAUSE can lose the race
# with its own TEARDOWN and report "Received end-of-file" from
# gst_rtspsrc_pause (1 run in 25 of the fast replay): the player's shutdown,
# not the play, so that exit status 1 counts as 0.
gst_play() {
  local name=$1; shift
  local log="$work/$name.gst"
  timeout "${limit:-60}" gst-launch-1.0 -q rtspsrc location="$(url $open)" "$@" \
    ! rtph264depay ! h264parse ! video/x-h264,stream-format=byte-stream ! filesink location="$work/$name.h264" \
    >"$log" 2>&1
  local status=$?
  if [ $status = 1 ] && grep -q '^\.\./.*gst_rtspsrc_pause ()' "$log" &&
    ! grep '^\.\./' "$log" | grep -qv 'gst_rtspsrc_\(pause\|try_send\) ()'; then
    status=0
  fi
  echo $status >>"$log"
}
gst_play gst-onvif onvif-mode=true &
players=($!)
gst_play gst-onvif-udp onvif-mode=true protocols=udp &
players+=($!)
gst_play gst-plain &
players+=($!)
limit=20 gst_play gst-onvif-fast onvif-mode=true onvif-rate-control=false &
players+=($!)
wait "${players[@]}"
for name in gst-onvif gst-onvif-udp gst-plain gst-onvif-fast; do
  [ "$(tail -1 "$work/$name.gst")" = 0 ] || fail "$name: gst-launch failed: $(cat "$work/$name.gst")"
  decoded_md5 "$work/$name.h264" >"$work/$name.md5"
  cmp -s "$work/want.md5" "$work/$name.md5" || fail "$name: $(wc -l <"$work/$name.md5") pictures, not the card's 250"
done

# Credentials: Digest from the URL's user, refusals without or with wrong ones.
probed=$(timeout 60 ffprobe -v error -show_entries stream=codec_name -of csv=p=0 \
  "$(url $locked 'viewer:s3cret%20pass@')")
[ "$probed" = "$(printf 'h264\npcm_alaw')" ] || fail "ffprobe with Digest credentials: $probed"
probed=$(timeout 60 ffprobe -v error "$(url $locked 'viewer:wrong@')" 2>&1)
[[ "$probed" == *"401"* ]] || fail "a wrong password is not refused: $probed"

# ONVIF replay across the gap, with the marks of the extension.
expect 0 python3 "$client" gap "$locked" $((t0 + 5)) $((t0 + 65)) $((t0 + 10)) $((t0 + 60)) viewer "s3cret pass"
[ -z "$out" ] || echo "gap: $out"
[[ "$out" == *FAIL* ]] && fail "gap replay: $out"
expect 0 python3 "$client" refusals "$locked" viewer "s3cret pass" 3
[[ "$out" == *FAIL* ]] && fail "refusals: $out"

[ "$failures" -eq 0 ] && echo "replay clients: all checks passed"
exit $((failures > 0))
