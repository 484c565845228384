// qmgr_test.cpp - the local queue manager: order, browse cursors, truncation, waiting, units of
// work, concurrent drainers and a killed putter, and the reasons for calls that cannot succeed.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <thread>

#include "tests/kx/kx_fixture.h"

using namespace kxtest;

namespace {

std::string numbered(int i) { return "message " + std::to_string(i); }

// Runs fn in a child process and returns its exit status (0 when fn returned true).
template <typename Fn>
pid_t spawn(Fn fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn() ? 0 : 1);
  return pid;
}

int waitFor(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

TEST_F(KxTest, MessagesComeBackInOrderWithTheirDescriptor) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::set<std::string> ids;
  for (int i = 0; i < 300; ++i) {
    KXMD md = KXMD_DEFAULT;
    memcpy(md.Format, KXFMT_STRING, 8);
    md.CodedCharSetId = 819;
    md.Encoding = KXENC_BIG_ENDIAN;
    md.Fields1[0] = uint8_t(i);
    md.Fields2[43] = 0x5a;
    Result r = put(h, o, numbered(i), 0, &md);
    ASSERT_EQ(r.cc, KXCC_OK) << r.rc;
    ids.insert(std::string(reinterpret_cast<char*>(md.MsgId), 24));
  }
  EXPECT_EQ(ids.size(), 300u) << "every put gets its own MsgId";
  EXPECT_EQ(depth(h, "Q1"), 300);

  // Browse twice (the read-ahead must not change what is seen), then take them.
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < 300; ++i) {
      Got g = get(h, o, i == 0 ? KXGMO_BROWSE_FIRST : KXGMO_BROWSE_NEXT);
      ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
      ASSERT_EQ(g.data, numbered(i));
      EXPECT_EQ(g.md.Fields1[0], uint8_t(i));
    }
    EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  }
  for (int i = 0; i < 300; ++i) {
    Got g = get(h, o, KXGMO_NO_SYNCPOINT);
    ASSERT_EQ(g.r.cc, KXCC_OK);
    ASSERT_EQ(g.data, numbered(i));
    EXPECT_EQ(memcmp(g.md.Format, KXFMT_STRING, 8), 0);
    EXPECT_EQ(g.md.CodedCharSetId, 819);
    EXPECT_EQ(g.md.Encoding, KXENC_BIG_ENDIAN);
    EXPECT_EQ(g.md.Fields2[43], 0x5a);
    for (char c : std::string(g.md.PutDate, 16)) ASSERT_TRUE(c >= '0' && c <= '9');
  }
  Got last = get(h, o, 0);
  EXPECT_EQ(last.r.cc, KXCC_FAILED);
  EXPECT_EQ(last.r.rc, KXRC_NO_MSG_AVAILABLE);
  disconnect(h);
}

TEST_F(KxTest, PutWithSetAllContextKeepsTheDescriptorAsGiven) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_AS_Q_DEF);
  KXMD md = KXMD_DEFAULT;
  memcpy(md.PutDate, "19991231", 8);
  memcpy(md.PutTime, "23595999", 8);
  ASSERT_EQ(put(h, o, "x", KXPMO_SET_ALL_CONTEXT, &md).cc, KXCC_OK);
  Got g = get(h, o, 0);
  KXMD want = md;
  EXPECT_EQ(memcmp(&g.md, &want, sizeof want), 0);
  EXPECT_EQ(memcmp(g.md.PutDate, "1999123123595999", 16), 0);

  // KXPUT1 opens, puts and closes in one call; the MsgId it generated comes back.
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, "Q2");
  KXMD md1 = KXMD_DEFAULT;
  KXPMO pmo = KXPMO_DEFAULT;
  Result r;
  KXPUT1(h, &od, &md1, &pmo, 3, const_cast<char*>("one"), &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(memcmp(md1.MsgId, "KXM ", 4), 0);
  KXHOBJ q2 = open(h, "Q2", KXOO_INPUT_SHARED);
  g = get(h, q2, 0);
  EXPECT_EQ(g.data, "one");
  EXPECT_EQ(memcmp(g.md.MsgId, md1.MsgId, 24), 0);
  disconnect(h);
}

