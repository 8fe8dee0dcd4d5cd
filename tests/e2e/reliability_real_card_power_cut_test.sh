#!/usr/bin/env bash
# Power-cut loop on a real card: a 2 GiB image from our formatter is mounted
# by the vfat driver of a User-mode Linux kernel, AVRecord records the
# simulator's streams onto it, and the power goes (the VM's whole process
# group is killed) at a random moment 3-20 s after the daemon's first frame.
# The next boot, on the same card, first looks at what the cut left and then
# records again. After every cut:
#   - fsck.fat finds nothing beyond the dirty flag and the format's notes;
#   - both FATs are byte-identical to the formatted ones;
#   - the index check names damage only in sections that ended within the
#     kernel's write-back window of the cut (dirty expiry plus the flusher's
#     period); damage once named and allowed stays allowed;
#   - the directory and reserved sectors changed only where a mounted card
#     may (fat-image diff --after-cut);
#   - the card mounts and the next boot records again.
# Frames lost per cut: video frames the simulator published from the
# daemon's first frame to the cut (its last sample, at most SAMPLE_PERIOD old,
# carried on to the cut at 25 fps) minus the video frames of the run's
# sections that read back.
# RELIABILITY_FULL=1 first records CLEAN_SECONDS (default 60) without a cut
# for what SyncSeconds costs (bytes written beyond the stream, CPU), then
# runs POWERCUT_CYCLES cuts (default 100); else 1 cut 3-5 s in.
# POWERCUT_SYNC_SECONDS sets SyncSeconds (default: not set, so the daemon's own).
# Prints "RELIABILITY power-cut[-syncN]|cycles|failures|figures".
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/reliability_lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; rm -rf "$work"' EXIT
real_card_probe || { echo "SKIP: $real_card_why"; exit 0; }
cycles=1
min_ms=3000
max_ms=5000
if [ "${RELIABILITY_FULL:-0}" = 1 ]; then
  cycles=${POWERCUT_CYCLES:-100}
  max_ms=20000
fi
sync=${POWERCUT_SYNC_SECONDS:-}
name=power-cut${sync:+-sync$sync}
fps=25
"$AVRECORD_SOURCE_DIR/scripts/make-samples" "$AVRECORD_BUILD_DIR/samples" >/dev/null || { fail "make-samples"; exit 1; }

image=$work/card.img
truncate -s 2G "$image"
"$tool" format "$image" --init >/dev/null 2>&1 || { fail "format of the card image"; exit 1; }
fats=$("$AVRECORD_SOURCE_DIR/scripts/fat-image" fats "$image")
cp --sparse=always "$image" "$work/formatted.img"
mkdir -p "$work/vm"

# judge_cut CUT_DIR NEXT_DIR: what cut CUT_DIR left, as the boot NEXT_DIR
# found it; prints "lost N published P readable R named D outside O" (D: new
# damage named in the window) and every damage outside the
# window on lines of its own. Allowed damage is remembered in $work/allowed.
judge_cut() {
  python3 - "$1" "$2" "$work/allowed" "$fps" <<'PY'
import glob, json, os, sys
cut_dir, next_dir, allowed_path, fps = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
def lines(path):
    try:
        return [json.loads(l) for l in open(path) if l.startswith('{')]
    except OSError:
        return []
cut = float(open(os.path.join(cut_dir, 'cut')).read())
path = os.path.join(cut_dir, 'samples')
samples = [l.split() for l in open(path) if len(l.split()) >= 3] if os.path.exists(path) else []
if samples:
    last = samples[-1]
    published = int(last[1]) - int(last[2]) + 1 + round((cut - float(last[0])) * fps)
else:  # cut before the first sample: from the first frame at the frame rate
    published = round((cut - os.path.getmtime(os.path.join(cut_dir, 'recording'))) * fps)
readable = 0
for path in glob.glob(os.path.join(next_dir, 'frames.*')):
    readable += int(open(path).read() or 0)
window = int(open(os.path.join(next_dir, 'window')).read())
sections = {l['name']: l for l in lines(os.path.join(next_dir, 'sections.json')) if 'name' in l}
files = {l['file']: l for l in lines(os.path.join(next_dir, 'info.json')) if l.get('type') == 'file'}
allowed = set(open(allowed_path).read().split()) if os.path.exists(allowed_path) else set()
named = outside = 0
for problem in lines(os.path.join(next_dir, 'check.json')):
    if problem.get('type') != 'problem':
        continue
    if 'file' not in problem:
        outside += 1
        print('header:', problem['text'])
        continue
    key = '%d:%d' % (problem['file'], problem.get('section', 0))
    section = sections.get('hi%06d_%06d.mp4' % (problem['file'], problem.get('section', 0)))
    end = section['end'] if section else files.get(problem['file'], {}).get('end', 0)
    if key in allowed:
        continue  # named and allowed after an earlier cut
    if end == 0 or end >= cut - window - 1:
        allowed.add(key)
        named += 1
    else:
        outside += 1
        print('file %s section %s (ended %d s before the cut): %s' %
              (problem['file'], problem.get('section', '-'), cut - end, problem['text']))
open(allowed_path, 'w').write('\n'.join(sorted(allowed)))
print('lost %d published %d readable %d named %d outside %d' % (published - readable, published, readable, named, outside))
PY
}

