# Runs inside the real-card VM (scripts/real-card-init sources it): the
# simulated camera publishes the 1080p H.264 stream, the daemon (natively,
# or the ARM build under qemu-arm when AVRECORD_ARM_DAEMON is set) records
# it onto the mounted card for $1 seconds and is stopped with SIGTERM.
# With REAL_CARD_CLOCK (seconds since 1970) the VM's clock is set there
# first, and with REAL_CARD_UNTIL the recording goes on at least until the
# clock reads that second. The clock at the first frame and at the stop go
# to first-frame-clock and stop-clock in the work directory.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
[ -z "${REAL_CARD_CLOCK:-}" ] || date -s "@$REAL_CARD_CLOCK" >/dev/null
start_sim --video0 "$samples/h264_1080p.h264"
start_daemon
wait_log "$recording_line" 60 && date +%s >"$REAL_CARD_WORK/first-frame-clock" && sleep "$1"
while [ "$(date +%s)" -lt "${REAL_CARD_UNTIL:-0}" ]; do sleep 0.2; done
date +%s >"$REAL_CARD_WORK/stop-clock"
stop_daemon
finish
