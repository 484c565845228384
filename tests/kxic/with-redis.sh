#!/bin/bash
# with-redis.sh - runs a command against a private Redis server.
#
#   tests/kxic/with-redis.sh COMMAND [ARG...]
#
# Starts redis-server on a free loopback port in a temporary directory (no persistence, no
# password), runs COMMAND with KXSERVER=127.0.0.1:PORT, stops the server and returns the
# command's exit status. The command also gets KXIC_REDIS_CONF, the server's configuration file,
# so that a test can stop the server (redis-cli -p PORT shutdown nosave) and start it again on
# the same port (redis-server "$KXIC_REDIS_CONF").
set -u

if [ $# -eq 0 ]; then
  echo "usage: $0 COMMAND [ARG...]" >&2
  exit 2
fi
if ! command -v redis-server >/dev/null 2>&1; then
  echo "$0: redis-server is not installed (Debian package redis-server)" >&2
  exit 1
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/kxic-redis.XXXXXX") || exit 1
pidfile="$dir/redis.pid"

stop_server() {
  if [ -f "$pidfile" ]; then
    pid=$(cat "$pidfile" 2>/dev/null)
    if [ -n "$pid" ] && kill "$pid" 2>/dev/null; then
      i=0
      while kill -0 "$pid" 2>/dev/null && [ $i -lt 50 ]; do
        sleep 0.1
        i=$((i + 1))
      done
    fi
  fi
  rm -rf "$dir"
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# A port nobody listens on; redis-server may still lose a race for it, so try a few.
started=""
attempt=0
while [ $attempt -lt 20 ] && [ -z "$started" ]; do
  attempt=$((attempt + 1))
  port=$(( ( $(od -An -N2 -tu2 /dev/urandom | tr -d ' ') % 30000 ) + 20000 ))
  if (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; then
    continue
  fi
  cat > "$dir/redis.conf" <<CONF
bind 127.0.0.1
port $port
protected-mode yes
daemonize yes
pidfile $pidfile
dir $dir
logfile $dir/redis.log
save ""
appendonly no
CONF
  rm -f "$pidfile"
  if redis-server "$dir/redis.conf" >/dev/null 2>&1; then
    i=0
    while [ $i -lt 100 ]; do
      if redis-cli -h 127.0.0.1 -p "$port" ping 2>/dev/null | grep -q PONG; then
        started=yes
        break
      fi
      sleep 0.05
      i=$((i + 1))
    done
  fi
done
if [ -z "$started" ]; then
  echo "$0: could not start redis-server (log: $dir/redis.log)" >&2
  cat "$dir/redis.log" >&2 2>/dev/null
  exit 1
fi

KXSERVER="127.0.0.1:$port" KXIC_REDIS_CONF="$dir/redis.conf" "$@"
status=$?
exit $status
