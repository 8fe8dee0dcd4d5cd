#!/usr/bin/env bash
# Soak: the daemon records the simulator's three streams at ten times their
# rate onto a card of four media files while an alarm source toggles, so the
# card wraps around again and again. Resident memory, open descriptors and
# threads of the daemon are sampled: none may grow from the first sample
# after warm-up to the last (memory by at most a fifth). At the end SIGTERM
# ends it with status 0 and the index check passes. RELIABILITY_FULL=1 runs
# SOAK_SECONDS (default 1800), else 20 s.
# Prints "RELIABILITY soak|seconds|failures|figures".
source "$(dirname "$0")/avrecord_e2e_lib.sh"
seconds=20
[ "${RELIABILITY_FULL:-0}" = 1 ] && seconds=${SOAK_SECONDS:-1800}
step=$((seconds >= 300 ? 30 : 2))

make_card 4
start_camera --speed 10
start_daemon
wait_log "CameraSetVideoForceIFrame, VideoId 0" 30
sleep "$step"

status_field() { sed -nE "s/^$1:[[:space:]]+([0-9]+).*/\1/p" "/proc/$daemonpid/status"; }
sample() { echo "$(status_field VmRSS) $(ls "/proc/$daemonpid/fd" | wc -l) $(status_field Threads)"; }
current_file() {
  python3 -c 'import struct,sys; print(struct.unpack_from("<I", open(sys.argv[1],"rb").read(32), 28)[0])' \
    "$card/index000.bin"
}

read -r rss0 fds0 threads0 < <(sample)
switches=0
last=$(current_file)
alarm=on
end=$((SECONDS + seconds))
while [ $SECONDS -lt $end ]; do
  sleep "$step"
  kill -0 "$daemonpid" 2>/dev/null || { fail "daemon gone after $((seconds - (end - SECONDS))) s"; break; }
  "$sim" alarm 0 $alarm >/dev/null 2>&1
  [ $alarm = on ] && alarm=off || alarm=on
  now=$(current_file)
  [ "$now" != "$last" ] && switches=$((switches + 1))
  last=$now
  read -r rss fds threads < <(sample)
done
[ "$fds" -le "$fds0" ] || fail "open descriptors grew from $fds0 to $fds"
[ "$threads" -le "$threads0" ] || fail "threads grew from $threads0 to $threads"
[ "$rss" -le $((rss0 + rss0 / 5)) ] || fail "resident memory grew from $rss0 kB to $rss kB"
stop_daemon
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(head -3 "$work/check.txt")"
echo "RELIABILITY soak|$seconds s|$failures|file_switches=$switches wraps=$((switches / 4))" \
  "rss_kb=$rss0->$rss fds=$fds0->$fds threads=$threads0->$threads"
finish
