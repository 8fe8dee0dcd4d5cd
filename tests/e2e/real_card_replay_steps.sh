# Runs inside the real-card VM (scripts/real-card-init sources it): the
# daemon records the simulated camera's 1080p H.264 stream onto the mounted
# card while avrecord-replay serves the same card over RTSP: first one
# client follows the recording as it is written, alone for 15 s; then four
# more pull what is recorded at full speed (Rate-Control: no), again and
# again, beside it. $1: seconds of that load.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
client=$AVRECORD_SOURCE_DIR/tests/e2e/replay_load_client.py
port=8554
ip link set lo up 2>/dev/null || busybox ifconfig lo 127.0.0.1 up
published=$REAL_CARD_WORK/published.txt
start_sim --video0 "$samples/h264_1080p.h264" --publish-log "$published"
start_daemon
wait_log "$recording_line" 60 && date +%s >"$REAL_CARD_WORK/first-frame-clock"
"$AVRECORD_BUILD_DIR/apps/avrecord-replay/avrecord-replay" --card "$card" --rtsp-port $port --http-port 0 \
  >"$REAL_CARD_WORK/replay.log" 2>&1 &
replay=$!
sleep 5  # a few seconds on the card before the first pull
# The live tail alone, then beside the four pullers.
python3 "$client" tail $port 15 "$samples/h264_1080p.h264" "$published" >"$REAL_CARD_WORK/tail-alone.json" 2>&1 || fail "the live tail alone failed"
clients=()
python3 "$client" tail $port "$1" "$samples/h264_1080p.h264" "$published" >"$REAL_CARD_WORK/tail.json" 2>&1 &
clients+=($!)
for i in 1 2 3 4; do
  python3 "$client" pull $port "$1" >"$REAL_CARD_WORK/pull$i.json" 2>&1 &
  clients+=($!)
done
for pid in "${clients[@]}"; do wait "$pid" || fail "a replay client failed (pid $pid)"; done
kill -TERM $replay
wait $replay || fail "avrecord-replay exited $?"
sleep 2
date +%s >"$REAL_CARD_WORK/stop-clock"
stop_daemon
finish
