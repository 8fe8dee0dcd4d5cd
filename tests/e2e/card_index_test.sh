#!/usr/bin/env bash
# avrecord-card init, info and check on a card prepared in a plain
# directory: a fresh index is consistent, damage is reported with exit 1,
# a missing index and bad usage give their exit codes.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
card="$work/card"
mkdir "$card"

expect 1 "$tool" init --card "$card"
[[ "$err" == *"not a prepared card"* ]] || fail "init on an empty directory: $err"

expect 0 "$tool" prealloc "$card" --media 3
# Leftovers of an earlier use: a file record that init must clear.
put $((0x430)) 52464846 "$card/index000.bin"
expect 0 "$tool" init --card "$card" --json
[ "$out" = "{\"card\":\"$card/\",\"media_files\":3}" ] || fail "init output: $out"
[ "$(od -An -tx1 -j$((0x430)) -N4 "$card/index000.bin" | tr -d ' ')" = 00000000 ] || fail "init kept an old file record"

expect 0 "$tool" info --card "$card" --json
[[ "$out" == '{"type":"header",'*'"file_sum":3,"file_used":0,"current_file":0,'*'"free_mib":768'* ]] ||
  fail "info header: $out"
[ "$(wc -l <<<"$out")" -eq 1 ] || fail "info lists files on a fresh card: $out"

expect 0 "$tool" check --card "$card"
[[ "$out" == *"index consistent"* ]] || fail "check on a fresh card: $out"

# File 1 in use: "RFHF", number 1, start 1700000000, end 1700000060, 1000
# bytes, type 1, one section, no key frames; its section record is missing.
put $((0x430)) 52464846$(le32 1)$(le32 1700000000)$(le32 1700000060)$(le32 1000)$(le32 1)$(le32 1)$(le32 0) "$card/index000.bin"
expect 0 "$tool" info --card "$card"
grep -q '^ *1  2023-11-14 22:13:20  2023-11-14 22:14:20 *1000 *1 *0 *1$' <<<"$out" || fail "info row: $out"
expect 1 "$tool" check --card "$card" --json
[[ "$out" == *'{"type":"problem","file":1,"section":1,"text":"no section record'* ]] || fail "check json: $out"
[[ "$err" == "avrecord-card check: 1 problems in the index" ]] || fail "check stderr: $err"

put 0 00000000 "$card/index000.bin"
expect 1 "$tool" info --card "$card"
[[ "$err" == *"no valid index header"* ]] || fail "info on a damaged header: $err"
expect 1 "$tool" check --card "$work/nowhere"
expect 2 "$tool" check --card "$card" extra
expect 2 "$tool" info --card

[ "$failures" -eq 0 ] && echo "card index: all passed"
exit "$failures"
