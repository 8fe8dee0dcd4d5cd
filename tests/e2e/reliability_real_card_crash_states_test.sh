#!/usr/bin/env bash
# Crash states at every block write: a card that already holds one
# recording is mounted over the kernel's log-writes target, which keeps a log
# of every write that reaches the card, while AVRecord records onto it (with
# SyncSeconds=CRASH_SYNC_SECONDS, default 1, so the log holds the writer's
# flushes too) and then stops and is unmounted. write-log-replay rebuilds the
# card as it stood after each logged write: a power cut at that moment, with
# the writes in the order they completed. In every state:
#   - fsck.fat finds nothing beyond the dirty flag and the format's notes;
#   - both FATs are byte-identical to the formatted ones;
#   - avrecord-card check --frames names nothing in the earlier recording,
#     nor in the index header; damage to the logged run's sections (all of
#     them end within the write-back window of the cut) is allowed and
#     counted.
# The last state, after the unmount, must be wholly clean. A log longer than
# CRASH_MAX_STATES (default 400) writes is checked at every Nth write.
# RELIABILITY_FULL=1 records 30 s under the log, else 8 s.
# Prints "RELIABILITY crash-states|states|failures|figures".
source "$(dirname "$0")/lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; rm -rf "$work"' EXIT
real_card_probe || { echo "SKIP: $real_card_why"; exit 0; }
seconds=8
[ "${RELIABILITY_FULL:-0}" = 1 ] && seconds=30
max_states=${CRASH_MAX_STATES:-400}
scripts=$AVRECORD_SOURCE_DIR/scripts
replay=$AVRECORD_BUILD_DIR/apps/write-log-replay/write-log-replay
steps=$AVRECORD_SOURCE_DIR/tests/e2e/real_card_cut_steps.sh
export REAL_CARD_ENV="AVRECORD_BUILD_DIR AVRECORD_SOURCE_DIR"
"$scripts/make-samples" "$AVRECORD_BUILD_DIR/samples" >/dev/null || { fail "make-samples"; exit 1; }

image=$work/card.img
truncate -s 2G "$image"
"$tool" format "$image" --init >/dev/null 2>&1 || { fail "format of the card image"; exit 1; }
fats=$("$scripts/fat-image" fats "$image")

# The earlier recording, stopped and unmounted cleanly.
mkdir -p "$work/vm"
REAL_CARD_DISKS=()
real_card_boot "$work/vm" "$image" "$steps" "$work/vm/first" 0 "" 4
real_card_wait 180 || fail "the first recording ended with status $?"
cp --sparse=always "$image" "$work/base.img"

# The logged recording: the log-writes target between the card and vfat,
# removed after the unmount so that the log is complete.
log=$work/log.img
truncate -s 1G "$log"
echo 'card_block=$(dm_create card "0 $(blockdev --getsz /dev/ubda) log-writes /dev/ubda /dev/ubdb")' \
  >"$work/log-setup.sh"
printf 'source %q "$@"\ncard_unmount && dmsetup remove card\n' "$steps" >"$work/log-steps.sh"
REAL_CARD_DISKS=("$log")
REAL_CARD_SETUP=$work/log-setup.sh real_card_boot "$work/vm" "$image" \
  "$work/log-steps.sh" "$work/vm/logged" 0 "${CRASH_SYNC_SECONDS:-1}" "$seconds"
real_card_wait 240 || fail "the logged recording ended with status $?"
[ "$failures" -eq 0 ] || exit 1

# Sections of the earlier recording, as the logged boot found them.
sed -n 's/^{"name":"hi\([0-9]*\)_\([0-9]*\)\.mp4".*/\1 \2/p' "$work/vm/logged/sections.json" |
  awk '{ print $1 + 0 ":" $2 + 0 }' >"$work/earlier"
[ -s "$work/earlier" ] || fail "the earlier recording left no section"
writes=$("$replay" --list "$log" | awk 'NR > 1 && ($3 ~ /write|discard/)' | wc -l)
every=$(((writes + max_states - 1) / max_states))
[ "$every" -ge 1 ] || every=1

# One state: fsck, FATs, index check. Exit 1 on a failure; a line per state.
cat >"$work/judge.py" <<'PY'
import json, re, sys
state, earlier = sys.argv[1], set(open(sys.argv[2]).read().split())
status = 0
for line in open(sys.argv[3]):
    if re.match(r'avrecord-card check: \d+ problems in the index$', line):
        continue  # the summary on stderr
    problem = json.loads(line) if line.startswith('{') else {'type': 'problem', 'text': line.strip()}
    if problem.get('type') != 'problem':
        continue
    where = '%d:%d' % (problem['file'], problem.get('section', 0)) if 'file' in problem else 'header'
    if where == 'header' or where in earlier:
        print('state %s %s: %s' % (state, where, problem['text']))
        status = 1
    else:
        print('state %s named %s' % (state, where))
sys.exit(status)
PY
cat >"$work/state.sh" <<EOF
#!/usr/bin/env bash
s=\$WRITE_LOG_STATE
status=0
if ! findings=\$("$scripts/fsck-card" --dirty-ok "$work/state.img" 2>&1); then
  echo "state \$s fsck: \$(head -2 <<<"\$findings" | tr '\n' ' ')"; status=1
fi
[ "\$("$scripts/fat-image" fats "$work/state.img")" = "$fats" ] || { echo "state \$s: FATs changed"; status=1; }
"$tool" check --frames --json --card "$work/mirror/" >"$work/check.json" 2>&1
python3 "$work/judge.py" "\$s" "$work/earlier" "$work/check.json" || status=1
echo "state \$s \$([ \$status = 0 ] && echo ok || echo failed)"
exit \$status
EOF
chmod +x "$work/state.sh"
mkdir "$work/mirror"
cp --sparse=always "$work/base.img" "$work/state.img"
"$scripts/fat-image" extents "$work/state.img" >"$work/extents"
"$replay" "$log" "$work/state.img" --every "$every" --mirror "$work/mirror" --extents "$work/extents" \
  --run "$work/state.sh >>$work/states.txt" >"$work/replay.txt" 2>&1
rc=$?
[ $rc -le 1 ] || fail "write-log-replay: $(cat "$work/replay.txt")"
cmp -s "$work/state.img" "$image" || fail "the replayed card differs from the card"
states=$(grep -c '^state [0-9]* \(ok\|failed\)$' "$work/states.txt")
failed=$(grep -c '^state [0-9]* failed$' "$work/states.txt")
named=$(grep '^state [0-9]* named ' "$work/states.txt" | cut -d' ' -f2 | sort -u | wc -l)
[ "$failed" -eq 0 ] || fail "$failed states failed: $(grep -v -e ' ok$' -e ' named ' "$work/states.txt" | head -3)"
tail -1 "$work/states.txt" | grep -q ' ok$' && ! grep -q "^state $states named" "$work/states.txt" ||
  fail "the card after the unmount is not clean: $(grep "^state $states " "$work/states.txt" | head -2)"
"$scripts/fsck-card" "$work/state.img" >/dev/null 2>&1 || fail "the unmounted card keeps its dirty flag"

flushes=$("$replay" --list "$log" | grep -c ' flush')
echo "RELIABILITY crash-states|$states states|$failures|writes=$writes every=$every flushes=$flushes" \
  "failed_states=$failed states_with_named_damage=$named sync_seconds=${CRASH_SYNC_SECONDS:-1}"
[ "$failures" -eq 0 ] && echo "crash states: all passed"
exit $((failures > 0))
