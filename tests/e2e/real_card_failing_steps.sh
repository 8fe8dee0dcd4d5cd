# Runs inside the real-card VM (scripts/real-card-init sources it) for the
# failing-card lane. The card sits on a device-mapper device ("card", made
# linear over the image by the lane's setup) and is mounted with
# errors=remount-ro; each case swaps the device's table, or the card, to
# make it fail. Per case AVRecord starts on the working card and records a
# while, the card fails for FAULT_SECONDS, works again (or is back), the
# daemon records on for AFTER_SECONDS and is stopped with SIGTERM. Then the
# card is unmounted and mounted again, so that what is counted is what
# reached it.
# usage: OUT EXTENTS LAYOUT CASE...
#   OUT      a folder inside the VM's work directory
#   EXTENTS  fat-image extents of the card; LAYOUT: fat-image layout
#   CASE     flakey: writes fail 2 s out of every 3 (dm-flakey), after the
#                    flusher has started writing the recording back;
#            dust:   bad sectors over the index's first sectors (dm-dust),
#                    the daemon restarted on a cold cache;
#            readonly: a broken cluster chain 2 MiB past the recording, which
#                    the kernel finds after the daemon's restart on a cold
#                    cache and sets the file system read-only;
#            pulled: the card is gone (all I/O fails, lazy unmount, no
#                    device node) and then back;
#            error:  every I/O fails (dm error target) and then works
#                    again; the file system is remounted read-write if
#                    the kernel set it read-only meanwhile.
# One line per case in OUT/cases:
#   NAME PUBLISHED READABLE BASE_CPU USER_CPU MAX_CPU LOGGED LEFT
#   CRASHED EXIT RECORDING_AFTER STATUS_CHANGE RESUMED STATUS_LOST
# PUBLISHED: video frames avcam-sim published from the daemon's first key
# frame to the stop; READABLE: video frames of the case's sections that read
# back; BASE_CPU: the daemon's CPU use in percent of one core while it
# recorded on the working card (3 s); USER_CPU: its average use in its own
# code while the card failed; MAX_CPU: its busiest second then, kernel work
# for it included; LOGGED: failure lines the daemon logged meanwhile; LEFT: 1 when it
# left after the card loss, as it does by design once the card is back (and
# was started again, as the camera does); CRASHED: 1 when it ended any other
# way; EXIT: its status after SIGTERM; RECORDING_AFTER: 1 when a section of
# the case ends at least 2 s after the card worked again; STATUS_CHANGE:
# seconds from the fault (for readonly: from the kernel's setting the
# file system read-only) to the first published "card-failing",
# "card-read-only", "no-card" or "index-invalid" (-1: none); RESUMED:
# seconds from the card's return to "recording" again (-1: never); STATUS_LOST: frames_lost the daemon
# published last. OUT/CASE.status holds the samples ("US STATE LOST MOUNT",
# every 0.1 s). OUT/CASE.check and
# OUT/CASE.frames hold check --json and check --frames --json of the card
# after the case, OUT/CASE.window when the card failed and worked again.
out=$1
extents=$2
layout=$3
shift 3
tool=$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card
sim=$AVRECORD_BUILD_DIR/apps/avcam-sim/avcam-sim
samples=$AVRECORD_BUILD_DIR/samples
before=${BEFORE_SECONDS:-35}
fault=${FAULT_SECONDS:-20}
after=${AFTER_SECONDS:-10}
size=$(blockdev --getsz /dev/ubda)
linear="0 $size linear /dev/ubda 0"
mkdir -p "$out" || exit 1
load_module dm-flakey dm-dust || exit 1
# The writer flushes every SYNC_SECONDS (default 1): a write-back failure
# then reaches the daemon, which logs it.
mkdir -p "$AVRECORD_ROOT/opt/app/config"
printf '[AVRecordCustom]\nSyncSeconds=%s\n' "${SYNC_SECONDS:-1}" >"$AVRECORD_ROOT/opt/app/config/CustomTools.cfg"

swap_table() {  # TABLE
  dmsetup suspend --noflush card
  dmsetup load card --table "$1"
  dmsetup resume card
}

