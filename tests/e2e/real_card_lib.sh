# Shared by the real-card end-to-end tests (sourced, not run): a 2 GiB card
# image from avrecord-card format, recorded onto by the daemon inside
# User-mode Linux through the kernel's vfat driver (scripts/real-card), then
# judged on the host from the image alone. Where the VM cannot start here,
# the test says why and passes.
source "$(dirname "${BASH_SOURCE[0]}")/avrecord_e2e_lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; cleanup' EXIT
real_card_probe || { echo "SKIP: $real_card_why"; exit 0; }

vm="$work/vm"
log="$vm/avrecord.log"
sim_status_file="$vm/sim-status.txt"  # saved inside the VM as the daemon stopped

# real_card_record SECONDS [ARM_DAEMON]: formats the card, boots, records
# SECONDS (the steps in $real_card_steps, tests/e2e/real_card_steps.sh by
# default, which hand on REAL_CARD_CLOCK and REAL_CARD_UNTIL), unmounts and
# halts.
real_card_steps=$AVRECORD_SOURCE_DIR/tests/e2e/real_card_steps.sh
real_card_record() {
  make_samples
  truncate -s 2G "$work/card.img"
  "$card_tool" format "$work/card.img" --init >/dev/null 2>&1 || { echo "FAIL: format"; exit 1; }
  cp --sparse=always "$work/card.img" "$work/formatted.img"
  mkdir -p "$vm/root/param"
  printf '[CPLD]\nStorageCapability=2\n' >"$vm/root/param/CPLD.conf"
  local started=$SECONDS status
  AVRECORD_ARM_DAEMON=${2:-} \
    REAL_CARD_ENV="AVRECORD_BUILD_DIR AVRECORD_SOURCE_DIR AVRECORD_ARM_DAEMON REAL_CARD_CLOCK REAL_CARD_UNTIL" \
    real_card_boot "$vm" "$work/card.img" "$real_card_steps" "$1"
  real_card_wait 300
  status=$?
  echo "VM: recorded $1 s, halted after $((SECONDS - started)) s (status $status)"
  if [ "$status" -ne 0 ]; then
    fail "the recording in the VM ended with status $status"
    tail -20 "$vm/steps.log"
    sed -n '/as init process/,$p' "$vm/console.log" | tail -10
  fi
}

# real_card_check SECONDS: the image as a PC would find it (real_card_readback)
# and the recording on it, frame for frame as published.
real_card_check() {
  real_card_readback
  check_recording "$1"
  rm -rf "$card"
}

# real_card_readback: fsck.fat notes only what the format leaves on purpose;
# the FATs are as formatted and the directory changed only in time and date
# fields (the changes are named); the files read back with mtools into
# $card pass the index and frame walk, and so does the image read without
# mounting.
real_card_readback() {
  "$AVRECORD_SOURCE_DIR/scripts/fsck-card" "$work/card.img" >"$work/fsck.txt" 2>&1 ||
    fail "fsck.fat: $(cat "$work/fsck.txt")"
  "$AVRECORD_SOURCE_DIR/scripts/fat-image" diff "$work/formatted.img" "$work/card.img" >"$work/diff.txt" 2>&1 ||
    fail "file system changed beyond times and counts: $(grep -v '^changed\|^unchanged' "$work/diff.txt")"
  sed 's/^/  /' "$work/diff.txt"
  card="$work/readback/"
  mkdir -p "$card"
  mcopy -s -n -i "$work/card.img" '::*' "$card" || fail "mcopy could not read the card back"
  "$card_tool" check --card "$card" --frames >"$work/check.txt" 2>&1 ||
    fail "check --frames: $(tail -5 "$work/check.txt")"
  # Read without mounting, the image lists the same recordings, byte for byte.
  local type
  for type in 2 4; do
    "$card_tool" search --from 0 --to 4294967295 --type $type --json --card "$card" >"$work/search-card.json"
    "$card_tool" search --from 0 --to 4294967295 --type $type --json --image "$work/card.img" >"$work/search-image.json" ||
      fail "search --image: $(cat "$work/search-image.json")"
    cmp -s "$work/search-card.json" "$work/search-image.json" || fail "search --type $type --json differs on the image"
    [ "$type" = 4 ] || [ -s "$work/search-image.json" ] || fail "search --image lists no section"
  done
  "$card_tool" check --image "$work/card.img" --frames >"$work/check-image.txt" 2>&1 ||
    fail "check --frames --image: $(tail -3 "$work/check-image.txt")"
}

