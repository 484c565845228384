// bench_browse: the bare browse of a queue, the floor under rplqmfmt's read loop. Opens the
// queue for browsing and gets every message with the same options and the same growing
// buffer as the formatter, writing nothing; prints the count and the elapsed time.
//
//   bench_browse QMGR QUEUE
//
// Output: "bench_browse: N messages, B bytes in S s".
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kx/kxc.h"

namespace {

double seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

bool check(const char* what, KXLONG cc, KXLONG rc) {
  if (cc == KXCC_OK) return true;
  std::fprintf(stderr, "bench_browse: %s failed, cc=%d reason=%d\n", what, int(cc), int(rc));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_browse QMGR QUEUE\n");
    return 1;
  }
  const double start = seconds();
  char name[48];
  kxSetName(name, sizeof name, argv[1]);
  KXHCONN h = 0;
  KXLONG cc = 0, rc = 0;
  KXCONN(name, &h, &cc, &rc);
  if (!check("KXCONN", cc, rc)) return 2;
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, argv[2]);
  KXHOBJ o = 0;
  KXOPEN(h, &od, KXOO_BROWSE, &o, &cc, &rc);
  if (!check("KXOPEN", cc, rc)) return 2;

  KXMD md = KXMD_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = KXGMO_BROWSE_NEXT | KXGMO_NO_SYNCPOINT | KXGMO_FAIL_IF_QUIESCING;
  gmo.WaitInterval = 0;
  gmo.MatchOptions = KXMO_NONE;
  std::vector<uint8_t> buffer(4096);
  uint64_t messages = 0, bytes = 0;
  for (;;) {
    KXLONG length = 0;
    KXGET(h, o, &md, &gmo, KXLONG(buffer.size()), buffer.data(), &length, &cc, &rc);
    if (cc != KXCC_OK) {
      if (rc == KXRC_NO_MSG_AVAILABLE) break;
      if (rc == KXRC_TRUNCATED_MSG_FAILED && length >= 0) {
        buffer.resize(size_t(length) + 1);
        continue;
      }
      check("KXGET", cc, rc);
      return 2;
    }
    ++messages;
    bytes += uint64_t(length);
  }
  KXCLOSE(h, &o, KXCO_NONE, &cc, &rc);
  KXDISC(&h, &cc, &rc);
  std::printf("bench_browse: %" PRIu64 " messages, %" PRIu64 " bytes in %.3f s\n", messages, bytes,
              seconds() - start);
  return 0;
}
