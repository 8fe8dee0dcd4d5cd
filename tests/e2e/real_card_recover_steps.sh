# Runs inside the real-card VM (scripts/real-card-init sources it) for the
# recovery test. usage: MODE [SECONDS]
#   reference  records the card the damage cases start from: the 1080p
#              stream with G.711 audio in an alarm-watching segment, two
#              alarms, a switch to the 360p stream and a clock step of an
#              hour, so that the card holds several sections of two picture
#              sizes and alarm events
#   record     records SECONDS more of the 1080p stream with audio (a power
#              cut, the next lap, a card recovered in place)
# RECOVER_SYNC_SECONDS sets SyncSeconds; RECOVER_LOG_WRITES=1 removes the
# log-writes target under the card (see the test) after the unmount.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
: >"$log"
mkdir -p "$root/opt/app/config"
if [ -n "${RECOVER_SYNC_SECONDS:-}" ]; then
  printf '[AVRecordCustom]\nSyncSeconds=%s\n' "$RECOVER_SYNC_SECONDS" >"$root/opt/app/config/CustomTools.cfg"
fi
start_sim --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
  --audio "$samples/g711a.alaw" --audio-codec g711a

alarm() {
  "$sim" alarm 0 on >/dev/null || fail "alarm on"
  sleep "$1"
  "$sim" alarm 0 off >/dev/null || fail "alarm off"
}

case $1 in
  reference)
    diff_day_segment 2 2
    sim_set prerecord 1  # 5 s
    sim_set delay 8      # none: the event ends with the alarm
    start_daemon
    wait_log "$recording_line" 60 && sleep 3
    alarm 2
    sleep 2
    sim_set stream-type 1
    wait_log "$recording_line" 20 2 && sleep 3
    # The clock steps ten minutes ahead (the day's segment still covers it
    # unless the test runs just before midnight).
    date -s "@$(($(date +%s) + 600))" >/dev/null
    wait_log "$recording_line" 20 3 && sleep 2
    alarm 2
    sleep 2
    ;;
  record)
    start_daemon
    wait_log "$recording_line" 60 && sleep "$2"
    ;;
esac
stop_daemon
"$card_tool" search --from 0 --to 4294967295 --json --card "$card" >"$REAL_CARD_WORK/sections.json"
# Under the log-writes target the log is complete only once it is removed.
if [ -n "${RECOVER_LOG_WRITES:-}" ]; then
  card_unmount && dmsetup remove card || fail "the log-writes target could not be removed"
fi
finish
