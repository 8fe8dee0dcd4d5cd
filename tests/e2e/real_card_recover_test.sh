#!/usr/bin/env bash
# Recovery of a damaged index on a card the daemon recorded through a real
# vfat mount (User-mode Linux): several sections of two picture sizes, a
# clock step and two alarm events (real_card_recover_steps.sh). Its
# index000.bin and event000.bin are the truth. Each case damages a copy of
# the card, recovers it and judges the result from the image alone:
#   - frames recovered over frames recorded (at least 99.9 %), every one
#     with its bytes and time as recorded, none twice, none invented;
#   - where only the index was damaged, sections as the daemon wrote them:
#     search --json and the records byte for byte as the truth;
#   - the default run writes nothing to the card; --write changes only the
#     index and event contents: check --frames, fsck.fat (nothing new), no
#     file-system change;
#   - a card whose index was zeroed, recovered in place, records again under
#     the daemon, and search finds the old footage and the new.
# One line per case: "RECOVER CASE frames=N/M ...".
source "$(dirname "$0")/real_card_lib.sh"
steps=$AVRECORD_SOURCE_DIR/tests/e2e/real_card_recover_steps.sh
judge=$AVRECORD_SOURCE_DIR/tests/e2e/recover_judge.py
scripts=$AVRECORD_SOURCE_DIR/scripts
replay=$AVRECORD_BUILD_DIR/apps/write-log-replay/write-log-replay
export REAL_CARD_ENV="AVRECORD_BUILD_DIR AVRECORD_SOURCE_DIR RECOVER_SYNC_SECONDS RECOVER_LOG_WRITES"
export RECOVER_SYNC_SECONDS='' RECOVER_LOG_WRITES=''
all_time=(--from 0 --to 4294967295)
fsck_options=
REAL_CARD_DISKS=()

# vm_record IMAGE MODE [SECONDS]: boots with IMAGE as the card and runs the
# steps; the sections after the stop in $vm/sections.json.
vm_record() {
  mkdir -p "$vm/root/param"
  printf '[CPLD]\nStorageCapability=2\n' >"$vm/root/param/CPLD.conf"
  real_card_boot "$vm" "$1" "$steps" "$2" "${3:-}"
  real_card_wait 150
  local status=$?
  [ "$status" -eq 0 ] && return 0
  fail "the recording ($2) in the VM ended with status $status"
  tail -20 "$vm/steps.log"
  return 1
}

# file_at IMAGE NAME: where the card file NAME starts in IMAGE, in bytes
# (every image here is a copy of the one formatted card).
file_at() { awk -v n="$2" '$1 == n { print $2 }' "$work/extents"; }

# damage IMAGE NAME OFFSET LENGTH zero|random: overwrites bytes of a card file.
damage() {
  local at
  at=$(($(file_at "$1" "$2") + $3))
  if [ "$5" = zero ]; then
    fallocate -p -o "$at" -l "$4" "$1"
  else
    python3 -c "import random, sys; random.seed($3); sys.stdout.buffer.write(random.randbytes($4))" |
      dd of="$1" bs=1 seek="$at" conv=notrunc status=none
  fi
}

index_of() { dd if="$1" bs=1M skip=$(($(file_at "$1" index000.bin) >> 20)) count=64 status=none; }

frames_of() { python3 "$judge" frames "$card_tool" "$@"; }

sections_of() {
  local type
  for type in 2 4; do "$card_tool" search "${all_time[@]}" --type $type --json --image "$1" "${@:2}"; done
}

