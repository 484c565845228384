#!/bin/bash
# kxq, rplqmgen and rplqmfmt against a queue manager on a three-node cluster (run through
# with-cluster.sh): put, browse and drain through each node in turn (every node but one
# redirects), then the queue manager's slot moves to another node while two processes drain
# the queue; every message is taken exactly once.
#   cluster_tools.sh BIN_DIR [MESSAGES]
set -eu
bin=$1
fill=${2:-3000}
export RPLUSEKXCLIENT=true
read -r -a ports <<<"$KXIC_CLUSTER_PORTS"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "cluster_tools: $*" >&2; exit 1; }
depth() { "$bin/kxq" list QMC | awk '$1 == "IN" { print $2 }'; }

slot=$(redis-cli -p "${ports[0]}" cluster keyslot "kx:{QMC}:qmgr")
# owner PORT_OF_ANY_NODE: the port of the node that holds the slot, and its node id.
owner() {
  redis-cli -p "$1" cluster nodes | awk -v s="$slot" '{
    for (i = 9; i <= NF; i++) { split($i, r, "-"); if (r[2] == "") r[2] = r[1];
      if (s + 0 >= r[1] + 0 && s + 0 <= r[2] + 0) { split($2, a, "[:@]"); print a[2], $1 } } }'
}

export KXSERVER=127.0.0.1:${ports[0]}
"$bin/kxq" create-qmgr QMC >/dev/null
"$bin/kxq" create-queue QMC IN >/dev/null

# Through each node: a text message and generated traffic, browsed, then drained.
for p in "${ports[@]}"; do
  export KXSERVER=127.0.0.1:$p
  echo "hello through $p" | "$bin/kxq" put QMC IN --format KXSTR
  "$bin/rplqmgen" QMC IN --scenario demo --transactions 2 >/dev/null
  n=$(depth)
  [ "$n" -gt 2 ] || fail "depth through $p is '$n'"
  "$bin/rplqmfmt" IN QMC -l 1 2>"$work/err" | grep -q "hello through $p" ||
    fail "rplqmfmt through $p did not print the text message: $(cat "$work/err")"
  "$bin/kxq" browse QMC IN --to "$work/browse.$p" >/dev/null
  "$bin/kxq" get QMC IN --to "$work/get.$p" >/dev/null
  [ "$(ls "$work/browse.$p" | wc -l)" = "$n" ] || fail "browse through $p did not see $n messages"
  [ "$(ls "$work/get.$p" | wc -l)" = "$n" ] || fail "get through $p did not take $n messages"
  [ "$(depth)" = 0 ] || fail "messages left after the drain through $p"
done
echo "put, browse and drain through each of ${ports[*]}: ok"

# The slot moves while two processes drain.
export KXSERVER=127.0.0.1:${ports[0]}
"$bin/rplqmgen" QMC IN --scenario bench --transactions "$fill" --rows 1 >/dev/null
total=$(depth)
[ "$total" -ge "$fill" ] || fail "only $total messages put"
read -r src srcid <<<"$(owner "${ports[0]}")"
for p in "${ports[@]}"; do [ "$p" != "$src" ] && { dst=$p; break; }; done
dstid=$(redis-cli -p "$dst" cluster myid)

"$bin/kxq" get QMC IN --to "$work/d1" >"$work/d1.log" 2>&1 &
one=$!
KXSERVER=127.0.0.1:$dst "$bin/kxq" get QMC IN --to "$work/d2" >"$work/d2.log" 2>&1 &
two=$!
# Let both drainers take some messages first.
i=0
while [ "$(ls "$work/d1" "$work/d2" 2>/dev/null | grep -c msg)" -lt 20 ] && [ $i -lt 200 ]; do
  sleep 0.02
  i=$((i + 1))
done
redis-cli -p "$dst" cluster setslot "$slot" importing "$srcid" >/dev/null
redis-cli -p "$src" cluster setslot "$slot" migrating "$dstid" >/dev/null
taken=$(ls "$work/d1" "$work/d2" 2>/dev/null | grep -c msg || true)
[ "$taken" -lt "$total" ] || fail "the drain ended before the slot started to move"
moved=0
while :; do
  keys=$(redis-cli -p "$src" cluster getkeysinslot "$slot" 1)
  [ -n "$keys" ] || break
  # One key at a time, a pause between, so that the drainers meet the slot half moved.
  redis-cli -p "$src" migrate 127.0.0.1 "$dst" "" 0 5000 KEYS $keys >/dev/null
  moved=$((moved + 1))
  sleep 0.05
done
# Every key has moved but the slot is still migrating: commands are sent on with ASK and
# answered TRYAGAIN (their keys that do not exist count as not moved) until the slot is handed
# over. Long enough for many such rounds.
sleep 1
for p in "${ports[@]}"; do
  redis-cli -p "$p" cluster setslot "$slot" node "$dstid" >/dev/null
done
wait $one || fail "the first drainer failed: $(cat "$work/d1.log")"
wait $two || fail "the second drainer failed: $(cat "$work/d2.log")"
[ "$(owner "$src" | cut -d' ' -f1)" = "$dst" ] || fail "the slot did not move to $dst"
got1=$(ls "$work/d1" | wc -l)
got2=$(ls "$work/d2" | wc -l)
unique=$(md5sum "$work"/d1/*.msg "$work"/d2/*.msg | awk '{ print $1 }' | sort -u | wc -l)
[ $((got1 + got2)) = "$total" ] || fail "drained $got1 + $got2 of $total messages"
[ "$unique" = "$total" ] || fail "$total messages drained but only $unique distinct"
[ "$(depth)" = 0 ] || fail "messages left after the drain"
echo "slot $slot moved from $src to $dst ($moved keys) after $taken messages of a drain: $got1 + $got2 = $total messages, $unique distinct"
"$bin/kxq" delete-qmgr QMC >/dev/null
echo "cluster tools: all checks passed"
