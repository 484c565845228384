#!/bin/bash
# rplq end to end on generated traffic, against the local queue manager or, with
# RPLUSEKXCLIENT=true under with-redis.sh, against a queue manager on a Redis server.
#   rplq_e2e.sh BIN_DIR
# Every check names what failed; the run stops at the first one.
set -u
bin=$1
work=$(mktemp -d)
follower=""
cleanup() {
  [ -n "$follower" ] && kill "$follower" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
export KX_DATA_PATH="$work/kx"
export TZ=UTC
fail() { echo "rplq_e2e: $*" >&2; exit 1; }
rplq() { "$bin/rplq" "$@"; }
kxq() { "$bin/kxq" "$@"; }
depth() { kxq list QMR | awk -v q="$1" '$1 == q { print $2 }'; }
# Messages of an rplq or rplqmfmt text: one banner each.
banners() { grep -c '^\*\*\*\* Message number: ' "$1"; }
# The text of message N (its banner to the next one) in a full rendering, blank lines left out
# (the blank lines before a banner belong to it).
block() { awk -v n="$2" '/^\*\*\*\* Message number: / { on = ($4 == n) } on && $0 != ""' "$1"; }

kxq create-qmgr QMR >/dev/null || fail "create-qmgr"
# One queue per sender: little-endian UTF-8, big-endian UTF-8, big-endian EBCDIC.
senders=("LE:--byte-order little" "BE:--byte-order big" "EB:--byte-order big --ccsid 37")
for s in "${senders[@]}"; do
  q=${s%%:*}
  kxq create-queue QMR "$q" >/dev/null || fail "create-queue $q"
  echo "plain text before the traffic" | kxq put QMR "$q" --format KXSTR || fail "put text on $q"
  # shellcheck disable=SC2086
  "$bin/rplqmgen" QMR "$q" --scenario demo --transactions 3 ${s#*:} >/dev/null || fail "rplqmgen $q"
done

for s in "${senders[@]}"; do
  q=${s%%:*}
  n=$(depth "$q")
  # The text of every message is rplqmfmt's, banner included.
  "$bin/rplqmfmt" "$q" QMR >"$work/$q.fmt" 2>/dev/null
  rplq QMR "$q" >"$work/$q.txt" 2>"$work/$q.err" || fail "$q: rplq exited $?: $(cat "$work/$q.err")"
  cmp -s "$work/$q.fmt" "$work/$q.txt" || fail "$q: text differs from rplqmfmt's"
  [ "$(banners "$work/$q.txt")" = "$n" ] || fail "$q: $(banners "$work/$q.txt") banners for $n messages"

  # --from past the schema: the transaction's rows still carry their column names.
  trans=$(awk '/^\*\*\*\* Message number: / { n = $4 } /msgtype: *RPLKX_TRANS_MSG$/ { print n; exit }' "$work/$q.txt")
  [ -n "$trans" ] || fail "$q: no transaction in the traffic"
  rplq --from "$trans" --count=1 QMR "$q" >"$work/$q.one" || fail "$q: --from $trans"
  diff <(block "$work/$q.txt" "$trans") <(block "$work/$q.one" "$trans") >/dev/null ||
    fail "$q: message $trans alone differs from its text in the whole queue"
  grep -q 'col.colname:  ORDER_ID' "$work/$q.one" || fail "$q: rows of message $trans print without column names"

  # --type by name, short name and number selects the same messages.
  want=$(grep -c 'msgtype: *RPLKX_TRANS_MSG$' "$work/$q.txt")
  for t in RPLKX_TRANS_MSG trans_msg Trans 128 '1,128'; do
    rplq --type "$t" QMR "$q" >"$work/$q.type"
    got=$(grep -c 'msgtype: *RPLKX_TRANS_MSG$' "$work/$q.type")
    [ "$got" = "$want" ] || fail "$q: --type $t shows $got transactions of $want"
  done
  [ "$(banners "$work/$q.type")" -gt "$want" ] || fail "$q: --type 1,128 shows no schema"

  # --summary counts every message once, by type; the JSON form agrees with the table.
  rplq --summary --json QMR "$q" >"$work/$q.sum.json" || fail "$q: --summary --json"
  [ "$(jq .messages "$work/$q.sum.json")" = "$n" ] || fail "$q: summary counts $(jq .messages "$work/$q.sum.json") of $n"
  [ "$(jq '[.types[].messages] + [.other_formats[].messages] | add' "$work/$q.sum.json")" = "$n" ] ||
    fail "$q: summary rows do not add up to $n"
  [ "$(jq '.types[] | select(.msgtype == 128) | .messages' "$work/$q.sum.json")" = "$want" ] ||
    fail "$q: summary transactions differ from the text's"
  [ "$(jq .decoding_failures "$work/$q.sum.json")" = 0 ] || fail "$q: decoding failures in generated traffic"
  restarts=$(grep -c 'MAINLINE' "$work/$q.txt")
  if [ "$restarts" -gt 0 ]; then
    [ "$(jq '.types[] | select(.msgtype == 32) | .messages' "$work/$q.sum.json")" -ge 1 ] ||
      fail "$q: restart messages missing from the summary"
  fi
  rplq --summary QMR "$q" | grep -q "RPLKX_TRANS_MSG (128) *$want " || fail "$q: summary table"

  # --json: one object per message, each parsed by jq, the descriptor under "kxmd".
  rplq --json QMR "$q" >"$work/$q.jsonl" || fail "$q: --json"
  [ "$(wc -l <"$work/$q.jsonl")" = "$n" ] || fail "$q: $(wc -l <"$work/$q.jsonl") JSON lines for $n messages"
  jq -e 'has("kxmd") and (.kxmd.position | type == "number") and (has("error") | not)' "$work/$q.jsonl" >/dev/null ||
    fail "$q: a JSON line is not an object with its descriptor, or holds an error"
  [ "$(jq -r .kxmd.position "$work/$q.jsonl" | tr '\n' ' ')" = "$(seq -s ' ' 1 "$n") " ] ||
    fail "$q: JSON positions are not 1..$n"
  [ "$(jq -r 'select(.text) | .text' "$work/$q.jsonl")" = "plain text before the traffic" ] ||
    fail "$q: the text message's JSON"
  # The summary's counts are those of the export counted with jq: messages and bytes per type.
  jq -rs 'map(select(.msgtype_code != null)) | group_by(.msgtype_code) | .[] |
          "\(.[0].msgtype_code) \(length) \(map(.kxmd.length) | add)"' "$work/$q.jsonl" >"$work/$q.byjq"
  jq -r '.types[] | "\(.msgtype) \(.messages) \(.bytes)"' "$work/$q.sum.json" >"$work/$q.bysum"
  cmp -s "$work/$q.byjq" "$work/$q.bysum" || fail "$q: summary and JSON export count differently:
$(diff "$work/$q.byjq" "$work/$q.bysum")"

  # --where finds the rows that the export holds, in one command; trailing blanks of CHAR
  # values are ignored; --sub and --table narrow to the subscription's rows.
  v=$(jq -r 'select(.rows) | .rows[1].key_after.ORDER_ID // empty' "$work/$q.jsonl" | sed -n 2p)
  [ -n "$v" ] || fail "$q: no ORDER_ID in the second transaction's rows"
  jq -r --arg v "$v" 'select([(.rows[]?, .row // empty) | to_entries[] | select(.key | test("(before|after)$")) |
          .value.ORDER_ID? | select(. != null) | tostring] | index($v)) | .kxmd.position' \
     "$work/$q.jsonl" >"$work/$q.where.jq"
  [ -s "$work/$q.where.jq" ] || fail "$q: jq finds no row with ORDER_ID $v"
  for args in "--where ORDER_ID=$v" "--where=order_id=$v --sub 1" "--where ORDER_ID=$v --table SHOP.ORDERS --sub ORDERS0001"; do
    # shellcheck disable=SC2086
    rplq --json $args QMR "$q" | jq -r .kxmd.position >"$work/$q.where.rplq"
    cmp -s "$work/$q.where.jq" "$work/$q.where.rplq" || fail "$q: $args finds $(cat "$work/$q.where.rplq" | tr '\n' ' ') not $(cat "$work/$q.where.jq" | tr '\n' ' ')"
  done
  rplq --where "ORDER_ID=$v" QMR "$q" | grep -q "^\*\*\*\* Rows with ORDER_ID=$v: [0-9]" || fail "$q: the matching row is not marked"
  rplq --where "STATUS=N   " --count 1 QMR "$q" >/dev/null || fail "$q: trailing blanks of a CHAR value count"
  # The row of a spilled-row message is found as a transaction's row is, and marked as row 1.
  s=$(jq -r 'select(.row) | .row.key_after.ORDER_ID' "$work/$q.jsonl")
  [ -n "$s" ] || fail "$q: no spilled row in the traffic"
  [ "$(rplq --json --where "ORDER_ID=$s" --sub 1 QMR "$q" | jq -c '[.msgtype_code, .matched_rows]')" = "[33,[1]]" ] ||
    fail "$q: --where ORDER_ID=$s does not find the spilled row alone"
  rplq --where "ORDER_ID=$s" QMR "$q" | grep -q "^\*\*\*\* Rows with ORDER_ID=$s: 1$" ||
    fail "$q: the spilled row is not marked"
  rplq --where ORDER_ID=999999999 QMR "$q" >/dev/null
  [ $? = 1 ] || fail "$q: --where of no row does not exit 1"
  rplq --table NO.SUCH QMR "$q" >/dev/null
  [ $? = 1 ] || fail "$q: --table of no table does not exit 1"

  # Rows by operation in the summary are those of the export, the spilled row's included.
  for op in INSERT DELETE; do
    byjq=$(jq -s "[.[] | (.rows[]?, .row // empty) | select(.operation == \"$op\")] | length" "$work/$q.jsonl")
    key=$(echo "$op" | tr 'A-Z' 'a-z')
    bysum=$(jq ".subscriptions | map(.rows.$key) | add" "$work/$q.sum.json")
    [ "$byjq" = "$bysum" ] || fail "$q: $op rows: $bysum in the summary, $byjq in the export"
  done
  [ "$(jq '.subscriptions[0].table' "$work/$q.sum.json")" = '"SHOP.ORDERS"' ] || fail "$q: summary's table"
  # Transactions per subscription are the export's units of work with rows of it: a streamed
  # transaction sent in several messages is one; a message without a unit of work is one; a
  # spilled row is none (its transaction is counted by the transaction message that holds it).
  byjq=$(jq -rs '[.[] | select(.rows) | (.uow_id // .uowID // "") as $u |
          (if ($u | test("^0*$")) then "message \(.kxmd.position)" else $u end) as $t |
          .rows[] | "\(.sub_id)|\($t)"] | unique | group_by(split("|")[0] | tonumber) |
          .[] | "\(.[0] | split("|")[0]) \(length)"' "$work/$q.jsonl")
  bysum=$(jq -r '.subscriptions[] | "\(.sub_id) \(.transactions)"' "$work/$q.sum.json")
  [ -n "$bysum" ] && [ "$byjq" = "$bysum" ] || fail "$q: transactions: $bysum in the summary, $byjq in the export"
  [ "$(jq -s '[.[] | select(.msgtype_code == 130)] | length' "$work/$q.jsonl")" -gt 1 ] ||
    fail "$q: no transaction sent in several messages in the traffic"

  # --lsn: the transactions of an LSN range, by their commit LSN.
  lsns=$(jq -r 'select(.commit_LSN) | .commit_LSN' "$work/$q.jsonl")
  second=$(echo "$lsns" | sed -n 2p)
  [ "$(rplq --lsn "$second" --json QMR "$q" | jq -r .commit_LSN)" = "$second" ] || fail "$q: --lsn $second"
  [ "$(rplq --lsn "$second.." --json QMR "$q" | jq -r .commit_LSN)" = "$(echo "$lsns" | sed -n '2,$p')" ] ||
    fail "$q: --lsn $second.."
  # Commit times select compact messages: the second transaction's commit time alone.
  t=$(jq -r 'select(.commit_time) | .commit_time' "$work/$q.jsonl" | sed -n 2p)
  [ "$(rplq --since "$t" --until "$t" --json QMR "$q" | jq -r .commit_LSN)" = "$second" ] ||
    fail "$q: --since/--until $t do not select the transaction committed then"
