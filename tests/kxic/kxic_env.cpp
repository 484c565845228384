// kxic_env.cpp - the queue manager semantics suite runs against the client library.
#include "tests/kxic/kxic_fixture.h"

namespace kxictest {

std::string ClientEnv::skipReason() const {
  const char* server = getenv("KXSERVER");
  if (!server || !*server) return "KXSERVER not set: run through tests/kxic/with-redis.sh";
  return "";
}

std::string ClientEnv::createQmgr(char* msg, size_t msgLen) {
  unsetenv("KXCLIENTCONF");
  static int counter = 0;
  std::string name = "T" + std::to_string(getpid()) + "_" + std::to_string(++counter);
  return kxmCreateQmgr(name.c_str(), msg, msgLen) == 0 ? name : "";
}

void ClientEnv::removeQmgr(const std::string& qmgr) {
  unsetenv("KXIC_UNIT_TIMEOUT");
  char msg[256];
  EXPECT_EQ(kxmDeleteQmgr(qmgr.c_str(), msg, sizeof msg), 0) << msg;
}

// A unit of work lives until it has not been refreshed for the unit timeout; the test's
// connections get a short one.
std::chrono::milliseconds ClientEnv::deadUnitLifetime() {
  setenv("KXIC_UNIT_TIMEOUT", "1000", 1);
  return std::chrono::milliseconds(1000);
}

}  // namespace kxictest

qmtest::QmgrEnv& qmtest::qmgrEnv() {
  static kxictest::ClientEnv env;
  return env;
}
