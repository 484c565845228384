// kxic_fixture.h - a fresh queue manager per test on the Redis server named by KXSERVER (see
// with-redis.sh), a private redis-server for tests that stop or lock theirs, and short helpers.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace kxictest {

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

inline Got get(KXHCONN h, KXHOBJ o, KXLONG options, KXLONG bufferLength = 65536,
               KXLONG waitMs = 0) {
  Got g;
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = options;
  gmo.WaitInterval = waitMs;
  std::vector<char> buf(size_t(bufferLength) + 1);
  KXGET(h, o, &g.md, &gmo, bufferLength, buf.data(), &g.dataLength, &g.r.cc, &g.r.rc);
  if (g.r.cc != KXCC_FAILED) g.data.assign(buf.data(), size_t(gmo.ReturnedLength));
  return g;
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

// Runs fn in a child process; waitFor gives its exit status (0 when fn returned true).
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

// A loopback port nobody listens on at the moment.
inline int freePort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof a;
  int port = -1;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}

// A redis-server of the test's own, in a temporary directory, that can be stopped (saving its
// data) and started again on the same port.
class PrivateServer {
 public:
  explicit PrivateServer(const std::string& extraConfig = "") {
    char tmpl[] = "/tmp/kxic-private.XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir_ = tmpl;
    port_ = freePort();
    std::ofstream conf(dir_ + "/redis.conf");
    conf << "bind 127.0.0.1\nport " << port_ << "\ndaemonize yes\npidfile " << dir_
         << "/redis.pid\ndir " << dir_ << "\nlogfile " << dir_ << "/redis.log\nsave \"\"\n"
         << "appendonly no\n" << extraConfig << "\n";
  }
  ~PrivateServer() {
    stop();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  bool start() {
    std::string cmd = "redis-server " + dir_ + "/redis.conf >/dev/null 2>&1";
    if (system(cmd.c_str()) != 0) return false;
    for (int i = 0; i < 200; ++i) {
      if (pid() > 0 && portOpen()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  // Stops the server after writing its data to disk, so that start() brings it back.
  void stop() {
    pid_t p = pid();
    if (p <= 0) return;
    std::string cmd = "redis-cli -p " + std::to_string(port_) + " " + auth_ +
                      " shutdown save >/dev/null 2>&1";
    if (system(cmd.c_str()) != 0) kill(p, SIGTERM);
    for (int i = 0; i < 200 && kill(p, 0) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::filesystem::remove(dir_ + "/redis.pid");
  }
  void setAuth(const std::string& password) { auth_ = "-a " + password + " --no-auth-warning"; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }

 private:
  pid_t pid() const {
    std::ifstream in(dir_ + "/redis.pid");
    pid_t p = -1;
    in >> p;
    return p;
  }
  bool portOpen() const {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port_));
    bool ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(s);
    return ok;
  }
  std::string dir_;
  std::string auth_;
  int port_ = -1;
};

// Each test gets its own queue manager (named after the process and the test) with queues Q1
// and Q2 on the server of KXSERVER; without KXSERVER the test is skipped.
class KxicTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* server = getenv("KXSERVER");
    if (!server || !*server) GTEST_SKIP() << "KXSERVER not set: run through tests/kxic/with-redis.sh";
    unsetenv("KXCLIENTCONF");
    static int counter = 0;
    qmgr_ = "T" + std::to_string(getpid()) + "_" + std::to_string(++counter);
    char msg[256];
    ASSERT_EQ(kxmCreateQmgr(qmgr_.c_str(), msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q1", -1, msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q2", -1, msg, sizeof msg), 0) << msg;
    created_ = true;
  }
  void TearDown() override {
    if (!created_) return;
    char msg[256];
    EXPECT_EQ(kxmDeleteQmgr(qmgr_.c_str(), msg, sizeof msg), 0) << msg;
  }
  std::string qmgr_;
  bool created_ = false;
};

}  // namespace kxictest