# recover CASE [TRUTH_FRAMES [OTHER_FRAMES]]: recovers $work/CASE.img twice:
# into a folder (the image must stay as it was), then in place. Scores the
# frames of the card recovered in place and checks it as a PC would.
recover() {
  local name=$1 image=$work/$1.img before ratio meta
  local truth=${2:-$work/truth.frames}
  before=$(python3 "$judge" digest "$image")
  meta=$("$scripts/fat-image" metadata "$image")
  mkdir -p "$work/$name.out"
  "$card_tool" recover --image "$image" --output "$work/$name.out" >"$work/$name.report" 2>&1 ||
    fail "$name: recover --output: $(tail -3 "$work/$name.report")"
  [ "$(python3 "$judge" digest "$image")" = "$before" ] || fail "$name: recover without --write changed the image"
  index_of "$image" >"$work/$name.damaged"
  "$card_tool" recover --image "$image" --write >"$work/$name.write" 2>&1 ||
    fail "$name: recover --write: $(tail -3 "$work/$name.write")"
  grep -q 'the index agrees with the media files' "$work/$name.write" ||
    cmp -s "$work/$name.damaged" "$(ls -d "$image".index-backup-* | head -1)/index000.bin" ||
    fail "$name: no backup of the damaged index beside the image"
  rm -rf "$work/$name.damaged" "$image".index-backup-*
  python3 "$judge" index "$work/$name.out/index000.bin" "$image" || fail "$name: the index written in place differs from the one in --output"
  "$card_tool" check --image "$image" --frames >"$work/$name.check" 2>&1 ||
    fail "$name: check --frames after recovery: $(tail -3 "$work/$name.check")"
  "$scripts/fsck-card" $fsck_options "$image" >"$work/$name.fsck" 2>&1 ||
    fail "$name: fsck.fat: $(head -3 "$work/$name.fsck")"
  [ "$("$scripts/fat-image" metadata "$image")" = "$meta" ] || fail "$name: the file system changed"
  frames_of "$image" >"$work/$name.frames"
  ratio=$(python3 "$judge" score "$truth" "$work/$name.frames" ${3:+"$3"}) || fail "$name: $ratio"
  score_line="frames=$(sed -n 's/^recovered \([0-9]*\) of \([0-9]*\)$/\1\/\2/p' <<<"$ratio")"
  awk -v s="${score_line#frames=}" 'BEGIN { split(s, f, "/"); exit !(f[2] > 0 && f[1] >= 0.999 * f[2]) }' ||
    fail "$name: only $score_line"
}

no_rate() { sed 's/,"frame_rate":[0-9]*//' "$@"; }

# same_as_truth CASE: sections and records exactly as the daemon wrote them
# (the configured frame rate is judged with the records: on a loaded machine
# the simulator publishes slower than the rate it is set to).
same_as_truth() {
  sections_of "$work/$1.img" >"$work/$1.sections"
  cmp -s <(no_rate "$work/truth.sections") <(no_rate "$work/$1.sections") ||
    fail "$1: search differs: $(diff "$work/truth.sections" "$work/$1.sections" | head -4)"
  python3 "$judge" records "$work/card.img" "$work/$1.img" >"$work/$1.records" ||
    fail "$1: records differ: $(head -3 "$work/$1.records")"
}

# report CASE [NOTE]: the case's line, with the fields only the camera's
# configuration gives that came back otherwise (see recover_judge.py).
report() {
  local config=
  [ -e "$work/$1.records" ] && config="configuration-fields=$(grep -c '^configuration' "$work/$1.records")"
  echo "RECOVER $1 $score_line $config ${*:2} (at $SECONDS s)"
}

# The reference card.
make_samples
truncate -s 2G "$work/card.img"
"$card_tool" format "$work/card.img" --init >/dev/null 2>&1 || { echo "FAIL: format"; exit 1; }
"$scripts/fat-image" extents "$work/card.img" >"$work/extents"
vm_record "$work/card.img" reference || exit 1
sections_of "$work/card.img" >"$work/truth.sections"
frames_of "$work/card.img" >"$work/truth.frames"
echo "reference: $(grep -c '"hi' "$work/truth.sections") sections, $(grep -c '"he' "$work/truth.sections") events," \
  "$(wc -l <"$work/truth.frames") frames"
"$card_tool" --help 2>&1 | grep -q "^  recover " || { fail "avrecord-card has no recover command"; finish; }

# Damage confined to the index: the result must be the daemon's own.
fresh() { cp --sparse=always "$work/card.img" "$work/$1.img"; }
index_only() {
  recover "$1"
  same_as_truth "$1"
  report "$@"
}
fresh header-zeroed && damage "$work/header-zeroed.img" index000.bin 0 236 zero
index_only header-zeroed
fresh index-zeroed && damage "$work/index-zeroed.img" index000.bin 0 $((64 << 20)) zero
index_only index-zeroed
fresh file-records && damage "$work/file-records.img" index000.bin 0x400 $((48 * 4)) random
index_only file-records
fresh section-records && damage "$work/section-records.img" index000.bin 0x20040 $((64 * 3)) random
index_only section-records
fresh key-frames && damage "$work/key-frames.img" hi000000.mp4 0xFC00000 $((20 * 11)) random
index_only key-frames
fresh index-tail && damage "$work/index-tail.img" index000.bin 0x20080 $(((64 << 20) - 0x20080)) zero
index_only index-tail "(index000.bin zeroed from section 2 of file 0 on)"
# Another card's index: a card of 6 media files holding one packed clip.
mkdir "$work/other" && "$card_tool" prealloc "$work/other/" --media 6 >/dev/null &&
  "$card_tool" init --card "$work/other/" >/dev/null &&
  "$card_tool" pack "$samples/h264_360p.h264" --card "$work/other/" >/dev/null || fail "the other card"
