// kxic_fixture.h - the client library under test: a fresh queue manager per test on the Redis
// server named by KXSERVER (see with-redis.sh), and a private redis-server for tests that stop
// or lock theirs. The KX call helpers are those of tests/qmgr/qmgr_env.h.
#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/qmgr/qmgr_env.h"

namespace kxictest {

using namespace qmtest;

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
    // A ceiling far above the usual tenth of a second, for a busy machine: not a timing check.
    for (int i = 0; i < 1500; ++i) {
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
    for (int i = 0; i < 1500 && kill(p, 0) == 0; ++i)
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

// Queue managers named after the process and a counter, on the server of KXSERVER; without
// KXSERVER the tests are skipped.
class ClientEnv : public QmgrEnv {
 public:
  std::string name() const override { return "libkxic"; }
  std::string skipReason() const override;
  std::string createQmgr(char* msg, size_t msgLen) override;
  void removeQmgr(const std::string& qmgr) override;
  std::chrono::milliseconds deadUnitLifetime() override;
};

using KxicTest = QmgrTest;

}  // namespace kxictest
