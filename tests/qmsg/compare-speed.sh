#!/usr/bin/env bash
# The compact figure of the benchmark, old and new rplqmfmt side by side in one run: the bench
# traffic (TRANSACTIONS transactions of 10 rows, default 25000) is browsed REPS times (default
# 5) in turn by the bare browse, the old and the new formatter and rplq's JSON rendering, all to
# /dev/null; the medians and each one's ratio to the bare browse are printed.
#
#   tests/qmsg/compare-speed.sh OLD_DIR NEW_BUILD_DIR [TRANSACTIONS] [REPS]
set -euo pipefail
old=$(cd "$1" && pwd)
new=$(cd "$2" && pwd)
transactions=${3:-25000}
reps=${4:-5}
work=$(mktemp -d)
trap 'KX_DATA_PATH="$work/kx" "$new/bin/kxq" delete-qmgr SPDQM >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
export KX_DATA_PATH=$work/kx
mkdir -p "$KX_DATA_PATH"
"$new/bin/kxq" create-qmgr SPDQM >/dev/null
"$new/bin/kxq" create-queue SPDQM DATA >/dev/null
"$new/bin/rplqmgen" SPDQM DATA --scenario bench --transactions "$transactions" --rows 10 >/dev/null

seconds() { local s; s=$(date +%s.%N); "$@" >/dev/null 2>&1; awk -v a="$s" -v b="$(date +%s.%N)" 'BEGIN { printf "%.4f\n", b - a }'; }
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.4f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
for ((i = 0; i < reps; i++)); do
  seconds "$new/bin/bench_browse" SPDQM DATA >>"$work/browse"
  seconds env LD_LIBRARY_PATH="$old/lib" "$old/bin/rplqmfmt" DATA SPDQM >>"$work/old"
  seconds "$new/bin/rplqmfmt" DATA SPDQM >>"$work/new"
  seconds "$new/bin/rplq" --json SPDQM DATA >>"$work/json"
done
b=$(median <"$work/browse")
for k in old new json; do
  t=$(median <"$work/$k")
  echo "compact $k: median ${t} s, ratio to the bare browse ($b s) $(awk -v t="$t" -v b="$b" 'BEGIN { printf "%.2f", t / b }')"
done