fresh other-card && dd if="$work/other/index000.bin" of="$work/other-card.img" bs=1M \
  seek=$(($(file_at "$work/card.img" index000.bin) >> 20)) conv=notrunc status=none
index_only other-card "(index of a 6-file card with one packed clip)"

# The index file cut short on a card folder (as a PC copy of the card might
# be): recovered into --output, then read with that index in its place.
mkdir "$work/cut" "$work/cut.out" "$work/cut.view"
"$scripts/fat-image" extents "$work/card.img" | while read -r name offset size; do
  dd if="$work/card.img" of="$work/cut/$name" bs=1M skip=$((offset >> 20)) count=$((size >> 20)) \
    conv=sparse status=none
  ln "$work/cut/$name" "$work/cut.view/$name"
done
truncate -s $((0x20080)) "$work/cut/index000.bin"
"$card_tool" recover --card "$work/cut/" --output "$work/cut.out" >"$work/cut.report" 2>&1 ||
  fail "index-cut: recover --card: $(tail -3 "$work/cut.report")"
[ "$(stat -c %s "$work/cut/index000.bin")" = $((0x20080)) ] || fail "index-cut: recover changed the folder's index"
for name in index000.bin event000.bin; do
  [ -e "$work/cut.out/$name" ] && rm "$work/cut.view/$name" && cp "$work/cut.out/$name" "$work/cut.view/"
done
frames_of "$work/cut.view/" >"$work/cut.frames"
ratio=$(python3 "$judge" score "$work/truth.frames" "$work/cut.frames") || fail "index-cut: $ratio"
score_line="frames=$(sed -n 's/^recovered \([0-9]*\) of \([0-9]*\)$/\1\/\2/p' <<<"$ratio")"
python3 "$judge" records "$work/card.img" "$work/cut.view/" >"$work/index-cut.records" ||
  fail "index-cut: records differ: $(head -3 "$work/index-cut.records")"
report index-cut "(a card folder whose index000.bin ends in section 2 of file 0)"

# A power cut: the card holding the reference recording records 6 s more
# (SyncSeconds=1) over the kernel's log-writes target; the state kept is the
# one just before the index write that follows the most media data, so the
# card holds frames the index never counted. The truth is the card after a
# clean stop; the frames recorded are those whose bytes reached the card.
cp --sparse=always "$work/card.img" "$work/logged.img"
cp --sparse=always "$work/card.img" "$work/power-cut.img"
truncate -s 1G "$work/log.img"
echo 'card_block=$(dm_create card "0 $(blockdev --getsz /dev/ubda) log-writes /dev/ubda /dev/ubdb")' \
  >"$work/log-setup.sh"