# The cost of SyncSeconds while nothing goes wrong: a clean recording of
# CLEAN_SECONDS (default 60; none in the short run) stopped with SIGTERM and
# unmounted. Prints the bytes the card took per hour of recording beyond the
# recorded stream (MiB), and the daemon's CPU use in percent of one core.
clean_figures() {
  python3 - "$1" <<'PY'
import json, os, sys
d = sys.argv[1]
written = int(open(os.path.join(d, 'written')).read()) * 512
start = int(open(os.path.join(d, 'daemon.start')).read())
recorded = sum(l['size'] for l in map(json.loads, open(os.path.join(d, 'after.json')))
               if 'size' in l and l['start'] >= start)
samples = [l.split() for l in open(os.path.join(d, 'samples')) if len(l.split()) >= 5]
seconds = float(samples[-1][0]) - float(samples[0][0])
cpu = (int(samples[-1][4]) - int(samples[0][4])) / seconds
hour = 3600 / seconds / 2**20
print('extra_mib_per_hour=%.1f written_mib_per_hour=%.0f cpu=%.1f%%' %
      ((written - recorded) * hour, written * hour, cpu))
PY
}
clean=
clean_seconds=${CLEAN_SECONDS:-60}
if [ "${RELIABILITY_FULL:-0}" = 1 ] && [ "$clean_seconds" -gt 0 ]; then
  REAL_CARD_ENV=AVRECORD_BUILD_DIR real_card_boot "$work/vm" "$image" \
    "$AVRECORD_SOURCE_DIR/tests/e2e/real_card_cut_steps.sh" "$work/vm/clean" 0 "$sync" "$clean_seconds"
  if real_card_wait 300; then
    clean=$(clean_figures "$work/vm/clean")
  else
    fail "the clean recording ended with status $?"
  fi
fi

lost_list=()
unreadable=0
outside=0
named=0
not_recording=0
fsck_findings=0
fat_changes=0
since=0
for ((boot = 1; boot <= cycles + 1; boot++)); do
  out=$work/vm/boot.$boot
  mkdir -p "$out"
  # The boot after the last cut only looks and records briefly.
  seconds=0
  [ $boot -gt $cycles ] && seconds=2
  REAL_CARD_ENV=AVRECORD_BUILD_DIR real_card_boot "$work/vm" "$image" \
    "$AVRECORD_SOURCE_DIR/tests/e2e/real_card_cut_steps.sh" "$out" "$since" "$sync" "$seconds"
  if ! real_card_wait_for "$out/recording" "" 120; then
    if [ ! -e "$out/window" ]; then
      unreadable=$((unreadable + 1))
      fail "boot $boot: the card did not mount"
    else
      not_recording=$((not_recording + 1))
      fail "boot $boot: no recording within 120 s ($(tail -2 "$out/avrecord.log" 2>/dev/null))"
    fi
  fi
  if [ $boot -le $cycles ] && [ -e "$out/recording" ]; then
    delay=$((min_ms + RANDOM % (max_ms - min_ms + 1)))
    sleep "$((delay / 1000)).$(printf '%03d' $((delay % 1000)))"
    date +%s.%N >"$out/cut"
    real_card_cut
  else
    real_card_wait 120 || fail "boot $boot: the VM did not halt cleanly (status $?)"
    [ "$(cat "$out/stopped" 2>/dev/null)" = 0 ] || fail "boot $boot: the daemon did not stop with status 0"
  fi
  if [ $boot -gt 1 ] && [ -e "$work/vm/boot.$((boot - 1))/cut" ]; then
    verdict=$(judge_cut "$work/vm/boot.$((boot - 1))" "$out")
    read -r _ lost _ published _ readable _ n _ o < <(tail -1 <<<"$verdict")
    if [ -z "$o" ]; then
      fail "cut $((boot - 1)): not judged: $verdict"
    else
      [ -n "${POWERCUT_TRACE:-}" ] && echo "cut $((boot - 1)): $(tail -1 <<<"$verdict")"
      lost_list+=("$lost")
      named=$((named + n))
      if [ "$o" -gt 0 ]; then
        outside=$((outside + 1))
        fail "cut $((boot - 1)): damage outside the write-back window: $(head -2 <<<"$verdict")"
      fi
    fi
  fi
  since=$(cat "$out/daemon.start" 2>/dev/null || echo 0)
  findings=$("$AVRECORD_SOURCE_DIR/scripts/fsck-card" --dirty-ok "$image" 2>&1) ||
    { fsck_findings=$((fsck_findings + 1)); fail "boot $boot: fsck.fat: $(head -3 <<<"$findings")"; }
  [ "$("$AVRECORD_SOURCE_DIR/scripts/fat-image" fats "$image")" = "$fats" ] ||
    { fat_changes=$((fat_changes + 1)); fail "boot $boot: the FATs changed"; }
  changes=$("$AVRECORD_SOURCE_DIR/scripts/fat-image" diff "$work/formatted.img" "$image" --after-cut 2>&1) ||
    fail "boot $boot: the file system changed beyond times, counts and the dirty flag: $(head -3 <<<"$changes")"
  [ "$failures" -gt 0 ] && [ -n "${POWERCUT_KEEP:-}" ] && cp -r "$work" "$POWERCUT_KEEP"
done

read -r p50 p99 < <(percentiles "${lost_list[@]}")
max=$(printf '%s\n' "${lost_list[@]:-0}" | sort -n | tail -1)
echo "RELIABILITY $name|$cycles cycles|$failures|frames_lost_per_cut_p50=$p50 p99=$p99 max=$max" \
  "unreadable_cards=$unreadable damaged_outside_window=$outside named_damage=$named" \
  "no_recording_after_boot=$not_recording fsck_findings=$fsck_findings fat_changes=$fat_changes" \
  "window_s=$(cat "$work/vm/boot.1/window" 2>/dev/null)${clean:+ clean_run: $clean}"
[ "$failures" -eq 0 ] && echo "power-cut loop: all passed"
exit $((failures > 0))
