// server_test.cpp - finding the server of a queue manager (KXSERVER, the client configuration
// file), a server that is down, a refused login, and a server restart between two gets.
#include "tests/kxic/kxic_fixture.h"

using namespace kxictest;

namespace {

// Sets an environment variable for one scope and puts the old value back afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (had_)
      setenv(name_.c_str(), old_.c_str(), 1);
    else
      unsetenv(name_.c_str());
  }

 private:
  std::string name_, old_;
  bool had_ = false;
};

std::string writeFile(const std::string& text) {
  char tmpl[] = "/tmp/kxic-conf.XXXXXX";
  int fd = mkstemp(tmpl);
  if (fd < 0) return "";
  close(fd);
  std::ofstream(tmpl) << text;
  return tmpl;
}

}  // namespace

TEST(KxicServer, AServerThatIsDownGivesReason2059) {
  std::string down = "127.0.0.1:" + std::to_string(freePort());
  ScopedEnv env("KXSERVER", down.c_str());
  Result r;
  connect("QM1", &r);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NOT_AVAILABLE);
  char msg[256];
  EXPECT_EQ(kxmCreateQmgr("QM1", msg, sizeof msg), KXRC_Q_MGR_NOT_AVAILABLE);
  EXPECT_NE(std::string(msg).find(down), std::string::npos) << msg;
  // A malformed address is a configuration error, not an unavailable server.
  for (const char* bad : {"no-port-here", "host:", ":6379", "host:0", "host:65536", "host:12x",
                          "::1:6379", "[::1:6379", "[]:6379"}) {
    ScopedEnv badEnv("KXSERVER", bad);
    connect("QM1", &r);
    EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR) << bad;
  }
  // An IPv6 address in brackets is understood (nothing listens there).
  std::string v6 = "[::1]:" + std::to_string(freePort());
  ScopedEnv v6Env("KXSERVER", v6.c_str());
  connect("QM1", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NOT_AVAILABLE);
}

