#!/bin/bash
# with-cluster.sh - runs a command against a private three-node Redis cluster.
#
#   tests/kxic/with-cluster.sh COMMAND [ARG...]
#
# Starts three redis-server nodes with cluster mode on free loopback ports in a temporary
# directory (no persistence), joins them with redis-cli --cluster create (no replicas), waits
# until every node says the cluster is ok, runs COMMAND with KXSERVER naming the first node and
# KXIC_CLUSTER_PORTS the three ports, then stops the nodes and removes the directory. Returns
# the command's exit status.
set -u

if [ $# -eq 0 ]; then
  echo "usage: $0 COMMAND [ARG...]" >&2
  exit 2
fi
for tool in redis-server redis-cli; do
  if ! command -v $tool >/dev/null 2>&1; then
    echo "$0: $tool is not installed (Debian packages redis-server and redis-tools)" >&2
    exit 1
  fi
done

dir=$(mktemp -d "${TMPDIR:-/tmp}/kxic-cluster.XXXXXX") || exit 1
ports=()

stop_nodes() {
  for pidfile in "$dir"/*/redis.pid; do
    [ -f "$pidfile" ] || continue
    pid=$(cat "$pidfile" 2>/dev/null)
    [ -n "$pid" ] && kill "$pid" 2>/dev/null
  done
  for pidfile in "$dir"/*/redis.pid; do
    [ -f "$pidfile" ] || continue
    pid=$(cat "$pidfile" 2>/dev/null)
    i=0
    while [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null && [ $i -lt 50 ]; do
      sleep 0.1
      i=$((i + 1))
    done
  done
  rm -rf "$dir"
}
trap stop_nodes EXIT
trap 'exit 130' INT TERM

# A port nobody listens on whose cluster bus port (port + 10000) is free as well.
free_port() {
  local p
  while :; do
    p=$(( ( $(od -An -N2 -tu2 /dev/urandom | tr -d ' ') % 20000 ) + 20000 ))
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null && continue
    (exec 3<>"/dev/tcp/127.0.0.1/$((p + 10000))") 2>/dev/null && continue
    for q in "${ports[@]}"; do [ "$q" = "$p" ] && continue 2; done
    echo "$p"
    return
  done
}

start_node() {
  local port=$1 d="$dir/$1"
  mkdir -p "$d"
  cat > "$d/redis.conf" <<CONF
bind 127.0.0.1
port $port
protected-mode yes
daemonize yes
pidfile $d/redis.pid
dir $d
logfile $d/redis.log
save ""
appendonly no
cluster-enabled yes
cluster-config-file $d/nodes.conf
cluster-node-timeout 5000
CONF
  redis-server "$d/redis.conf" >/dev/null 2>&1 || return 1
  local i=0
  while [ $i -lt 100 ]; do
    redis-cli -h 127.0.0.1 -p "$port" ping 2>/dev/null | grep -q PONG && return 0
    sleep 0.05
    i=$((i + 1))
  done
  return 1
}

for n in 1 2 3; do
  started=""
  for attempt in 1 2 3 4 5; do
    p=$(free_port)
    if start_node "$p"; then
      ports+=("$p")
      started=yes
      break
    fi
    rm -rf "${dir:?}/$p"
  done
  if [ -z "$started" ]; then
    echo "$0: could not start cluster node $n" >&2
    exit 1
  fi
done

nodes=()
for p in "${ports[@]}"; do nodes+=("127.0.0.1:$p"); done
if ! redis-cli --cluster create "${nodes[@]}" --cluster-replicas 0 --cluster-yes >"$dir/create.log" 2>&1; then
  echo "$0: redis-cli --cluster create failed:" >&2
  cat "$dir/create.log" >&2
  exit 1
fi
# Every node must know every slot's owner before the command starts.
i=0
while :; do
  ok=0
  for p in "${ports[@]}"; do
    redis-cli -p "$p" cluster info 2>/dev/null | grep -q "cluster_state:ok" && ok=$((ok + 1))
  done
  [ $ok -eq 3 ] && break
  i=$((i + 1))
  if [ $i -gt 200 ]; then
    echo "$0: the cluster did not become ok" >&2
    exit 1
  fi
  sleep 0.05
done

KXSERVER="127.0.0.1:${ports[0]}" KXIC_CLUSTER_PORTS="${ports[*]}" "$@"
exit $?
