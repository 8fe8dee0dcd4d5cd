#!/usr/bin/env bash
# avrecord-card export to MP4, judged by ffprobe: H.264 with G.711 (turned
# into AAC) and H.265 with AAC, each section's frames, duration (within one
# frame) and key frames; time ranges cut at the frames stamped with their
# ends, also where key frames lie inside a second; the fragmented stream on
# standard output with the same time stamps as the file; the recorded
# audio offset; and the refusals.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
"$tool" --help | grep -q 'OUT.mp4' || { echo "card mp4: no MP4 in this build, skipped"; exit 0; }
command -v ffprobe >/dev/null || { echo "card mp4: no ffprobe, skipped"; exit 0; }
card="$work/card"
mkdir "$card"
json_field() { sed -E "s/.*\"$1\":\"?([^,\"}]*).*/\1/" <<<"$2"; }

ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
src=(-f lavfi -i testsrc=size=640x360:rate=25 -pix_fmt yuv420p)
ff "${src[@]}" -t 4 -c:v libx264 -g 50 -bsf:v h264_mp4toannexb -f h264 "$work/a.h264"
ff "${src[@]}" -t 4 -c:v libx265 -x265-params log-level=error:keyint=50 -f hevc "$work/b.h265"
ff "${src[@]}" -t 6 -c:v libx264 -g 50 -bsf:v h264_mp4toannexb -f h264 "$work/c.h264"
ff "${src[@]}" -t 8 -c:v libx264 -g 37 -keyint_min 37 -sc_threshold 0 -bf 0 -bsf:v h264_mp4toannexb -f h264 \
  "$work/g.h264"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 6 -c:a pcm_alaw -f alaw "$work/tone.alaw"
ff -f lavfi -i sine=frequency=440:sample_rate=16000 -t 4 -c:a aac -b:a 32k -f adts "$work/tone.aac"

expect 0 "$tool" prealloc "$card" --media 1
pack() { expect 0 "$tool" pack "$@" --card "$card" --json; json_field section "$out"; }
h264=$(pack "$work/a.h264" --audio "$work/tone.alaw" --audio-codec g711a)
h265=$(pack "$work/b.h265" --codec h265 --audio "$work/tone.aac" --audio-codec aac)
c1=$(pack "$work/c.h264" --audio "$work/tone.alaw" --audio-codec g711a)
c2=$(pack "$work/c.h264" --audio "$work/tone.alaw" --audio-codec g711a)
g=$(pack "$work/g.h264" --audio "$work/tone.alaw" --audio-codec g711a)

# streams FILE: "video-codec audio-codec video-frames key-frames duration"
streams() {
  local v a k d
  v=$(ffprobe -v error -select_streams v -count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 "$1")
  a=$(ffprobe -v error -select_streams a -show_entries stream=codec_name -of csv=p=0 "$1")
  # Key frames shown: one that only leads up to the range is marked discarded (D).
  k=$(ffprobe -v error -select_streams v -show_entries packet=flags -of csv=p=0 "$1" | grep -v D | grep -c K)
  d=$(ffprobe -v error -select_streams v -show_entries stream=duration -of csv=p=0 "$1")
  echo "${v%,*} ${a:-none} ${v#*,} $k $d"
}
# within_frame SECONDS EXPECTED: true when they differ by at most one frame (25 fps).
within_frame() { awk -v a="$1" -v b="$2" 'BEGIN { d = a - b; exit !(d <= 0.04 && d >= -0.04) }'; }
check() {  # FILE CODEC AUDIO FRAMES KEYS
  local got
  read -r -a got <<<"$(streams "$1")"
  [ "${got[*]:0:4}" = "$2 $3 $4 $5" ] || fail "$1: ffprobe finds '${got[*]}', wanted '$2 $3 $4 $5'"
  within_frame "${got[4]}" "$(awk -v n="$4" 'BEGIN { print n / 25 }')" || fail "$1: duration ${got[4]} for $4 frames"
}

