#!/bin/bash
# tools.sh - kxq, rplqmgen and rplqmfmt put, browse and drain COUNT messages over TLS with a
# client certificate (a private server, see tests/kxic/with-redis.sh --tls) and through the
# nodes of a private three-node cluster (tests/kxic/with-cluster.sh), counting what comes back:
# nothing may be lost or duplicated.
#
#   bench/kxic/tools.sh BUILD_DIR [COUNT]          (default 10000)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:?usage: $0 BUILD_DIR [COUNT]}" && pwd)
count=${2:-10000}

# round PUT_PORT BROWSE_PORT DRAIN_PORT LABEL: one put, browse and drain, each through the
# server port given ("-": KXSERVER as it is).
cat > "${TMPDIR:-/tmp}/kxic-tools-round.$$" <<'ROUND'
set -eu
bin=$1; count=$2; label=$3; shift 3
export RPLUSEKXCLIENT=true
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$label: $*" >&2; exit 1; }
via() { local p=$1; shift; if [ "$p" = - ]; then "$@"; else KXSERVER=127.0.0.1:$p "$@"; fi; }
read -r putp browsep drainp <<<"$*"
depth() { via "$putp" "$bin/kxq" list QMT | awk '$1 == "IN" { print $2 }'; }
distinct() { md5sum "$@" | awk '{ print $1 }' | sort -u | wc -l; }
via "$putp" "$bin/kxq" create-qmgr QMT >/dev/null
via "$putp" "$bin/kxq" create-queue QMT IN >/dev/null
# rplqmgen puts one subscription message and one message per one-row transaction.
via "$putp" "$bin/rplqmgen" QMT IN --scenario bench --transactions $((count - 1)) --rows 1 >/dev/null
put=$(depth)
via "$browsep" "$bin/kxq" browse QMT IN --to "$work/browse" >/dev/null
browsed=$(ls "$work/browse" | wc -l)
browsedDistinct=$(distinct "$work"/browse/*.msg)
formatted=$(via "$browsep" "$bin/rplqmfmt" IN QMT 2>/dev/null | grep -c '^\*\*\*\* Message number:')
# Half the queue drained by kxq get, the rest by rplqmfmt -delmsg.
via "$drainp" "$bin/kxq" get QMT IN --to "$work/get" --count $((count / 2)) >/dev/null
got=$(ls "$work/get" | wc -l)
deleted=$(via "$drainp" "$bin/rplqmfmt" IN QMT -delmsg 2>/dev/null | grep -c '^\*\*\*\* Message number:')
left=$(depth)
gotIds=$(for f in "$work"/get/*.msg; do head -c 364 "$f" | md5sum; done | sort -u | wc -l)
echo "$label: put $put, browsed $browsed ($browsedDistinct distinct) and formatted $formatted, drained $got by kxq get ($gotIds distinct) + $deleted by rplqmfmt -delmsg = $((got + deleted)), left $left"
[ "$put" = "$count" ] && [ "$browsed" = "$count" ] && [ "$browsedDistinct" = "$count" ] &&
  [ "$formatted" = "$count" ] && [ $((got + deleted)) = "$count" ] && [ "$gotIds" = "$got" ] &&
  [ "$left" = 0 ] || fail "messages lost or duplicated"
via "$putp" "$bin/kxq" delete-qmgr QMT >/dev/null
ROUND
round="${TMPDIR:-/tmp}/kxic-tools-round.$$"
trap 'rm -f "$round"' EXIT

"$here/../../tests/kxic/with-redis.sh" --tls bash "$round" "$build/bin" "$count" \
  "over TLS with a client certificate" - - -
"$here/../../tests/kxic/with-cluster.sh" bash -c '
  read -r a b c <<<"$KXIC_CLUSTER_PORTS"
  for order in "$a $b $c" "$b $c $a" "$c $a $b"; do
    read -r p q r <<<"$order"
    bash "$0" "$1" "$2" "cluster: put via $p, browse via $q, drain via $r" $order || exit 1
  done' "$round" "$build/bin" "$count"