TEST_F(KxTest, BrowseCursorSurvivesRemovalByAnotherProcess) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE);
  KXHOBJ other = open(h, "Q1", KXOO_BROWSE);
  for (int i = 0; i < 20; ++i) put(h, o, numbered(i));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(get(h, o, KXGMO_BROWSE_NEXT).data, numbered(i));

  // Another process removes messages 0 to 7 (under and ahead of the cursor) and adds one.
  pid_t child = spawn([] {
    KXHCONN c = connect("QM1");
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED | KXOO_OUTPUT);
    for (int i = 0; i < 8; ++i)
      if (get(c, q, 0).data != numbered(i)) return false;
    put(c, q, numbered(20));
    disconnect(c);
    return true;
  });
  ASSERT_EQ(waitFor(child), 0);

  for (int i = 8; i <= 20; ++i) {
    Got g = get(h, o, KXGMO_BROWSE_NEXT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    EXPECT_EQ(g.data, numbered(i));
  }
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // A second handle has its own cursor, and browse-first starts over.
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(8));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(8));

  // Removal through the same connection is seen too.
  KXHOBJ in = open(h, "Q1", KXOO_INPUT_SHARED);
  EXPECT_EQ(get(h, in, 0).data, numbered(8));
  EXPECT_EQ(get(h, in, 0).data, numbered(9));
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(10));
  disconnect(h);
}

TEST_F(KxTest, TruncationLeavesTheMessageUnlessAccepted) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::string big(10000, 'b');
  big[0] = 'B';
  put(h, o, big);
  put(h, o, std::string(200000, 'c'));  // beyond the read-ahead's data
  put(h, o, "small");

  Got g = get(h, o, KXGMO_BROWSE_NEXT, 4096);
  EXPECT_EQ(g.r.cc, KXCC_FAILED);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 10000);
  // The cursor did not move: the retry with room returns the same message.
  g = get(h, o, KXGMO_BROWSE_NEXT, 10000);
  EXPECT_EQ(g.r.cc, KXCC_OK);
  EXPECT_EQ(g.data, big);
  g = get(h, o, KXGMO_BROWSE_NEXT, 100);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 200000);
  g = get(h, o, KXGMO_BROWSE_NEXT | KXGMO_ACCEPT_TRUNCATED_MSG, 100);
  EXPECT_EQ(g.r.cc, KXCC_WARNING);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.data, std::string(100, 'c'));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT, 5).data, "small") << "an accepted truncation moves on";

  // Destructive: 2080 leaves the message, accepting truncation takes it.
  g = get(h, o, 0, 10);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(depth(h, "Q1"), 3);
  g = get(h, o, KXGMO_ACCEPT_TRUNCATED_MSG, 1);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.data, "B");
  EXPECT_EQ(g.dataLength, 10000);
  EXPECT_EQ(depth(h, "Q1"), 2);
  g = get(h, o, KXGMO_ACCEPT_TRUNCATED_MSG, 0);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(get(h, o, 0, 5).data, "small");
  disconnect(h);
}

TEST_F(KxTest, WaitReturnsAMessagePutLaterOrTimesOut) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_INPUT_SHARED | KXOO_BROWSE);
  auto start = std::chrono::steady_clock::now();
  Got g = get(h, o, KXGMO_WAIT, 100, 150);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(g.r.rc, KXRC_NO_MSG_AVAILABLE);
  EXPECT_GE(waited, std::chrono::milliseconds(150));
  EXPECT_LT(waited, std::chrono::milliseconds(1500));

  std::thread putter([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    KXHCONN c = connect("QM1");
    KXHOBJ q = open(c, "Q1", KXOO_OUTPUT);
    put(c, q, "late");
    put(c, q, "later");
    disconnect(c);
  });
  g = get(h, o, KXGMO_WAIT | KXGMO_BROWSE_NEXT, 100, KXWI_UNLIMITED);
  EXPECT_EQ(g.data, "late");
  g = get(h, o, KXGMO_WAIT, 100, 5000);
  EXPECT_EQ(g.data, "late");
  putter.join();
  EXPECT_EQ(get(h, o, KXGMO_WAIT, 100, 10).data, "later");
  disconnect(h);
}

TEST_F(KxTest, SyncpointGetsAndPutsCommitOrBackOut) {
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED | KXOO_BROWSE);
  for (int i = 0; i < 5; ++i) put(h, o, numbered(i));
  Result r;
  KXBO bo = KXBO_DEFAULT;
  KXBEGIN(h, &bo, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(0));
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(1));
  put(h, o, "uncommitted", KXPMO_SYNCPOINT);
  // Got messages are hidden; the put is not visible yet.
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(2));
  EXPECT_EQ(depth(h, "Q1"), 5);
  KXBACK(h, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  // Backed out: both messages are back in place, the put is gone.
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(get(h, o, i ? KXGMO_BROWSE_NEXT : KXGMO_BROWSE_FIRST).data, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);

  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(0));
  put(h, o, "committed", KXPMO_SYNCPOINT);
  KXCMIT(h, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 5);
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(1));

  // Syncpoint puts beyond the in-memory limit are written as pending and still back out.
  std::string chunk(100000, 'p');
  for (int i = 0; i < 60; ++i) ASSERT_EQ(put(h, o, chunk, KXPMO_SYNCPOINT).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 5);
  KXBACK(h, &r.cc, &r.rc);
  EXPECT_EQ(depth(h, "Q1"), 5);
  for (int i = 0; i < 60; ++i) put(h, o, chunk, KXPMO_SYNCPOINT);
  KXCMIT(h, &r.cc, &r.rc);
  EXPECT_EQ(depth(h, "Q1"), 65);
  disconnect(h);
}

