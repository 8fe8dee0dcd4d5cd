#!/usr/bin/env bash
# avrecord-card format and prealloc: --init leaves a header mcopy can
# extract, a card too big for the index gets capped media files and still
# passes fsck.fat, a preallocated directory is a card the index tools
# accept, bad usage gives exit 2.
set -uo pipefail
source "$(dirname "$0")/lib.sh"

fsck_problems() { "$AVRECORD_SOURCE_DIR/scripts/fsck-card" "$1"; }

have_tools=1
for t in fsck.fat mdir mcopy; do command -v $t >/dev/null || have_tools=0; done
[ $have_tools -eq 1 ] || echo "note: fsck.fat or mtools missing, image checks skipped"

# A 15.5 GB card, ready to record.
truncate -s 15500000000 "$work/card.img"
expect 0 "$tool" format "$work/card.img" --init --json
[[ "$out" == *'"media_files":53,'*'"picture_files":0,"sectors_per_cluster":16,'*'"index_header":true}' ]] ||
  fail "format json: $out"
[[ "$err" == *"mkfs_vfat end !!!!!!!!!!!!!!"* ]] || fail "formatter messages: $err"
if [ $have_tools -eq 1 ]; then
  header=$(mcopy -i "$work/card.img" ::index000.bin - | head -c 36 | od -An -tx1 | tr -d ' \n')
  [ "$header" = "5349484601000000bd3900000000005000000000350000000000000000000000""55bbaa55" ] ||
    fail "index header: $header"
fi
expect 0 "$tool" format "$work/card.img" --percent 70
[[ "$out" == *"media files     37 (9630 MiB)"*"picture files   16 (4127 MiB)"*"not written (use --init)"* ]] ||
  fail "format table: $out"

# 600 GiB: more media files than the index can describe.
truncate -s 600G "$work/big.img"
expect 0 "$tool" format "$work/big.img" --json
[[ "$err" == *"media files capped at 2040"* ]] || fail "cap message: $err"
[[ "$out" == *'"media_files":2040,'* ]] || fail "capped count: $out"
if [ $have_tools -eq 1 ]; then
  problems=$(fsck_problems "$work/big.img")
  [ -z "$problems" ] || fail "fsck.fat on 600 GiB: $problems"
  [[ "$(mdir -i "$work/big.img" ::)" == *" 2044 files"* ]] || fail "mdir count on 600 GiB"
fi
rm -f "$work/big.img"

# A directory card for machines without FAT.
mkdir "$work/dir"
expect 0 "$tool" prealloc "$work/dir" --media 2 --pictures 1 --json
[ "$out" = "{\"dir\":\"$work/dir\",\"media_files\":2,\"picture_files\":1,\"files\":7}" ] || fail "prealloc: $out"
expect 0 "$tool" check --card "$work/dir"
expect 0 "$tool" info --card "$work/dir" --json
[[ "$out" == *'"file_sum":2,'* ]] || fail "info after prealloc: $out"

# Bad usage and card problems.
expect 2 "$tool" format
expect 2 "$tool" format "$work/card.img" --percent 101
expect 2 "$tool" format "$work/card.img" --percent 7x
expect 1 "$tool" format "$work/missing.img"
[[ "$err" == *"can't open '$work/missing.img'"*"avrecord-card format: formatting '$work/missing.img' failed" ]] ||
  fail "missing image: $err"
expect 1 "$tool" format "$work/dir"
expect 2 "$tool" prealloc "$work/dir"
expect 2 "$tool" prealloc "$work/dir" --media 2041
expect 1 "$tool" prealloc "$work/card.img/sub" --media 1

[ "$failures" -eq 0 ] && echo "card format: all passed"
exit $((failures > 0))
