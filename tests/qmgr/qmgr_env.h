// qmgr_env.h - what the queue manager semantics suite (qmgr_suite.cpp) needs from the library
// under test, and the short KX call helpers shared by the suite and the library tests.
//
// Each test executable compiles qmgr_suite.cpp and defines qmtest::qmgrEnv() for its library:
// the local queue manager (tests/kx/kx_env.cpp) or the client library (tests/kxic/kxic_env.cpp).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace qmtest {

struct Result {
  KXLONG cc = -1;
  KXLONG rc = -1;
};

inline KXHCONN connect(const std::string& qmgr, Result* r = nullptr) {
  char name[48];
  kxSetName(name, sizeof name, qmgr.c_str());
  KXHCONN h = -1;
  Result local;
  Result& res = r ? *r : local;
  KXCONN(name, &h, &res.cc, &res.rc);
  return h;
}

inline KXHOBJ open(KXHCONN h, const char* queue, KXLONG options, Result* r = nullptr) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue);
  KXHOBJ o = -1;
  Result local;
  Result& res = r ? *r : local;
  KXOPEN(h, &od, options, &o, &res.cc, &res.rc);
  return o;
}

// Puts data with the default descriptor, or with *mdIn, which gets back the descriptor as put.
inline Result put(KXHCONN h, KXHOBJ o, const std::string& data, KXLONG pmoOptions = 0,
                  KXMD* mdIn = nullptr) {
  KXMD md = KXMD_DEFAULT;
  if (mdIn) md = *mdIn;
  KXPMO pmo = KXPMO_DEFAULT;
  if (pmoOptions) pmo.Options = pmoOptions;
  Result r;
  KXPUT(h, o, &md, &pmo, KXLONG(data.size()), const_cast<char*>(data.data()), &r.cc, &r.rc);
  if (mdIn) *mdIn = md;
  return r;
}

struct Got {
  Result r;
  KXMD md = KXMD_DEFAULT;
  std::string data;
  KXLONG dataLength = -1;
};

// A get with the given options; with match, by the MsgId or CorrelId of *match.
inline Got get(KXHCONN h, KXHOBJ o, KXLONG options, KXLONG bufferLength = 65536,
               KXLONG waitMs = 0, const KXMD* match = nullptr, KXLONG matchOptions = KXMO_NONE) {
  Got g;
  if (match) g.md = *match;
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = options;
  gmo.WaitInterval = waitMs;
  gmo.MatchOptions = matchOptions;
  std::vector<char> buf(size_t(bufferLength) + 1);
  KXGET(h, o, &g.md, &gmo, bufferLength, buf.data(), &g.dataLength, &g.r.cc, &g.r.rc);
  if (g.r.cc != KXCC_FAILED) g.data.assign(buf.data(), size_t(gmo.ReturnedLength));
  return g;
}

// Gets (or browses, with KXGMO_BROWSE_NEXT) until a get fails; the data in order.
inline std::vector<std::string> takeAll(KXHCONN h, KXHOBJ o, KXLONG options = 0) {
  std::vector<std::string> all;
  for (Got g = get(h, o, options); g.r.cc == KXCC_OK; g = get(h, o, options))
    all.push_back(g.data);
  return all;
}

inline KXLONG depth(KXHCONN h, const char* queue) {
  KXHOBJ o = open(h, queue, KXOO_INQUIRE);
  KXLONG sel = KXIA_CURRENT_Q_DEPTH, value = -1;
  Result r;
  KXINQ(h, o, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  KXCLOSE(h, &o, 0, &r.cc, &r.rc);
  return value;
}

inline Result disconnect(KXHCONN h) {
  Result r;
  KXDISC(&h, &r.cc, &r.rc);
  return r;
}

inline Result commit(KXHCONN h) {
  Result r;
  KXCMIT(h, &r.cc, &r.rc);
  return r;
}

inline Result backOut(KXHCONN h) {
  Result r;
  KXBACK(h, &r.cc, &r.rc);
  return r;
}

inline std::string numbered(int i) { return "message " + std::to_string(i); }

// Runs fn(connection) on a thread of its own, so on a connection of its own to qmgr, and
// returns what fn returned.
template <typename Fn>
auto onOwnConnection(const std::string& qmgr, Fn fn) {
  return std::async(std::launch::async, [&] {
           KXHCONN c = connect(qmgr);
           auto result = fn(c);
           disconnect(c);
           return result;
         }).get();
}

// Runs fn in a child process (which makes its own connections); waitFor gives its exit status:
// 0 when fn returned true, 128 + the signal when it was killed.
template <typename Fn>
pid_t spawn(Fn fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn() ? 0 : 1);
  return pid;
}

inline int waitFor(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The library under test as the suite sees it. The administration calls of kx/kxm_admin.h
// (create and delete queue managers and queues, list queues) work the same on both libraries
// once the environment is set up.
class QmgrEnv {
 public:
  virtual ~QmgrEnv() = default;
  // The library's file name, for messages.
  virtual std::string name() const = 0;
  // Why the suite cannot run here (no server to talk to), or empty.
  virtual std::string skipReason() const { return ""; }
  // A fresh, empty queue manager of its own name for one test; empty with *msg on failure.
  virtual std::string createQmgr(char* msg, size_t msgLen) = 0;
  // Removes what createQmgr made.
  virtual void removeQmgr(const std::string& qmgr) = 0;
  // How long a unit of work of a process that died without a word lives on, keeping its
  // messages hidden: zero when the queue manager backs it out as soon as the process is gone.
  // Called before the test connects, so that the library can shorten it for the test.
  virtual std::chrono::milliseconds deadUnitLifetime() { return std::chrono::milliseconds(0); }
};

// Defined once per test executable, for its library.
QmgrEnv& qmgrEnv();

// A fresh queue manager per test, with empty queues Q1 and Q2.
class QmgrTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = qmgrEnv().skipReason();
    if (!why.empty()) GTEST_SKIP() << why;
    char msg[512] = "";
    qmgr_ = qmgrEnv().createQmgr(msg, sizeof msg);
    ASSERT_FALSE(qmgr_.empty()) << msg;
    ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q1", -1, msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q2", -1, msg, sizeof msg), 0) << msg;
  }
  void TearDown() override {
    if (!qmgr_.empty()) qmgrEnv().removeQmgr(qmgr_);
  }
  std::string qmgr_;
};

}  // namespace qmtest
