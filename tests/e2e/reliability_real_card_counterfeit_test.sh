#!/usr/bin/env bash
# Counterfeit cards under a real kernel: in User-mode Linux a device-mapper
# device claims 4 GiB whose four quarters are the same 1 GiB of flash (the
# image /dev/ubda), as cards sold with a faked capacity are made; beside it
# an honest 4 GiB device (linear over /dev/ubdb). The card tool's format
# (tests/e2e/real_card_counterfeit_steps.sh) must refuse the first with the
# capacity it really holds and leave its flash as it was, and format the
# second as ever: fsck.fat clean. The check's cost on the honest card and
# on a 64 GiB sparse image is reported (under 2 s).
# Prints "RELIABILITY counterfeit-card|cases|failures|figures".
source "$(dirname "$0")/lib.sh"
source "$AVRECORD_SOURCE_DIR/scripts/real-card"
trap 'real_card_cut; rm -rf "$work"' EXIT
real_card_probe || { echo "SKIP: $real_card_why"; exit 0; }
scripts=$AVRECORD_SOURCE_DIR/scripts

flash=$work/flash.img honest=$work/honest.img
truncate -s 1G "$flash"
truncate -s 4G "$honest"
# Something on the flash at each quarter's start and at its end, so that a
# write the refusal should not have made shows.
for at in 0 268435456 536870912 1073741312; do
  printf 'flash content at %s\n' "$at" | dd of="$flash" bs=1 seek="$at" conv=notrunc status=none
done
before=$(md5sum <"$flash")
mkdir -p "$work/vm"
REAL_CARD_DISKS=("$honest")
REAL_CARD_ENV="AVRECORD_BUILD_DIR" REAL_CARD_NO_MOUNT=1 real_card_boot "$work/vm" "$flash" "$AVRECORD_SOURCE_DIR/tests/e2e/real_card_counterfeit_steps.sh" \
  "$work/vm/out"
real_card_wait 300
status=$?
[ "$status" -eq 0 ] || fail "the VM ended with status $status: $(tail -3 "$work/vm/steps.log")"

read -r fake_rc fake_ms <"$work/vm/out/fake" 2>/dev/null
read -r honest_rc honest_ms <"$work/vm/out/honest" 2>/dev/null
[ "${fake_rc:-0}" != 0 ] || fail "the counterfeit card was formatted"
grep -q "the card claims 4096 MiB but holds only 1024 MiB" "$work/vm/out/fake.err" ||
  fail "the refusal does not name the real capacity: $(tail -2 "$work/vm/out/fake.err")"
grep -q "mkfs_vfat end" "$work/vm/out/fake.err" && fail "the formatter went on after the refusal"
[ "$(md5sum <"$flash")" = "$before" ] || fail "the refused card's flash was changed"
[ "${honest_rc:-1}" = 0 ] || fail "the honest card was refused: $(tail -2 "$work/vm/out/honest.err")"
"$scripts/fsck-card" "$honest" >"$work/fsck.txt" 2>&1 || fail "fsck.fat on the honest card: $(head -3 "$work/fsck.txt")"

# The check on a 64 GiB sparse image, against the same format with the
# check's writes already cached (its own cost is the difference).
big=$work/big.img
truncate -s 64G "$big"
start=$(date +%s%N)
"$tool" format "$big" >/dev/null 2>"$work/big.err" || fail "format of a 64 GiB image: $(tail -1 "$work/big.err")"
big_ms=$((($(date +%s%N) - start) / 1000000))
[ "$big_ms" -lt 2000 ] || fail "formatting a 64 GiB image took $big_ms ms with the check"

echo "RELIABILITY counterfeit-card|2 cases|$failures|refused_rc=${fake_rc:-?} refused_ms=${fake_ms:-?} honest_ms=${honest_ms:-?} image_64g_ms=$big_ms"
[ "$failures" -eq 0 ] && echo "counterfeit card: all passed"
exit $((failures > 0))
