// qmgr_test.cpp - the client library against a Redis server: order and descriptors, browse
// cursors, truncation, waiting, units of work, two drainer processes, and failure reasons.
#include <time.h>

#include <atomic>
#include <future>
#include <set>

#include "tests/kxic/kxic_fixture.h"

using namespace kxictest;

TEST_F(KxicTest, MessagesComeBackInOrderWithTheirDescriptorByteForByte) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  std::vector<KXMD> sent;
  for (int i = 0; i < 3; ++i) {
    KXMD md = KXMD_DEFAULT;
    md.Encoding = i == 1 ? KXENC_BIG_ENDIAN : KXENC_LITTLE_ENDIAN;
    md.CodedCharSetId = 1208 + i;
    memcpy(md.Format, i == 2 ? KXFMT_COMPACT : KXFMT_STRING, 8);
    memset(md.CorrelId, 0xA0 + i, sizeof md.CorrelId);
    for (size_t k = 0; k < sizeof md.Fields1; ++k) md.Fields1[k] = uint8_t(k * 7 + i);
    memset(md.Fields2, 0xEE, sizeof md.Fields2);
    std::string data = numbered(i) + std::string(1, '\0') + "\xff\x01";
    ASSERT_EQ(put(h, o, data, 0, &md).cc, KXCC_OK);
    sent.push_back(md);
  }
  // The queue manager gave each message its own MsgId and today's UTC put date.
  EXPECT_NE(memcmp(sent[0].MsgId, sent[1].MsgId, 24), 0);
  time_t now = time(nullptr);
  struct tm tm;
  gmtime_r(&now, &tm);
  char today[16];
  strftime(today, sizeof today, "%Y%m%d", &tm);
  EXPECT_EQ(std::string(sent[0].PutDate, 8), today);
  for (int i = 0; i < 3; ++i) {
    Got g = get(h, o, 0);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    EXPECT_EQ(g.data, numbered(i) + std::string(1, '\0') + "\xff\x01");
    EXPECT_EQ(memcmp(&g.md, &sent[size_t(i)], sizeof(KXMD)), 0) << "descriptor " << i;
  }
  EXPECT_EQ(get(h, o, 0).r.rc, KXRC_NO_MSG_AVAILABLE);

  // Set-all-context stores the descriptor as given; a given MsgId is kept.
  KXMD given = KXMD_DEFAULT;
  memset(given.MsgId, 0x11, 24);
  memcpy(given.PutDate, "19991231", 8);
  ASSERT_EQ(put(h, o, "x", KXPMO_SET_ALL_CONTEXT, &given).cc, KXCC_OK);
  Got g = get(h, o, 0);
  EXPECT_EQ(memcmp(&g.md, &given, sizeof given), 0);
  EXPECT_EQ(std::string(g.md.PutDate, 8), "19991231");
  disconnect(h);
}

TEST_F(KxicTest, BrowseCursorsWalkInOrderAndSurviveRemovalByAnotherProcess) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE);
  KXHOBJ other = open(h, "Q1", KXOO_BROWSE);
  // More than one browse batch.
  constexpr int kCount = 100;
  for (int i = 0; i < kCount; ++i) put(h, o, numbered(i));
  for (int i = 0; i < kCount; ++i) {
    Got g = get(h, o, i == 0 ? KXGMO_BROWSE_FIRST : KXGMO_BROWSE_NEXT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    ASSERT_EQ(g.data, numbered(i));
  }
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // A message put after the end is found by the next browse.
  put(h, o, numbered(kCount));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).data, numbered(kCount));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(0));
  for (int i = 1; i < 3; ++i) ASSERT_EQ(get(h, o, KXGMO_BROWSE_NEXT).data, numbered(i));

  // Another process removes messages 0 to 7 (under and ahead of the cursor) and adds one.
  std::string qm = qmgr_;
  pid_t child = spawn([qm] {
    KXHCONN c = connect(qm);
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED | KXOO_OUTPUT);
    for (int i = 0; i < 8; ++i)
      if (get(c, q, 0).data != numbered(i)) return false;
    disconnect(c);
    return true;
  });
  ASSERT_EQ(waitFor(child), 0);
  for (int i = 8; i <= kCount; ++i) {
    Got g = get(h, o, KXGMO_BROWSE_NEXT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    ASSERT_EQ(g.data, numbered(i));
  }
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // The second handle has its own cursor.
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(8));

  // Removal through the same connection is seen too.
  KXHOBJ in = open(h, "Q1", KXOO_INPUT_SHARED);
  EXPECT_EQ(get(h, in, 0).data, numbered(8));
  EXPECT_EQ(get(h, in, 0).data, numbered(9));
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(10));
  EXPECT_EQ(depth(h, "Q1"), kCount + 1 - 10);
  disconnect(h);
}

