#!/usr/bin/env bash
# The card tool's Debian package, made by CPack from this build as
# "make package" makes it: installed with dpkg into an empty root, the
# program there runs ("version", and "serve" answering with its built-in
# page and the API), its manual page renders and its bash completion knows
# the commands and their options. Its dependencies come from
# dpkg-shlibdeps: the libraries it links, each present on this machine.
set -uo pipefail
source "$(dirname "$0")/lib.sh"

if "$tool" --help | grep -q "web page is not part of this build"; then
  echo "card package: the tool is packaged with its web page only, skipped"
  exit 0
fi
cpack --config "$AVRECORD_BUILD_DIR/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 ||
  { fail "cpack: $(cat "$work/cpack.log")"; exit 1; }
deb=$(echo "$work"/package/avrecord-card_*.deb)
[ -f "$deb" ] || { fail "no package in $(ls "$work/package")"; exit 1; }
version=$(cat "$AVRECORD_BUILD_DIR/VERSION")
[[ "$deb" == *"/avrecord-card_${version//-/+}_$(dpkg --print-architecture).deb" ]] || fail "package name $deb"

depends=$(dpkg-deb -f "$deb" Depends)
for library in libavformat libavcodec libcpp-httplib libc6 libstdc++6; do
  [[ "$depends" == *"$library"* ]] || fail "Depends lacks $library: $depends"
done
for package in $(sed -E 's/ \([^)]*\)//g; s/,/ /g' <<<"$depends"); do
  dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q "install ok installed" ||
    fail "dependency $package is not installed here"
done

# An empty root with an empty package database; only this package goes in
# (its dependencies are this machine's, checked above).
root="$work/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --log="$work/dpkg.log" --force-not-root --force-depends -i "$deb" >"$work/dpkg.out" 2>&1 || fail "dpkg -i: $(cat "$work/dpkg.out")"
dpkg --root="$root" -s avrecord-card 2>/dev/null | grep -q "^Status: install ok installed" || fail "not installed"
installed="$root/usr/bin/avrecord-card"

expect 0 "$installed" version
[ "$out" = "avrecord-card $version" ] || fail "version: $out"
zcat "$root/usr/share/man/man1/avrecord-card.1.gz" >"$work/page.1"
MANWIDTH=80 man -l "$work/page.1" 2>/dev/null | tr -s ' ' | grep -qF "serve [--card DIR|--image PATH] [--recover] [--listen" ||
  fail "manual page lacks serve: $(MANWIDTH=80 man -l "$work/page.1" 2>&1 | head -20)"
complete_words() {  # WORDS...: what the completion offers for the last word
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _avrecord_card
    echo "${COMPREPLY[*]}"' _ "$root/usr/share/bash-completion/completions/avrecord-card" "$@"
}
[ "$(complete_words avrecord-card se)" = "search serve" ] || fail "completion of se: $(complete_words avrecord-card se)"
[ "$(complete_words avrecord-card serve --l)" = "--listen" ] || fail "completion of serve --l"

# The installed program serves a card: its page (built in) and the API.
card="$work/card"
mkdir "$card"
expect 0 "$installed" prealloc "$card" --media 1
"$installed" serve --card "$card" --listen 127.0.0.1:0 >"$work/serve.out" 2>"$work/serve.err" &
server=$!
for _ in $(seq 100); do grep -q "^serving" "$work/serve.out" && break; sleep 0.1; done
url=$(sed -nE 's/^serving .* at (http[^ ]+) .*/\1/p' "$work/serve.out")
if [ -n "$url" ]; then
  curl -s "$url" -o "$work/index.html"
  cmp -s "$work/index.html" "$AVRECORD_SOURCE_DIR/apps/avrecord-card/web/index.html" || fail "the page differs"
  [ "$(curl -s "${url}api/days")" = '{"days":[]}' ] || fail "days: $(curl -s "${url}api/days")"
  kill -TERM "$server"
  wait "$server" || fail "serve exited $? on SIGTERM"
else
  fail "serve did not start: $(cat "$work/serve.err")"
  kill "$server"
fi

[ "$failures" -eq 0 ] && echo "card package: all passed"
exit "$failures"