TEST(KxicServer, ARestartBetweenTwoGetsFailsTheGetThenTheNextConnectReconnects) {
  PrivateServer server;
  ASSERT_TRUE(server.start());
  ScopedEnv env("KXSERVER", server.address().c_str());
  char msg[256];
  ASSERT_EQ(kxmCreateQmgr("QMR", msg, sizeof msg), 0) << msg;
  ASSERT_EQ(kxmCreateQueue("QMR", "Q", -1, msg, sizeof msg), 0) << msg;
  KXHCONN h = connect("QMR");
  KXHOBJ o = open(h, "Q", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(put(h, o, numbered(i)).cc, KXCC_OK);
  EXPECT_EQ(get(h, o, 0).data, numbered(0));

  server.stop();  // saves its data
  ASSERT_TRUE(server.start());
  Got g = get(h, o, 0);
  EXPECT_EQ(g.r.cc, KXCC_FAILED);
  EXPECT_EQ(g.r.rc, KXRC_Q_MGR_NOT_AVAILABLE);
  // The lost connection stays lost, and is not handed out again by the next connect.
  EXPECT_EQ(get(h, o, 0).r.rc, KXRC_Q_MGR_NOT_AVAILABLE);
  Result r;
  KXHCONN h2 = connect("QMR", &r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.rc;
  EXPECT_NE(h2, h);
  KXHOBJ o2 = open(h2, "Q", KXOO_INPUT_SHARED);
  EXPECT_EQ(get(h2, o2, 0).data, numbered(1));
  EXPECT_EQ(disconnect(h).cc, KXCC_OK);
  EXPECT_EQ(get(h2, o2, 0).data, numbered(2));

  // A server that went away for good: a long put is a reason (the broken pipe does not end the
  // program), and so is the next connect.
  KXHOBJ out = open(h2, "Q", KXOO_OUTPUT);
  ASSERT_EQ(put(h2, out, "before").cc, KXCC_OK);
  server.stop();
  Result p = put(h2, out, std::string(8 << 20, 'p'));
  EXPECT_EQ(p.rc, KXRC_Q_MGR_NOT_AVAILABLE);
  EXPECT_EQ(disconnect(h2).cc, KXCC_OK);
  connect("QMR", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NOT_AVAILABLE);
}

TEST(KxicServer, TheConfigurationFileNamesServerPasswordAndDefault) {
  PrivateServer server("requirepass s3cret");
  server.setAuth("s3cret");
  ASSERT_TRUE(server.start());
  ScopedEnv noServer("KXSERVER", nullptr);
  std::string conf = writeFile("# queue managers of the tests\n"
                               "QMA  " + server.address() + "  password=s3cret\n"
                               "QMB  " + server.address() + "  password=wrong  # refused\n"
                               "QMC  " + server.address() + "\n"
                               "*    " + server.address() + "  password=s3cret timeout=5000\n");
  ScopedEnv file("KXCLIENTCONF", conf.c_str());
  char msg[256];
  ASSERT_EQ(kxmCreateQmgr("QMA", msg, sizeof msg), 0) << msg;
  ASSERT_EQ(kxmCreateQmgr("QMD", msg, sizeof msg), 0) << msg;
  Result r;
  KXHCONN h = connect("QMA", &r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.rc;
  disconnect(h);
  // A name not listed takes the "*" line.
  h = connect("QMD", &r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.rc;
  disconnect(h);
  // A wrong password, and no password for a server that wants one, are refused logins.
  connect("QMB", &r);
  EXPECT_EQ(r.rc, KXRC_NOT_AUTHORIZED);
  connect("QMC", &r);
  EXPECT_EQ(r.rc, KXRC_NOT_AUTHORIZED);
  EXPECT_EQ(kxmCreateQmgr("QMC", msg, sizeof msg), KXRC_NOT_AUTHORIZED) << msg;
  unlink(conf.c_str());

  // A malformed line is reported, not skipped.
  std::string broken = writeFile("QMA localhost\n");
  ScopedEnv brokenFile("KXCLIENTCONF", broken.c_str());
  connect("QMA", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
  EXPECT_NE(kxmCreateQmgr("QMA", msg, sizeof msg), 0);
  EXPECT_NE(std::string(msg).find(broken + ":1"), std::string::npos) << msg;
  unlink(broken.c_str());

  // TLS asked for from a plain-text server fails at once with 2397 (not retried).
  std::string tls = writeFile("QMA " + server.address() + " password=s3cret tls\n");
  ScopedEnv tlsFile("KXCLIENTCONF", tls.c_str());
  connect("QMA", &r);
  EXPECT_EQ(r.rc, 2397);
  unlink(tls.c_str());
}

TEST(KxicServer, WithoutChangeNoticesABrowseStillSeesRemovalsAtOnce) {
  // A server that refuses SUBSCRIBE: browses cannot listen, so they read without read-ahead.
  PrivateServer server("user default on nopass ~* &* +@all -subscribe");
  ASSERT_TRUE(server.start());
  ScopedEnv env("KXSERVER", server.address().c_str());
  char msg[256];
  ASSERT_EQ(kxmCreateQmgr("QMW", msg, sizeof msg), 0) << msg;
  ASSERT_EQ(kxmCreateQueue("QMW", "Q", -1, msg, sizeof msg), 0) << msg;
  KXHCONN h = connect("QMW");
  KXHOBJ o = open(h, "Q", KXOO_OUTPUT | KXOO_BROWSE);
  for (int i = 0; i < 10; ++i) put(h, o, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(0));
  pid_t child = spawn([] {
    KXHCONN c = connect("QMW");
    KXHOBJ q = open(c, "Q", KXOO_INPUT_SHARED);
    for (int i = 0; i < 5; ++i)
      if (get(c, q, 0).data != numbered(i)) return false;
    disconnect(c);
    return true;
  });
  ASSERT_EQ(waitFor(child), 0);
  for (int i = 5; i < 10; ++i) EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).data, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  disconnect(h);
}
