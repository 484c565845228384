// kx_env.cpp - the queue manager semantics suite runs against the local queue manager.
#include <filesystem>

#include "tests/kx/kx_fixture.h"

namespace kxtest {

std::string LocalEnv::createQmgr(char* msg, size_t msgLen) {
  if (dir_.empty()) {
    char tmpl[] = "/tmp/kxtest.XXXXXX";
    if (!mkdtemp(tmpl)) {
      snprintf(msg, msgLen, "cannot make a temporary directory");
      return "";
    }
    dir_ = tmpl;
    count_ = 0;
    setenv("KX_DATA_PATH", (dir_ + "/data").c_str(), 1);
  }
  std::string name = "QM" + std::to_string(++count_);
  return kxmCreateQmgr(name.c_str(), msg, msgLen) == 0 ? name : "";
}

void LocalEnv::removeQmgr(const std::string&) {
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
  dir_.clear();
}

LocalEnv& localEnv() {
  static LocalEnv env;
  return env;
}

}  // namespace kxtest

qmtest::QmgrEnv& qmtest::qmgrEnv() { return kxtest::localEnv(); }
