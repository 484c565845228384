// bench_json: the browse of bench_browse with every compact message rendered as one JSON line
// to standard output, the JSON figure beside rplqmfmt's text figure. The sender's context
// comes from each message's descriptor as the formatter takes it.
//
//   bench_json QMGR QUEUE
//
// Output: the JSON lines; on standard error "bench_json: N messages, B bytes in S s".
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kx/kxc.h"
#include "qmsg/json.h"
#include "runtime/catalog.h"

namespace {

double seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

bool check(const char* what, KXLONG cc, KXLONG rc) {
  if (cc == KXCC_OK) return true;
  std::fprintf(stderr, "bench_json: %s failed, cc=%d reason=%d\n", what, int(cc), int(rc));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_json QMGR QUEUE\n");
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
  msgLogger* logger = msgLogger::create(13, 0);
  logger->loadCatalog(kRplCatalog);
  setRplLogger(logger);
  ConvMgr::init();
  ConvMgr cm(6, "bench_json");
  JsonOut out;
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
    encodingInfo enc;
    enc.setup(md.CodedCharSetId);
    enc.flags = md.Encoding == KXENC_LITTLE_ENDIAN || (md.Encoding & KXENC_INTEGER_MASK) == KXENC_INTEGER_REVERSED
                    ? kEncMachineOrder
                    : 0;
    renderCompactJson(buffer.data(), size_t(length), enc, cm, out);
    if (out.str().size() > (1u << 16)) {
      fwrite_unlocked(out.str().data(), 1, out.str().size(), stdout);
      out.clear();
    }
  }
  fwrite_unlocked(out.str().data(), 1, out.str().size(), stdout);
  std::fflush(stdout);
  KXCLOSE(h, &o, KXCO_NONE, &cc, &rc);
  KXDISC(&h, &cc, &rc);
  std::fprintf(stderr, "bench_json: %" PRIu64 " messages, %" PRIu64 " bytes in %.3f s\n", messages, bytes,
              seconds() - start);
  return 0;
}