published() {  # video frames published on stream 0
  "$sim" status | awk '$1 == "stream" && $2 == 0 { print $10 }'
}

# ticks PID: "USER TOTAL" CPU ticks of the process (100 a second), or "-1 -1".
ticks() { awk '{ print $14, $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo "-1 -1"; }

# watch_fault PID SECONDS CASE: samples the daemon's CPU once a second
# (OUT/CASE.cpu.log: "USER TOTAL" ticks, 100 a second; OUT/CASE.threads:
# per thread at the end) and leaves "AVERAGE_USER MAX_TOTAL" in OUT/CASE.cpu,
# percent of one core: its own code on average over the failure, and its
# busiest second with the kernel's work for it (such as failing its reads).
watch_fault() {
  local n=0 user total last_user last_total first_user high=0
  read -r last_user last_total < <(ticks "$1")
  first_user=$last_user
  while [ $n -lt "$2" ]; do
    sleep 1
    read -r user total < <(ticks "$1")
    [ "$user" -ge 0 ] || break  # the daemon is gone
    echo "$((user - last_user)) $((total - last_total))" >>"$out/$3.cpu.log"
    [ $((total - last_total)) -gt $high ] && high=$((total - last_total))
    last_user=$user last_total=$total
    n=$((n + 1))
  done
  echo "$(((last_user - first_user) / (n > 0 ? n : 1))) $high" >"$out/$3.cpu"
  for task in /proc/"$1"/task/*; do awk '{ print $1, $14, $15 }' "$task/stat"; done >"$out/$3.threads" 2>/dev/null
}

readable() {  # CASE SINCE: video frames of the sections that start at or after SINCE
  local name start
  "$tool" search --from 1970-01-02T00:00:00 --to 2100-01-01T00:00:00 --card "$card_dir/" --json \
    >"$out/$1.search" 2>/dev/null
  sed -n 's/^{"name":"\([^"]*\)","start":\([0-9]*\),.*/\1 \2/p' "$out/$1.search" |
  while read -r name start; do
    [ "$start" -ge "$2" ] || continue
    # Frames up to where reading breaks off, if it does.
    "$tool" frames "$name" --card "$card_dir/" --json 2>/dev/null | grep -c '"kind":"\(key\|video\)"'
  done | awk '{ total += $1 } END { print total + 0 }'
}

# The index's first sector: the daemon reads its header there when it starts.
index_sector() {
  awk '$1 == "index000.bin" { print int($2 / 512) }' "$extents"
}

# The FAT entry of the cluster 2 MiB past where the current media file is
# being written: "OFFSET ORIGINAL_HEX" in the FAT's first copy.
fat_entry_ahead() {
  local current data first
  set -- $("$tool" info --card "$card_dir/" --json | head -1 | tr ',' '\n' | sed -n 's/"current_file"://p') ""
  current=$1
  data=$("$tool" info --card "$card_dir/" --json | grep "\"file\":$current," | sed -n 's/.*"data_size":\([0-9]*\).*/\1/p')
  first=$(awk -v n="$(printf 'hi%06d.mp4' "$current")" '$1 == n { print $2 }' "$extents")
  # cluster = 2 + (byte offset - data start) / cluster size
  awk -v first="$first" -v data="${data:-0}" -v layout="$layout" 'BEGIN {
    split(layout, l, " ")  # fat_offset data_offset cluster_bytes
    cluster = 2 + int((first + data + 2097152 - l[2]) / l[3])
    printf "%d %08x\n", l[1] + 4 * cluster, cluster + 1 }'
}

put_le32() {  # OFFSET HEX: four little-endian bytes into the card's block device
  printf "$(echo "$2" | sed 's/\(..\)\(..\)\(..\)\(..\)/\\x\4\\x\3\\x\2\\x\1/')" |
    dd of=/dev/mapper/card bs=1 seek="$1" conv=notrunc,fsync status=none
}

# Starts the daemon again on a cold cache: what it reads at start comes
# from the card.
restart_cold() {  # CASE
  kill -TERM "$daemon"
  wait "$daemon"
  card_unmount
  card_mount
  start_daemon "$1"
  echo "${EPOCHREALTIME/./}" >"$out/$1.restarted"
}