TEST_F(KxicTest, BrowseAndGetMatchByMsgIdAndCorrelId) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  for (int i = 0; i < 5; ++i) {
    KXMD md = KXMD_DEFAULT;
    memset(md.CorrelId, i % 2 ? 'o' : 'e', 24);
    put(h, o, numbered(i), 0, &md);
  }
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = KXGMO_BROWSE_FIRST;
  gmo.MatchOptions = KXMO_MATCH_CORREL_ID;
  KXMD md = KXMD_DEFAULT;
  memset(md.CorrelId, 'o', 24);
  char buf[64];
  KXLONG len = 0;
  Result r;
  KXGET(h, o, &md, &gmo, sizeof buf, buf, &len, &r.cc, &r.rc);
  ASSERT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(std::string(buf, size_t(len)), numbered(1));
  gmo.Options = KXGMO_BROWSE_NEXT;
  KXGET(h, o, &md, &gmo, sizeof buf, buf, &len, &r.cc, &r.rc);
  EXPECT_EQ(std::string(buf, size_t(len)), numbered(3));
  KXGET(h, o, &md, &gmo, sizeof buf, buf, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_NO_MSG_AVAILABLE);
  // A destructive get by MsgId takes that message and leaves the others in order.
  Got third = get(h, o, KXGMO_BROWSE_FIRST);
  for (int i = 0; i < 2; ++i) third = get(h, o, KXGMO_BROWSE_NEXT);
  ASSERT_EQ(third.data, numbered(2));
  gmo = KXGMO_DEFAULT;
  gmo.MatchOptions = KXMO_MATCH_MSG_ID;
  md = third.md;
  KXGET(h, o, &md, &gmo, sizeof buf, buf, &len, &r.cc, &r.rc);
  ASSERT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(std::string(buf, size_t(len)), numbered(2));
  for (int i : {0, 1, 3, 4}) EXPECT_EQ(get(h, o, 0).data, numbered(i));
  disconnect(h);
}

TEST_F(KxicTest, TruncationLeavesTheMessageUnlessAccepted) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::string big(10000, 'b');
  put(h, o, big);
  put(h, o, "small");

  // Browse: 2080 with the full length, the cursor stays; accepted, the cursor moves.
  Got g = get(h, o, KXGMO_BROWSE_FIRST, 100);
  EXPECT_EQ(g.r.cc, KXCC_FAILED);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 10000);
  g = get(h, o, KXGMO_BROWSE_NEXT, 100);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  g = get(h, o, KXGMO_BROWSE_NEXT | KXGMO_ACCEPT_TRUNCATED_MSG, 100);
  EXPECT_EQ(g.r.cc, KXCC_WARNING);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.data, big.substr(0, 100));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT, 100).data, "small");

  // Destructive: 2080 leaves the message in place with its descriptor returned.
  g = get(h, o, 0, 100);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 10000);
  EXPECT_EQ(memcmp(g.md.StrucId, "MD  ", 4), 0);
  EXPECT_EQ(depth(h, "Q1"), 2);
  g = get(h, o, KXGMO_ACCEPT_TRUNCATED_MSG, 0);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.dataLength, 10000);
  EXPECT_EQ(get(h, o, 0).data, "small");
  EXPECT_EQ(depth(h, "Q1"), 0);
  disconnect(h);
}

