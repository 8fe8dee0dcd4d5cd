#!/usr/bin/env bash
# Every avrecord-card command asked for --help or -h prints its own usage
# on standard output, exits 0 and does nothing else: a card, image or
# target named beside it is neither read nor written, and serve does not
# start serving. The manual page lists each command with its options.
set -uo pipefail
source "$(dirname "$0")/lib.sh"

root="$work/root"
mkdir -p "$root"
export AVRECORD_ROOT=$root
touch "$work/target.img" "$work/card.img" "$work/clip.h264"

# One line per command: what it would otherwise be asked to do.
table="
check --card $work/card --frames
export hi000000_000001.mp4 --image $work/card.img -o $work/out.avi
format $work/target.img --init
frames hi000000_000001.mp4 --card $work/card --es $work/out.h264
info --image $work/card.img --recover
init --card $work/card
pack $work/clip.h264 --card $work/card
prealloc $work/card --media 2
recover --image $work/card.img --write
search --from 0 --to 1 --card $work/card
serve --card $work/card --listen 127.0.0.1:0
timeline --day 2026-03-10 -o $work/out.svg --card $work/card
version --json
"

listed=$("$tool" --help | sed -nE 's/^  ([a-z]+) ?.*/\1/p' | sort)
tabled=$(awk 'NF { print $1 }' <<<"$table" | sort)
[ "$listed" = "$tabled" ] || fail "the table's commands ($tabled) are not those --help lists ($listed)"
expect 0 "$tool" -h
[ "$out" = "$("$tool" --help)" ] || fail "-h and --help differ"

state() { find "$work" -path "$work/out" -prune -o -path "$work/err" -prune -o -printf '%p %s %T@\n' | sort; }
before=$(state)
while read -r command args; do
  [ -n "$command" ] || continue
  synopsis=$("$tool" --help | grep -E "^  $command( |$)" | sed 's/^  //')
  for help in --help -h; do
    # shellcheck disable=SC2086 # the table's words are separate arguments
    expect 0 timeout 10 "$tool" "$command" $args "$help"
    [ "$out" = "usage: avrecord-card $synopsis" ] || fail "$command $help printed '$out'"
    [ -z "$err" ] || fail "$command $help wrote '$err' on standard error"
  done
done <<<"$table"
[ "$(state)" = "$before" ] || fail "a command asked for --help touched its files: $(diff <(echo "$before") <(state))"
# The value of an option is not a request for help.
expect 2 "$tool" timeline --day -h
[ -z "$out" ] || fail "timeline --day -h printed a usage"

# The manual page: every command, with each of its options.
man="$work/avrecord-card.1"
cmake -DPROGRAM="$tool" -DMAN="$man" -DCOMPLETION="$work/completion" \
  -P "$AVRECORD_SOURCE_DIR/cmake/card_docs.cmake" >/dev/null || fail "the manual page was not made"
page=$(sed 's/\\-/-/g' "$man")
for command in $listed; do
  entry=$(grep -A1 -Fx ".B $command" <<<"$page" | tail -1)
  for option in $("$tool" "$command" --help | grep -oE -- '(^| |\[|\|)(-o|--[a-z-]+)' | tr -d ' [|' | sort -u); do
    [[ " $entry " == *"$option"* ]] || fail "the manual page's $command lacks $option"
  done
done
for option in --help --card --image --json --recover; do
  grep -q -- "$option" <<<"$page" || fail "the manual page's options lack $option"
done

[ "$failures" -eq 0 ] && echo "card help: all passed"
exit $((failures > 0))
