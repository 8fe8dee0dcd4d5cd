# Runs inside the real-card VM for the counterfeit-card lane: a 4 GiB
# device-mapper card whose four quarters map onto the same 1 GiB of
# /dev/ubda, and an honest 4 GiB card linear over /dev/ubdb, each
# formatted by the card tool. OUT/fake and OUT/honest: "STATUS MILLISECONDS"
# of the format; OUT/*.err its messages.
out=$1
tool=$AVRECORD_BUILD_DIR/apps/avrecord-card/avrecord-card
mkdir -p "$out" || exit 1
quarter=$(blockdev --getsz /dev/ubda)
table=
for q in 0 1 2 3; do table+="$((q * quarter)) $quarter linear /dev/ubda 0"$'\n'; done
load_module dm-mod || exit 1
dmsetup create fake --table "$table" && dmsetup mknodes fake || exit 1
fake=/dev/mapper/fake
honest=$(dm_create honest "0 $(blockdev --getsz /dev/ubdb) linear /dev/ubdb 0") || exit 1

format() {  # NAME DEVICE
  local start rc
  start=$(date +%s%N)
  "$tool" format "$2" --init >"$out/$1.out" 2>"$out/$1.err"
  rc=$?
  echo "$rc $((($(date +%s%N) - start) / 1000000))" >"$out/$1"
}
format fake "$fake"
format honest "$honest"
sync
dmsetup remove fake
dmsetup remove honest