TEST_F(KxicTest, LargeMessagesAmongSmallOnesComeBackWhole) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::vector<std::string> sent;
  for (int i = 0; i < 40; ++i) {
    std::string data = i % 10 == 3 ? std::string(3 << 20, char('A' + i % 26)) : numbered(i);
    ASSERT_EQ(put(h, o, data).cc, KXCC_OK);
    sent.push_back(data);
  }
  for (size_t i = 0; i < sent.size(); ++i) {
    Got g = get(h, o, i == 0 ? KXGMO_BROWSE_FIRST : KXGMO_BROWSE_NEXT, 4 << 20);
    ASSERT_EQ(g.r.cc, KXCC_OK) << i;
    ASSERT_EQ(g.data, sent[i]) << i;
  }
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  for (size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(get(h, o, 0, 4 << 20).data, sent[i]) << i;
  disconnect(h);
}

TEST_F(KxicTest, WaitReturnsAMessagePutLaterOrTimesOut) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_INPUT_SHARED | KXOO_BROWSE);
  auto t0 = std::chrono::steady_clock::now();
  Got g = get(h, o, KXGMO_WAIT, 100, 300);
  auto waited = std::chrono::steady_clock::now() - t0;
  EXPECT_EQ(g.r.rc, KXRC_NO_MSG_AVAILABLE);
  EXPECT_GE(waited, std::chrono::milliseconds(290));
  EXPECT_LT(waited, std::chrono::milliseconds(2000));

  std::string qm = qmgr_;
  auto putLater = [qm](KXLONG pmo) {
    return std::thread([qm, pmo] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      KXHCONN c = connect(qm);
      KXHOBJ q = open(c, "Q1", KXOO_OUTPUT);
      put(c, q, "late", pmo);
      if (pmo & KXPMO_SYNCPOINT) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        commit(c);
      }
      disconnect(c);
    });
  };
  // A plain put, and a put under syncpoint that becomes visible only at its commit.
  for (KXLONG pmo : {KXPMO_NO_SYNCPOINT, KXPMO_SYNCPOINT}) {
    std::thread t = putLater(pmo);
    t0 = std::chrono::steady_clock::now();
    g = get(h, o, KXGMO_WAIT, 100, 5000);
    waited = std::chrono::steady_clock::now() - t0;
    t.join();
    EXPECT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    EXPECT_EQ(g.data, "late");
    EXPECT_LT(waited, std::chrono::milliseconds(900)) << "put options " << pmo;
  }
  // A waiting browse.
  std::thread t = putLater(KXPMO_NO_SYNCPOINT);
  g = get(h, o, KXGMO_BROWSE_FIRST | KXGMO_WAIT, 100, 5000);
  t.join();
  EXPECT_EQ(g.data, "late");
  disconnect(h);
}

TEST_F(KxicTest, SyncpointGetsAndPutsCommitOrBackOutInPlace) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  KXHCONN other = connect(qmgr_);  // same thread: the same connection
  for (int i = 0; i < 4; ++i) put(h, o, numbered(i));
  std::string qm = qmgr_;
  // What another process sees: the first message it would get, and what it browses.
  auto seenElsewhere = [qm] {
    std::string first;
    std::thread([&] {
      KXHCONN c = connect(qm);
      KXHOBJ q = open(c, "Q1", KXOO_BROWSE);
      Got g = get(c, q, KXGMO_BROWSE_FIRST);
      first = g.r.cc == KXCC_OK ? g.data : "none";
      disconnect(c);
    }).join();
    return first;
  };

  // Got under syncpoint: hidden from others until the back-out, then back in its place.
  Got a = get(h, o, KXGMO_SYNCPOINT);
  Got b = get(h, o, KXGMO_SYNCPOINT);
  EXPECT_EQ(a.data, numbered(0));
  EXPECT_EQ(b.data, numbered(1));
  EXPECT_EQ(seenElsewhere(), numbered(2));
  EXPECT_EQ(depth(h, "Q1"), 4);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(seenElsewhere(), numbered(0));
  Got again = get(h, o, KXGMO_SYNCPOINT);
  EXPECT_EQ(again.data, numbered(0));
  EXPECT_EQ(memcmp(&again.md, &a.md, sizeof a.md), 0);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 3);
  EXPECT_EQ(seenElsewhere(), numbered(1));

  // Put under syncpoint: invisible and not counted until the commit; backed out, gone.
  KXHOBJ o2 = open(h, "Q2", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  put(h, o2, "kept", KXPMO_SYNCPOINT);
  put(h, o, "dropped", KXPMO_SYNCPOINT);
  EXPECT_EQ(depth(h, "Q2"), 0);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q2"), 0);
  EXPECT_EQ(depth(h, "Q1"), 3);
  put(h, o2, "kept", KXPMO_SYNCPOINT);
  EXPECT_EQ(get(h, o2, 0).r.rc, KXRC_NO_MSG_AVAILABLE);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(get(h, o2, 0).data, "kept");

  // A disconnect commits what is left.
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(1));
  EXPECT_EQ(disconnect(other).cc, KXCC_OK);
  KXHCONN h2 = connect(qmgr_);
  EXPECT_EQ(depth(h2, "Q1"), 2);
  disconnect(h2);
}

