#!/usr/bin/env bash
# Before/after comparison of rplqmfmt's whole run: an earlier build (OLD) and the current one
# (NEW) read the same queues with the same options, and their standard output, standard error
# (report times cut), exit code and, after -delmsg, what is left on the queue must be identical.
#
#   tests/driver/compare-options.sh OLD_BUILD_DIR NEW_BUILD_DIR [BENCH_TRANSACTIONS]
#
# Each build directory holds bin/rplqmfmt with the middleware library it loads; NEW also gives
# kxq and rplqmgen. The queues: the bench traffic (default 3000 transactions of 10 rows), the
# demo traffic and mixed traffic of three seeds from little-endian, big-endian and EBCDIC
# senders, and a queue of text messages of growing and mixed lengths (to 6 MB) between compact
# ones. The options: none, -hex, -msghdr, -kxmd, limits, skips and -delmsg (on copies loaded
# from a dump, so every run starts from the same queue).
set -uo pipefail
old=$(cd "$1" && pwd)
new=$(cd "$2" && pwd)
benchTransactions=${3:-3000}
work=$(mktemp -d)
export KX_DATA_PATH=$work/kx TZ=UTC
mkdir -p "$KX_DATA_PATH"
kxq=$new/bin/kxq
trap '"$kxq" delete-qmgr CMPQM >/dev/null 2>&1; rm -rf "$work"' EXIT
"$kxq" create-qmgr CMPQM >/dev/null 2>&1
failed=0

# One run of a build: its outputs in $work/TAG.out, .err (report times cut) and .rc.
runOne() {
  local tag=$1 build=$2
  shift 2
  "$build/bin/rplqmfmt" "$@" >"$work/$tag.out" 2>"$work/$tag.err"
  echo $? >"$work/$tag.rc"
  sed -i 's/^[0-9][0-9-]*-[0-9][0-9.]* //' "$work/$tag.err"
  # The peer-to-peer join line shows where the member set lies in memory.
  sed -i 's/^  groupMembers:  [0-9a-f]*$/  groupMembers:  (address)/' "$work/$tag.out"
}

compareRun() {
  local queue=$1
  shift
  local what="$queue $*"
  if [[ " $* " == *" -delmsg "* ]]; then
    for side in OLD NEW; do
      "$kxq" create-queue CMPQM "CMP.$side" --max-length 999000000 >/dev/null 2>&1
      "$kxq" clear CMPQM "CMP.$side" >/dev/null 2>&1
      "$kxq" load CMPQM "CMP.$side" "$work/$queue.dump" >/dev/null 2>&1
    done
    runOne old "$old" CMP.OLD CMPQM "$@"
    runOne new "$new" CMP.NEW CMPQM "$@"
    rm -f "$work/left.OLD" "$work/left.NEW"
    for side in OLD NEW; do "$kxq" dump CMPQM "CMP.$side" "$work/left.$side" >/dev/null 2>&1; done
    if ! cmp -s "$work/left.OLD" "$work/left.NEW"; then
      echo "$what: the messages left differ"
      failed=1
    fi
  else
    runOne old "$old" "$queue" CMPQM "$@"
    runOne new "$new" "$queue" CMPQM "$@"
  fi
  for part in out err rc; do
    if ! cmp -s "$work/old.$part" "$work/new.$part"; then
      echo "$what: $part differs"
      diff "$work/old.$part" "$work/new.$part" | head -5
      failed=1
    fi
  done
}

makeQueue() {
  local queue=$1
  shift
  "$kxq" create-queue CMPQM "$queue" --max-length 999000000 >/dev/null 2>&1
  "$new/bin/rplqmgen" CMPQM "$queue" "$@" >/dev/null 2>&1
  "$kxq" dump CMPQM "$queue" "$work/$queue.dump" >/dev/null 2>&1
}

queues=(BENCH)
makeQueue BENCH --scenario bench --transactions "$benchTransactions" --rows 10
for sender in "little 1208" "big 1208" "big 37"; do
  set -- $sender
  makeQueue "DEMO.$1.$2" --scenario demo --transactions 200 --byte-order "$1" --ccsid "$2"
  queues+=("DEMO.$1.$2")
  for seed in 1 2 3; do
    makeQueue "MIXED.$1.$2.$seed" --scenario mixed --seed "$seed" --byte-order "$1" --ccsid "$2"
    queues+=("MIXED.$1.$2.$seed")
  done
done
"$kxq" create-queue CMPQM SIZES --max-length 999000000 >/dev/null 2>&1
for n in 10 4096 3000 5000 70000 100 300000 20 5000000 7 4096 6000000 1; do
  head -c "$n" /dev/zero | tr '\0' 'a' >"$work/text"
  "$kxq" put CMPQM SIZES --format KXSTR "$work/text" >/dev/null 2>&1
  "$new/bin/rplqmgen" CMPQM SIZES --scenario mixed --transactions 3 --seed "$n" >/dev/null 2>&1
done
"$kxq" dump CMPQM SIZES "$work/SIZES.dump" >/dev/null 2>&1
queues+=(SIZES)

runs=0
for queue in "${queues[@]}"; do
  for options in "" "-hex" "-msghdr" "-kxmd" "-l 0" "-l 1" "-l 7" "-l 1000 -s 5" "-s 3" \
                 "-delmsg" "-delmsg -l 9"; do
    compareRun "$queue" $options
    runs=$((runs + 1))
  done
done
if [ $failed = 0 ]; then
  echo "$runs runs over ${#queues[@]} queues: identical"
else
  echo "some runs differ"
fi
exit $failed
