#!/usr/bin/env bash
# The camera bundle as a firmware team meets it: unpacked into a directory
# standing in for the camera's root, its checksums, version and sample
# settings checked; then its start script run by BusyBox's sh with the static
# ARM daemon under qemu-arm (empty library path) recording from avcam-sim
# (camera_bundle_steps.sh) onto a card image mounted by the real-card VM, or
# onto a directory card where the VM cannot start. The card is checked after
# the stop. Needs the armhf build in build-arm/.
source "$(dirname "$0")/avrecord_e2e_lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; cleanup' EXIT
arm_build="$AVRECORD_SOURCE_DIR/build-arm"
if ! grep -qs '^AVRECORD_STATIC:BOOL=ON' "$arm_build/CMakeCache.txt" ||
  ! command -v qemu-arm-static >/dev/null || ! busybox sh -c true 2>/dev/null; then
  echo "SKIP: needs the armhf build in build-arm/, qemu-arm-static and busybox"
  exit 0
fi
vm="$work/vm"
root="$vm/root"
card="$root/media/SDCard/"
log="$vm/avrecord.log"

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
grep -q '^\[AVRecordReplay\]' "$sample" || fail "the sample settings lack [AVRecordReplay]"
# Ports of their own: other tests may serve on this machine at the same time.
http_port=$((20000 + RANDOM % 20000))
sed -e "s/^HttpPort=.*/HttpPort=$http_port/" -e "s/^RtspPort=.*/RtspPort=$((http_port + 1))/" \
  "$sample" >"$root/opt/app/config/CustomTools.cfg"
mkdir -p "$root/etc/default"
for service in avrecord avrecord-replay; do
  cat >"$root/etc/default/$service" <<CONF
LOG=$vm/$service.log
WRAPPER="qemu-arm-static -L $work/empty"
QUICK_EXIT=3
CONF
done

# 2. The start script at work, then the card it recorded.
make_samples
if real_card_probe; then
  echo "card: an image from our formatter, mounted by the VM's vfat driver"
  truncate -s 2G "$work/card.img"
  "$card_tool" format "$work/card.img" --init >/dev/null 2>&1 || { echo "FAIL: format"; exit 1; }
  REAL_CARD_ENV="AVRECORD_BUILD_DIR AVRECORD_SOURCE_DIR" \
    real_card_boot "$vm" "$work/card.img" "$AVRECORD_SOURCE_DIR/tests/e2e/camera_bundle_steps.sh"
  real_card_wait 300 || fail "the steps in the VM ended with status $?: $(tail -30 "$vm/steps.log")"
  "$AVRECORD_SOURCE_DIR/scripts/fsck-card" "$work/card.img" >"$work/fsck.txt" 2>&1 ||
    fail "fsck.fat: $(cat "$work/fsck.txt")"
  card="$work/readback/"
  mkdir -p "$card"
  mcopy -s -n -i "$work/card.img" '::*' "$card" || fail "mcopy could not read the card back"
else
  echo "card: a directory ($real_card_why)"
  make_card 4
  REAL_CARD_WORK="$vm" AVRECORD_ROOT="$root" card_dir="${card%/}" \
    bash "$AVRECORD_SOURCE_DIR/tests/e2e/camera_bundle_steps.sh" || fail "the start script's steps failed"
fi
"$card_tool" check --card "$card" --frames >"$work/check.txt" 2>&1 || fail "check --frames: $(tail -5 "$work/check.txt")"
finish
