#!/usr/bin/env bash
# avrecord-card export on real encoder output: clips made with ffmpeg are
# recorded onto a card in a plain directory, then exported as AVI (read by
# ffprobe, frame count equal to the section's recorded video frames) and as
# elementary streams (equal to the input), a section and an alarm event.
# Bad usage and missing recordings give their exit codes.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
card="$work/card"
mkdir "$card"
json_field() { sed -E "s/.*\"$1\":\"?([^,\"}]*).*/\1/" <<<"$2"; }

probe() { ffprobe -v error -count_frames -show_entries stream=codec_name,width,height,nb_read_frames \
  -select_streams "$1" -of csv=p=0 "$2" 2>/dev/null; }

command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null || { echo "card export: no ffmpeg, skipped"; exit 0; }
ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
src=(-f lavfi -i testsrc=size=640x360:rate=25 -t 4 -pix_fmt yuv420p)
ff "${src[@]}" -c:v libx264 -g 50 -bsf:v h264_mp4toannexb -f h264 "$work/clip.h264"
ff "${src[@]}" -c:v libx265 -x265-params log-level=error:keyint=50 -f hevc "$work/clip.h265"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 4 -c:a pcm_alaw -f alaw "$work/tone.alaw"

expect 0 "$tool" prealloc "$card" --media 1
expect 0 "$tool" pack "$work/clip.h264" --card "$card" --codec h264 --audio "$work/tone.alaw" --audio-codec g711a --json
h264=$(json_field section "$out")
expect 0 "$tool" pack "$work/clip.h265" --card "$card" --codec h265 --json
h265=$(json_field section "$out")
expect 0 "$tool" search --card "$card" --from 0 --to 4294967295 --json
recorded=$(grep "\"$h264\"" <<<"$out" | sed -E 's/.*"frames":([0-9]+).*/\1/')
[ "$recorded" = 100 ] || fail "search reports $recorded frames for $h264"

# AVI with video and audio: ffprobe counts the recorded video frames.
expect 0 "$tool" export "$h264" -o "$work/a.avi" --card "$card" --json
[[ "$out" == *'"codec":"h264","video_frames":100,"audio_frames":100'* ]] || fail "export report: $out"
[ "$(probe v "$work/a.avi")" = "h264,640,360,$recorded" ] || fail "ffprobe on the H.264 AVI: $(probe v "$work/a.avi")"
[ -n "$(probe a "$work/a.avi")" ] || fail "no audio stream in the AVI"
[ ! -e "$work/a.avi-index-tmp" ] || fail "temporary index left behind"
expect 0 "$tool" export "$h265" -o "$work/b.avi" --card "$card"
[ "$(probe v "$work/b.avi")" = "hevc,640,360,100" ] || fail "ffprobe on the H.265 AVI: $(probe v "$work/b.avi")"

# Elementary streams come back as they went in.
expect 0 "$tool" export "$h264" -o "$work/a.h264" --card "$card"
cmp -s "$work/clip.h264" "$work/a.h264" || fail "H.264 stream differs from the input"
expect 0 "$tool" export "$h265" -o "$work/b.h265" --card "$card"
cmp -s "$work/clip.h265" "$work/b.h265" || fail "H.265 stream differs from the input"
expect 2 "$tool" export "$h265" -o "$work/b.h264" --card "$card"
# "-o -" puts the stream on standard output; an AVI (its header is completed
# last) is refused there. Neither leaves a file named "-".
(cd "$work" && "$tool" export "$h264" -o - --format h264 --card "$card" >"$work/s.h264") || fail "H.264 to -"
cmp -s "$work/clip.h264" "$work/s.h264" || fail "H.264 stream on standard output differs from the input"
err=$(cd "$work" && "$tool" export "$h264" -o - --format avi --card "$card" 2>&1 >/dev/null)
[ $? = 2 ] && [ "$err" = "avrecord-card export: AVI cannot go to standard output: give -o FILE.avi" ] ||
  fail "AVI to -: $err"
[ ! -e "$work/-" ] || fail "export -o - wrote a file named -"

# An alarm event 2 s into the H.264 section, 1 s long: from the key frame
# before it to its end.
expect 0 "$tool" search --card "$card" --from 0 --to 4294967295 --json
start=$(grep "\"$h264\"" <<<"$out" | sed -E 's/.*"start":([0-9]+).*/\1/')
put 0 "41454d4600000000$(le32 $((start + 2)))$(le32 $((start + 3)))01000000" "$card/event000.bin"
put $((0x100000)) "41444546$(le32 $((start + 2)))$(le32 $((start + 3)))0000000000000000000000000100" \
  "$card/event000.bin"
expect 0 "$tool" export he000000_000000.mp4 -o "$work/e.avi" --card "$card" --json
frames=$(json_field video_frames "$out")
[ "$frames" -gt 20 ] && [ "$frames" -lt 100 ] || fail "event export took $frames video frames"
[ "$(probe v "$work/e.avi")" = "h264,640,360,$frames" ] || fail "ffprobe on the event AVI: $(probe v "$work/e.avi")"

# Usage and card problems.
expect 2 "$tool" export --card "$card" -o "$work/x.avi"
expect 2 "$tool" export hi000000_00001.mp4 -o "$work/x.avi" --card "$card"
expect 2 "$tool" export "$h264" -o "$work/x.mkv" --card "$card"
expect 2 "$tool" export "$h264" --card "$card"
expect 2 "$tool" export "$h264" -o "$work/no/such/x.h264" --card "$card"
expect 1 "$tool" export hi000000_000009.mp4 -o "$work/x.avi" --card "$card"
[[ "$err" == "avrecord-card export: media file 0 has no section 9" ]] || fail "missing section message: $err"
expect 1 "$tool" export he000000_000001.mp4 -o "$work/x.avi" --card "$card"
expect 1 "$tool" export hi000000_000001.mp4 -o "$work/x.avi" --card "$work/nowhere"

[ "$failures" -eq 0 ] && echo "card export: all passed"
exit "$failures"
