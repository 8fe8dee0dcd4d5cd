#!/usr/bin/env bash
# avrecord-card --image: a recording in a card image read without mounting
# gives exactly what the same card gives as a directory (search, frames,
# exports, timeline), opens the image read-only and never for writing
# (strace), and refuses an image that is not a card of this recorder.
# Two images: a recording written into the clusters of a formatted image
# (scripts/fat-image place), and, where User-mode Linux boots, a card
# recorded through a real kernel's vfat mount (scripts/real-card), whose
# search output on the mounted card is compared with the image's.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
command -v ffmpeg >/dev/null && command -v mkfs.fat >/dev/null || { echo "card image: no ffmpeg or mkfs.fat, skipped"; exit 0; }
card="$work/card"
image="$work/card.img"
mkdir "$card"

ff() { ffmpeg -loglevel error -y "$@" || fail "ffmpeg $*"; }
ff -f lavfi -i testsrc=size=320x240:rate=25 -t 4 -pix_fmt yuv420p -c:v libx264 -g 25 -bsf:v h264_mp4toannexb \
  -f h264 "$work/clip.h264"
ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 4 -c:a pcm_alaw -f alaw "$work/tone.alaw"
expect 0 "$tool" prealloc "$card" --media 2
for _ in 1 2; do
  expect 0 "$tool" pack "$work/clip.h264" --card "$card" --audio "$work/tone.alaw" --audio-codec g711a
done
truncate -s 2G "$image"
expect 0 "$tool" format "$image" --init
expect 0 "$AVRECORD_SOURCE_DIR/scripts/fat-image" place "$image" "$card"

# same ARGS...: the command's standard output on the directory and on the image, byte for byte.
same() {
  "$tool" "$@" --card "$card" >"$work/dir.out" 2>&1 || fail "$* on the directory"
  "$tool" "$@" --image "$image" >"$work/img.out" 2>&1 || fail "$* on the image: $(cat "$work/img.out")"
  cmp -s "$work/dir.out" "$work/img.out" || fail "$* differs on the image: $(diff "$work/dir.out" "$work/img.out" | head -4)"
}
same search --from 0 --to 4294967295 --json
[ "$(wc -l <"$work/img.out")" = 2 ] || fail "search on the image lists $(wc -l <"$work/img.out") sections"
same search --from 0 --to 4294967295 --type 4 --json
same frames hi000000_000002.mp4 --json
# same_file EXT ARGS...: the file a command writes (-o), from the directory and from the image.
same_file() {
  local ext=$1; shift
  "$tool" "$@" -o "$work/dir.$ext" --card "$card" >/dev/null 2>&1 || fail "$* on the directory"
  "$tool" "$@" -o "$work/img.$ext" --image "$image" >/dev/null 2>&1 || fail "$* on the image"
  cmp -s "$work/dir.$ext" "$work/img.$ext" || fail "$* writes another $ext from the image"
}
same_file h264 export hi000000_000001.mp4
same_file svg timeline --day "$(date +%F)"
expect 0 "$tool" check --frames --image "$image"

# Read-only: every open of the image is O_RDONLY.
if command -v strace >/dev/null; then
  strace -f -qq -e trace=openat -o "$work/trace" "$tool" export hi000000_000001.mp4 --image "$image" \
    -o "$work/x.avi" >/dev/null 2>&1 || fail "export from the image"
  opens=$(grep -c "\"$image\"" "$work/trace")
  [ "$opens" -gt 0 ] && ! grep "\"$image\"" "$work/trace" | grep -qv O_RDONLY || fail "image opens: $(grep "\"$image\"" "$work/trace")"
fi

# Recorded through the kernel's vfat driver: search on the mounted card
# inside the VM, then on the unmounted image here.
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
if real_card_probe; then
  truncate -s 2G "$work/real.img"
  expect 0 "$tool" format "$work/real.img" --init
  cat >"$work/steps.sh" <<'STEPS'
set -e
tool=$1 clip=$2 tone=$3
for _ in 1 2 3; do "$tool" pack "$clip" --card "$card_dir" --audio "$tone" --audio-codec g711a >/dev/null; done
"$tool" search --from 0 --to 4294967295 --json --card "$card_dir" >"$REAL_CARD_WORK/mounted.json"
"$tool" frames hi000000_000003.mp4 --json --card "$card_dir" >"$REAL_CARD_WORK/mounted-frames.json"
STEPS
  "$AVRECORD_SOURCE_DIR/scripts/real-card" run --card "$work/real.img" --work "$work" "$work/steps.sh" \
    "$tool" "$work/clip.h264" "$work/tone.alaw" >/dev/null 2>&1 || fail "recording in the VM (see $work/console.log)"
  expect 0 "$tool" search --from 0 --to 4294967295 --json --image "$work/real.img"
  [ "$(wc -l <"$work/mounted.json")" = 3 ] && [ "$out" = "$(cat "$work/mounted.json")" ] ||
    fail "search on the image of the mounted card: $out / $(cat "$work/mounted.json")"
  expect 0 "$tool" frames hi000000_000003.mp4 --json --image "$work/real.img"
  [ "$out" = "$(cat "$work/mounted-frames.json")" ] || fail "frames differ on the image of the mounted card"
else
  echo "card image: $real_card_why; the kernel-mounted card is skipped"
fi

# Not a card of this recorder.
truncate -s 64M "$work/plain.img"
mkfs.fat -F 32 "$work/plain.img" >/dev/null
expect 1 "$tool" search --from 0 --to 1 --image "$work/plain.img"
[ "$err" = "avrecord-card search: $work/plain.img: not a card of this recorder: no index000.bin in its root directory" ] ||
  fail "plain image message: $err"
truncate -s 16M "$work/fat16.img"
mkfs.fat "$work/fat16.img" >/dev/null
expect 1 "$tool" info --image "$work/fat16.img"
[[ "$err" == *"not a card of this recorder: not FAT32 but FAT12/16"* ]] || fail "FAT16 image message: $err"
expect 2 "$tool" info --image "$image" --card "$card"
expect 2 "$tool" prealloc "$work/p" --image "$image"

[ "$failures" -eq 0 ] && echo "card image: all passed"
exit "$failures"
