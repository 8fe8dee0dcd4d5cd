# Runs inside the real-card VM (scripts/real-card-init sources it): the
# simulated camera publishes the 1080p H.264 stream, the daemon (natively,
# or the ARM build under qemu-arm when AVRECORD_ARM_DAEMON is set) records
# it onto the mounted card for $1 seconds and is stopped with SIGTERM.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
start_sim --video0 "$samples/h264_1080p.h264"
start_daemon
wait_log "$recording_line" 60 && sleep "$1"
stop_daemon
finish
