#!/bin/bash
# run.sh - the client library's benchmark against a private loopback Redis server, in plain
# text and then over TLS with a client certificate, against the same server in the same run.
#
#   bench/kxic/run.sh BUILD_DIR [COUNT [SIZE]]     (default 100000 messages of 1024 bytes)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: $0 BUILD_DIR [COUNT [SIZE]]}
shift
# with-redis.sh --tls names the TLS port in KXSERVER and the plain-text one in KXIC_PLAIN_PORT.
exec "$here/../../tests/kxic/with-redis.sh" --tls bash -c '
  bench=$1
  shift
  env -u KXTLS -u KXTLSCA -u KXTLSCERT -u KXTLSKEY KXSERVER=127.0.0.1:$KXIC_PLAIN_PORT \
    "$bench" "$@" && "$bench" "$@"' run.sh "$build/bin/kxic_bench" "$@"
