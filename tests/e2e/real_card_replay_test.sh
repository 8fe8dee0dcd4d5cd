#!/usr/bin/env bash
# Replay never in the recorder's way: inside User-mode Linux the daemon
# records onto a card image through the kernel's vfat driver while
# avrecord-replay serves the same card to four clients pulling at full
# speed and one following the live recording (real_card_replay_steps.sh).
# The recording must hold every published frame from its first key frame
# to its stop (check_recording), the card must read back clean, and the
# frames written after the live tail's PLAY must reach it, alone and beside
# the pullers, within 2 s of the simulator publishing them (median; the
# 95th percentile and the largest delay are printed: the VM has one CPU for
# the recorder, the server and all five clients, and on a machine shared
# with other work its scheduling shows in them). Each frame is timed from
# its publication (the simulator's log, matched by the picture's bytes) to
# the arrival of its first packet. The figures go to the output.
source "$(dirname "$0")/real_card_lib.sh"
real_card_steps=$AVRECORD_SOURCE_DIR/tests/e2e/real_card_replay_steps.sh
[ -x "$AVRECORD_BUILD_DIR/apps/avrecord-replay/avrecord-replay" ] || { echo "SKIP: no avrecord-replay built"; exit 0; }
real_card_record 30
real_card_readback
check_recording "$(real_card_recorded_seconds)"
for i in 1 2 3 4; do
  echo "  puller $i: $(cat "$vm/pull$i.json")"
  grep -q '"rounds"' "$vm/pull$i.json" || fail "puller $i: $(cat "$vm/pull$i.json")"
done
echo "  live tail alone: $(cat "$vm/tail-alone.json")"
echo "  live tail beside the pullers: $(cat "$vm/tail.json")"
for tail in tail-alone tail; do
  python3 - "$vm/$tail.json" <<'PY' || fail "$tail: $(cat "$vm/$tail.json")"
import json, sys
tail = json.loads(open(sys.argv[1]).readline())
sys.exit(0 if tail["median_s"] < 2 else f'median delay {tail["median_s"]} s')
PY
done
rm -rf "$card"
finish
