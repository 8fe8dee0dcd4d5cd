#!/usr/bin/env bash
# The camera bundle as a firmware team meets it: unpacked into a directory
# standing in for the camera's root, its checksums, version and sample
# settings checked, its start script run by BusyBox's sh with the static ARM
# daemon under qemu-arm (empty library path) recording from avcam-sim onto a
# directory card. A daemon that keeps exiting is started again after a
# growing pause; a killed one at once; a second start starts nothing; stop
# ends it with status 0. Needs the armhf build in build-arm/.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
arm_build="$AVRECORD_SOURCE_DIR/build-arm"
if ! grep -qs '^AVRECORD_STATIC:BOOL=ON' "$arm_build/CMakeCache.txt" ||
  ! command -v qemu-arm-static >/dev/null || ! busybox sh -c true 2>/dev/null; then
  echo "SKIP: needs the armhf build in build-arm/, qemu-arm-static and busybox"
  exit 0
fi
run_dir="$root/var/run"
init() { AVRECORD_ROOT="$root" busybox sh "$root/etc/init.d/S60avrecord" "$@"; }
# count_procs TEXT: processes whose command line holds TEXT (the bracket
# keeps grep's own command line from matching).
count_procs() { grep -las "${1%?}[${1: -1}]" /proc/[0-9]*/cmdline | wc -l; }

# 1. The bundle, unpacked as it would be onto the camera.
"$AVRECORD_SOURCE_DIR/scripts/package" --no-build --build "$arm_build" --out "$work/dist" >"$work/package.out" 2>&1 ||
  { echo "FAIL: scripts/package: $(cat "$work/package.out")"; exit 1; }
version=$(cat "$arm_build/VERSION")
mkdir -p "$root" "$work/empty"
tar -xzf "$work/dist/avrecord-$version-armhf.tar.gz" -C "$root" || fail "bundle does not unpack"
[ -f "$work/dist/avrecord-$version-armhf-debug.tar.gz" ] || fail "no debug symbols bundle"
(cd "$root" && busybox sha256sum -c -s SHA256SUMS) || fail "SHA256SUMS do not match the files"
[ "$(cat "$root/VERSION" 2>/dev/null)" = "$version" ] || fail "VERSION is not $version"
tool_version=$(qemu-arm-static -L "$work/empty" "$root/bin/avrecord-card" version)
[ "$tool_version" = "avrecord-card $version" ] || fail "bin/avrecord-card version says '$tool_version'"
sample="$root/opt/app/config/CustomTools.cfg.sample"
for key in $(sed -n 's/.*k[A-Za-z]*Key\[\] = "\([^"]*\)".*/\1/p' "$AVRECORD_SOURCE_DIR/record/record_settings.h"); do
  grep -q "^$key=" "$sample" || fail "the sample settings lack $key"
done
cp "$sample" "$root/opt/app/config/CustomTools.cfg"
mkdir -p "$root/etc/default"
cat >"$root/etc/default/avrecord" <<CONF
LOG=$log
WRAPPER="qemu-arm-static -L $work/empty"
QUICK_EXIT=3
CONF

# 2. A device without storage: the daemon leaves at once, again and again;
# the pause before each new start grows, and stop ends even a pause.
mkdir -p "$root/param"
printf '[CPLD]\nStorageCapability=1\n' >"$root/param/CPLD.conf"
init start >/dev/null || fail "start exited $?"
wait_log "starting it again in 4s" 20
init stop >/dev/null || fail "stop during a pause exited $?"
[ "$(count_procs S60avrecord)" -eq 0 ] || fail "the supervisor outlived stop"
grep -q "starting it again in 2s" "$log" || fail "no 2 s pause before the 4 s one"

# 3. Recording; a killed daemon is started again.
printf '[CPLD]\nStorageCapability=2\n' >"$root/param/CPLD.conf"
make_card 4
start_camera
: >"$log"
init start >/dev/null || fail "start exited $?"
wait_log "$recording_line" 60
head -1 "$log" | grep -q "] AVRecord $version\$" || fail "first log line is not the version: $(head -1 "$log")"
first=$(cat "$run_dir/avrecord.pid")
kill -KILL "$first"
wait_log "AVRecord exited with status 137" 10
wait_log "$recording_line" 60 2
second=$(cat "$run_dir/avrecord.pid" 2>/dev/null)
[ -n "$second" ] && [ "$second" != "$first" ] || fail "no new daemon after kill -9"

# 4. A second start starts nothing.
init start >"$work/start2.out" || fail "second start exited $?"
grep -q "already running" "$work/start2.out" || fail "second start: $(cat "$work/start2.out")"
sleep 2
[ "$(count_procs "$root/bin/AVRecord")" -eq 1 ] || fail "$(count_procs "$root/bin/AVRecord") daemons after a second start"
[ "$(cat "$run_dir/avrecord.pid")" = "$second" ] || fail "the second start replaced the daemon"
init status >/dev/null || fail "status exited $? while running"

# 5. Stop: SIGTERM, the daemon's own exit, nothing left, a consistent card.
init stop >/dev/null || fail "stop exited $?"
grep -q "RecordStop AVRecord exit!!!" "$log" || fail "the daemon did not finish its stop"
[ "$(count_procs "$root/bin/AVRecord")" -eq 0 ] || fail "a daemon outlived stop"
init status >/dev/null
[ $? -eq 3 ] || fail "status after stop is not 3"
"$card_tool" check --card "$card" >"$work/check.txt" 2>&1 || fail "index check: $(cat "$work/check.txt")"
finish
