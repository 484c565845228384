// The KX binding against stand-in libraries: loading, entries, the client switch, connect rules.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/kxbind.h"
#include "runtime/catalog.h"
#include "runtime/thread.h"

namespace {

// Captures the log messages of the binding for one test.
class BindingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_ = msgLogger::create(13, 0);
    logger_->loadCatalog(kRplCatalog);
    log_ = std::tmpfile();
    logger_->setOutput(log_);
    setRplLogger(logger_);
    rplkx::init();
    rplkx::cleanup();
    rplkx::setQuiet(false);
    rplkx::setRetryDelayMs(1);
    rplkx::setLibraryNames(FAKEKX_SERVER, FAKEKX_CLIENT);
    unsetenv("RPLUSEKXCLIENT");
    unsetenv("FAKEKX_CONN_REASON");
    resetCalls(FAKEKX_SERVER);
  }
  void TearDown() override {
    unsetenv("RPLUSEKXCLIENT");
    unsetenv("FAKEKX_CONN_REASON");
    rplkx::cleanup();
    rplkx::setLibraryNames(nullptr, nullptr);
    rplkx::setRetryDelayMs(rplkx::kConnectRetryDelayMs);
    setRplLogger(nullptr);
    std::fclose(log_);
    delete logger_;
  }

  std::string log() {
    std::fflush(log_);
    std::rewind(log_);
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, log_)) > 0) s.append(buf, n);
    return s;
  }
  static int count(const std::string& s, const std::string& what) {
    int n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
  }
  // The stand-in's own counter of connect calls.
  static int connCalls(const char* path) {
    void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    int n = reinterpret_cast<int (*)()>(dlsym(lib, "fakekxConnCalls"))();
    dlclose(lib);
    return n;
  }
  static void resetCalls(const char* path) {
    void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    reinterpret_cast<void (*)()>(dlsym(lib, "fakekxReset"))();
    dlclose(lib);
  }

  void connect() {
    char qm[48] = "QM1";
    rplkx::KXCONN(qm, &hconn_, &cc_, &reason_);
  }

  msgLogger* logger_ = nullptr;
  FILE* log_ = nullptr;
  KXHCONN hconn_ = -1;
  KXLONG cc_ = -1;
  KXLONG reason_ = -1;
};

TEST_F(BindingTest, MissingLibraryGivesFailedAndUnexpectedErrorOnEveryCall) {
  rplkx::setLibraryNames("/nonexistent/libkxm.so", nullptr);
  connect();
  EXPECT_EQ(cc_, 2);
  EXPECT_EQ(reason_, 2195);
  EXPECT_FALSE(rplkx::loaded());
  KXHOBJ hobj = 0;
  KXOD od = KXOD_DEFAULT;
  rplkx::KXOPEN(1, &od, 8, &hobj, &cc_, &reason_);
  EXPECT_EQ(cc_, 2);
  EXPECT_EQ(reason_, 2195);
  std::string l = log();
  EXPECT_EQ(count(l, "RPL0584E"), 2) << l;  // each call tries to load again
  EXPECT_NE(l.find("/nonexistent/libkxm.so"), std::string::npos);
  EXPECT_NE(l.find("KX library/dll is not found (or) KX function address is NULL"), std::string::npos);
  EXPECT_NE(l.find("\"KXOPEN\""), std::string::npos);
}

TEST_F(BindingTest, QuietSwitchSuppressesTheBindingsMessages) {
  rplkx::setLibraryNames("/nonexistent/libkxm.so", nullptr);
  rplkx::setQuiet(true);
  connect();
  EXPECT_EQ(reason_, 2195);
  EXPECT_EQ(log(), "");
}

TEST_F(BindingTest, LibraryWithoutOneEntryIsNotLoadedAndTheNextCallTriesAgain) {
  rplkx::setLibraryNames(FAKEKX_NOINQ, nullptr);
  connect();
  EXPECT_EQ(cc_, 2);
  EXPECT_EQ(reason_, 2195);
  EXPECT_FALSE(rplkx::loaded());
  connect();
  std::string l = log();
  EXPECT_EQ(count(l, "RPL0586E"), 2) << l;
  EXPECT_NE(l.find("\"KXINQ\""), std::string::npos);
  EXPECT_EQ(count(l, "RPL0585I"), 2);
  EXPECT_EQ(connCalls(FAKEKX_NOINQ), 0);  // never called through a half-resolved table
}

TEST_F(BindingTest, ClientVariableChoosesTheLibraryAfterUpperCasing) {
  struct Case { const char* value; KXHCONN expected; const char* library; };
  for (Case c : {Case{"true", 2, FAKEKX_CLIENT}, Case{"TRUE", 2, FAKEKX_CLIENT},
                 Case{"yes", 1, FAKEKX_SERVER}, Case{nullptr, 1, FAKEKX_SERVER}}) {
    rplkx::cleanup();
    if (c.value != nullptr) setenv("RPLUSEKXCLIENT", c.value, 1);
    else unsetenv("RPLUSEKXCLIENT");
    connect();
    EXPECT_EQ(cc_, 0) << (c.value ? c.value : "unset");
    EXPECT_EQ(hconn_, c.expected) << (c.value ? c.value : "unset");
    EXPECT_TRUE(rplkx::loaded());
  }
  std::string l = log();
  EXPECT_NE(l.find(std::string("\"") + FAKEKX_CLIENT + "\" was loaded. RPLUSEKXCLIENT is \"TRUE\""),
            std::string::npos) << l;
  EXPECT_NE(l.find("RPLUSEKXCLIENT is \"YES\""), std::string::npos) << l;
}

TEST_F(BindingTest, UnavailableQueueManagerIsCalledTenTimesWithOneRetryMessage) {
  setenv("FAKEKX_CONN_REASON", "2059", 1);
  rplThread frame("binding-test");
  ASSERT_EQ(frame.prologue(), 0);
  connect();
  EXPECT_EQ(cc_, 2);
  EXPECT_EQ(reason_, 2059);
  EXPECT_EQ(connCalls(FAKEKX_SERVER), 10);
  EXPECT_EQ(count(log(), "RPL0587W"), 1);
  EXPECT_EQ(frame.state(), kThreadReady);  // the waiting state is undone after each pause
}

TEST_F(BindingTest, AlreadyConnectedIsASuccessAndOtherReasonsAreNotRetried) {
  setenv("FAKEKX_CONN_REASON", "2391", 1);
  connect();
  EXPECT_EQ(cc_, 0);
  EXPECT_EQ(reason_, 2391);
  setenv("FAKEKX_CONN_REASON", "2058", 1);
  connect();
  EXPECT_EQ(cc_, 2);
  EXPECT_EQ(reason_, 2058);
  EXPECT_EQ(connCalls(FAKEKX_SERVER), 2);
}

}  // namespace