# One section each: the video as recorded, G.711 re-encoded, AAC as is.
expect 0 "$tool" export "$h264" --card "$card" -o "$work/a.mp4" --json
[ "$(json_field audio "$out")" = aac ] || fail "export report: $out"
check "$work/a.mp4" h264 aac 100 2
expect 0 "$tool" export "$h265" --card "$card" -o "$work/b.mp4"
check "$work/b.mp4" hevc aac 100 2
[ "$(ffprobe -v error -select_streams v -show_entries stream=codec_tag_string -of csv=p=0 "$work/b.mp4")" = hvc1 ] ||
  fail "H.265 not in an hvc1 sample entry"
# The MP4 video is the recorded stream: the same decoded pictures as the elementary-stream export.
expect 0 "$tool" export "$h264" --card "$card" -o "$work/a.es.h264"
pictures() { ffmpeg -loglevel error -i "$1" -map 0:v -fps_mode passthrough -f framemd5 - | grep -v '^#' | awk '{ print $6 }'; }
[ "$(pictures "$work/a.mp4")" = "$(pictures "$work/a.es.h264")" ] || fail "MP4 video decodes differently from the recorded stream"

# A range over the last two sections, both ends included: the frames
# stamped 2 to 5 s into the first (100) and 0 to 3 s into the second (100).
expect 0 "$tool" search --card "$card" --from 0 --to 4294967295 --json
start=$(grep "\"$c1\"" <<<"$out" | sed -E 's/.*"start":([0-9]+).*/\1/')
start0=$(grep "\"$h264\"" <<<"$out" | sed -E 's/.*"start":([0-9]+).*/\1/')
second=$(grep "\"$c2\"" <<<"$out" | sed -E 's/.*"start":([0-9]+).*/\1/')
expect 0 "$tool" export --from $((start + 2)) --to $((second + 3)) --card "$card" -o "$work/r.mp4" --json
[ "$(json_field sections "$out")" = 2 ] || fail "range report: $out"
frames=$(json_field video_frames "$out")
[ "$frames" = 200 ] || fail "range took $frames video frames"
check "$work/r.mp4" h264 aac "$frames" "$(json_field key_frames "$out")"
# A range from one codec into another stops at the change.
expect 0 "$tool" export --from 0 --to 4294967295 --card "$card" -o "$work/x.mp4" --json
[ "$(json_field video_frames "$out")" = 100 ] && [[ "$out" == *'"stopped_at":'* ]] || fail "codec change: $out"

# An alarm event 1 s into the first section, 1 s long: from the key frame
# before it (the section's first, key frames every 2 s) to its end.
put 0 "41454d4600000000$(le32 $((start0 + 1)))$(le32 $((start0 + 2)))01000000" "$card/event000.bin"
put $((0x100000)) "41444546$(le32 $((start0 + 1)))$(le32 $((start0 + 2)))0000000000000000000000000100" \
  "$card/event000.bin"
expect 0 "$tool" export he000000_000000.mp4 --card "$card" -o "$work/e.mp4" --json
frames=$(json_field video_frames "$out")
[ "$frames" -ge 50 ] && [ "$frames" -lt 100 ] || fail "event export took $frames video frames"
check "$work/e.mp4" h264 aac "$frames" "$(json_field key_frames "$out")"

# Range ends by the frames' own times. Key frames every 37 frames lie inside
# seconds (the one at 2.96 s is stamped 2 s), so a range from second 2 reads
# from the key frame at 1.48 s and shows from the first frame stamped 2 s
# on: the pictures of the MP4 are the card's frames stamped 2 to 5 s, no
# more, no fewer. A range of the section's own listed times is all of it.
expect 0 "$tool" frames "$g" --card "$card" --json
stamps=$(grep -v '"audio"' <<<"$out" | sed -E 's/.*"time":([0-9]+).*/\1/')
gs=$(head -1 <<<"$stamps")
first=$(grep -n -x "$((gs + 2))" <<<"$stamps" | head -1 | cut -d: -f1)
last=$(grep -n -x "$((gs + 5))" <<<"$stamps" | tail -1 | cut -d: -f1)
expect 0 "$tool" export "$g" --card "$card" -o "$work/g.es.h264"
expect 0 "$tool" export --from $((gs + 2)) --to $((gs + 5)) --card "$card" -o "$work/g.mp4" --json
[ "$(json_field first "$out") $(json_field last "$out")" = "$((gs + 2)) $((gs + 5))" ] || fail "range report: $out"
[ "$(pictures "$work/g.mp4")" = "$(pictures "$work/g.es.h264" | sed -n "${first},${last}p")" ] ||
  fail "range $((gs + 2))..$((gs + 5)) does not show the card's frames $first..$last"
