#!/usr/bin/env bash
# The bash completion of kxq and rplq, run as bash runs it: each row is a command line typed up
# to the cursor and the replies expected, with queue managers and queues made by the real kxq.
#
#   completion_test.sh KXQ COMPLETION_DIR [SOURCE_DIR]
#
# KXQ is the kxq program, COMPLETION_DIR holds the completion files (the source tree's or an
# installed one). With SOURCE_DIR, the message type names completed for rplq --type are checked
# against the decoder's table.
set -u
kxq=$(realpath "$1")
completions=$(realpath "$2")
source_dir=${3:+$(realpath "$3")}
bin=$(dirname "$kxq")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KX_DATA_PATH=$work/data HOME=$work/home
unset RPLUSEKXCLIENT KXCLIENTCONF KXSERVER
mkdir -p "$HOME" "$work/cwd/outdir" && touch "$work/cwd/one.msg" "$work/cwd/two.msg"
cd "$work/cwd" || exit 1
for cmd in "create-qmgr QM1" "create-qmgr QM2" "create-queue QM1 RECVQ" "create-queue QM1 SENDQ" \
  "create-queue QM1 ADMINQ" "create-queue QM2 OTHER.Q"; do
  "$kxq" $cmd >/dev/null || { echo "setup failed: kxq $cmd"; exit 1; }
done

. "$completions/kxq" || exit 1
# An installation without rplq has no completion for it.
have_rplq=0
if [[ -f $completions/rplq ]]; then
  . "$completions/rplq" || exit 1
  have_rplq=1
fi

