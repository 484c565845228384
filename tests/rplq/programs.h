// Running the programs end to end from a test: a command line with the test's own queue
// managers (KX_DATA_PATH in the test's folder), its exit status, standard output and error.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tools/gen/encode.h"

namespace rplqtest {

// The senders of the traffic: both byte orders, and an EBCDIC code page.
struct Sender {
  ByteOrder order;
  int32_t ccsid;
  const char* queue;
};
inline constexpr Sender kSenders[] = {
    {ByteOrder::Little, 1208, "LE"},
    {ByteOrder::Big, 1208, "BE"},
    {ByteOrder::Big, 37, "EB"},
};

struct Ran {
  int status = -1;  // exit status, or -1 when the program did not exit by itself
  std::string out, err;
};

inline Ran run(const std::string& dir, const std::string& command) {
  const std::string errFile = dir + "/stderr";
  const std::string line = "KX_DATA_PATH='" + dir + "/kx' TZ=UTC " + command + " 2>'" + errFile + "'";
  Ran r;
  FILE* p = popen(line.c_str(), "r");
  if (p == nullptr) return r;
  char buf[65536];
  size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream err(errFile);
  std::stringstream text;
  text << err.rdbuf();
  r.err = text.str();
  return r;
}

inline std::string bin(const char* program) { return std::string(RPLQ_BIN_DIR) + "/" + program; }

// A word for the shell, whatever it holds.
inline std::string quoted(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// A test with a folder of its own (removed afterwards) holding one queue manager.
class QmgrTest : public ::testing::Test {
 protected:
  explicit QmgrTest(const char* qmgr) : qmgr_(qmgr) {}
  void SetUp() override {
    char tmpl[] = "/tmp/rplq-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ASSERT_EQ(run(dir_, bin("kxq") + " create-qmgr " + qmgr_).status, 0);
  }
  void TearDown() override { run(dir_, "rm -rf '" + dir_ + "'"); }

  std::string qmgr_;
  std::string dir_;
};

}  // namespace rplqtest