fail_card() {  # CASE
  case $1 in
    flakey) swap_table "0 $size flakey /dev/ubda 0 1 2 1 error_writes" ;;
    dust)
      swap_table "0 $size dust /dev/ubda 0 512"
      local bad s
      bad=$(index_sector)
      for s in 0 1 2 3 4 5 6 7; do dmsetup message card 0 addbadblock $((bad + s)) >/dev/null; done
      dmsetup message card 0 enable
      restart_cold "$1"
      ;;
    readonly)
      # The kernel finds the broken cluster chain when it walks it again
      # after the restart, and sets the file system read-only.
      set -- $(fat_entry_ahead) "$1"
      echo "$1 $2" >"$out/readonly.entry"
      put_le32 "$1" 00000000
      restart_cold "$3"
      ;;
    pulled)
      swap_table "0 $size error"
      rm -f "$card_present"
      umount -l "$card_dir"
      ;;
    error) swap_table "0 $size error" ;;
  esac
}

mend_card() {  # CASE
  case $1 in
    flakey) swap_table "$linear" ;;
    dust) dmsetup message card 0 clearbadblocks ;;
    readonly)
      read -r offset original <"$out/readonly.entry"
      put_le32 "$offset" "$original"
      mount -o remount,rw "$card_dir"
      ;;
    pulled)
      swap_table "$linear"
      card_mount
      ;;
    error)
      swap_table "$linear"
      grep -q " $card_dir vfat ro[ ,]" /proc/mounts && mount -o remount,rw "$card_dir"
      ;;
  esac
}

# sample_status CASE: the daemon's published state every 0.1 s, as
# "US STATE FRAMES_LOST MOUNT" lines in OUT/CASE.status (MOUNT: rw, ro or
# none), until killed.
sample_status() {
  local file=$AVRECORD_ROOT/tmp/avrecord-status.json json state lost mount dev dir type options rest
  local pattern='"state":"([^"]*)".*"frames_lost":([0-9]*)'
  while :; do
    json=$(<"$file") 2>/dev/null
    state=- lost=0 mount=none
    [[ $json =~ $pattern ]] && state=${BASH_REMATCH[1]} lost=${BASH_REMATCH[2]}
    while read -r dev dir type options rest; do
      [ "$dir" = "$card_dir" ] && mount=${options%%,*}
    done </proc/mounts
    echo "${EPOCHREALTIME/./} $state $lost $mount"
    sleep 0.1
  done >>"$out/$1.status"
}

# status_figures CASE FAILED_US MENDED_US: "STATUS_CHANGE RESUMED LOST" in
# seconds (one decimal) from the samples; the read-only case's fault is the
# moment the kernel set the file system read-only, the flakey case's the end
# of its first second of working I/O, the dust case's the daemon's restart
# (it meets the bad sectors when it reads the index).
status_figures() {
  local restarted
  restarted=$(cat "$out/$1.restarted" 2>/dev/null)
  awk -v failed="$2" -v mended="$3" -v name="$1" -v restarted="${restarted:-0}" '
    BEGIN { if (name == "dust") failed = restarted }
    NF < 4 { next }
    # A file system the kernel sets read-only fails when it does so.
    name == "readonly" && $1 >= failed && $4 == "ro" && !seen { failed = $1; seen = 1 }
    name == "readonly" && !seen { next }
    # dm-flakey starts with its second of working I/O.
    name == "flakey" && !seen { failed += 1e6; seen = 1 }
    $1 >= failed && change == "" && $2 ~ /^(card-failing|card-read-only|no-card|index-invalid)$/ {
      change = ($1 - failed) / 1e6 }
    $1 >= mended && change != "" && resumed == "" && $2 == "recording" { resumed = ($1 - mended) / 1e6 }
    { lost = $3 }
    END { printf "%s %s %s\n", change == "" ? -1 : sprintf("%.1f", change),
          resumed == "" ? -1 : sprintf("%.1f", resumed), lost + 0 }' "$out/$1.status"
}