failures=0
# complete LINE: fills COMPREPLY as bash would for LINE typed up to the cursor. Words are split
# at blanks (a trailing blank starts an empty word) and at equals signs, as COMP_WORDBREAKS does
# ("--oenc=UT" is "--oenc" "=" "UT"; a line ending in "=" completes the word "=").
complete_line() {
  local line=$1 word part
  local -a raw words=()
  read -r -a raw <<<"$line"
  [[ $line == *" " ]] && raw+=("")
  for word in "${raw[@]}"; do
    [[ -z $word ]] && words+=("")
    while [[ $word == *=* ]]; do
      part=${word%%=*}
      [[ -n $part ]] && words+=("$part")
      words+=("=")
      word=${word#*=}
    done
    [[ -n $word ]] && words+=("$word")
  done
  COMP_WORDS=("${words[@]}")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_LINE=$line
  COMP_POINT=${#line}
  COMPREPLY=()
  local fn
  case ${COMP_WORDS[0]##*/} in
    kxq) fn=_kxq ;;
    rplq) fn=_rplq ;;
  esac
  $fn
}

# check LINE EXPECTED: the replies, sorted and joined by blanks, must read EXPECTED.
check() {
  local line=$1 expected=$2 got
  complete_line "$line"
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ')
  got=${got% }
  got=${got# }
  if [[ $got != "$expected" ]]; then
    echo "FAIL: '$line'"
    echo "  expected: $expected"
    echo "  got:      $got"
    failures=$((failures + 1))
  fi
}

K=$bin/kxq
R=$bin/rplq
commands="--help --version browse clear create-qmgr create-queue delete-qmgr delete-queue dump get list load put"

# kxq: commands, queue managers from the data directory, queues from `kxq list`, option values.
check "$K " "$commands"
check "$K cre" "create-qmgr create-queue"
check "$K --v" "--version"
check "$K list " "QM1 QM2"
check "$K delete-qmgr QM" "QM1 QM2"
check "$K create-qmgr " ""
check "$K clear QM1 " "ADMINQ KX.DEAD.LETTER RECVQ SENDQ"
check "$K dump QM1 S" "SENDQ"
check "$K browse QM2 " "KX.DEAD.LETTER OTHER.Q"
check "$K create-queue QM1 " ""
check "$K delete-queue QM9 " ""
check "$K put QM1 RECVQ --format K" "KXHRF2 KXSTR"
check "$K put QM1 RECVQ --c" "--ccsid --correlid"
check "$K put QM1 RECVQ --ccsid 37 " "one.msg outdir two.msg"
check "$K put QM1 RECVQ --ccsid 37 t" "two.msg"
check "$K put QM1 RECVQ --priority " ""
check "$K get QM1 RECVQ --to " "outdir"
check "$K get QM1 RECVQ --" "--count --to"
check "$K load QM1 RECVQ o" "one.msg outdir"
check "$K list QM1 " ""

# rplq: options anywhere, --opt=value and --opt value, queue manager then queue.
((have_rplq)) && {
check "$R --j" "--json"
check "$R --s" "--since --sub --summary"
check "$R " "QM1 QM2"
check "$R --json QM1 " "ADMINQ KX.DEAD.LETTER RECVQ SENDQ"
check "$R QM1 --summary R" "RECVQ"
check "$R --count 5 QM2 " "KX.DEAD.LETTER OTHER.Q"
check "$R --count=5 QM2 " "KX.DEAD.LETTER OTHER.Q"
check "$R --where ORDER_ID=1234567 QM1 S" "SENDQ"
check "$R --where=ID=5 --from 3 QM1 A" "ADMINQ"
check "$R QM1 RECVQ " ""
check "$R --oenc UTF-1" "UTF-16BE UTF-16LE"
check "$R --oenc=IBM" "IBM037 IBM1047 IBM500"
check "$R --oenc=" "$(printf '%s\n' "${_rplq_encodings[@]}" | sort | tr '\n' ' ' | sed 's/ $//')"
check "$R --type RPLKX_TRANS_MSG,RPLKX_LO" "RPLKX_TRANS_MSG,RPLKX_LOADDONE_RCVD RPLKX_TRANS_MSG,RPLKX_LOB_MSG"
check "$R --type=RPLKX_XF_" "RPLKX_XF_ACK_MSG RPLKX_XF_HEARTBEAT_MSG RPLKX_XF_MSG"
check "$R -o t" "two.msg"
check "$R --since " ""
}

# Client mode: queue managers are the names of the client configuration file.
printf '# queue manager  server\nPROD.QM  10.1.2.3:6379 password=x\n\nQA.QM [::1]:6380\n*  127.0.0.1:6379\n' >"$work/client.conf"
RPLUSEKXCLIENT=true KXCLIENTCONF=$work/client.conf check "$K list " "PROD.QM QA.QM"
((have_rplq)) && RPLUSEKXCLIENT=TRUE KXCLIENTCONF=$work/client.conf check "$R " "PROD.QM QA.QM"
RPLUSEKXCLIENT=TRUE KXCLIENTCONF=$work/missing.conf check "$K list " ""

# Without '=' in COMP_WORDBREAKS the whole word is replaced, so replies keep the option.
if ((have_rplq)); then
saved=$COMP_WORDBREAKS
COMP_WORDBREAKS=${COMP_WORDBREAKS//=/}
COMP_WORDS=("$R" "--oenc=IBM10")
COMP_CWORD=1
_rplq
[[ "${COMPREPLY[*]}" == "--oenc=IBM1047" ]] || { echo "FAIL: unsplit --oenc=IBM10 gave '${COMPREPLY[*]}'"; failures=$((failures + 1)); }
COMP_WORDBREAKS=$saved
fi

# The type names offered are the decoder's.
if [[ -n $source_dir ]] && ((have_rplq)); then
  decoder=$(sed -n 's/^ *{[A-Za-z0-9]*, "\([A-Z0-9_]*\)",.*$/\1/p' \
    "$source_dir/qmsg/compact.cpp" | sort | tr '\n' ' ')
  offered=$(printf '%s\n' "${_rplq_types[@]}" | sort | tr '\n' ' ')
  if [[ $decoder != "$offered" ]]; then
    echo "FAIL: rplq --type names differ from the type table of qmsg/compact.cpp"
    diff <(tr ' ' '\n' <<<"$decoder") <(tr ' ' '\n' <<<"$offered")
    failures=$((failures + 1))
  fi
fi

if ((failures)); then
  echo "$failures completion case(s) failed"
  exit 1
fi
((have_rplq)) && echo "completion: all cases of kxq and rplq passed" || echo "completion: all cases of kxq passed"
