# The bundle's start script run as the camera's init runs it, with the
# static ARM daemon under qemu-arm: inside the real-card VM (scripts/
# real-card-init sources it) or on the host over a directory card
# (camera_bundle_test.sh). The bundle is unpacked at AVRECORD_ROOT with its
# etc/default/avrecord written. A daemon that keeps exiting is started again
# after a growing pause; a killed one at once; a second start starts
# nothing; stop ends it with status 0. The replay server runs beside it.
source "$AVRECORD_SOURCE_DIR/tests/e2e/avrecord_e2e_lib.sh"
root=$AVRECORD_ROOT
card=$card_dir/
log=$REAL_CARD_WORK/avrecord.log
run_dir="$root/var/run"
init() { busybox sh "$root/etc/init.d/S60avrecord" "$@"; }
# count_procs TEXT: processes whose command line holds TEXT (the bracket
# keeps grep's own command line from matching).
count_procs() { grep -las "${1%?}[${1: -1}]" /proc/[0-9]*/cmdline | wc -l; }

# 1. A device without storage: the daemon leaves at once, again and again;
# the pause before each new start grows, and stop ends even a pause.
mkdir -p "$root/param"
printf '[CPLD]\nStorageCapability=1\n' >"$root/param/CPLD.conf"
init start >/dev/null || fail "start exited $?"
wait_log "starting it again in 4s" 20
init stop >/dev/null || fail "stop during a pause exited $?"
[ "$(count_procs S60avrecord)" -eq 0 ] || fail "the supervisor outlived stop"
grep -q "starting it again in 2s" "$log" || fail "no 2 s pause before the 4 s one"

# 2. Recording; a killed daemon is started again.
printf '[CPLD]\nStorageCapability=2\n' >"$root/param/CPLD.conf"
start_sim --video0 "$samples/h264_1080p.h264" --audio "$samples/g711a.alaw" --audio-codec g711a
: >"$log"
init start >/dev/null || fail "start exited $?"
wait_log "$recording_line" 60
head -1 "$log" | grep -q "] AVRecord $(cat "$root/VERSION")\$" ||
  fail "first log line is not the version: $(head -1 "$log")"
first=$(cat "$run_dir/avrecord.pid")
kill -KILL "$first"
wait_log "AVRecord exited with status 137" 10
wait_log "$recording_line" 60 2
second=$(cat "$run_dir/avrecord.pid" 2>/dev/null)
{ [ -n "$second" ] && [ "$second" != "$first" ]; } || fail "no new daemon after kill -9"

# 3. A second start starts nothing.
init start >"$work/start2.out" || fail "second start exited $?"
grep -q "already running" "$work/start2.out" || fail "second start: $(cat "$work/start2.out")"
sleep 2
[ "$(count_procs "$root/bin/AVRecord")" -eq 1 ] || fail "$(count_procs "$root/bin/AVRecord") daemons after a second start"
[ "$(cat "$run_dir/avrecord.pid")" = "$second" ] || fail "the second start replaced the daemon"
init status >/dev/null || fail "status exited $? while running"

# 3b. The replay server beside the recorder, kept running by its own start
# script: while AVRecord records, its listing shows the recording.
replay() { busybox sh "$root/etc/init.d/S61avrecord-replay" "$@"; }
ip link set lo up 2>/dev/null || true  # the VM starts with its loopback down
http_port=$(sed -n 's/^HttpPort=//p' "$root/opt/app/config/CustomTools.cfg")
replay start >/dev/null || fail "replay start exited $?"
listed=
for _ in $(seq 60); do
  listed=$(curl -s --max-time 5 "http://127.0.0.1:$http_port/list") && [ "${listed#*duration}" != "$listed" ] && break
  sleep 1
done
[ "${listed#*duration}" != "$listed" ] || fail "the replay server lists no recording: '$listed'"
replay status >/dev/null || fail "replay status exited $? while running"
replay stop >/dev/null || fail "replay stop exited $?"
[ "$(count_procs "$root/bin/avrecord-replay")" -eq 0 ] || fail "the replay server outlived stop"

# 4. Stop: SIGTERM, the daemon's own exit, nothing left.
init stop >/dev/null || fail "stop exited $?"
grep -q "RecordStop AVRecord exit!!!" "$log" || fail "the daemon did not finish its stop"
[ "$(count_procs "$root/bin/AVRecord")" -eq 0 ] || fail "a daemon outlived stop"
init status >/dev/null
[ $? -eq 3 ] || fail "status after stop is not 3"
finish