ends=$("$tool" search --card "$card" --from 0 --to 4294967295 --json | grep "\"$g\"" | sed -E 's/.*"end":([0-9]+).*/\1/')
expect 0 "$tool" export --from "$gs" --to "$ends" --card "$card" -o "$work/all.mp4" --json
[ "$(json_field video_frames "$out")" = "$(wc -l <<<"$stamps")" ] || fail "listed times gave $out"

# The streamed form has the time stamps of the file: video from 0 in steps
# of a frame, the AAC encoder's start delay before 0 in an edit list rather
# than shifting the video; the range's leading frames before 0 likewise.
packets() {  # FILE STREAM COUNT: the first pts times
  # (skip-sample side data prints as a line of its own)
  ffprobe -v error -select_streams "$2" -show_entries packet=pts_time -of csv=p=0 "$1" | cut -d, -f1 | grep . |
    head -"$3" | tr '\n' ' '
}
"$tool" export "$g" --card "$card" -o - --format mp4 >"$work/gs.mp4" 2>"$work/err" || fail "stream: $(cat "$work/err")"
[ "$(packets "$work/gs.mp4" v 3)" = "0.000000 0.040000 0.080000 " ] || fail "streamed video: $(packets "$work/gs.mp4" v 3)"
[ "$(packets "$work/gs.mp4" a 2)" = "$(packets "$work/g.mp4" a 2)" ] && [ "$(packets "$work/gs.mp4" a 1)" = "-0.128000 " ] ||
  fail "streamed audio: $(packets "$work/gs.mp4" a 2), file: $(packets "$work/g.mp4" a 2)"
"$tool" export --from $((gs + 2)) --to $((gs + 5)) --card "$card" -o - --format mp4 >"$work/gr.mp4" 2>"$work/err"
[ "$(packets "$work/gr.mp4" v 1)" = "$(packets "$work/g.mp4" v 1)" ] || fail "streamed range: $(packets "$work/gr.mp4" v 1)"
# AAC as recorded keeps its recorded place: the packetizer stamps it two
# frames (80 ms) after the video frame it follows.
[ "$(packets "$work/b.mp4" a 1)" = "0.080000 " ] || fail "recorded audio offset: $(packets "$work/b.mp4" a 1)"

# Fragmented MP4 on standard output.
"$tool" export "$c1" --card "$card" -o - --format mp4 >"$work/s.mp4" 2>"$work/err" || fail "stream: $(cat "$work/err")"
[ "$(streams "$work/s.mp4" | cut -d' ' -f1-4)" = "h264 aac 150 3" ] || fail "stream: $(streams "$work/s.mp4")"

# Refusals.
expect 2 "$tool" export --from 10 --to 5 --card "$card" -o "$work/y.mp4"
expect 1 "$tool" export --from 10 --to 20 --card "$card" -o "$work/y.mp4"
[ "$err" = "avrecord-card export: no recording in the range" ] || fail "empty range message: $err"
[ ! -e "$work/y.mp4" ] || fail "a failed export left its file"
expect 2 "$tool" export --from 10 --to 20 --card "$card" -o "$work/y.avi"
expect 2 "$tool" export "$h264" --from 10 --to 20 --card "$card" -o "$work/y.mp4"
expect 1 "$tool" export hi000000_000009.mp4 --card "$card" -o "$work/y.mp4"

[ "$failures" -eq 0 ] && echo "card mp4: all passed"
exit "$failures"
