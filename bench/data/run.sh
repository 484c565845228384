#!/bin/sh
# Data-path benchmark: generate TRANSACTIONS transactions of ROWS rows (default 100000 x 10)
# into a scratch local queue manager and format them to /dev/null with rplqmfmt, once from a
# little-endian UTF-8 sender and once from a big-endian EBCDIC (37) sender (conversion on).
#
#   bench/data/run.sh BIN_DIR [TRANSACTIONS] [ROWS]
#
# BIN_DIR holds rplqmgen, rplqmfmt and kxq. Prints messages/s, input MB/s and output MB/s.
set -eu

bin=${1:?usage: run.sh BIN_DIR [TRANSACTIONS] [ROWS]}
transactions=${2:-100000}
rows=${3:-10}
for tool in rplqmgen rplqmfmt kxq; do
  [ -x "$bin/$tool" ] || { echo "run.sh: $bin/$tool not found (build it first)" >&2; exit 2; }
done

scratch=$(mktemp -d "${TMPDIR:-/tmp}/rpl-bench-data.XXXXXX")
trap 'rm -rf "$scratch"' EXIT INT TERM
export KX_DATA_PATH="$scratch"
export TZ=UTC
qmgr=BENCHQM
queue=BENCH.DATA

"$bin/kxq" create-qmgr "$qmgr" >/dev/null
"$bin/kxq" create-queue "$qmgr" "$queue" >/dev/null

now() { date +%s.%N; }

run() {
  label=$1
  shift
  "$bin/kxq" clear "$qmgr" "$queue" >/dev/null
  t0=$(now)
  gen=$("$bin/rplqmgen" "$qmgr" "$queue" --scenario bench --transactions "$transactions" --rows "$rows" "$@")
  t1=$(now)
  # "rplqmgen: put N messages (B bytes) on QUEUE in S s"
  messages=$(echo "$gen" | sed -n 's/.*put \([0-9]*\) messages (\([0-9]*\) bytes).*/\1/p')
  inbytes=$(echo "$gen" | sed -n 's/.*put \([0-9]*\) messages (\([0-9]*\) bytes).*/\2/p')

  t2=$(now)
  "$bin/rplqmfmt" "$queue" "$qmgr" >/dev/null 2>"$scratch/err.txt"
  t3=$(now)
  # The size of the text, counted in a second pass that is not timed.
  outbytes=$("$bin/rplqmfmt" "$queue" "$qmgr" 2>/dev/null | wc -c)
  reports=$(grep -vc 'RPL0585I' "$scratch/err.txt" || true)

  awk -v l="$label" -v m="$messages" -v ib="$inbytes" -v ob="$outbytes" -v g0="$t0" -v g1="$t1" \
      -v f0="$t2" -v f1="$t3" -v r="$reports" 'BEGIN {
    g = g1 - g0; f = f1 - f0;
    printf "%-34s generate: %8.0f msg/s %7.1f MB/s (%.2f s)\n", l, m / g, ib / g / 1e6, g;
    printf "%-34s format:   %8.0f msg/s, input %7.1f MB/s, output %7.1f MB/s (%.2f s, %.0f MB in, %.0f MB out, %d reports)\n",
           l, m / f, ib / f / 1e6, ob / f / 1e6, f, ib / 1e6, ob / 1e6, r;
  }'
}

echo "rplqmfmt data-path benchmark: $transactions transactions of $rows rows"
run "little-endian UTF-8 sender" --byte-order little --ccsid 1208
run "big-endian EBCDIC (37) sender" --byte-order big --ccsid 37
