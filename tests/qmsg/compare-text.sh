#!/usr/bin/env bash
# Before/after comparison of the compact decoder's text: an earlier build (OLD) and the current
# one (NEW) print the same queue and the same seeds, and their output must be identical.
#
#   tests/qmsg/compare-text.sh OLD_DIR NEW_BUILD_DIR [TRANSACTIONS] [PER_TYPE]
#
# OLD_DIR holds the earlier rplqmfmt, qmsg_replay and the libraries rplqmfmt loads (bin/ and
# lib/ beside each other, as a build's bin/ is); NEW_BUILD_DIR is a build directory.
#  1. rplqmgen puts the demo traffic (TRANSACTIONS transactions, default 20000: each a
#     transaction of several rows, a streamed transaction, a LOB in its own messages and the
#     schema before them; the control messages once) from a little-endian UTF-8, a big-endian
#     UTF-8 and a big-endian EBCDIC sender on one queue each; old and new rplqmfmt browse each
#     queue, stdout and stderr compared byte for byte.
#  2. qmsg_replay decodes every seed of fuzz/corpus/compact (every family at every layout
#     version from the three senders) under six run variants, repeated until each message type
#     has been decoded PER_TYPE times (default 100000), old against new, text and reports
#     compared as they stream (the text runs to gigabytes).
set -euo pipefail
old=$(cd "$1" && pwd)
new=$(cd "$2" && pwd)
transactions=${3:-20000}
perType=${4:-100000}
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'KX_DATA_PATH="$work/kx" "$new/bin/kxq" delete-qmgr CMPQM >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
export KX_DATA_PATH=$work/kx TZ=UTC
mkdir -p "$KX_DATA_PATH"
failed=0

"$new/bin/kxq" create-qmgr CMPQM >/dev/null
for sender in "little 1208" "big 1208" "big 37"; do
  set -- $sender
  queue=CMP.$1.$2
  "$new/bin/kxq" create-queue CMPQM "$queue" >/dev/null
  "$new/bin/rplqmgen" CMPQM "$queue" --scenario demo --transactions "$transactions" \
    --byte-order "$1" --ccsid "$2" >/dev/null
  LD_LIBRARY_PATH="$old/lib" "$old/bin/rplqmfmt" "$queue" CMPQM >"$work/old.out" 2>"$work/old.err" || true
  "$new/bin/rplqmfmt" "$queue" CMPQM >"$work/new.out" 2>"$work/new.err" || true
  count=$(grep -c '^\*\*\*\* Message number' "$work/new.out" || true)
  # Reports begin with the time they were written; the join line shows a memory address.
  sed -i 's/^[0-9][0-9-]*-[0-9][0-9.]* //' "$work/old.err" "$work/new.err"
  sed -i 's/^  groupMembers:  [0-9a-f]*$/  groupMembers:  (address)/' "$work/old.out" "$work/new.out"
  if cmp -s "$work/old.out" "$work/new.out" && cmp -s "$work/old.err" "$work/new.err"; then
    echo "queue $queue: $count messages, identical"
  else
    echo "queue $queue: DIFFERENT"
    diff "$work/old.out" "$work/new.out" | head -20 || true
    diff "$work/old.err" "$work/new.err" | head -10 || true
    failed=1
  fi
done

seeds=("$root"/fuzz/corpus/compact/*)
# Reports begin with their time; the peer-to-peer join line shows where the member set lies
# in memory, which differs from run to run.
stamp='s/^[0-9][0-9-]*-[0-9][0-9.]* rplqmfmt //; s/^  groupMembers:  [0-9a-f]*$/  groupMembers:  (address)/'
if cmp <("$old/bin/qmsg_replay" "$perType" "${seeds[@]}" 2>/dev/null | sed "$stamp") \
       <("$new/bin/qmsg_replay" "$perType" "${seeds[@]}" 2>"$work/new.count" | sed "$stamp"); then
  echo "seeds: $(cat "$work/new.count"), identical"
else
  echo "seeds: DIFFERENT (first difference above; rerun qmsg_replay with a small count to see it)"
  failed=1
fi
exit $failed
