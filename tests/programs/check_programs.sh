#!/usr/bin/env bash
# The programs as shipped: the daemon's first log line and "avrecord-card
# version" name the build's VERSION; with --static both have no dynamic
# section entries and no interpreter, are stripped with a .debug file beside
# them, and run under the emulator with an empty library directory.
set -uo pipefail
emulator=() static=0
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=$2; shift ;;
    --daemon) daemon=$2; shift ;;
    --card-tool) card_tool=$2; shift ;;
    --emulator) emulator=("$2"); shift ;;
    --static) static=1 ;;
  esac
  shift
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/empty" "$work/root"
[ ${#emulator[@]} -eq 0 ] || emulator+=(-L "$work/empty")
fails=0
fail() { echo "FAIL: $*"; fails=$((fails + 1)); }

version=$(cat "$build/VERSION")
[ -n "$version" ] || fail "no version in $build/VERSION"

if [ $static -eq 1 ]; then
  for program in "$daemon" "$card_tool"; do
    name=$(basename "$program")
    needed=$(readelf -d "$program" | grep -c NEEDED)
    [ "$needed" -eq 0 ] || fail "$name needs shared libraries: $(readelf -d "$program" | grep NEEDED)"
    readelf -l "$program" | grep -q INTERP && fail "$name asks for a program interpreter"
    readelf -S "$program" | grep -q '\.symtab' && fail "$name is not stripped"
    readelf -S "$program" | grep -q '\.gnu_debuglink' || fail "$name does not name its .debug file"
    readelf -S "$program.debug" 2>/dev/null | grep -q '\.debug_info' || fail "$name.debug holds no debug symbols"
  done
fi

tool_line=$("${emulator[@]}" "$card_tool" version)
[ "$tool_line" = "avrecord-card $version" ] || fail "avrecord-card version says '$tool_line', VERSION says '$version'"

# The daemon's first line, in a namespace of its own (it then waits for the
# camera's other processes, which do not run here).
AVRECORD_ROOT="$work/root" unshare --ipc "${emulator[@]}" "$daemon" >"$work/daemon.log" 2>&1 </dev/null &
daemon_pid=$!
for _ in $(seq 200); do
  [ -s "$work/daemon.log" ] && break
  sleep 0.1
done
kill -KILL $daemon_pid 2>/dev/null
wait $daemon_pid 2>/dev/null
first_line=$(head -1 "$work/daemon.log")
case $first_line in
  *"] AVRecord $version") ;;
  *) fail "daemon's first log line is '$first_line', VERSION says '$version'" ;;
esac

[ $fails -eq 0 ] && echo "programs: version $version$([ $static -eq 1 ] && echo ', static and stripped')"
exit $((fails > 0))