TEST_F(KxicTest, GettersSkipOtherUnitsOfWorkAndFindWhatTheyGiveBack) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 7; ++i) put(h, o, numbered(i));
  std::string qm = qmgr_;
  // A second unit of work on its own connection keeps a message locked throughout. The
  // thread that made the connection lives on, so that no later thread takes its id (and with
  // it the connection).
  std::promise<KXHCONN> made;
  std::promise<void> done;
  std::thread owner([&] {
    made.set_value(connect(qm));
    done.get_future().wait();
  });
  KXHCONN holder = made.get_future().get();
  KXHOBJ held = open(holder, "Q1", KXOO_INPUT_SHARED);
  // Another connection (its own thread) takes messages outside syncpoint.
  auto takeElsewhere = [qm](int n) {
    std::vector<std::string> got;
    std::thread([&] {
      KXHCONN c = connect(qm);
      KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED);
      for (int i = 0; i < n; ++i) {
        Got g = get(c, q, 0);
        got.push_back(g.r.cc == KXCC_OK ? g.data : "rc " + std::to_string(g.r.rc));
      }
      disconnect(c);
    }).join();
    return got;
  };
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(0));
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(1));
  EXPECT_EQ(get(holder, held, KXGMO_SYNCPOINT).data, numbered(2));
  EXPECT_EQ(takeElsewhere(1), std::vector<std::string>{numbered(3)});
  // Backed out, the two come back first, in their places.
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(takeElsewhere(2), (std::vector<std::string>{numbered(0), numbered(1)}));

  // A put under syncpoint behind locked messages is found once committed.
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(4));
  put(h, o, "late", KXPMO_SYNCPOINT);
  EXPECT_EQ(takeElsewhere(3),
            (std::vector<std::string>{numbered(5), numbered(6), "rc 2033"}));
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(takeElsewhere(2), (std::vector<std::string>{"late", "rc 2033"}));
  EXPECT_EQ(backOut(holder).cc, KXCC_OK);
  EXPECT_EQ(takeElsewhere(2), (std::vector<std::string>{numbered(2), "rc 2033"}));
  disconnect(holder);
  done.set_value();
  owner.join();
  disconnect(h);
}

