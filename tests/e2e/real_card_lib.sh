# Shared by the real-card end-to-end tests (sourced, not run): a 2 GiB card
# image from avrecord-card format, recorded onto by the daemon inside
# User-mode Linux through the kernel's vfat driver (scripts/real-card), then
# judged on the host from the image alone. Where the VM cannot start here,
# the test says why and passes.
source "$(dirname "${BASH_SOURCE[0]}")/avrecord_e2e_lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; cleanup' EXIT
real_card_probe || { echo "SKIP: $real_card_why"; exit 0; }

vm="$work/vm"
log="$vm/avrecord.log"

# real_card_record SECONDS [ARM_DAEMON]: formats the card, boots, records
# SECONDS (tests/e2e/real_card_steps.sh), unmounts and halts.
real_card_record() {
  make_samples
  truncate -s 2G "$work/card.img"
  "$card_tool" format "$work/card.img" --init >/dev/null 2>&1 || { echo "FAIL: format"; exit 1; }
  cp --sparse=always "$work/card.img" "$work/formatted.img"
  mkdir -p "$vm/root/param"
  printf '[CPLD]\nStorageCapability=2\n' >"$vm/root/param/CPLD.conf"
  local started=$SECONDS status
  AVRECORD_ARM_DAEMON=${2:-} REAL_CARD_ENV="AVRECORD_BUILD_DIR AVRECORD_SOURCE_DIR AVRECORD_ARM_DAEMON" \
    real_card_boot "$vm" "$work/card.img" "$AVRECORD_SOURCE_DIR/tests/e2e/real_card_steps.sh" "$1"
  real_card_wait 300
  status=$?
  echo "VM: recorded $1 s, halted after $((SECONDS - started)) s (status $status)"
  if [ "$status" -ne 0 ]; then
    fail "the recording in the VM ended with status $status"
    tail -20 "$vm/steps.log"
    sed -n '/as init process/,$p' "$vm/console.log" | tail -10
  fi
}

# real_card_check SECONDS: the image as a PC would find it. fsck.fat notes
# only what the format leaves on purpose; the FATs are as formatted and the
# directory changed only in time and date fields (the changes are named);
# the files read back with mtools pass the index and frame walk and hold the
# recording, frame for frame as published.
real_card_check() {
  "$AVRECORD_SOURCE_DIR/scripts/fsck-card" "$work/card.img" >"$work/fsck.txt" 2>&1 ||
    fail "fsck.fat: $(cat "$work/fsck.txt")"
  "$AVRECORD_SOURCE_DIR/scripts/fat-image" diff "$work/formatted.img" "$work/card.img" >"$work/diff.txt" 2>&1 ||
    fail "file system changed beyond times and counts: $(grep -v '^changed\|^unchanged' "$work/diff.txt")"
  sed 's/^/  /' "$work/diff.txt"
  card="$work/readback/"
  mkdir -p "$card"
  mcopy -s -n -i "$work/card.img" '::*' "$card" || fail "mcopy could not read the card back"
  "$card_tool" check --card "$card" --frames >"$work/check.txt" 2>&1 ||
    fail "check --frames: $(tail -5 "$work/check.txt")"
  # Read without mounting, the image lists the same recordings, byte for byte.
  local type
  for type in 2 4; do
    "$card_tool" search --from 0 --to 4294967295 --type $type --json --card "$card" >"$work/search-card.json"
    "$card_tool" search --from 0 --to 4294967295 --type $type --json --image "$work/card.img" >"$work/search-image.json" ||
      fail "search --image: $(cat "$work/search-image.json")"
    cmp -s "$work/search-card.json" "$work/search-image.json" || fail "search --type $type --json differs on the image"
    [ "$type" = 4 ] || [ -s "$work/search-image.json" ] || fail "search --image lists no section"
  done
  "$card_tool" check --image "$work/card.img" --frames >"$work/check-image.txt" 2>&1 ||
    fail "check --frames --image: $(tail -3 "$work/check-image.txt")"
  check_recording "$1"
  rm -rf "$card"
}
