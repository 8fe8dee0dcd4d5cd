#!/usr/bin/env bash
# avrecord-card pack and frames on real encoder output: clips made with
# ffmpeg (H.264 and H.265, with and without audio) are recorded onto a card
# prepared in a plain directory, read back frame by frame and compared byte
# for byte; ffprobe reads each section's program stream; the index check
# passes. Bad usage and a card without index give their exit codes.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
card="$work/card"
mkdir "$card"

json_field() { sed -E "s/.*\"$1\":\"?([^,\"}]*).*/\1/" <<<"$2"; }

ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
src=(-f lavfi -i testsrc=size=640x360:rate=25 -t 4 -pix_fmt yuv420p)
ff "${src[@]}" -c:v libx264 -g 50 -bsf:v h264_mp4toannexb -f h264 "$work/clip.h264"
ff "${src[@]}" -c:v libx265 -x265-params log-level=error:keyint=50 -f hevc "$work/clip.h265"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 4 -c:a pcm_alaw -f alaw "$work/tone.alaw"
ff -f lavfi -i sine=frequency=440:sample_rate=48000 -t 4 -c:a aac -f adts "$work/tone.aac"

expect 0 "$tool" prealloc "$card" --media 2

# pack_and_compare NAME CLIP CODEC FFPROBE-CODEC [pack options...]
pack_and_compare() {
  local name=$1 clip=$2 codec=$3 probe=$4; shift 4
  expect 0 "$tool" pack "$clip" --card "$card" --codec "$codec" --json "$@"
  local section offset size frames
  section=$(json_field section "$out")
  offset=$(json_field offset "$out")
  size=$(json_field size "$out")
  frames=$(json_field video_frames "$out")
  [ "$frames" = 100 ] || fail "$name: $frames video frames recorded, not 100"
  expect 0 "$tool" frames "$section" --card "$card" --es "$work/$name.es"
  cmp -s "$clip" "$work/$name.es" || fail "$name: elementary stream differs from the input"
  [ "$(grep -c ' key ' <<<"$out")" = 2 ] || fail "$name: not two key frames in: $(head -3 <<<"$out")"
  dd if="$card/hi000000.mp4" of="$work/$name.ps" bs=1 skip=$((offset + 40)) count=$((size - 40)) status=none
  local probed
  probed=$(ffprobe -v error -count_frames -show_entries stream=codec_name,width,height,nb_read_frames \
    -select_streams v -of csv=p=0 "$work/$name.ps" 2>/dev/null)
  [ "$probed" = "$probe,640,360,100" ] || fail "$name: ffprobe reads '$probed'"
}

pack_and_compare h264 "$work/clip.h264" h264 h264
pack_and_compare h265 "$work/clip.h265" h265 hevc
pack_and_compare h264-g711a "$work/clip.h264" h264 h264 --audio "$work/tone.alaw" --audio-codec g711a
pack_and_compare h265-aac "$work/clip.h265" h265 hevc --audio "$work/tone.aac" --audio-codec aac --rotate 1

expect 0 "$tool" frames hi000000_000003.mp4 --card "$card" --json
[ "$(grep -c '"kind":"audio","offset":[0-9]*,"length":320,' <<<"$out")" = 100 ] || fail "G.711 frames of section 3"
expect 0 "$tool" frames hi000000_000004.mp4 --card "$card" --json
[ "$(grep -c '"kind":"audio"' <<<"$out")" -ge 180 ] || fail "AAC frames missing from section 4"
expect 0 "$tool" check --card "$card"
[[ "$out" == *"index consistent"* ]] || fail "check after packing: $out"

# An alarm event of file 0 inside section 1, from its start + 2 s to + 3 s:
# the walk starts at the key frame before the event and ends with it.
expect 0 "$tool" frames hi000000_000001.mp4 --card "$card" --json
start=$(head -1 <<<"$out" | sed -E 's/.*"time":([0-9]+).*/\1/')
put 0 "41454d4600000000$(le32 $((start + 2)))$(le32 $((start + 3)))01000000" "$card/event000.bin"
put $((0x100000)) "41444546$(le32 $((start + 2)))$(le32 $((start + 3)))0000000000000000000000000100" \
  "$card/event000.bin"
expect 0 "$tool" frames he000000_000000.mp4 --card "$card" --json
first=$(head -1 <<<"$out")
[[ "$first" == *'"kind":"key"'* ]] || fail "event walk does not start at a key frame: $first"
times=$(sed -E 's/.*"time":([0-9]+).*/\1/' <<<"$out" | sort -u)
[ "$(head -1 <<<"$times")" -le $((start + 2)) ] && [ "$(tail -1 <<<"$times")" -le $((start + 3)) ] ||
  fail "event walk times: $(tr '\n' ' ' <<<"$times")"
n=$(wc -l <<<"$out")
[ "$n" -gt 20 ] && [ "$n" -lt 100 ] || fail "event walk took $n frames"
expect 1 "$tool" frames he000000_000001.mp4 --card "$card"

# Usage and card problems.
expect 2 "$tool" pack --card "$card"
expect 2 "$tool" pack "$work/clip.h264" --card "$card" --codec vp9
expect 2 "$tool" pack "$work/clip.h264" --card "$card" --rotate 4
expect 2 "$tool" pack "$work/clip.h264" --card "$card" --audio "$work/tone.alaw"
expect 2 "$tool" pack "$work/tone.alaw" --card "$card"
expect 2 "$tool" frames hi00000_000001.mp4 --card "$card"
expect 1 "$tool" frames hi000000_000009.mp4 --card "$card"
expect 1 "$tool" frames hi000001_000001.mp4 --card "$card"
mkdir "$work/blank"
expect 1 "$tool" pack "$work/clip.h264" --card "$work/blank"
[[ "$err" == "avrecord-card pack: "* ]] || fail "pack on a blank directory: $err"

[ "$failures" -eq 0 ] && echo "pack/frames: all passed"
exit $((failures > 0))
