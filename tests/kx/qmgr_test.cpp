// qmgr_test.cpp - what only the local queue manager shows: a put that returned survives a kill -9
// of the putting process, and the data directory is made on demand or refused with a reason.
// The semantics it shares with the client library are in tests/qmgr/qmgr_suite.cpp.
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/kx/kx_fixture.h"

using namespace kxtest;

TEST_F(KxTest, KilledPutterLosesNoAcknowledgedPut) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    KXHCONN c = connect("QM1");
    KXHOBJ q = open(c, "Q1", KXOO_OUTPUT);
    for (int i = 0;; ++i) {
      if (put(c, q, numbered(i)).cc != KXCC_OK) _exit(1);
      if (write(fds[1], &i, sizeof i) != sizeof i) _exit(1);
    }
  }
  close(fds[1]);
  int acked = -1, i;
  while (acked < 500 && read(fds[0], &i, sizeof i) == sizeof i) acked = i;
  kill(child, SIGKILL);
  // Acknowledgements already in the pipe count as well.
  waitFor(child);
  while (read(fds[0], &i, sizeof i) == sizeof i) acked = i;
  close(fds[0]);
  ASSERT_GE(acked, 500);

  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_BROWSE);
  for (int n = 0; n <= acked; ++n) {
    Got g = get(h, o, KXGMO_BROWSE_NEXT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << "acknowledged put " << n << " of " << acked << " lost";
    ASSERT_EQ(g.data, numbered(n));
  }
  disconnect(h);
}

TEST_F(KxTest, TheDataDirectoryIsMadeOnDemandOrRefusedWithAReason) {
  char msg[512];
  setenv("KX_DATA_PATH", (dir_ + "/new/deeper").c_str(), 1);
  EXPECT_EQ(kxmCreateQmgr("QM2", msg, sizeof msg), 0) << msg;
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/new/deeper/QM2.kxdb"));
  EXPECT_EQ(kxmCreateQmgr("../x", msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmDeleteQmgr("QM2", msg, sizeof msg), 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/new/deeper/QM2.kxdb"));

  // A data path that cannot be a directory gives a clear reason.
  std::ofstream(dir_ + "/file") << "x";
  setenv("KX_DATA_PATH", (dir_ + "/file/sub").c_str(), 1);
  EXPECT_EQ(kxmCreateQmgr("QM3", msg, sizeof msg), KXM_RC_DATA_PATH_ERROR);
  EXPECT_NE(std::string(msg).find("cannot create the data directory"), std::string::npos) << msg;
  Result r;
  connect("QM3", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
}