done

# A transaction cut short: the text goes as far as it can and names the message on standard
# error, the JSON line stays valid with its "error", and the summary lists the failure.
kxq create-queue QMR CUT >/dev/null
kxq browse QMR LE --to "$work/le.raw" >/dev/null
for f in "$work"/le.raw/*.msg; do
  if [ "$(xxd -p -s 32 -l 8 "$f")$(xxd -p -s 368 -l 1 "$f")" = 434f4d504143542080 ]; then
    head -c $((364 + 120)) "$f" >"$work/cut.msg"
    break
  fi
done
[ -s "$work/cut.msg" ] || fail "no transaction to cut"
kxq put QMR CUT --raw "$work/cut.msg" || fail "put the cut transaction"
rplq QMR CUT >"$work/cut.txt" 2>"$work/cut.err" || fail "a cut transaction ends the run with $?"
grep -q '^\*\*\*\* Message number: 1$' "$work/cut.txt" || fail "the cut transaction is not shown"
[ "$(wc -l <"$work/cut.err")" = 1 ] && grep -q '^rplq: message 1: ' "$work/cut.err" ||
  fail "the cut transaction's report: $(cat "$work/cut.err")"
rplq --json QMR CUT 2>/dev/null | jq -e '.error and .kxmd.position == 1' >/dev/null ||
  fail "the cut transaction's JSON has no error member"
rplq --summary --json QMR CUT | jq -e '.decoding_failures == 1 and .failures[0].position == 1 and (.failures[0].reason | length > 0)' >/dev/null ||
  fail "the summary does not list the cut transaction"

# Text in an EBCDIC code page comes out of --json as UTF-8.
printf '\xc8\x85\x93\x93\x96\x40\xe6\x96\x99\x93\x84' | kxq put QMR EB --format KXSTR --ccsid 37 ||
  fail "put EBCDIC text"
[ "$(rplq --json --from "$(( $(depth EB) ))" QMR EB | jq -r .text)" = "Hello World" ] ||
  fail "EBCDIC text in JSON"

# The put time selects: everything since the epoch, nothing from the far future.
rplq --since 2000-01-01 QMR LE >/dev/null || fail "--since the past shows nothing"
rplq --until 2000-01-01T00:00:00+02:00 QMR LE >/dev/null
[ $? = 1 ] || fail "--until the past does not exit 1"
rplq --since=2999-01-01T00:00Z --summary QMR LE >/dev/null
[ $? = 1 ] || fail "--since the future does not exit 1"

# --msgid finds exactly the message of that MsgId, through the queue manager's match.
kxq browse QMR LE --to "$work/raw" >/dev/null || fail "browse LE"
id=$(xxd -p -s 48 -l 24 "$work/raw/0002.msg" | tr -d '\n')
rplq --msgid "$id" QMR LE >"$work/id.txt" || fail "--msgid $id"
[ "$(banners "$work/id.txt")" = 1 ] || fail "--msgid shows $(banners "$work/id.txt") messages"
rplq --msgid 00ff QMR LE >/dev/null
[ $? = 1 ] || fail "--msgid of no message does not exit 1"

# Output encodings by the names people type.
for e in UTF-8 ISO-8859-1 windows-1252 Shift_JIS IBM037 cp037; do
  rplq --oenc "$e" --count 1 QMR LE >/dev/null 2>"$work/enc.err" || fail "--oenc $e: $(cat "$work/enc.err")"
done
rplq --oenc no-such-code-page QMR LE 2>/dev/null
[ $? = 2 ] || fail "an unknown --oenc is not a usage error"

# Errors: one line in words, and the exit code of their kind.
check_error() {  # CODE PATTERN ARGS...
  local code=$1 pattern=$2
  shift 2
  rplq "$@" >/dev/null 2>"$work/e.err"
  local got=$?
  [ "$got" = "$code" ] || fail "rplq $*: exit $got, not $code"
  [ "$(wc -l <"$work/e.err")" = 1 ] || fail "rplq $*: not one line: $(cat "$work/e.err")"
  grep -Eq "$pattern" "$work/e.err" || fail "rplq $*: '$(cat "$work/e.err")' lacks '$pattern'"
}
check_error 3 '^rplq: queue manager QM9 not found.*\(2058 KXRC_Q_MGR_NAME_ERROR\)$' QM9 LE
check_error 3 '^rplq: queue NOPE not found on queue manager QMR.*\(2085' QMR NOPE
check_error 2 'unknown option --bogus' --bogus QMR LE
check_error 2 'unknown message type' --type=NOT_A_TYPE QMR LE
check_error 2 'hex digits' --msgid xyz QMR LE
check_error 2 'ISO-8601' --since yesterday QMR LE
check_error 2 'queue is missing' QMR
check_error 2 'needs a value' QMR LE --count
check_error 2 'cannot be combined' --summary --drain QMR LE
if [ "${RPLUSEKXCLIENT:-}" = true ]; then
  check_error 3 "^rplq: queue manager QM9 not found on ${KXSERVER//./\\.} \\(2058" QM9 LE
fi
rplq --version | grep -Eq '^rplq [0-9]' || fail "--version"
rplq --help | grep -q '^usage: rplq' || fail "--help"

# A reader that closes the pipe ends the run quietly.
rplq QMR LE 2>"$work/pipe.err" | head -1 >/dev/null
[ "${PIPESTATUS[0]}" = 0 ] || fail "| head -1: exit ${PIPESTATUS[0]}"
[ ! -s "$work/pipe.err" ] || fail "| head -1 reported: $(cat "$work/pipe.err")"

# A drain whose output cannot be written leaves the queue whole.
before=$(depth LE)
rplq --drain -o /dev/full QMR LE 2>"$work/full.err"
[ $? = 4 ] || fail "--drain -o /dev/full does not exit 4"
grep -q 'No space left' "$work/full.err" || fail "--drain -o /dev/full: $(cat "$work/full.err")"
[ "$(depth LE)" = "$before" ] || fail "--drain -o /dev/full removed messages: $(depth LE) of $before left"
# A drain into a reader that leaves: the first message was read, so it is gone; the run ends
# without a report (what the pipe took before the reader left cannot be known here).
rplq --drain QMR LE 2>"$work/pipe.err" | head -1 >/dev/null
[ "${PIPESTATUS[0]}" = 0 ] || fail "--drain | head -1: exit ${PIPESTATUS[0]}"
[ ! -s "$work/pipe.err" ] || fail "--drain | head -1 reported: $(cat "$work/pipe.err")"
[ "$(depth LE)" -lt "$before" ] || fail "--drain | head -1 removed nothing"

# A selective drain removes what it shows and keeps the rest in its order.
kxq browse QMR BE --to "$work/be.before" >/dev/null
rplq --drain --type trans QMR BE >"$work/be.drained" || fail "--drain --type trans"
kxq browse QMR BE --to "$work/be.after" >/dev/null
drained=$(banners "$work/be.drained")
[ "$(depth BE)" = $(( $(ls "$work/be.before" | wc -l) - drained )) ] || fail "--drain removed other messages"
rplq --type trans QMR BE >/dev/null
[ $? = 1 ] || fail "transactions left after --drain --type trans"
# The messages left are the others, in their order.
for f in "$work"/be.before/*.msg; do
  # Format "COMPACT " at 32 and type 128 at 364 + 4: a transaction, drained.
  [ "$(xxd -p -s 32 -l 8 "$f")$(xxd -p -s 368 -l 1 "$f")" = 434f4d504143542080 ] && continue
  tail -c +365 "$f" | md5sum
done >"$work/be.expected"
for f in "$work"/be.after/*.msg; do tail -c +365 "$f" | md5sum; done >"$work/be.left"
cmp -s "$work/be.expected" "$work/be.left" || fail "--drain changed the order or content of the messages left"

# --follow prints a message put after it started and ends on SIGINT with exit 0.
"$bin/rplq" --follow QMR EB >"$work/follow.txt" 2>"$work/follow.err" &
follower=$!
n=$(depth EB)
for _ in $(seq 600); do
  [ -s "$work/follow.txt" ] && [ "$(banners "$work/follow.txt")" = "$n" ] && break
  sleep 0.05
done
[ "$(banners "$work/follow.txt")" = "$n" ] || fail "--follow did not show the queue"
echo "arrived while following" | kxq put QMR EB --format KXSTR
for _ in $(seq 600); do
  grep -q 'arrived while following' "$work/follow.txt" && break
  sleep 0.05
done
grep -q 'arrived while following' "$work/follow.txt" || fail "--follow did not show the new message"
kill -INT "$follower"
wait "$follower"
code=$?
follower=""
[ "$code" = 0 ] || fail "--follow ended with $code after SIGINT"
[ ! -s "$work/follow.err" ] || fail "--follow reported: $(cat "$work/follow.err")"

echo "rplq end to end: all checks passed"
