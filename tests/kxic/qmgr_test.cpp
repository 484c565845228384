// qmgr_test.cpp - what only the client library shows: a unit of work that outlives the unit
// timeout is backed out on the server, and its owner learns of it at the commit. The semantics
// it shares with the local queue manager are in tests/qmgr/qmgr_suite.cpp.
#include "tests/kxic/kxic_fixture.h"

using namespace kxictest;

TEST_F(KxicTest, AnExpiredUnitOfWorkIsBackedOutAndItsCommitSaysSo) {
  std::chrono::milliseconds lifetime = qmgrEnv().deadUnitLifetime();
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 3; ++i) put(h, o, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(0));
  put(h, o, "never", KXPMO_SYNCPOINT);
  std::this_thread::sleep_for(lifetime + std::chrono::milliseconds(200));
  // Another connection takes everything back in order; the put is gone.
  EXPECT_EQ(onOwnConnection(qmgr_,
                            [](KXHCONN c) { return takeAll(c, open(c, "Q1", KXOO_INPUT_SHARED)); }),
            (std::vector<std::string>{numbered(0), numbered(1), numbered(2)}));
  Result r = commit(h);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.rc, KXRC_BACKED_OUT);
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
