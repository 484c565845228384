// kx_fixture.h - the local queue manager under test: each test gets a private data directory
// holding a fresh queue manager QM1 with queues Q1 and Q2 (see tests/qmgr/qmgr_env.h).
#pragma once

#include "tests/qmgr/qmgr_env.h"

namespace kxtest {

using namespace qmtest;

// Queue managers live in a data directory of the test's own (KX_DATA_PATH), made with the first
// queue manager of a test (QM1) and removed with it.
class LocalEnv : public QmgrEnv {
 public:
  std::string name() const override { return "libkxm"; }
  std::string createQmgr(char* msg, size_t msgLen) override;
  void removeQmgr(const std::string& qmgr) override;
  // The test's directory; the data directory is its "data" subdirectory.
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
  int count_ = 0;
};

LocalEnv& localEnv();

class KxTest : public QmgrTest {
 protected:
  void SetUp() override {
    QmgrTest::SetUp();
    dir_ = localEnv().dir();
  }
  std::string dir_;
};

}  // namespace kxtest