REAL_CARD_DISKS=("$work/log.img")
REAL_CARD_SETUP=$work/log-setup.sh RECOVER_SYNC_SECONDS=1 RECOVER_LOG_WRITES=1 vm_record "$work/logged.img" record 6
REAL_CARD_DISKS=()
index=$(($(file_at "$work/card.img" index000.bin) / 512))
media0=$(($(file_at "$work/card.img" hi000000.mp4) / 512))
entry=$("$replay" --list "$work/log.img" | awk -v i=$index -v m=$media0 '
  $3 !~ /write/ { next }
  { split($2, at, "+"); s = at[1] + 0 }
  s >= m && s < m + 4 * 524288 { media += at[2] }
  s >= i && s < i + 131072 { if (media > best) { best = media; entry = last } media = 0 }
  { last = $1 }
  END { print entry + 0 }')
"$replay" "$work/log.img" "$work/power-cut.img" \
  --run "[ \$WRITE_LOG_ENTRY != $entry ] || cp --sparse=always $work/power-cut.img $work/power-cut.state" \
  >"$work/replay.txt" 2>&1 || fail "write-log-replay: $(tail -3 "$work/replay.txt")"
mv "$work/power-cut.state" "$work/power-cut.img" || fail "no state after log entry $entry"
frames_of "$work/logged.img" >"$work/logged.frames"
python3 "$judge" oncard "$work/logged.frames" "$work/power-cut.img" "$work/logged.img" >"$work/power-cut.truth"
uncounted=$(($(wc -l <"$work/power-cut.truth") - $(frames_of "$work/power-cut.img" | wc -l)))
[ "$uncounted" -gt 0 ] || fail "power-cut: the state kept holds no frame its index does not count"
fsck_options=--dirty-ok recover power-cut "$work/power-cut.truth"
sections_of "$work/power-cut.img" >"$work/power-cut.sections"
grep -vxFf "$work/power-cut.sections" "$work/truth.sections" >"$work/power-cut.lost" &&
  fail "power-cut: sections of the earlier recording differ: $(head -2 "$work/power-cut.lost")"
report power-cut "(after log entry $entry: $uncounted frames on the card beyond the index)"

# The next lap: every file used and the last one current and full, as a
# daemon stopped in the turn in which it filled the card's last file leaves
# them. The next daemon moves on to the oldest file, file 0, and starts it
# again from offset 0 with a fresh file record, so it records 3 s over the
# reference recording's start. The last file's made-up record is cleared
# again afterwards (its file holds nothing to recover). The written index
# must be the daemon's (the new lap); the read-only view adds the older
# lap's frames behind it, each once.
cp --sparse=always "$work/card.img" "$work/lap.img"
lap_index=$(file_at "$work/card.img" index000.bin)
python3 - "$work/lap.img" "$lap_index" <<'PY'
import struct, sys
with open(sys.argv[1], 'r+b') as f:
    at = int(sys.argv[2])
    f.seek(at + 0x14)
    files = struct.unpack('<I', f.read(4))[0]
    f.write(struct.pack('<2I', files, files - 1))  # every file used, the last one current
    f.seek(at + 0x400 + 48 * (files - 1))
    f.write(struct.pack('<8I', 0x46484652, files - 1, 0, 0, 0xF900000, 1, 1, 0))  # and full
PY
vm_record "$work/lap.img" record 3
python3 - "$work/lap.img" "$lap_index" <<'PY'
import struct, sys
with open(sys.argv[1], 'r+b') as f:
    at = int(sys.argv[2])
    f.seek(at + 0x14)
    files = struct.unpack('<I', f.read(4))[0]
    f.seek(at + 0x400 + 48 * (files - 1))
    f.write(bytes(48))
PY
frames_of "$work/lap.img" >"$work/lap.frames"
# The older lap's frames that survive whole, from its first surviving key
# frame on (those before it cannot be decoded, and no remnant starts there).
python3 "$judge" oncard "$work/truth.frames" "$work/lap.img" "$work/card.img" |
  awk '$2 == "key" && !key { key = $3 } key && $3 >= key' >"$work/lap.older"
for name in lap-kept lap-zeroed; do
  cp --sparse=always "$work/lap.img" "$work/$name.img"
  [ $name = lap-kept ] || damage "$work/$name.img" index000.bin 0 $((64 << 20)) zero
  recover $name "$work/lap.frames"
  # The header of the made-up lap counts files no recording used.
  python3 "$judge" records "$work/lap.img" "$work/$name.img" --no-header >"$work/$name.records" ||
    fail "$name: records differ: $(head -3 "$work/$name.records")"
  frames_of "$work/$name.img" --recover >"$work/$name.view"
  python3 "$judge" score "$work/lap.older" "$work/$name.view" "$work/lap.frames" >"$work/$name.older" ||
    fail "$name: the read-only view: $(cat "$work/$name.older")"
  grep -q "^recovered $(wc -l <"$work/lap.older") of " "$work/$name.older" ||
    fail "$name: the view lacks frames of the older lap: $(cat "$work/$name.older")"
  [ "$("$card_tool" search "${all_time[@]}" --json --image "$work/$name.img" --recover 2>/dev/null |
    grep -c '"remnant":true')" -ge 1 ] || fail "$name: search --recover marks no remnant"
  report $name "older lap in the view: $(sed -n 's/^recovered //p' "$work/$name.older")"
done

# The card whose index was zeroed, recovered in place above, records again.
vm_record "$work/index-zeroed.img" record 3
sections_of "$work/index-zeroed.img" >"$work/rerecorded.sections"
no_rate "$work/truth.sections" | grep '"hi' | while read -r line; do
  no_rate "$work/rerecorded.sections" | grep -qxF "$line" || fail "after recording again, search lost $line"
done
[ "$(grep -c '"hi' "$work/rerecorded.sections")" -gt "$(grep -c '"hi' "$work/truth.sections")" ] ||
  fail "the recording after recovery is not found: $(cat "$work/rerecorded.sections")"
"$card_tool" check --image "$work/index-zeroed.img" --frames >"$work/rerecorded.check" 2>&1 ||
  fail "check --frames after recording again: $(tail -3 "$work/rerecorded.check")"
"$scripts/fsck-card" "$work/index-zeroed.img" >/dev/null 2>&1 || fail "fsck.fat after recording again"

finish
