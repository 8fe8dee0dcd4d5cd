# Shared by the end-to-end scripts (source it): the avrecord-card program,
# a work directory removed at exit with an empty card directory in it, and
# the check helpers. Call `finish NAME` at the end.
tool="$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
card="$work/card"
mkdir "$card"
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect CODE COMMAND...: runs the command, keeps stdout/stderr in $out/$err.
expect() {
  local code=$1; shift
  "$@" >"$work/out" 2>"$work/err"
  local got=$?
  out=$(cat "$work/out"); err=$(cat "$work/err")
  [ "$got" -eq "$code" ] || fail "$* exited $got, not $code (stderr: $err)"
}

# json_field NAME LINE: the value of a field of a one-line JSON object.
json_field() { sed -E "s/.*\"$1\":\"?([^,\"}]*).*/\1/" <<<"$2"; }

# put OFFSET HEX FILE: writes the bytes given in hex at OFFSET.
put() { printf "$(sed 's/../\\x&/g' <<<"$2")" | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }
# le32 N: N as four little-endian bytes in hex.
le32() { printf '%02x%02x%02x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }

finish() {
  [ "$failures" -eq 0 ] && echo "$1: all passed"
  exit "$failures"
}