TEST_F(KxicTest, TheUnitOfWorkOfADeadProcessIsBackedOutAfterItsExpiry) {
  setenv("KXIC_UNIT_TIMEOUT", "1500", 1);
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 5; ++i) put(h, o, numbered(i));
  std::string qm = qmgr_;
  // The child gets two messages and a put under syncpoint and dies without a word.
  pid_t child = spawn([qm] {
    KXHCONN c = connect(qm);
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED | KXOO_OUTPUT);
    bool ok = get(c, q, KXGMO_SYNCPOINT).data == numbered(0) &&
              get(c, q, KXGMO_SYNCPOINT).data == numbered(1) &&
              put(c, q, "never", KXPMO_SYNCPOINT).cc == KXCC_OK;
    return ok;
  });
  ASSERT_EQ(waitFor(child), 0);
  // While its unit of work lives, its messages stay hidden.
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(2));
  std::this_thread::sleep_for(std::chrono::milliseconds(1700));
  unsetenv("KXIC_UNIT_TIMEOUT");
  // Both units have expired: another getter takes everything back in order, the put is gone,
  // and the commit of the expired unit reports the back-out.
  std::vector<std::string> got;
  std::thread([&] {
    KXHCONN c = connect(qm);
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED);
    for (Got g = get(c, q, 0); g.r.cc == KXCC_OK; g = get(c, q, 0)) got.push_back(g.data);
    disconnect(c);
  }).join();
  EXPECT_EQ(got, (std::vector<std::string>{numbered(0), numbered(1), numbered(2), numbered(3),
                                           numbered(4)}));
  Result r = commit(h);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.rc, KXRC_BACKED_OUT);
  disconnect(h);
}

TEST_F(KxicTest, TwoDrainerProcessesGetEveryMessageExactlyOnce) {
  constexpr int kCount = 3000;
  {
    KXHCONN h = connect(qmgr_);
    KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
    for (int i = 0; i < kCount; ++i) put(h, o, std::to_string(i), KXPMO_SYNCPOINT);
    ASSERT_EQ(commit(h).cc, KXCC_OK);
    disconnect(h);
  }
  char tmpl[] = "/tmp/kxic-drain.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string dir = tmpl, qm = qmgr_;
  auto drainer = [dir, qm](int n) {
    return [dir, qm, n] {
      KXHCONN c = connect(qm);
      KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED);
      std::ofstream out(dir + "/drained." + std::to_string(n));
      // One drainer works in units of work of 7 and backs every third one out (its messages
      // go back in place for either drainer to take again); the other takes each message at
      // once.
      bool syncpoint = n == 1;
      std::vector<std::string> unit;
      for (int taken = 1, units = 0;; ++taken) {
        Got g = get(c, q, syncpoint ? KXGMO_SYNCPOINT : 0, 100);
        if (g.r.rc == KXRC_NO_MSG_AVAILABLE) break;
        if (g.r.cc != KXCC_OK) return false;
        if (!syncpoint) {
          out << g.data << '\n';
          continue;
        }
        unit.push_back(g.data);
        if (taken % 7 != 0) continue;
        bool back = ++units % 3 == 0;
        if ((back ? backOut(c) : commit(c)).cc != KXCC_OK) return false;
        if (!back)
          for (const std::string& d : unit) out << d << '\n';
        unit.clear();
      }
      for (const std::string& d : unit) out << d << '\n';
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
    std::ifstream in(dir + "/drained." + std::to_string(n));
    std::string line;
    while (std::getline(in, line)) {
      ++seen.at(size_t(std::stoi(line)));
      ++perDrainer[n];
    }
  }
  std::filesystem::remove_all(dir);
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(seen[size_t(i)], 1) << "message " << i;
  EXPECT_GT(perDrainer[0], 0u);
  EXPECT_GT(perDrainer[1], 0u);
  KXHCONN h = connect(qmgr_);
  EXPECT_EQ(depth(h, "Q1"), 0);
  disconnect(h);
}