TEST_F(KxTest, UnitOfWorkOfADeadProcessIsBackedOut) {
  {
    KXHCONN h = connect("QM1");
    KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
    for (int i = 0; i < 3; ++i) put(h, o, numbered(i));
    disconnect(h);
  }
  pid_t child = spawn([] {
    KXHCONN c = connect("QM1");
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED | KXOO_OUTPUT);
    get(c, q, KXGMO_SYNCPOINT);
    put(c, q, std::string(5 << 20, 'x'), KXPMO_SYNCPOINT);  // written as pending
    kill(getpid(), SIGKILL);
    return true;
  });
  EXPECT_EQ(waitFor(child), 128 + SIGKILL);
  KXHCONN h = connect("QM1");
  EXPECT_EQ(depth(h, "Q1"), 3);
  KXHOBJ o = open(h, "Q1", KXOO_BROWSE);
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(0));
  disconnect(h);
}

TEST_F(KxTest, TwoDrainerProcessesGetEveryMessageExactlyOnce) {
  constexpr int kCount = 10000;
  {
    KXHCONN h = connect("QM1");
    KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
    for (int i = 0; i < kCount; ++i) put(h, o, std::to_string(i), KXPMO_SYNCPOINT);
    Result r;
    KXCMIT(h, &r.cc, &r.rc);
    ASSERT_EQ(r.cc, KXCC_OK);
    disconnect(h);
  }
  auto drainer = [this](int n) {
    return [this, n] {
      KXHCONN c = connect("QM1");
      KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED);
      std::ofstream out(dir_ + "/drained." + std::to_string(n));
      // One drainer commits in units of work of 7, the other takes each message at once.
      bool syncpoint = n == 1;
      for (int taken = 1;; ++taken) {
        Got g = get(c, q, syncpoint ? KXGMO_SYNCPOINT : 0, 100);
        if (g.r.rc == KXRC_NO_MSG_AVAILABLE) break;
        if (g.r.cc != KXCC_OK) return false;
        out << g.data << '\n';
        if (syncpoint && taken % 7 == 0) {
          Result r;
          KXCMIT(c, &r.cc, &r.rc);
          if (r.cc != KXCC_OK) return false;
        }
      }
      out.close();
      disconnect(c);  // commits the last unit of work
      return true;
    };
  };
  pid_t a = spawn(drainer(0));
  pid_t b = spawn(drainer(1));
  ASSERT_EQ(waitFor(a), 0);
  ASSERT_EQ(waitFor(b), 0);
  std::vector<int> seen(kCount, 0);
  size_t perDrainer[2] = {0, 0};
  for (int n = 0; n < 2; ++n) {
    std::ifstream in(dir_ + "/drained." + std::to_string(n));
    std::string line;
    while (std::getline(in, line)) {
      ++seen.at(size_t(std::stoi(line)));
      ++perDrainer[n];
    }
  }
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(seen[size_t(i)], 1) << "message " << i;
  EXPECT_GT(perDrainer[0], 0u);
  EXPECT_GT(perDrainer[1], 0u);
  KXHCONN h = connect("QM1");
  EXPECT_EQ(depth(h, "Q1"), 0);
  disconnect(h);
}

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

