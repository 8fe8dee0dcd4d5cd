# Runs inside the real-card VM: the daemon records the simulated camera with
# the VM's clock 20 s before the card's last second (2106-02-07 06:28:15
# UTC). Past it the run must end and the daemon wait, saying so, until the
# clock is set back (to 2030); then it records again and is stopped.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
waiting_line="not recording until the clock is set"
date -s @$((4294967295 - 20)) >/dev/null
start_sim --video0 "$samples/h264_1080p.h264"
start_daemon
wait_log "$recording_line" 60 && date +%s >"$REAL_CARD_WORK/first-frame-clock"
wait_log "$waiting_line" 40 && sleep 3
date +%s >"$REAL_CARD_WORK/set-back-from"
date -s @1900000000 >/dev/null
wait_log "$recording_line" 30 2 && sleep 4
date +%s >"$REAL_CARD_WORK/stop-clock"
stop_daemon
finish
