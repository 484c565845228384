// rplqmfmt_test.cpp - rplqmfmt end to end in client mode: RPLUSEKXCLIENT=TRUE loads libkxic.so,
// which reads the queue from the Redis server, and the messages come out in order.
#include "tests/kxic/kxic_fixture.h"

#if defined(RPLQMFMT_PATH) && defined(KXIC_LIB_DIR)

#include <cstdio>

using namespace kxictest;

TEST_F(KxicTest, RplqmfmtPrintsARemoteQueueInClientMode) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
  for (const char* text : {"first text on the server", "second text on the server"}) {
    KXMD md = KXMD_DEFAULT;
    memcpy(md.Format, KXFMT_STRING, 8);
    ASSERT_EQ(put(h, o, text, 0, &md).cc, KXCC_OK);
  }
  std::string cmd = std::string("RPLUSEKXCLIENT=true LD_LIBRARY_PATH=") + KXIC_LIB_DIR + " " +
                    RPLQMFMT_PATH + " Q1 " + qmgr_ + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0) << out;
  EXPECT_NE(out.find("\"libkxic.so\" was loaded"), std::string::npos) << out;
  size_t first = out.find("first text on the server");
  size_t second = out.find("second text on the server");
  EXPECT_NE(first, std::string::npos) << out;
  EXPECT_NE(second, std::string::npos) << out;
  EXPECT_LT(first, second);
  EXPECT_NE(out.find("**** Message number: 2"), std::string::npos) << out;
  // rplqmfmt browses: the queue stays whole.
  EXPECT_EQ(depth(h, "Q1"), 2);
  disconnect(h);
}

#endif
