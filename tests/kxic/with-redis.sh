#!/bin/bash
# with-redis.sh - runs a command against a private Redis server.
#
#   tests/kxic/with-redis.sh [--tls] COMMAND [ARG...]
#
# Starts redis-server on a free loopback port in a temporary directory (no persistence, no
# password), runs COMMAND with KXSERVER=127.0.0.1:PORT, stops the server and returns the
# command's exit status. The command also gets KXIC_REDIS_CONF, the server's configuration file,
# so that a test can stop the server (redis-cli -p PORT shutdown nosave) and start it again on
# the same port (redis-server "$KXIC_REDIS_CONF").
#
# With --tls the server also listens for TLS on a second port and wants a client certificate:
# openssl makes a CA, a server certificate for 127.0.0.1 and localhost and a client certificate
# in the temporary directory, and a second CA with its own client certificate that the server
# and the client must refuse. The command gets KXSERVER naming the TLS port with KXTLS=1,
# KXTLSCA, KXTLSCERT and KXTLSKEY, KXIC_PLAIN_PORT (the plain-text port), KXIC_TLS_PORT and
# KXIC_TLS_DIR (ca.crt, client.crt/key, other-ca.crt, other-client.crt/key, server.crt/key).
set -u

tls=""
if [ "${1:-}" = "--tls" ]; then
  tls=yes
  shift
fi

if [ $# -eq 0 ]; then
  echo "usage: $0 [--tls] COMMAND [ARG...]" >&2
  exit 2
fi
if ! command -v redis-server >/dev/null 2>&1; then
  echo "$0: redis-server is not installed (Debian package redis-server)" >&2
  exit 1
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/kxic-redis.XXXXXX") || exit 1
pidfile="$dir/redis.pid"

# make_cert NAME ISSUER SUBJECT EXTENSIONS: an EC key NAME.key and a certificate NAME.crt signed
# by ISSUER (ISSUER.crt, ISSUER.key), or self-signed as a CA when ISSUER is "-".
make_cert() {
  local name=$1 issuer=$2 subject=$3 ext=$4
  if [ "$issuer" = "-" ]; then
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
      -keyout "$dir/$name.key" -out "$dir/$name.crt" -subj "$subject" 2>/dev/null
  else
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
      -keyout "$dir/$name.key" -out "$dir/$name.csr" -subj "$subject" 2>/dev/null &&
    printf '%s\n' "$ext" > "$dir/$name.ext" &&
    openssl x509 -req -in "$dir/$name.csr" -CA "$dir/$issuer.crt" -CAkey "$dir/$issuer.key" \
      -CAcreateserial -days 2 -out "$dir/$name.crt" -extfile "$dir/$name.ext" 2>/dev/null
  fi
}

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

if [ -n "$tls" ]; then
  if ! command -v openssl >/dev/null 2>&1; then
    echo "$0: openssl is not installed (Debian package openssl)" >&2
    exit 1
  fi
  make_cert ca - "/CN=kx test CA" "" &&
  make_cert other-ca - "/CN=kx other CA" "" &&
  make_cert server ca "/CN=localhost" \
    "subjectAltName=IP:127.0.0.1,DNS:localhost
extendedKeyUsage=serverAuth" &&
  make_cert client ca "/CN=kx client" "extendedKeyUsage=clientAuth" &&
  make_cert other-client other-ca "/CN=kx other client" "extendedKeyUsage=clientAuth" || {
    echo "$0: openssl could not make the test certificates" >&2
    exit 1
  }
fi

free_port() {
  local p
  while :; do
    p=$(( ( $(od -An -N2 -tu2 /dev/urandom | tr -d ' ') % 30000 ) + 20000 ))
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { echo "$p"; return; }
  done
}

# A port nobody listens on; redis-server may still lose a race for it, so try a few.
started=""
attempt=0
while [ $attempt -lt 20 ] && [ -z "$started" ]; do
  attempt=$((attempt + 1))
  port=$(free_port)
  tls_port=""
  [ -z "$tls" ] || tls_port=$(free_port)
  [ "$tls_port" != "$port" ] || continue
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
  if [ -n "$tls" ]; then
    cat >> "$dir/redis.conf" <<CONF
tls-port $tls_port
tls-cert-file $dir/server.crt
tls-key-file $dir/server.key
tls-ca-cert-file $dir/ca.crt
tls-auth-clients yes
CONF
  fi
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

if [ -n "$tls" ]; then
  KXSERVER="127.0.0.1:$tls_port" KXTLS=1 KXTLSCA="$dir/ca.crt" KXTLSCERT="$dir/client.crt" \
    KXTLSKEY="$dir/client.key" KXIC_PLAIN_PORT=$port KXIC_TLS_PORT=$tls_port \
    KXIC_TLS_DIR="$dir" KXIC_REDIS_CONF="$dir/redis.conf" "$@"
else
  KXSERVER="127.0.0.1:$port" KXIC_REDIS_CONF="$dir/redis.conf" "$@"
fi
status=$?
exit $status