# start_daemon CASE: AVRecord, its log appended to the case's log.
start_daemon() {
  "$AVRECORD_BUILD_DIR/record/AVRecord" 2>>"$out/$1.log" &
  daemon=$!
}

# cpu_over PID SECONDS: the daemon's CPU use in percent of one core.
cpu_over() {
  local first last
  read -r _ first < <(ticks "$1")
  sleep "$2"
  read -r _ last < <(ticks "$1")
  echo $(((last - first) / $2))
}

# record_on CASE SECONDS: lets the daemon record on. A card loss makes it
# leave (status 0, after its exit line) once the card is back; the camera
# starts it again, and so does this. Sets left (1 when it left so) and
# crashed (1 when it ended any other way).
record_on() {
  local end=$((SECONDS + $2)) status
  while [ $SECONDS -lt $end ]; do
    if ! kill -0 "$daemon" 2>/dev/null; then
      wait "$daemon"
      status=$?
      if [ $status -eq 0 ] && grep -q "RecordStop AVRecord exit" "$out/$1.log"; then left=1; else crashed=1; fi
      start_daemon "$1"
      end=$((SECONDS + $2))
    fi
    sleep 0.5
  done
}

run_case() {  # CASE
  local name=$1 since first last failed mended code wait=5 baseline
  left=0 crashed=0
  # Without flushes of its own the card sees the recording only once the
  # kernel's flusher writes it back.
  [ "$name" = flakey ] && [ "${SYNC_SECONDS:-1}" = 0 ] && wait=$before
  sleep 1  # this case's sections start after the earlier cases' ones
  since=$(date +%s)
  : >"$out/$name.log"
  start_daemon "$name"
  for ((tries = 0; tries < 600; tries++)); do grep -q "Now RotateAngle" "$out/$name.log" && break; sleep 0.1; done
  first=$(published)
  sleep "$wait"
  baseline=$(cpu_over "$daemon" 3)
  lines=$(wc -l <"$out/$name.log")
  sample_status "$name" &
  sampler=$!
  failed=$(date +%s)
  failed_us=${EPOCHREALTIME/./}
  fail_card "$name"
  watch_fault "$daemon" "$fault" "$name"
  logged=$(tail -n +$((lines + 1)) "$out/$name.log" | grep -c -e 'fail' -e 'NO SDCARD')
  dmesg | tail -30 >"$out/$name.dmesg"
  mend_card "$name"
  mended=$(date +%s)
  mended_us=${EPOCHREALTIME/./}
  echo "$failed $mended" >"$out/$name.window"
  record_on "$name" "$after"
  kill "$sampler"
  wait "$sampler" 2>/dev/null
  last=$(published)
  kill -TERM "$daemon"
  wait "$daemon"
  code=$?
  sync
  card_unmount
  card_mount
  "$tool" check --card "$card_dir/" --json >"$out/$name.check" 2>/dev/null
  "$tool" check --frames --card "$card_dir/" --json >"$out/$name.frames" 2>/dev/null
  echo "$name $((last - first)) $(readable "$name" "$since") $baseline $(cat "$out/$name.cpu") $logged" \
    "$left $crashed $code $(recorded_after "$name" "$since" "$mended")" \
    "$(status_figures "$name" "$failed_us" "$mended_us")" >>"$out/cases"
}

# 1 when a section of the case ends at least 2 s after the card came back.
recorded_after() {  # CASE SINCE MENDED
  "$tool" search --from 1970-01-02T00:00:00 --to 2100-01-01T00:00:00 --card "$card_dir/" --json 2>/dev/null |
    sed -n 's/^{"name":"[^"]*","start":\([0-9]*\),"end":\([0-9]*\),.*/\1 \2/p' |
    awk -v since="$2" -v mended="$3" '$1 >= since && $2 >= mended + 2 { found = 1 } END { print found + 0 }'
}

"$sim" run --video0 "$samples/h264_1080p.h264" --video1 "$samples/h264_360p.h264" \
  --video2 "$samples/h265_720p.h265" 2>"$out/sim.err" &
for ((tries = 0; tries < 100; tries++)); do "$sim" status >/dev/null 2>&1 && break; sleep 0.1; done
for name; do
  run_case "$name"
done
card_unmount
