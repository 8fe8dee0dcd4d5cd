#!/usr/bin/env bash
# avrecord-replay on a card image (--image) instead of a mounted card: the
# image is read through the card image reader, so the listing answers from
# the image's index; an image that is no card stops the program with the
# reason. Nothing is written to the image.
set -uo pipefail
source "$(dirname "$0")/lib.sh"
replay="$AVRECORD_BUILD_DIR/apps/avrecord-replay/avrecord-replay"
pid=
trap 'kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT

truncate -s 2G "$work/card.img"
expect 0 "$tool" format "$work/card.img" --init
sum=$(sha256sum <"$work/card.img")
"$replay" --image "$work/card.img" --rtsp-port 0 --http-port 0 >"$work/replay.log" 2>&1 &
pid=$!
for _ in $(seq 50); do
  port=$(sed -nE 's#.*http://[0-9.]+:([0-9]+)/list.*#\1#p' "$work/replay.log" | head -1)
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "${port:-}" ] || fail "the server did not start: $(cat "$work/replay.log")"
listed=$(curl -s -w ' %{http_code}' "http://127.0.0.1:${port:-0}/list")
[ "$listed" = $'[\n]\n 200' ] || fail "the empty card's listing: '$listed'"
kill "$pid"
wait "$pid" 2>/dev/null
[ "$(sha256sum <"$work/card.img")" = "$sum" ] || fail "the image changed"

truncate -s 64M "$work/other.img"
"$replay" --image "$work/other.img" --rtsp-port 0 --http-port 0 >"$work/other.log" 2>&1
status=$?
[ $status -eq 1 ] && grep -q "avrecord-replay: $work/other.img: " "$work/other.log" ||
  fail "an image that is no card: exit $status, $(cat "$work/other.log")"
[ "$failures" -eq 0 ] && echo "replay image: all checks passed"
exit $((failures > 0))
