// qmgr_test.cpp - what only the client library shows: a unit of work that outlives the unit
// timeout is backed out on the server, and its owner learns of it at the commit. The semantics
// it shares with the local queue manager are in tests/qmgr/qmgr_suite.cpp.
#include <signal.h>

#include "tests/kxic/kxic_fixture.h"

using namespace kxictest;

// A live process renews its units of work: one held past the unit timeout keeps its messages.
TEST_F(KxicTest, ALiveUnitOfWorkIsRenewedPastTheTimeout) {
  std::chrono::milliseconds lifetime = qmgrEnv().deadUnitLifetime();
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 3; ++i) put(h, o, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(0));
  std::this_thread::sleep_for(lifetime * 3);
  EXPECT_EQ(onOwnConnection(qmgr_,
                            [](KXHCONN c) { return takeAll(c, open(c, "Q1", KXOO_INPUT_SHARED)); }),
            (std::vector<std::string>{numbered(1), numbered(2)}));
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  disconnect(h);
}

// A process that stops renewing (here: stopped by a signal; in life: dead or cut off) loses its
// unit of work after the timeout, and its commit says so when it runs again.
TEST_F(KxicTest, AnExpiredUnitOfWorkIsBackedOutAndItsCommitSaysSo) {
  std::chrono::milliseconds lifetime = qmgrEnv().deadUnitLifetime();
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
  for (int i = 0; i < 3; ++i) put(h, o, numbered(i));
  int ready[2], done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  std::string qm = qmgr_;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    KXHCONN c = connect(qm);
    KXHOBJ q = open(c, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
    bool got = get(c, q, KXGMO_SYNCPOINT).data == numbered(0);
    put(c, q, "never", KXPMO_SYNCPOINT);
    char b = got ? 1 : 0;
    if (write(ready[1], &b, 1) != 1) _exit(3);
    if (read(done[0], &b, 1) != 1) _exit(4);
    Result r = commit(c);
    _exit(r.cc == KXCC_FAILED && r.rc == KXRC_BACKED_OUT ? 0 : 5);
  }
  char b = 0;
  ASSERT_EQ(read(ready[0], &b, 1), 1);
  EXPECT_EQ(b, 1);
  kill(child, SIGSTOP);
  std::this_thread::sleep_for(lifetime + std::chrono::milliseconds(300));
  // Another connection takes everything back in order; the put is gone.
  EXPECT_EQ(onOwnConnection(qmgr_,
                            [](KXHCONN c) { return takeAll(c, open(c, "Q1", KXOO_INPUT_SHARED)); }),
            (std::vector<std::string>{numbered(0), numbered(1), numbered(2)}));
  kill(child, SIGCONT);
  EXPECT_EQ(write(done[1], &b, 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  disconnect(h);
}

namespace {

// Bytes the server of KXSERVER has sent to its clients so far.
long long serverOutputBytes() {
  const char* server = getenv("KXSERVER");
  std::string addr = server ? server : "127.0.0.1:6379";
  size_t colon = addr.rfind(':');
  std::string cmd = "redis-cli -h " + addr.substr(0, colon) + " -p " + addr.substr(colon + 1) +
                    " info stats 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return -1;
  long long bytes = -1;
  char line[256];
  while (fgets(line, sizeof line, p))
    if (sscanf(line, "total_net_output_bytes:%lld", &bytes) == 1) break;
  while (fgets(line, sizeof line, p)) {
  }
  pclose(p);
  return bytes;
}

}  // namespace

// A big message crosses the network once: the get that finds the buffer too small learns the
// length without the data, and the get that follows brings the data.
TEST_F(KxicTest, ABigMessageIsFetchedOnceAfterATooSmallGet) {
  constexpr long long kSlack = 64 << 10;  // commands, replies and descriptors around the data
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  ASSERT_GE(serverOutputBytes(), 0) << "redis-cli cannot reach the server";
  struct Row {
    long long size;
    KXLONG options;
  };
  for (Row row : {Row{4 << 20, KXGMO_BROWSE_NEXT}, Row{4 << 20, KXGMO_NO_SYNCPOINT},
                  Row{9 << 20, KXGMO_BROWSE_NEXT}}) {
    const long long size = row.size;
    const KXLONG options = row.options;
    ASSERT_EQ(put(h, o, std::string(size_t(size), 'x')).cc, KXCC_OK);
    long long before = serverOutputBytes();
    Got g = get(h, o, options, 4096);
    EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
    EXPECT_EQ(g.dataLength, size);
    long long learned = serverOutputBytes();
    EXPECT_LT(learned - before, kSlack) << "options " << options;
    g = get(h, o, options, KXLONG(size));
    EXPECT_EQ(g.r.cc, KXCC_OK);
    EXPECT_EQ(g.data.size(), size_t(size));
    long long got = serverOutputBytes() - learned;
    EXPECT_GE(got, size);
    EXPECT_LT(got, size + kSlack) << "options " << options;
    if (options & KXGMO_BROWSE_NEXT) {
      ASSERT_EQ(get(h, o, 0, KXLONG(size)).r.cc, KXCC_OK);
    }
  }
  disconnect(h);
}
