// kxic_bench.cpp - messages per second of the client library against a Redis server: put,
// browse and drain N messages of S bytes on a queue manager of its own.
//
//   kxic_bench [COUNT [SIZE]]        (default 100000 messages of 1024 bytes; server: KXSERVER)
//
// Over TLS (KXTLS=1) the figures are named with "_tls" after them.
//
// Prints one line per figure for people and one "BENCH kxic.<name> msgs_per_s=<n>" line for
// tools.
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void line(const char* what, const char* name, long count, double secs) {
  double rate = secs > 0 ? double(count) / secs : 0.0;
  const char* tls = getenv("KXTLS");
  bool overTls = tls && strcmp(tls, "1") == 0;
  std::string label = std::string(what) + (overTls ? ", TLS" : "");
  printf("kxic %-22s %8ld msgs in %7.3f s = %9.0f msg/s\n", label.c_str(), count, secs, rate);
  printf("BENCH kxic.%s%s msgs_per_s=%.0f\n", name, overTls ? "_tls" : "", rate);
  fflush(stdout);
}

bool check(const char* what, KXLONG cc, KXLONG rc) {
  if (cc == KXCC_OK) return true;
  fprintf(stderr, "kxic_bench: %s failed: completion code %d, reason %d\n", what, int(cc),
          int(rc));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  long count = argc > 1 ? atol(argv[1]) : 100000;
  long size = argc > 2 ? atol(argv[2]) : 1024;
  if (count <= 0 || size < 0 || size > 100 * 1024 * 1024) {
    fprintf(stderr, "usage: kxic_bench [COUNT [SIZE]]\n");
    return 2;
  }
  std::string qmgr = "BENCH" + std::to_string(getpid());
  char msg[256];
  if (int32_t r = kxmCreateQmgr(qmgr.c_str(), msg, sizeof msg)) {
    fprintf(stderr, "kxic_bench: %s (reason %d)\n", msg, int(r));
    return 1;
  }
  int status = 1;
  KXLONG cc = 0, rc = 0;
  KXHCONN h = -1;
  KXHOBJ o = -1;
  char name[48];
  kxSetName(name, sizeof name, qmgr.c_str());
  std::vector<char> data(size_t(size), 'x'), buf(size_t(size) + 64);
  KXMD md = KXMD_DEFAULT;
  KXPMO pmo = KXPMO_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  KXLONG len = 0;
  auto t0 = std::chrono::steady_clock::now();
  if (kxmCreateQueue(qmgr.c_str(), "BENCH.Q", -1, msg, sizeof msg) != 0) {
    fprintf(stderr, "kxic_bench: %s\n", msg);
    goto done;
  }
  KXCONN(name, &h, &cc, &rc);
  if (!check("connect", cc, rc)) goto done;
  {
    KXOD od = KXOD_DEFAULT;
    kxSetName(od.ObjectName, sizeof od.ObjectName, "BENCH.Q");
    KXOPEN(h, &od, KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED, &o, &cc, &rc);
    if (!check("open", cc, rc)) goto done;
  }

  // Puts, each committed at once.
  t0 = std::chrono::steady_clock::now();
  for (long i = 0; i < count; ++i) {
    md = KXMD_DEFAULT;
    memcpy(data.data(), &i, std::min<size_t>(sizeof i, data.size()));
    KXPUT(h, o, &md, &pmo, KXLONG(size), data.data(), &cc, &rc);
    if (!check("put", cc, rc)) goto done;
  }
  line("put", "put", count, seconds(t0));

  // Browse from first to last.
  t0 = std::chrono::steady_clock::now();
  for (long i = 0;; ++i) {
    gmo.Options = i == 0 ? KXGMO_BROWSE_FIRST : KXGMO_BROWSE_NEXT;
    KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
    if (rc == KXRC_NO_MSG_AVAILABLE) {
      if (i != count) fprintf(stderr, "kxic_bench: browsed %ld of %ld\n", i, count);
      break;
    }
    if (!check("browse", cc, rc)) goto done;
  }
  line("browse", "browse", count, seconds(t0));

  // Drain: destructive gets outside syncpoint.
  t0 = std::chrono::steady_clock::now();
  gmo.Options = KXGMO_NO_SYNCPOINT;
  for (long i = 0;; ++i) {
    KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
    if (rc == KXRC_NO_MSG_AVAILABLE) {
      if (i != count) fprintf(stderr, "kxic_bench: drained %ld of %ld\n", i, count);
      break;
    }
    if (!check("get", cc, rc)) goto done;
  }
  line("drain", "drain", count, seconds(t0));

  // Puts and gets under syncpoint, committed every 100 messages, on a tenth of the count.
  {
    long n = std::max(count / 10, 1L);
    pmo.Options = KXPMO_SYNCPOINT;
    t0 = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
      md = KXMD_DEFAULT;
      KXPUT(h, o, &md, &pmo, KXLONG(size), data.data(), &cc, &rc);
      if (!check("put under syncpoint", cc, rc)) goto done;
      if ((i + 1) % 100 == 0 || i + 1 == n) {
        KXCMIT(h, &cc, &rc);
        if (!check("commit", cc, rc)) goto done;
      }
    }
    line("put, syncpoint", "put_syncpoint", n, seconds(t0));
    gmo.Options = KXGMO_SYNCPOINT;
    t0 = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
      KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
      if (!check("get under syncpoint", cc, rc)) goto done;
      if ((i + 1) % 100 == 0 || i + 1 == n) {
        KXCMIT(h, &cc, &rc);
        if (!check("commit", cc, rc)) goto done;
      }
    }
    line("drain, syncpoint", "drain_syncpoint", n, seconds(t0));
  }
  status = 0;

done:
  if (h != -1) KXDISC(&h, &cc, &rc);
  kxmDeleteQmgr(qmgr.c_str(), msg, sizeof msg);
  return status;
}
