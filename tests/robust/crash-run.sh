#!/bin/bash
# crash-run.sh - the long crash run: writers and three drainers of one queue under syncpoint,
# each role killed with SIGKILL 20 times, on the local queue manager and on Redis, then the
# count of acknowledged messages lost and committed twice (both must be 0).
#
#   tests/robust/crash-run.sh [BUILD_DIR] [KILLS]
#
# BUILD_DIR defaults to build (kx_crash_run in BUILD_DIR/bin), KILLS to 20. The Redis run goes
# through tests/kxic/with-redis.sh with the default unit timeout (15 s), so a killed drainer's
# messages come back by expiry as they would in production. Prints one CRASH line per backend;
# exits non-zero when either run lost or doubled a message.
set -u
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-build}
kills=${2:-20}
run="$build/bin/kx_crash_run"
if [ ! -x "$run" ]; then
  echo "$0: $run not found (build the kx_crash_run target first)" >&2
  exit 2
fi
status=0
"$run" --writers 2 --drainers 3 --kills "$kills" || status=1
"$here/../kxic/with-redis.sh" env RPLUSEKXCLIENT=TRUE "$run" --writers 2 --drainers 3 \
  --kills "$kills" || status=1
exit $status