TEST_F(KxicTest, FailuresAreReasonsNotCrashes) {
  Result r;
  // Unknown queue manager and queue, bad handles.
  connect("NOSUCHQM", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
  connect("", &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
  KXHCONN h = connect(qmgr_, &r);
  ASSERT_EQ(r.cc, KXCC_OK);
  KXHCONN again = connect(qmgr_, &r);
  EXPECT_EQ(r.cc, KXCC_WARNING);
  EXPECT_EQ(r.rc, KXRC_CONN_ALREADY_EXISTS);
  EXPECT_EQ(again, h);
  open(h, "NOSUCHQ", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_UNKNOWN_OBJECT_NAME);
  open(h + 100, "Q1", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_HCONN_ERROR);
  open(h, "Q1", KXOO_INPUT_SHARED | KXOO_INPUT_EXCLUSIVE, &r);
  EXPECT_EQ(r.rc, KXRC_OPTIONS_ERROR);
  KXHOBJ out = open(h, "Q1", KXOO_OUTPUT);
  EXPECT_EQ(get(h, out, KXGMO_BROWSE_FIRST).r.rc, KXRC_NOT_OPEN_FOR_BROWSE);
  EXPECT_EQ(get(h, out, 0).r.rc, KXRC_NOT_OPEN_FOR_INPUT);
  EXPECT_EQ(get(h, out + 50, 0).r.rc, KXRC_HOBJ_ERROR);
  KXHOBJ in = open(h, "Q1", KXOO_INPUT_SHARED | KXOO_BROWSE);
  EXPECT_EQ(put(h, in, "x").rc, KXRC_NOT_OPEN_FOR_OUTPUT);
  EXPECT_EQ(get(h, in, KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT).r.rc, KXRC_OPTIONS_ERROR);
  EXPECT_EQ(get(h, in, KXGMO_WAIT, 10, -5).r.rc, KXRC_WAIT_INTERVAL_ERROR);
  KXMD md = KXMD_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  KXLONG len = 0;
  KXGET(h, in, &md, &gmo, -1, nullptr, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_BUFFER_LENGTH_ERROR);

  // Maximum message length, set and inquired.
  KXHOBJ set = open(h, "Q1", KXOO_SET | KXOO_INQUIRE | KXOO_OUTPUT);
  KXLONG sel = KXIA_MAX_MSG_LENGTH, value = 10;
  KXSET(h, set, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(put(h, set, std::string(11, 'x')).rc, KXRC_MSG_TOO_BIG_FOR_Q);
  value = -1;
  KXINQ(h, set, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(value, 10);

  // A queue deleted while open: puts fail, gets find nothing.
  char msg[256];
  ASSERT_EQ(kxmDeleteQueue(qmgr_.c_str(), "Q1", msg, sizeof msg), 0) << msg;
  EXPECT_EQ(put(h, out, "x").rc, KXRC_Q_DELETED);
  EXPECT_EQ(get(h, in, 0).r.rc, KXRC_NO_MSG_AVAILABLE);
  EXPECT_EQ(disconnect(h).cc, KXCC_OK);
  EXPECT_EQ(disconnect(h).rc, KXRC_HCONN_ERROR);
}

TEST_F(KxicTest, AdministrationListsQueuesAndRefusesDuplicatesAndBadNames) {
  char msg[256];
  EXPECT_EQ(kxmCreateQmgr(qmgr_.c_str(), msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q1", -1, msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "bad name", -1, msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQmgr("bad/name", msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue("NOSUCHQM", "Q", -1, msg, sizeof msg), KXRC_Q_MGR_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q3", int64_t(KXM_LARGEST_MAX_MSG_LENGTH) + 1, msg,
                           sizeof msg),
            KXM_RC_LENGTH_ERROR);
  EXPECT_EQ(kxmDeleteQueue(qmgr_.c_str(), "NOSUCHQ", msg, sizeof msg), KXRC_UNKNOWN_OBJECT_NAME);
  ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "A.FIRST", 4096, msg, sizeof msg), 0) << msg;
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q2", KXOO_OUTPUT);
  put(h, o, "1");
  put(h, o, "2");
  put(h, o, "pending", KXPMO_SYNCPOINT);
  struct Row {
    std::string name;
    int64_t depth, max;
  };
  std::vector<Row> rows;
  auto collect = [](const char* q, int64_t d, int64_t m, void* ctx) -> int32_t {
    static_cast<std::vector<Row>*>(ctx)->push_back({q, d, m});
    return 0;
  };
  ASSERT_EQ(kxmListQueues(qmgr_.c_str(), collect, &rows, msg, sizeof msg), 0) << msg;
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].name, "A.FIRST");
  EXPECT_EQ(rows[0].max, 4096);
  EXPECT_EQ(rows[2].name, "Q2");
  EXPECT_EQ(rows[2].depth, 2);
  EXPECT_EQ(rows[1].max, KXM_DEFAULT_MAX_MSG_LENGTH);
  disconnect(h);
}
