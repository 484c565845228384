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
