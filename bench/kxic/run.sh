#!/bin/bash
# run.sh - the client library's benchmark against a private loopback Redis server.
#
#   bench/kxic/run.sh BUILD_DIR [COUNT [SIZE]]     (default 100000 messages of 1024 bytes)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: $0 BUILD_DIR [COUNT [SIZE]]}
shift
exec "$here/../../tests/kxic/with-redis.sh" "$build/bin/kxic_bench" "$@"
