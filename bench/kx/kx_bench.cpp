// kx_bench.cpp - throughput of the local queue manager: put (with and without syncpoint), browse
// and drain of 100,000 messages of 1 KiB, in a private data directory.
//
// Prints one line per figure for people and one "BENCH kx.<name> msgs_per_s=<n>" line for tools.
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace {

constexpr int kMessages = 100000;
constexpr int kLength = 1024;
constexpr int kUnitOfWork = 1000;

double seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

bool check(const char* what, KXLONG cc, KXLONG rc) {
  if (cc == KXCC_OK) return true;
  fprintf(stderr, "kx_bench: %s failed, cc=%d reason=%d\n", what, int(cc), int(rc));
  return false;
}

// CPU time of this process: on a shared machine, messages per CPU second show the cost of a
// call when the wall clock is distorted by other work.
double cpuSeconds() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double gCpuStart = 0;

void report(const char* name, const char* text, int count, double elapsed) {
  double rate = count / elapsed;
  double cpu = cpuSeconds() - gCpuStart;
  double cpuRate = cpu > 0 ? count / cpu : 0;
  printf("%-40s %7d messages in %7.3f s: %9.0f msg/s (%9.0f per CPU second)\n", text, count,
         elapsed, rate, cpuRate);
  printf("BENCH kx.%s msgs_per_s=%.0f msgs_per_cpu_s=%.0f\n", name, rate, cpuRate);
  fflush(stdout);
  gCpuStart = cpuSeconds();
}

KXHOBJ openQueue(KXHCONN h, const char* name, KXLONG options) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, name);
  KXHOBJ o = -1;
  KXLONG cc, rc;
  KXOPEN(h, &od, options, &o, &cc, &rc);
  return check("KXOPEN", cc, rc) ? o : -1;
}

bool putAll(KXHCONN h, const char* queue, bool syncpoint, std::vector<char>& data) {
  KXHOBJ o = openQueue(h, queue, KXOO_OUTPUT);
  KXPMO pmo = KXPMO_DEFAULT;
  pmo.Options = syncpoint ? KXPMO_SYNCPOINT : KXPMO_NO_SYNCPOINT;
  KXLONG cc, rc;
  for (int i = 0; i < kMessages; ++i) {
    KXMD md = KXMD_DEFAULT;
    memcpy(md.Format, KXFMT_STRING, 8);
    snprintf(data.data(), 16, "%08d", i);
    KXPUT(h, o, &md, &pmo, kLength, data.data(), &cc, &rc);
    if (!check("KXPUT", cc, rc)) return false;
    if (syncpoint && (i + 1) % kUnitOfWork == 0) {
      KXCMIT(h, &cc, &rc);
      if (!check("KXCMIT", cc, rc)) return false;
    }
  }
  KXCMIT(h, &cc, &rc);
  KXCLOSE(h, &o, 0, &cc, &rc);
  return true;
}

// Browses or takes every message; returns how many.
int readAll(KXHCONN h, const char* queue, KXLONG options, std::vector<char>& buffer) {
  bool browse = options & KXGMO_BROWSE_NEXT;
  KXHOBJ o = openQueue(h, queue, browse ? KXOO_BROWSE : KXOO_INPUT_SHARED);
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = options;
  KXLONG cc, rc, length;
  int n = 0;
  for (;;) {
    KXMD md = KXMD_DEFAULT;
    KXGET(h, o, &md, &gmo, KXLONG(buffer.size()), buffer.data(), &length, &cc, &rc);
    if (rc == KXRC_NO_MSG_AVAILABLE) break;
    if (!check("KXGET", cc, rc)) return -1;
    ++n;
    if ((options & KXGMO_SYNCPOINT) && n % kUnitOfWork == 0) {
      KXCMIT(h, &cc, &rc);
      if (!check("KXCMIT", cc, rc)) return -1;
    }
  }
  KXCMIT(h, &cc, &rc);
  KXCLOSE(h, &o, 0, &cc, &rc);
  return n;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/kx_bench.XXXXXX";
  if (!mkdtemp(tmpl)) {
    perror("kx_bench: mkdtemp");
    return 1;
  }
  setenv("KX_DATA_PATH", tmpl, 1);
  char msg[512];
  if (kxmCreateQmgr("BENCH", msg, sizeof msg) ||
      kxmCreateQueue("BENCH", "PLAIN", -1, msg, sizeof msg) ||
      kxmCreateQueue("BENCH", "SYNC", -1, msg, sizeof msg) ||
      kxmCreateQueue("BENCH", "OTHER", -1, msg, sizeof msg)) {
    fprintf(stderr, "kx_bench: %s\n", msg);
    return 1;
  }
  char name[48];
  kxSetName(name, sizeof name, "BENCH");
  KXHCONN h;
  KXLONG cc, rc;
  KXCONN(name, &h, &cc, &rc);
  if (!check("KXCONN", cc, rc)) return 1;
  std::vector<char> data(kLength, 'x'), buffer(4096);
  printf("kx_bench: %d messages of %d bytes, units of work of %d\n", kMessages, kLength,
         kUnitOfWork);
  int result = 1;
  gCpuStart = cpuSeconds();
  double t = seconds();
  if (putAll(h, "PLAIN", false, data)) {
    report("put", "put, no syncpoint", kMessages, seconds() - t);
    t = seconds();
    if (putAll(h, "SYNC", true, data)) {
      report("put_syncpoint", "put under syncpoint", kMessages, seconds() - t);
      t = seconds();
      int n = readAll(h, "PLAIN", KXGMO_BROWSE_NEXT, buffer);
      report("browse", "browse", n, seconds() - t);
      // Browse again while another process keeps putting to another queue, so that every
      // browse finds the file changed.
      pid_t putter = fork();
      if (putter == 0) {
        KXHCONN c;
        KXCONN(name, &c, &cc, &rc);
        KXHOBJ o = openQueue(c, "OTHER", KXOO_OUTPUT);
        KXPMO pmo = KXPMO_DEFAULT;
        for (;;) {
          KXMD md = KXMD_DEFAULT;
          KXPUT(c, o, &md, &pmo, 100, data.data(), &cc, &rc);
        }
      }
      usleep(100000);
      gCpuStart = cpuSeconds();
      t = seconds();
      int busy = readAll(h, "PLAIN", KXGMO_BROWSE_NEXT, buffer);
      report("browse_busy", "browse while another process puts", busy, seconds() - t);
      kill(putter, SIGKILL);
      waitpid(putter, nullptr, 0);
      t = seconds();
      int d = readAll(h, "PLAIN", KXGMO_NO_SYNCPOINT, buffer);
      report("drain", "drain (destructive get), no syncpoint", d, seconds() - t);
      t = seconds();
      int s = readAll(h, "SYNC", KXGMO_SYNCPOINT, buffer);
      report("drain_syncpoint", "drain under syncpoint", s, seconds() - t);
      result = n == kMessages && busy == kMessages && d == kMessages && s == kMessages ? 0 : 1;
    }
  }
  KXDISC(&h, &cc, &rc);
  std::error_code ec;
  std::filesystem::remove_all(tmpl, ec);
  return result;
}