TEST_F(KxTest, FailuresAreReasonsNotCrashes) {
  Result r;
  connect("NOSUCH", &r);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
  connect("bad/name", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
  KXCONN(nullptr, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_FAILED);

  KXHCONN h = connect("QM1", &r);
  ASSERT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(connect("QM1", &r), h);
  EXPECT_EQ(r.cc, KXCC_WARNING);
  EXPECT_EQ(r.rc, KXRC_CONN_ALREADY_EXISTS);

  open(h, "NOSUCH", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_UNKNOWN_OBJECT_NAME);
  open(h + 100, "Q1", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_HCONN_ERROR);
  open(h, "Q1", KXOO_INPUT_SHARED | KXOO_INPUT_EXCLUSIVE, &r);
  EXPECT_EQ(r.rc, KXRC_OPTIONS_ERROR);
  KXOPEN(h, nullptr, KXOO_BROWSE, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_FAILED);

  KXHOBJ out = open(h, "Q1", KXOO_OUTPUT);
  KXHOBJ browse = open(h, "Q1", KXOO_BROWSE);
  EXPECT_EQ(put(h, browse, "x").rc, KXRC_NOT_OPEN_FOR_OUTPUT);
  EXPECT_EQ(get(h, out, KXGMO_BROWSE_FIRST).r.rc, KXRC_NOT_OPEN_FOR_BROWSE);
  EXPECT_EQ(get(h, browse, 0).r.rc, KXRC_NOT_OPEN_FOR_INPUT);
  EXPECT_EQ(get(h, browse, KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT).r.rc, KXRC_OPTIONS_ERROR);
  EXPECT_EQ(get(h, browse, 0x4000000).r.rc, KXRC_OPTIONS_ERROR);
  EXPECT_EQ(get(h, browse + 50, KXGMO_BROWSE_FIRST).r.rc, KXRC_HOBJ_ERROR);
  EXPECT_EQ(get(h - 1 + 77, browse, KXGMO_BROWSE_FIRST).r.rc, KXRC_HCONN_ERROR);

  KXMD md = KXMD_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  KXLONG len = 0;
  gmo.Options = KXGMO_BROWSE_FIRST;
  KXGET(h, browse, &md, &gmo, -1, nullptr, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_BUFFER_LENGTH_ERROR);
  KXGET(h, browse, nullptr, &gmo, 0, nullptr, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_MD_ERROR);
  memcpy(md.StrucId, "XX  ", 4);
  KXPMO pmo = KXPMO_DEFAULT;
  KXPUT(h, out, &md, &pmo, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_MD_ERROR);

  // Maximum message length of the queue.
  char msg[256];
  ASSERT_EQ(kxmCreateQueue("QM1", "SMALL", 10, msg, sizeof msg), 0) << msg;
  KXHOBJ small = open(h, "SMALL", KXOO_OUTPUT | KXOO_INQUIRE);
  EXPECT_EQ(put(h, small, std::string(10, 'a')).cc, KXCC_OK);
  EXPECT_EQ(put(h, small, std::string(11, 'a')).rc, KXRC_MSG_TOO_BIG_FOR_Q);
  KXLONG sels[2] = {KXIA_MAX_MSG_LENGTH, KXIA_CURRENT_Q_DEPTH}, vals[2] = {0, 0};
  KXINQ(h, small, 2, sels, 2, vals, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(vals[0], 10);
  EXPECT_EQ(vals[1], 1);
  KXLONG bad = 999;
  KXINQ(h, small, 1, &bad, 1, vals, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_SELECTOR_ERROR);

  // Closed handles and a deleted queue.
  KXCLOSE(h, &small, 0, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(small, -1);
  KXCLOSE(h, &small, 0, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_HOBJ_ERROR);
  ASSERT_EQ(kxmDeleteQueue("QM1", "Q1", msg, sizeof msg), 0) << msg;
  EXPECT_EQ(put(h, out, "x").rc, KXRC_Q_DELETED);
  EXPECT_EQ(kxmDeleteQueue("QM1", "Q1", msg, sizeof msg), KXRC_UNKNOWN_OBJECT_NAME);

  KXHCONN gone = h;
  KXDISC(&h, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  KXDISC(&gone, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_HCONN_ERROR);
}

TEST_F(KxTest, AdministrationCreatesTheDataDirectoryAndRefusesBadNames) {
  char msg[512];
  setenv("KX_DATA_PATH", (dir_ + "/new/deeper").c_str(), 1);
  EXPECT_EQ(kxmCreateQmgr("QM2", msg, sizeof msg), 0) << msg;
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/new/deeper/QM2.kxdb"));
  EXPECT_EQ(kxmCreateQmgr("QM2", msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQmgr("../x", msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue("QM2", "", -1, msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue("QM2", "Q", -1, msg, sizeof msg), 0);
  EXPECT_EQ(kxmCreateQueue("QM2", "Q", -1, msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQueue("NOSUCH", "Q", -1, msg, sizeof msg), KXRC_Q_MGR_NAME_ERROR);
  EXPECT_EQ(kxmDeleteQmgr("QM2", msg, sizeof msg), 0);
  EXPECT_EQ(kxmDeleteQmgr("QM2", msg, sizeof msg), KXRC_Q_MGR_NAME_ERROR);

  // A data path that cannot be a directory gives a clear reason.
  std::ofstream(dir_ + "/file") << "x";
  setenv("KX_DATA_PATH", (dir_ + "/file/sub").c_str(), 1);
  EXPECT_EQ(kxmCreateQmgr("QM3", msg, sizeof msg), KXM_RC_DATA_PATH_ERROR);
  EXPECT_NE(std::string(msg).find("cannot create the data directory"), std::string::npos) << msg;
  Result r;
  connect("QM3", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
}
