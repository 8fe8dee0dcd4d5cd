# Shared by the end-to-end scripts (sourced, not run): the card tool, a work
# directory removed at exit, failure counting and command expectations.
tool="$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
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

# put OFFSET HEX FILE: writes the bytes given in hex at OFFSET.
put() { printf "$(sed 's/../\\x&/g' <<<"$2")" | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }

# le32 N: N as four little-endian bytes in hex.
le32() { printf '%02x%02x%02x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
