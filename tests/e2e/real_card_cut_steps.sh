# Runs inside the real-card VM (scripts/real-card-init sources it) for the
# power-cut loop and the crash states: first looks at the card as this boot
# found it, then records onto it until the power goes, or for RECORD_SECONDS
# and a SIGTERM.
# usage: OUT SINCE SYNC_SECONDS RECORD_SECONDS
#   OUT             a folder inside the VM's work directory (written through
#                   to the host at once, so it survives a cut) for:
#     check.json      avrecord-card check --json of the card as found
#     info.json       avrecord-card info --json
#     sections.json   avrecord-card search --json over all time
#     frames.NAME     video frames of section NAME that read back (up to where
#                     reading breaks off, if it does), for every section that
#                     starts at or after SINCE (epoch seconds; 0: none)
#     window          the kernel's write-back window in seconds (dirty expiry
#                     plus the flusher's period)
#     daemon.start    epoch seconds when AVRecord was started
#     avrecord.log    the daemon's log
#     recording       made once the daemon took its first key frame
#     samples         "EPOCH FRAMES FORCED_KEY SECTORS_WRITTEN DAEMON_TICKS"
#                     every SAMPLE_PERIOD s (default 0.25): video frames
#                     avcam-sim published on stream 0, the number of the key
#                     frame it forced for the daemon, sectors written to the
#                     card's block device, AVRecord's CPU ticks
#     stopped         the daemon's exit status after SIGTERM
#     after.json      avrecord-card search --json after the stop
#     written         sectors written to the card from the boot to the
#                     unmount after the stop
#   SYNC_SECONDS    SyncSeconds in [AVRecordCustom] (empty: not set)
#   RECORD_SECONDS  > 0: record that long, then SIGTERM; 0: until the cut
out=$1
since=$2
tool=$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card
sim=$AVRECORD_BUILD_DIR/apps/avcam-sim/avcam-sim
samples=$AVRECORD_BUILD_DIR/samples
period=${SAMPLE_PERIOD:-0.25}
mkdir -p "$out" || exit 1

expire=$(cat /proc/sys/vm/dirty_expire_centisecs)
flusher=$(cat /proc/sys/vm/dirty_writeback_centisecs)
echo $(((expire + flusher + 99) / 100)) >"$out/window"
"$tool" check --card "$card_dir/" --json >"$out/check.json" 2>"$out/check.err"
"$tool" info --card "$card_dir/" --json >"$out/info.json" 2>/dev/null
"$tool" search --from 1970-01-02T00:00:00 --to 2100-01-01T00:00:00 --card "$card_dir/" --json \
  >"$out/sections.json" 2>/dev/null
if [ "$since" -gt 0 ]; then
  sed -n 's/^{"name":"\([^"]*\)","start":\([0-9]*\),.*/\1 \2/p' "$out/sections.json" |
    while read -r name start; do
      [ "$start" -ge "$since" ] &&
        "$tool" frames "$name" --card "$card_dir/" --json 2>/dev/null | grep -c '"kind":"\(key\|video\)"' >"$out/frames.$name"
    done
fi

mkdir -p "$AVRECORD_ROOT/opt/app/config"
if [ -n "$3" ]; then
  printf '[AVRecordCustom]\nSyncSeconds=%s\n' "$3" >"$AVRECORD_ROOT/opt/app/config/CustomTools.cfg"
else
  rm -f "$AVRECORD_ROOT/opt/app/config/CustomTools.cfg"
fi
"$sim" run --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
  --video2 "$samples/h265_720p.h265" 2>"$out/sim.err" &
for ((tries = 0; tries < 100; tries++)); do "$sim" status >/dev/null 2>&1 && break; sleep 0.1; done
date +%s >"$out/daemon.start"
"$AVRECORD_BUILD_DIR/record/AVRecord" 2>"$out/avrecord.log" &
daemon=$!
read -r major minor < <(stat -L -c '%t %T' "$card_block")
major=$((16#$major)) minor=$((16#$minor))

sample() {
  echo "$(date +%s.%N)" \
    $("$sim" status | awk '$1 == "stream" && $2 == 0 { print $10, $16 }') \
    $(awk -v a=$major -v i=$minor '$1 == a && $2 == i { print $10 }' /proc/diskstats) \
    $(awk '{ print $14 + $15 }' "/proc/$daemon/stat" 2>/dev/null) >>"$out/samples"
}

for ((tries = 0; tries < 1200; tries++)); do grep -q "Now RotateAngle" "$out/avrecord.log" && break; sleep 0.05; done
[ $tries -lt 1200 ] || exit 1
: >"$out/recording"
started=$SECONDS
while [ "$4" -le 0 ] || [ $((SECONDS - started)) -lt "$4" ]; do
  sample
  sleep "$period"
done
sample
kill -TERM "$daemon"
wait "$daemon"
echo "$?" >"$out/stopped"
"$tool" search --from 1970-01-02T00:00:00 --to 2100-01-01T00:00:00 --card "$card_dir/" --json \
  >"$out/after.json" 2>/dev/null
card_unmount
awk -v a=$major -v i=$minor '$1 == a && $2 == i { print $10 }' /proc/diskstats >"$out/written"