# real_card_recorded_seconds: from the first frame to the stop, by the VM's clock.
real_card_recorded_seconds() { echo $(($(cat "$vm/stop-clock") - $(cat "$vm/first-frame-clock"))); }

# check_times_across BOUNDARY: the one section opened before BOUNDARY (once
# the clock was set, by the first frame) and ended after it, when the daemon
# stopped; its frames' and key-frame entries' times run from its start to
# its end; search, MP4 export and the page's API find it by its time.
check_times_across() {
  local b=$1 first stop file sno start end offset size frames name
  first=$(cat "$vm/first-frame-clock") stop=$(cat "$vm/stop-clock")
  read -r file sno start end offset size frames _ <<<"$(sections | head -1)"
  name=$(printf 'hi%06d_%06d.mp4' "$file" "$sno")
  echo "  $name: $start ($(date -u -d "@$start" +%FT%TZ)) to $end ($(date -u -d "@$end" +%FT%TZ)), $frames frames;" \
    "clock set to $REAL_CARD_CLOCK, first frame at $first, stop at $stop"
  [ "$start" -ge "$REAL_CARD_CLOCK" ] && [ "$start" -le "$first" ] && [ "$start" -lt "$b" ] ||
    fail "section starts at $start: clock set to $REAL_CARD_CLOCK, first frame at $first, boundary $b"
  [ "$end" -ge "$b" ] && [ "$end" -ge $((stop - 2)) ] && [ "$end" -le "$stop" ] ||
    fail "section ends at $end: stopped at $stop, boundary $b"
  check_frame_times "$file" "$sno" "$start" "$end"
  check_key_entries "$file" "$start" "$end"
  check_found_by_time "$name" "$start" "$end" $((b - 4)) $((b + 3))
}

# check_frame_times FILE SECTION START END: the section's video frames carry
# times from START on (the first one when it came, the section opened a
# moment before), its last END, none goes back. The frames stay in
# $work/NAME.frames.json.
check_frame_times() {
  local name
  name=$(printf 'hi%06d_%06d.mp4' "$1" "$2")
  "$card_tool" frames "$name" --card "$card" --json >"$work/$name.frames.json" 2>"$work/frames.err" ||
    fail "frames --json: $(cat "$work/frames.err")"
  python3 - "$work/$name.frames.json" "$3" "$4" <<'PY' || fail "$name: frame times"
import json, sys
start, end = int(sys.argv[2]), int(sys.argv[3])
times = [f['time'] for f in map(json.loads, open(sys.argv[1])) if 'time' in f]
if not times or times[0] < start or times[-1] != end or times != sorted(times):
    sys.exit(f'video frame times {times[:2]}..{times[-2:]} for a section of {start}..{end}')
print(f'  {len(times)} video frames stamped {times[0]}..{end}')
PY
}

# check_key_entries FILE START END [START END...]: every key-frame entry of
# the media file lies within one of the sections' spans, in order within it.
check_key_entries() {
  python3 - "$card/$(printf 'hi%06d.mp4' "$1")" "${@:2}" <<'PY' || fail "key-frame entry times"
import struct, sys
spans = list(zip(map(int, sys.argv[2::2]), map(int, sys.argv[3::2])))
media = open(sys.argv[1], 'rb')
media.seek(0xFC00000)
per_span = [[] for _ in spans]
while True:
    flag, time = struct.unpack('<2I', media.read(20)[:8])
    if flag != 0x4648464B:
        break
    inside = [i for i, (s, e) in enumerate(spans) if s <= time <= e]
    if not inside:
        sys.exit(f'key-frame entry at {time}, outside every section {spans}')
    per_span[inside[0]].append(time)
if any(not times or times != sorted(times) for times in per_span):
    sys.exit(f'key-frame entries out of order or missing: {per_span}')
print('  key-frame entries per section:', ', '.join(f'{len(t)} in {s}..{e}' for t, (s, e) in zip(per_span, spans)))
PY
}

