#!/usr/bin/env bash
# kill -9 loop of the daemon: AVRecord records the simulator's streams onto a
# preallocated card and is killed with SIGKILL at a random moment, 0.5-5 s
# after its start. After every kill: the index check reports nothing outside
# the media file being recorded (the torn tail of the cut section is
# allowed), the indexed frames of the cut section read back, and the card's
# file set (names and sizes) is unchanged. RELIABILITY_FULL=1 runs 200
# cycles (KILL_CYCLES), else 2 kills 2-3.5 s in.
#
# Recording never writes file-system metadata. The card is a directory of
# pre-allocated files with the file set of a 2 GiB image made by our
# formatter (fusefat loses repeated in-place writes, so the image is not
# mounted). Shown in two ways:
#   - every cycle runs under strace (when it can trace here): no card file is
#     truncated, appended to, renamed, removed, re-timed, re-moded or created;
#   - at the end the recorded files are written into the clusters of their
#     namesakes in the image: the reserved sectors, FATs and root directory
#     are byte-identical to those right after formatting, fsck.fat -n finds
#     nothing, and mtools reads index000.bin back as recorded.
# Prints "RELIABILITY kill-9-daemon|cycles|failures|figures".
source "$(dirname "$0")/avrecord_e2e_lib.sh"
source "$(dirname "$0")/reliability_lib.sh"
fat_image="$AVRECORD_SOURCE_DIR/scripts/fat-image"
cycles=2
min_ms=2000
max_ms=3500
if [ "${RELIABILITY_FULL:-0}" = 1 ]; then
  cycles=${KILL_CYCLES:-200}
  min_ms=500
  max_ms=5000
fi

make_card 4
start_camera
file_set "$card" >"$work/files.before"
image=$work/card.img
truncate -s 2G "$image"
"$card_tool" format "$image" --init >/dev/null 2>&1 || fail "format of the card image"
metadata_after_format=$("$fat_image" metadata "$image")

# Calls that change a file's size, name, existence, times or modes.
metadata_calls='?open,openat,?openat2,?creat,truncate,ftruncate,fallocate,?rename,renameat,?renameat2,?unlink'
metadata_calls+=',unlinkat,?mkdir,mkdirat,rmdir,?link,linkat,?symlink,symlinkat,?chmod,fchmod,fchmodat,?chown'
metadata_calls+=',fchown,fchownat,?lchown,?utime,?utimes,utimensat,?futimesat,setxattr,fsetxattr,lsetxattr'
metadata_calls+=',removexattr,fremovexattr,lremovexattr'
traced=0
strace -f -qq -o /dev/null true 2>/dev/null && traced=1

# start_daemon, under strace when it works here; $daemonpid is the daemon.
start_audited_daemon() {
  [ $traced -eq 1 ] && daemon_wrapper=(strace -f --seccomp-bpf -qq -y -o "$work/trace.$cycle" -e trace="$metadata_calls")
  start_daemon
  [ $traced -eq 1 ] || return 0
  tracerpid=$daemonpid
  daemonpid=
  for _ in $(seq 100); do
    daemonpid=$(pgrep -P "$tracerpid" -x AVRecord) && return
    sleep 0.02
  done
  fail "cycle $cycle: no daemon under strace"
}

# The calls of a trace that touch the card other than opening a file without
# O_TRUNC or O_APPEND; the card's file set shows that opens created nothing.
card_metadata_calls() {
  grep -F "$root/media/SDCard" "$1" | sed -E 's/^[0-9]+ +//; s/^<\.\.\. ([a-z0-9_]+) resumed>/\1(/' |
    awk '!/^open(at|at2)?\(/ || /O_TRUNC|O_APPEND/'
}

# "NAME INDEXED" of the current file's last section, or "none 0".
last_section() {
  local current
  current=$(python3 -c 'import struct,sys; print(struct.unpack_from("<I", open(sys.argv[1],"rb").read(32), 28)[0])' \
    "$card/index000.bin")
  sections | awk -v f="$current" '$1 == f { name = sprintf("hi%06d_%06d.mp4", $1, $2); n = $7 }
    END { if (name) print name, n; else print "none 0" }'
}

corrupt=0
recorded=0  # kills after which the cut section held frames
lost_list=()
card_opens=0
metadata_writes=0
tracerpid=
for ((cycle = 1; cycle <= cycles; cycle++)); do
  start_audited_daemon
  delay=$((min_ms + RANDOM % (max_ms - min_ms + 1)))
  sleep "$((delay / 1000)).$(printf '%03d' $((delay % 1000)))"
  kill -KILL "$daemonpid" 2>/dev/null
  wait "$daemonpid" ${tracerpid:+"$tracerpid"} 2>/dev/null
  daemonpid=
  if [ -n "$tracerpid" ]; then
    tracerpid=
    calls=$(card_metadata_calls "$work/trace.$cycle")
    [ -z "$calls" ] || { metadata_writes=$((metadata_writes + $(wc -l <<<"$calls"))); fail "cycle $cycle: $(head -2 <<<"$calls")"; }
    card_opens=$((card_opens + $(grep -cF "$root/media/SDCard" "$work/trace.$cycle")))
    rm -f "$work/trace.$cycle"
  fi
  current=$(python3 -c 'import struct,sys; print(struct.unpack_from("<I", open(sys.argv[1],"rb").read(32), 28)[0])' \
    "$card/index000.bin")
  "$card_tool" check --card "$card" --json >"$work/check" 2>&1
  if grep '"type":"problem"' "$work/check" | grep -qv "\"file\":$current,"; then
    corrupt=$((corrupt + 1))
    fail "cycle $cycle: $(grep '"type":"problem"' "$work/check" | grep -v "\"file\":$current," | head -2)"
  fi
  read -r name indexed < <(last_section)
  if [ "$name" != none ] && [ "$indexed" -gt 0 ]; then
    read_back=$("$card_tool" frames "$name" --card "$card" 2>/dev/null | tail -1 | sed -nE 's/^([0-9]+) frames.*/\1/p')
    lost_list+=($((indexed - ${read_back:-0})))
    recorded=$((recorded + 1))
  fi
  file_set "$card" | cmp -s - "$work/files.before" || fail "cycle $cycle: the card's file set changed"
done

# The recorded card inside the formatted image.
placed=$("$fat_image" place "$image" "$card" | sed -nE 's/^([0-9]+) files placed/\1/p')
[ "${placed:-0}" -eq "$(wc -l <"$work/files.before")" ] || fail "placed ${placed:-0} files into the image"
image_unchanged=yes
[ "$("$fat_image" metadata "$image")" = "$metadata_after_format" ] || image_unchanged=no
[ $image_unchanged = yes ] || fail "the image's reserved sectors, FATs or root directory differ from those after formatting"
"$AVRECORD_SOURCE_DIR/scripts/fsck-card" "$image" >"$work/fsck.txt" 2>&1 || fail "fsck.fat: $(head -3 "$work/fsck.txt")"
mcopy -n -i "$image" ::index000.bin "$work/index.mtools" 2>/dev/null &&
  cmp -s "$work/index.mtools" "$card/index000.bin" || fail "mtools reads another index000.bin from the image"

read -r p50 p99 < <(percentiles "${lost_list[@]}")
echo "RELIABILITY kill-9-daemon|$cycles cycles|$failures|corrupt_indexes=$corrupt sections=$(section_count)" \
  "frames_lost_per_kill_p50=$p50 p99=$p99 strace_audit=$([ $traced -eq 1 ] && echo on || echo off)" \
  "card_opens=$card_opens metadata_calls=$metadata_writes image_metadata_unchanged=$image_unchanged"
finish
