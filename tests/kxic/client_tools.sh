#!/bin/bash
# kxq, rplqmgen and rplqmfmt against a remote queue manager (RPLUSEKXCLIENT=TRUE): a queue is
# created, filled with a text message and generated traffic, listed, dumped, loaded into a
# second queue byte for byte, formatted, and drained. Run through with-redis.sh.
#   client_tools.sh BIN_DIR
set -eu
bin=$1
export RPLUSEKXCLIENT=true
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "client_tools: $*" >&2; exit 1; }

"$bin/kxq" create-qmgr QMT >/dev/null
"$bin/kxq" create-queue QMT IN >/dev/null
"$bin/kxq" create-queue QMT COPY >/dev/null
echo "hello from the client" | "$bin/kxq" put QMT IN --format KXSTR
"$bin/rplqmgen" QMT IN --scenario demo --transactions 2 >/dev/null
depth=$("$bin/kxq" list QMT | awk '$1 == "IN" { print $2 }')
[ "$depth" -gt 2 ] || fail "depth of IN is '$depth'"

"$bin/kxq" dump QMT IN "$work/in.dump"
"$bin/kxq" load QMT COPY "$work/in.dump"
"$bin/kxq" browse QMT IN --to "$work/in" >/dev/null
"$bin/kxq" browse QMT COPY --to "$work/copy" >/dev/null
diff -r "$work/in" "$work/copy" >/dev/null || fail "the loaded copy differs from the original"

"$bin/rplqmfmt" IN QMT -l 1 2>/dev/null | grep -q "hello from the client" || fail "rplqmfmt did not print the text message"
"$bin/rplqmfmt" COPY QMT -delmsg >"$work/all.txt" 2>"$work/err.txt" || fail "rplqmfmt failed: $(cat "$work/err.txt")"
grep -q "RPLKX_TRANS_MSG" "$work/all.txt" || fail "no transaction message was formatted"
depth=$("$bin/kxq" list QMT | awk '$1 == "COPY" { print $2 }')
[ "$depth" = 0 ] || fail "COPY still holds $depth messages after -delmsg"
"$bin/kxq" delete-qmgr QMT >/dev/null
echo "client tools: all checks passed"