# check_found_by_time NAME START END FROM TO [SEARCH_FROM SEARCH_TO]: search
# (local times; by default from FROM to just after the end: search lists a
# section that lies inside its range or ends inside it), MP4 export of
# FROM..TO (seconds) and the page's API on FROM..TO, all on the image. The
# export times its frames at the section's 25 fps, so it lasts as long as
# the frames stamped FROM..TO (check_frame_times kept them) take at that
# rate: a loaded machine's simulator publishes fewer than 25 a second.
check_found_by_time() {
  local name=$1 start=$2 end=$3 from=$4 to=$5 local_from local_to url server duration
  local_from=$(date -d "@${6:-$from}" +%FT%T) local_to=$(date -d "@${7:-$((end + 1))}" +%FT%T)
  "$card_tool" search --from "$local_from" --to "$local_to" --json --image "$work/card.img" >"$work/found.json"
  grep -q "\"name\":\"$name\",\"start\":$start,\"end\":$end," "$work/found.json" ||
    fail "search $local_from..$local_to: $(cat "$work/found.json")"
  if command -v ffprobe >/dev/null; then
    "$card_tool" export --from "$from" --to "$to" --image "$work/card.img" -o "$work/across.mp4" >/dev/null 2>&1 ||
      fail "export --from $from --to $to failed"
    duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$work/across.mp4")
    local due
    due=$(python3 - "$work/$name.frames.json" "$from" "$to" <<'PY'
import json, sys
low, high = int(sys.argv[2]), int(sys.argv[3])
times = [f['time'] for f in map(json.loads, open(sys.argv[1])) if 'time' in f]
print(sum(low <= t <= high for t in times) / 25)
PY
)
    echo "  export $from..$to: MP4 of ${duration:-?} s, ${due:-?} s of frames stamped in it"
    python3 -c "import sys; sys.exit(abs(float('${duration:-0}') - float('${due:-0}')) > 0.5)" ||
      fail "MP4 of $from..$to lasts ${duration:-?} s, its frames ${due:-?} s"
  fi
  "$card_tool" serve --image "$work/card.img" --listen 127.0.0.1:0 >"$work/serve.out" 2>"$work/serve.err" &
  server=$!
  for _ in $(seq 100); do grep -q "^serving" "$work/serve.out" && break; sleep 0.1; done
  url=$(sed -nE 's/^serving .* at (http[^ ]+) .*/\1/p' "$work/serve.out")
  if [ -z "$url" ]; then
    grep -q "not in this build\|no serve" "$work/serve.err" || fail "serve did not start: $(cat "$work/serve.err")"
    return
  fi
  curl -s "${url}api/sections?from=$from&to=$to" | grep -q "\"name\":\"$name\",\"start\":$start,\"end\":$end," ||
    fail "api/sections?from=$from&to=$to does not list $name"
  curl -s "${url}api/play?at=$to" | grep -q "\"name\":\"$name\"" || fail "api/play?at=$to does not play $name"
  curl -s "${url}api/days" | grep -q "\"day\":\"$(date -d "@$to" +%F)\"" || fail "api/days lacks $(date -d "@$to" +%F)"
  curl -s -o "$work/play.mp4" "${url}api/video?at=$to"
  [ "$(ffprobe -v error -select_streams v -show_entries stream=codec_name -of csv=p=0 "$work/play.mp4" 2>/dev/null)" = h264 ] ||
    fail "api/video?at=$to is no H.264 MP4"
  kill -TERM "$server"
  wait "$server" || fail "serve exited $? on SIGTERM"
}
