#!/usr/bin/env bash
# avrecord-card recover on cards recorded with pack: a zeroed index comes
# back byte for byte (--output), in place (--write) with a backup beside the
# card and nothing else changed; on an image the FATs stay as they were and
# fsck.fat finds nothing; an overwritten lap's older frames show only in the
# --recover view, marked; the read commands name a damaged index. Usage
# errors exit 2.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
scripts="$AVRECORD_SOURCE_DIR/scripts"

ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
ff -f lavfi -i testsrc=size=640x360:rate=25 -t 12 -pix_fmt yuv420p -c:v libx264 -g 25 \
  -bsf:v h264_mp4toannexb -f h264 "$work/long.h264"
ff -f lavfi -i testsrc=size=640x360:rate=25 -t 3 -pix_fmt yuv420p -c:v libx264 -g 25 \
  -bsf:v h264_mp4toannexb -f h264 "$work/short.h264"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 12 -c:a pcm_alaw -f alaw "$work/tone.alaw"

card="$work/card"
mkdir "$card"
expect 0 "$tool" prealloc "$card" --media 2
expect 0 "$tool" init --card "$card"
expect 0 "$tool" pack "$work/long.h264" --card "$card" --codec h264
expect 0 "$tool" pack "$work/long.h264" --card "$card" --codec h264 --audio "$work/tone.alaw" --audio-codec g711a
cp "$card/index000.bin" "$work/index.orig"
md5_media() { md5sum "$card"/hi*.mp4 | cut -c1-32 | tr '\n' ' '; }
media=$(md5_media)

expect 0 "$tool" recover --card "$card"
[[ "$out" == *"the index agrees with the media files; nothing to write"* ]] || fail "intact index: $out"

# The header and the file records zeroed (pack records its sections with
# record type 1, which only the surviving section records tell).
dd if=/dev/zero of="$card/index000.bin" bs=128K count=1 conv=notrunc status=none
cp "$card/index000.bin" "$work/index.damaged"
expect 1 "$tool" search --card "$card" --from 0 --to 4000000000
[[ "$err" == *"the card's index is damaged"*"--recover"* ]] || fail "search does not name the damage: $err"
expect 0 "$tool" search --card "$card" --from 0 --to 4000000000 --recover --json
[ "$(grep -c '"name":"hi000000_00000[12].mp4"' <<<"$out")" = 2 ] || fail "--recover search: $out"
cmp -s "$card/index000.bin" "$work/index.damaged" || fail "--recover wrote to the card"
expect 0 "$tool" recover --card "$card" --output "$work/rebuilt"
[[ "$out" == *"header: header rebuilt"* && "$out" == *"file 0: file record rebuilt"* ]] ||
  fail "changes not named: $out"
cmp -s "$work/rebuilt/index000.bin" "$work/index.orig" || fail "rebuilt index differs from the recorded one"
[ -f "$work/rebuilt/event000.bin" ] || fail "no event000.bin in the output"

expect 0 "$tool" recover --card "$card" --write --json
backup=$(ls -d "$work"/card.index-backup-* 2>/dev/null | head -1)
[ -n "$backup" ] || fail "no backup beside the card: $(ls "$work")"
cmp -s "$backup/index000.bin" "$work/index.damaged" || fail "the backup is not the old index"
cmp -s "$card/index000.bin" "$work/index.orig" || fail "index written in place differs"
[ "$(md5_media)" = "$media" ] || fail "media files changed"
[ "$(ls "$card" | wc -l)" = 6 ] || fail "files on the card: $(ls "$card")"
expect 0 "$tool" check --card "$card" --frames
# Recording goes on behind the recovered sections, and search finds both.
expect 0 "$tool" pack "$work/short.h264" --card "$card" --codec h264
expect 0 "$tool" search --card "$card" --from 0 --to 4000000000 --json
[ "$(grep -c '"name":"hi000000_00000[123].mp4"' <<<"$out")" = 3 ] || fail "search after recording again: $out"
expect 0 "$tool" check --card "$card" --frames

# The next lap overwrote the start of file 0: a card with only the short
# clip recorded gives the new lap's bytes and index.
lap="$work/lap"
mkdir "$lap"
expect 0 "$tool" prealloc "$lap" --media 2
expect 0 "$tool" init --card "$lap"
expect 0 "$tool" pack "$work/short.h264" --card "$lap" --codec h264 --json
size=$(sed -E 's/.*"size":([0-9]+).*/\1/' <<<"$out")
dd if="$lap/hi000000.mp4" of="$card/hi000000.mp4" bs=1 count="$size" conv=notrunc status=none
dd if="$lap/hi000000.mp4" of="$card/hi000000.mp4" bs=1M skip=252 seek=252 count=1 conv=notrunc status=none
cp "$lap/index000.bin" "$card/index000.bin"
expect 0 "$tool" recover --card "$card" --output "$work/lap-out"
cmp -s "$work/lap-out/index000.bin" "$lap/index000.bin" || fail "the written index is not the new lap's"
[[ "$out" == *"remnant of an earlier lap"*"read-only as hi000000_000002.mp4"* ]] || fail "remnants: $out"
expect 0 "$tool" search --card "$card" --from 0 --to 4000000000 --recover
[[ "$out" == *"hi000000_000002.mp4"*"remnant of an earlier lap"* ]] || fail "search marks no remnant: $out"
expect 0 "$tool" export hi000000_000002.mp4 --card "$card" --recover -o "$work/remnant.h264"
[ -s "$work/remnant.h264" ] || fail "remnant not exported"

# A formatted image: the index zeroed, rewritten in place through the
# image's own clusters.
img="$work/card.img"
truncate -s 3G "$img"
expect 0 "$tool" format "$img" --init
mkdir "$work/place"
cp "$lap/hi000000.mp4" "$work/place/"
"$scripts/fat-image" place "$img" "$work/place" >/dev/null || fail "fat-image place"
fats=$("$scripts/fat-image" fats "$img")
expect 0 "$tool" recover --image "$img" --write
[[ "$out" == *"index rewritten in place"* ]] || fail "image write: $out"
ls -d "$img".index-backup-* >/dev/null 2>&1 || fail "no backup beside the image"
[ "$("$scripts/fat-image" fats "$img")" = "$fats" ] || fail "the FATs changed"
"$scripts/fsck-card" "$img" >/dev/null || fail "fsck-card after recover --write"
expect 0 "$tool" check --image "$img" --frames
expect 0 "$tool" search --image "$img" --from 0 --to 4000000000 --json
[ "$(grep -c '"name"' <<<"$out")" = 1 ] || fail "search on the recovered image: $out"

expect 2 "$tool" recover --card "$card" --write --output "$work/x"
expect 2 "$tool" recover --card "$card" --backup "$work/x"
expect 2 "$tool" recover hi000000.mp4 --card "$card"
expect 1 "$tool" recover --card "$work/nowhere"
[[ "$err" == "avrecord-card recover: no media files"* ]] || fail "no card: $err"

[ "$failures" -eq 0 ] && echo "recover: all passed"
exit $((failures > 0))
