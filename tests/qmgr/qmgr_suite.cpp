// qmgr_suite.cpp - queue manager semantics, the same for every library of the KX API: order and
// descriptors, browse cursors, matching, truncation, waiting, units of work, two drainer
// processes, a dead process's unit of work, and the reasons for calls that cannot succeed.
#include <algorithm>
#include <atomic>
#include <signal.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/qmgr/qmgr_env.h"

using namespace qmtest;

namespace {

// Today's date as the queue manager writes it into PutDate (UTC).
std::string todayUtc() {
  time_t now = time(nullptr);
  struct tm tm;
  gmtime_r(&now, &tm);
  char today[16];
  strftime(today, sizeof today, "%Y%m%d", &tm);
  return today;
}

}  // namespace

TEST_F(QmgrTest, MessagesComeBackInOrderWithTheirDescriptorByteForByte) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  constexpr int kCount = 300;
  const char* formats[] = {KXFMT_STRING, KXFMT_COMPACT, KXFMT_NONE};
  std::vector<KXMD> sent;
  std::set<std::string> ids;
  auto payload = [](int i) { return numbered(i) + std::string(1, '\0') + "\xff\x01"; };
  std::string dayBefore = todayUtc();
  for (int i = 0; i < kCount; ++i) {
    KXMD md = KXMD_DEFAULT;
    memcpy(md.Format, formats[i % 3], 8);
    md.Encoding = i % 2 ? KXENC_BIG_ENDIAN : KXENC_LITTLE_ENDIAN;
    md.CodedCharSetId = 819 + i;
    memset(md.CorrelId, 0xA0 + i % 16, sizeof md.CorrelId);
    for (size_t k = 0; k < sizeof md.Fields1; ++k) md.Fields1[k] = uint8_t(k * 7 + size_t(i));
    memset(md.Fields2, 0xEE, sizeof md.Fields2);
    ASSERT_EQ(put(h, o, payload(i), 0, &md).cc, KXCC_OK) << i;
    sent.push_back(md);
    ids.insert(std::string(reinterpret_cast<char*>(md.MsgId), 24));
  }
  // The queue manager gave each message its own MsgId and today's put date and time.
  EXPECT_EQ(ids.size(), size_t(kCount));
  std::string putDate(sent[0].PutDate, 8);
  EXPECT_TRUE(putDate == dayBefore || putDate == todayUtc()) << putDate;
  for (char c : std::string(sent[0].PutTime, 8)) EXPECT_TRUE(c >= '0' && c <= '9') << c;
  EXPECT_EQ(depth(h, "Q1"), kCount);

  // Browse twice (any read-ahead must not change what is seen), then take them.
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < kCount; ++i) {
      Got g = get(h, o, i == 0 ? KXGMO_BROWSE_FIRST : KXGMO_BROWSE_NEXT);
      ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
      ASSERT_EQ(g.data, payload(i));
      ASSERT_EQ(memcmp(&g.md, &sent[size_t(i)], sizeof(KXMD)), 0) << "browsed descriptor " << i;
    }
    EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  }
  for (int i = 0; i < kCount; ++i) {
    Got g = get(h, o, KXGMO_NO_SYNCPOINT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    ASSERT_EQ(g.data, payload(i));
    ASSERT_EQ(memcmp(&g.md, &sent[size_t(i)], sizeof(KXMD)), 0) << "descriptor " << i;
  }
  Got last = get(h, o, 0);
  EXPECT_EQ(last.r.cc, KXCC_FAILED);
  EXPECT_EQ(last.r.rc, KXRC_NO_MSG_AVAILABLE);
  disconnect(h);
}

TEST_F(QmgrTest, SetAllContextKeepsTheDescriptorAsGivenAndPut1ReturnsTheMsgId) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_AS_Q_DEF);
  KXMD given = KXMD_DEFAULT;
  memset(given.MsgId, 0x11, 24);
  memcpy(given.PutDate, "19991231", 8);
  memcpy(given.PutTime, "23595999", 8);
  KXMD md = given;
  ASSERT_EQ(put(h, o, "x", KXPMO_SET_ALL_CONTEXT, &md).cc, KXCC_OK);
  EXPECT_EQ(memcmp(&md, &given, sizeof given), 0);
  Got g = get(h, o, 0);
  EXPECT_EQ(memcmp(&g.md, &given, sizeof given), 0);

  // KXPUT1 opens, puts and closes in one call; the MsgId it generated comes back.
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, "Q2");
  KXMD md1 = KXMD_DEFAULT;
  KXPMO pmo = KXPMO_DEFAULT;
  Result r;
  KXPUT1(h, &od, &md1, &pmo, 3, const_cast<char*>("one"), &r.cc, &r.rc);
  ASSERT_EQ(r.cc, KXCC_OK) << r.rc;
  EXPECT_NE(std::string(reinterpret_cast<char*>(md1.MsgId), 24), std::string(24, '\0'));
  KXHOBJ q2 = open(h, "Q2", KXOO_INPUT_SHARED);
  g = get(h, q2, 0);
  EXPECT_EQ(g.data, "one");
  EXPECT_EQ(memcmp(g.md.MsgId, md1.MsgId, 24), 0);
  kxSetName(od.ObjectName, sizeof od.ObjectName, "NOSUCH");
  KXPUT1(h, &od, &md1, &pmo, 3, const_cast<char*>("one"), &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_UNKNOWN_OBJECT_NAME);
  disconnect(h);
}

TEST_F(QmgrTest, BrowseCursorsWalkInOrderAndSurviveRemovalByAnotherProcess) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE);
  KXHOBJ other = open(h, "Q1", KXOO_BROWSE);
  constexpr int kCount = 100;  // more than one read-ahead batch
  for (int i = 0; i < kCount; ++i) put(h, o, numbered(i));
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(get(h, o, KXGMO_BROWSE_NEXT).data, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // A message put after the end is found by the next browse; browse-first starts over.
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
    if (put(c, q, numbered(kCount + 1)).cc != KXCC_OK) return false;
    disconnect(c);
    return true;
  });
  ASSERT_EQ(waitFor(child), 0);
  for (int i = 8; i <= kCount + 1; ++i) {
    Got g = get(h, o, KXGMO_BROWSE_NEXT);
    ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    ASSERT_EQ(g.data, numbered(i));
  }
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // The second handle has its own cursor, and browse-first starts at the new first message.
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(8));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(8));

  // Removal through the same connection is seen too.
  KXHOBJ in = open(h, "Q1", KXOO_INPUT_SHARED);
  EXPECT_EQ(get(h, in, 0).data, numbered(8));
  EXPECT_EQ(get(h, in, 0).data, numbered(9));
  EXPECT_EQ(get(h, other, KXGMO_BROWSE_NEXT).data, numbered(10));
  EXPECT_EQ(depth(h, "Q1"), kCount + 2 - 10);
  disconnect(h);
}

TEST_F(QmgrTest, BrowseAndGetMatchByMsgIdAndCorrelId) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  for (int i = 0; i < 5; ++i) {
    KXMD md = KXMD_DEFAULT;
    memset(md.CorrelId, i % 2 ? 'o' : 'e', 24);
    put(h, o, numbered(i), 0, &md);
  }
  KXMD odd = KXMD_DEFAULT;
  memset(odd.CorrelId, 'o', 24);
  auto browseOdd = [&](KXLONG options) {
    return get(h, o, options, 100, 0, &odd, KXMO_MATCH_CORREL_ID);
  };
  EXPECT_EQ(browseOdd(KXGMO_BROWSE_FIRST).data, numbered(1));
  EXPECT_EQ(browseOdd(KXGMO_BROWSE_NEXT).data, numbered(3));
  EXPECT_EQ(browseOdd(KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE);
  // A destructive get by MsgId takes that message and leaves the others in order.
  Got third = get(h, o, KXGMO_BROWSE_FIRST);
  for (int i = 0; i < 2; ++i) third = get(h, o, KXGMO_BROWSE_NEXT);
  ASSERT_EQ(third.data, numbered(2));
  Got g = get(h, o, 0, 100, 0, &third.md, KXMO_MATCH_MSG_ID);
  ASSERT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
  EXPECT_EQ(g.data, numbered(2));
  for (int i : {0, 1, 3, 4}) EXPECT_EQ(get(h, o, 0).data, numbered(i));
  disconnect(h);
}

TEST_F(QmgrTest, TruncationLeavesTheMessageUnlessAccepted) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::string big(10000, 'b');
  big[0] = 'B';
  put(h, o, big);
  put(h, o, std::string(200000, 'c'));  // beyond what a read-ahead holds
  put(h, o, "small");

  // Browse: 2080 with the full length, and the cursor does not move.
  Got g = get(h, o, KXGMO_BROWSE_FIRST, 4096);
  EXPECT_EQ(g.r.cc, KXCC_FAILED);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 10000);
  g = get(h, o, KXGMO_BROWSE_NEXT, 10000);
  EXPECT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
  EXPECT_EQ(g.data, big);
  g = get(h, o, KXGMO_BROWSE_NEXT, 100);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 200000);
  // Accepted: a warning, the first bytes, and the cursor moves on.
  g = get(h, o, KXGMO_BROWSE_NEXT | KXGMO_ACCEPT_TRUNCATED_MSG, 100);
  EXPECT_EQ(g.r.cc, KXCC_WARNING);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.data, std::string(100, 'c'));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT, 5).data, "small");

  // Destructive: 2080 leaves the message in place with its descriptor returned.
  g = get(h, o, 0, 10);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED);
  EXPECT_EQ(g.dataLength, 10000);
  EXPECT_EQ(memcmp(g.md.StrucId, "MD  ", 4), 0);
  EXPECT_EQ(depth(h, "Q1"), 3);
  g = get(h, o, KXGMO_ACCEPT_TRUNCATED_MSG, 1);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.data, "B");
  EXPECT_EQ(g.dataLength, 10000);
  EXPECT_EQ(depth(h, "Q1"), 2);
  g = get(h, o, KXGMO_ACCEPT_TRUNCATED_MSG, 0);
  EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED);
  EXPECT_EQ(g.dataLength, 200000);
  EXPECT_EQ(get(h, o, 0, 5).data, "small");
  EXPECT_EQ(depth(h, "Q1"), 0);
  disconnect(h);
}

TEST_F(QmgrTest, LargeMessagesAmongSmallOnesComeBackWhole) {
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

// A message of n bytes in which every position holds a different pattern, so that a byte read
// from the wrong offset shows.
std::string patterned(size_t n, unsigned seed) {
  std::string s(n, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = char(x >> 24);
  }
  return s;
}

// How a reader takes one message, the way the formatter does: a get with its first buffer; on
// 2080 the length is checked, the message must still be there, and the get is repeated with a
// buffer of exactly that length.
struct Reader {
  const char* name;
  KXLONG options;      // browse-next or a destructive get, with or without syncpoint
  KXLONG matchOptions;  // match the MsgId as put
};

constexpr KXLONG kFirstBuffer = 4096;
// Lengths around the first buffer, around what a get reads along with the descriptor and a
// browse batch holds, and well beyond.
constexpr size_t kBigLengths[] = {0,     1,      4095,    4096,          4097,         65535,
                                  65536, 65537,  200000,  (1 << 20) + 3, (4 << 20) + 1};

class BigMessageTest : public QmgrTest, public ::testing::WithParamInterface<Reader> {};

TEST_P(BigMessageTest, ComeBackWholeAfterOneTooSmallGet) {
  const Reader& rd = GetParam();
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  KXHOBJ side = open(h, "Q1", KXOO_BROWSE);
  std::vector<std::string> sent;
  std::vector<KXMD> mds;
  for (size_t n : kBigLengths) {
    sent.push_back(patterned(n, unsigned(sent.size())));
    KXMD md = KXMD_DEFAULT;
    ASSERT_EQ(put(h, o, sent.back(), 0, &md).cc, KXCC_OK) << n;
    mds.push_back(md);
  }
  bool browse = rd.options & KXGMO_BROWSE_NEXT;
  for (size_t i = 0; i < sent.size(); ++i) {
    const std::string& want = sent[i];
    KXLONG size = KXLONG(want.size());
    const KXMD* match = rd.matchOptions ? &mds[i] : nullptr;
    // A second handle browses along, one byte short and accepting truncation: the first bytes,
    // the whole length and a warning.
    Got t = get(h, side, KXGMO_BROWSE_NEXT | KXGMO_ACCEPT_TRUNCATED_MSG,
                std::max<KXLONG>(size - 1, 0));
    EXPECT_EQ(t.r.rc, size ? KXRC_TRUNCATED_MSG_ACCEPTED : 0) << size;
    EXPECT_EQ(t.dataLength, size);
    EXPECT_TRUE(t.data == want.substr(0, std::max<size_t>(want.size(), 1) - 1)) << size;
    Got g = get(h, o, rd.options, kFirstBuffer, 0, match, rd.matchOptions);
    if (size > kFirstBuffer) {
      ASSERT_EQ(g.r.cc, KXCC_FAILED) << size;
      ASSERT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_FAILED) << size;
      EXPECT_EQ(g.dataLength, size);
      EXPECT_EQ(memcmp(g.md.MsgId, mds[i].MsgId, sizeof g.md.MsgId), 0) << size;
      // Still there: messages got under syncpoint count in the depth until the commit.
      bool kept = browse || (rd.options & KXGMO_SYNCPOINT);
      EXPECT_EQ(depth(h, "Q1"), KXLONG(sent.size() - (kept ? 0 : i))) << size;
      g = get(h, o, rd.options, size, 0, match, rd.matchOptions);
    }
    ASSERT_EQ(g.r.cc, KXCC_OK) << size << " reason " << g.r.rc;
    EXPECT_EQ(g.dataLength, size);
    ASSERT_EQ(g.data.size(), want.size());
    EXPECT_TRUE(g.data == want) << "data of the message of " << size << " bytes differ";
  }
  if (rd.options & KXGMO_SYNCPOINT) {
    EXPECT_EQ(depth(h, "Q1"), KXLONG(sent.size()));
    EXPECT_EQ(commit(h).cc, KXCC_OK);
  }
  EXPECT_EQ(depth(h, "Q1"), browse ? KXLONG(sent.size()) : 0);
  disconnect(h);
}

INSTANTIATE_TEST_SUITE_P(
    Readers, BigMessageTest,
    ::testing::Values(Reader{"Browse", KXGMO_BROWSE_NEXT, KXMO_NONE},
                      Reader{"BrowseByMsgId", KXGMO_BROWSE_NEXT, KXMO_MATCH_MSG_ID},
                      Reader{"Get", KXGMO_NO_SYNCPOINT, KXMO_NONE},
                      Reader{"GetByMsgId", KXGMO_NO_SYNCPOINT, KXMO_MATCH_MSG_ID},
                      Reader{"GetUnderSyncpoint", KXGMO_SYNCPOINT, KXMO_NONE}),
    [](const ::testing::TestParamInfo<Reader>& info) { return std::string(info.param.name); });

// Long messages whose pages are those freed by others got before them, interleaved in the file:
// browsed and got back byte for byte, while a second connection puts and gets meanwhile.
TEST_F(QmgrTest, LongMessagesOnFreedPagesComeBackWhole) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  constexpr size_t kLong = (3 << 20) + 17;
  for (unsigned i = 0; i < 6; ++i) ASSERT_EQ(put(h, o, patterned(kLong / 2 + i, i)).cc, KXCC_OK);
  for (unsigned i = 0; i < 6; ++i) ASSERT_EQ(get(h, o, 0, KXLONG(kLong)).r.cc, KXCC_OK);
  std::vector<std::string> sent;
  for (unsigned i = 0; i < 3; ++i) {
    sent.push_back(patterned(kLong + i, 10 + i));
    ASSERT_EQ(put(h, o, sent.back()).cc, KXCC_OK);
  }
  std::vector<std::string> browsed;
  for (KXLONG opt = KXGMO_BROWSE_FIRST;; opt = KXGMO_BROWSE_NEXT) {
    Got g = get(h, o, opt, KXLONG(kLong + 8));
    if (g.r.cc != KXCC_OK) break;
    browsed.push_back(g.data);
    // Another connection changes the file between the reads.
    onOwnConnection(qmgr_, [](KXHCONN c) {
      KXHOBJ q = open(c, "Q2", KXOO_OUTPUT | KXOO_INPUT_SHARED);
      put(c, q, patterned(100000, 3));
      return get(c, q, 0, 200000).r.cc;
    });
  }
  ASSERT_EQ(browsed.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_TRUE(browsed[i] == sent[i]) << "browsed message " << i << " differs";
    Got g = get(h, o, 0, KXLONG(kLong + 8));
    EXPECT_TRUE(g.data == sent[i]) << "got message " << i << " differs";
  }
  disconnect(h);
}

// A long message got into a buffer that takes only its start (none of it, a little, all but one
// byte): the start and the whole length come back with the warning and the rest is dropped; the
// get backed out gives the message back whole, counted, and the message after it is intact.
TEST_F(QmgrTest, ALongMessageCutShortByAGetComesBackWholeAfterTheBackOut) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  const std::string big = patterned((4 << 20) + 1, 7);
  for (KXLONG room : {KXLONG(0), KXLONG(1000), KXLONG(big.size() - 1)}) {
    ASSERT_EQ(put(h, o, big).cc, KXCC_OK);
    ASSERT_EQ(put(h, o, "after").cc, KXCC_OK);
    Got g = get(h, o, KXGMO_SYNCPOINT | KXGMO_ACCEPT_TRUNCATED_MSG, room);
    EXPECT_EQ(g.r.rc, KXRC_TRUNCATED_MSG_ACCEPTED) << room;
    EXPECT_EQ(g.dataLength, KXLONG(big.size())) << room;
    EXPECT_TRUE(g.data == big.substr(0, size_t(room))) << room;
    EXPECT_EQ(backOut(h).cc, KXCC_OK) << room;
    g = get(h, o, KXGMO_NO_SYNCPOINT, KXLONG(big.size()));
    ASSERT_EQ(g.r.cc, KXCC_OK) << room << " reason " << g.r.rc;
    EXPECT_EQ(g.md.BackoutCount, 1) << room;
    EXPECT_TRUE(g.data == big) << room;
    EXPECT_EQ(get(h, o, KXGMO_NO_SYNCPOINT).data, "after") << room;
  }
  EXPECT_EQ(depth(h, "Q1"), 0);
  disconnect(h);
}

// Puts under syncpoint, big and small mixed: hidden until the commit, then in their order, byte
// for byte; a back-out leaves nothing.
TEST_F(QmgrTest, BigSyncpointPutsKeepTheirOrderAndBackOutWhole) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  std::vector<std::string> sent;
  for (size_t n : {size_t(10), size_t(300000), size_t(20), size_t(65537), size_t(2 << 20)})
    sent.push_back(patterned(n, unsigned(n)));
  for (const std::string& d : sent) ASSERT_EQ(put(h, o, d, KXPMO_SYNCPOINT).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 0);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 0);
  for (const std::string& d : sent) ASSERT_EQ(put(h, o, d, KXPMO_SYNCPOINT).cc, KXCC_OK);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  ASSERT_EQ(depth(h, "Q1"), KXLONG(sent.size()));
  for (const std::string& d : sent) {
    Got g = get(h, o, 0, 4 << 20);
    ASSERT_EQ(g.r.cc, KXCC_OK) << d.size();
    EXPECT_TRUE(g.data == d) << d.size();
  }
  disconnect(h);
}

// A wait that times out comes back empty and not before its interval; a wait that a put ends
// returns the message. A wait that missed the put would hang: the test runner's timeout ends
// it, so no upper bound on the time is asserted here.
TEST_F(QmgrTest, WaitReturnsAMessagePutLaterOrTimesOut) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_INPUT_SHARED | KXOO_BROWSE);
  auto t0 = std::chrono::steady_clock::now();
  Got g = get(h, o, KXGMO_WAIT, 100, 200);
  auto waited = std::chrono::steady_clock::now() - t0;
  EXPECT_EQ(g.r.rc, KXRC_NO_MSG_AVAILABLE);
  // A slow machine can only make this longer.
  EXPECT_GE(waited, std::chrono::milliseconds(195));

  std::string qm = qmgr_;
  std::atomic<bool> committing{false};
  auto putLater = [qm, &committing](KXLONG pmo) {
    committing = false;
    return std::thread([qm, pmo, &committing] {
      // Give the getter time to start waiting; the test holds whichever comes first.
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
      KXHCONN c = connect(qm);
      KXHOBJ q = open(c, "Q1", KXOO_OUTPUT);
      put(c, q, "late", pmo);
      if (pmo & KXPMO_SYNCPOINT) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        committing = true;
        commit(c);
      }
      disconnect(c);
    });
  };
  // A plain put, and a put under syncpoint that becomes visible only at its commit.
  for (KXLONG pmo : {KXPMO_NO_SYNCPOINT, KXPMO_SYNCPOINT}) {
    std::thread t = putLater(pmo);
    g = get(h, o, KXGMO_WAIT, 100, KXWI_UNLIMITED);
    bool afterCommit = committing;
    t.join();
    EXPECT_EQ(g.r.cc, KXCC_OK) << g.r.rc;
    EXPECT_EQ(g.data, "late");
    if (pmo & KXPMO_SYNCPOINT) {
      EXPECT_TRUE(afterCommit) << "got before the put was committed";
    }
  }
  // A waiting browse without a limit, then a get of the same message.
  std::thread t = putLater(KXPMO_NO_SYNCPOINT);
  g = get(h, o, KXGMO_BROWSE_FIRST | KXGMO_WAIT, 100, KXWI_UNLIMITED);
  t.join();
  EXPECT_EQ(g.data, "late");
  EXPECT_EQ(get(h, o, KXGMO_WAIT, 100, 10).data, "late");
  disconnect(h);
}

TEST_F(QmgrTest, SyncpointGetsAndPutsCommitOrBackOutInPlace) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED | KXOO_BROWSE);
  for (int i = 0; i < 5; ++i) put(h, o, numbered(i));
  // What another connection browses first.
  auto seenElsewhere = [qm = qmgr_] {
    return onOwnConnection(qm, [](KXHCONN c) {
      Got g = get(c, open(c, "Q1", KXOO_BROWSE), KXGMO_BROWSE_FIRST);
      return g.r.cc == KXCC_OK ? g.data : "none";
    });
  };
  Result r;
  KXBO bo = KXBO_DEFAULT;
  KXBEGIN(h, &bo, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK) << r.rc;

  // Got under syncpoint: hidden until the back-out (but still counted), then back in place.
  Got a = get(h, o, KXGMO_SYNCPOINT);
  EXPECT_EQ(a.data, numbered(0));
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(1));
  put(h, o, "dropped", KXPMO_SYNCPOINT);
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_FIRST).data, numbered(2));
  EXPECT_EQ(seenElsewhere(), numbered(2));
  EXPECT_EQ(depth(h, "Q1"), 5);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(get(h, o, i ? KXGMO_BROWSE_NEXT : KXGMO_BROWSE_FIRST).data, numbered(i));
  EXPECT_EQ(get(h, o, KXGMO_BROWSE_NEXT).r.rc, KXRC_NO_MSG_AVAILABLE) << "the put is gone";
  EXPECT_EQ(seenElsewhere(), numbered(0));
  Got again = get(h, o, KXGMO_SYNCPOINT);
  EXPECT_EQ(again.data, numbered(0));
  // The same descriptor, but for the back-out now counted.
  EXPECT_EQ(a.md.BackoutCount, 0);
  EXPECT_EQ(again.md.BackoutCount, 1);
  again.md.BackoutCount = 0;
  EXPECT_EQ(memcmp(&again.md, &a.md, sizeof a.md), 0);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 4);
  EXPECT_EQ(seenElsewhere(), numbered(1));

  // Put under syncpoint, on two queues: invisible and not counted until the commit.
  KXHOBJ o2 = open(h, "Q2", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  put(h, o2, "kept", KXPMO_SYNCPOINT);
  put(h, o, "kept too", KXPMO_SYNCPOINT);
  EXPECT_EQ(depth(h, "Q2"), 0);
  EXPECT_EQ(get(h, o2, 0).r.rc, KXRC_NO_MSG_AVAILABLE);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q1"), 5);
  EXPECT_EQ(get(h, o2, 0).data, "kept");

  // A unit of work larger than any in-memory buffering still backs out and commits whole.
  std::string chunk(100000, 'p');
  for (int i = 0; i < 60; ++i) ASSERT_EQ(put(h, o2, chunk, KXPMO_SYNCPOINT).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q2"), 0);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q2"), 0);
  for (int i = 0; i < 60; ++i) put(h, o2, chunk, KXPMO_SYNCPOINT);
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(depth(h, "Q2"), 60);

  // A disconnect commits what is left.
  EXPECT_EQ(get(h, o, KXGMO_SYNCPOINT).data, numbered(1));
  EXPECT_EQ(disconnect(h).cc, KXCC_OK);
  h = connect(qmgr_);
  EXPECT_EQ(depth(h, "Q1"), 4);
  disconnect(h);
}

// A message whose get is backed out again and again: each back-out is counted in BackoutCount;
// at the queue's threshold it moves to the dead-letter queue when the queue manager has one, or
// stays where it is and gets pass it over; either way the getter goes on with the next message.
struct BackoutCase {
  const char* name;
  bool deadLetterQueue;
  KXLONG threshold;  // -1: the default
  int backouts;      // back-outs before the message leaves the getters' way
};

static const BackoutCase kBackoutCases[] = {
    {"default threshold, dead-letter queue", true, -1, 5},
    {"default threshold, no dead-letter queue", false, -1, 5},
    {"threshold 2, dead-letter queue", true, 2, 2},
    {"threshold 0 never gives up", false, 0, 8},
};

TEST_F(QmgrTest, MessagesBackedOutTooOftenLeaveTheGettersWay) {
  for (const BackoutCase& t : kBackoutCases) {
    SCOPED_TRACE(t.name);
    std::string queue = std::string("BQ") + std::to_string(&t - kBackoutCases);
    char msg[256];
    ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), queue.c_str(), -1, msg, sizeof msg), 0) << msg;
    if (t.deadLetterQueue) kxmCreateQueue(qmgr_.c_str(), "KX.DEAD.LETTER", -1, msg, sizeof msg);
    if (!t.deadLetterQueue) kxmDeleteQueue(qmgr_.c_str(), "KX.DEAD.LETTER", msg, sizeof msg);
    KXHCONN h = connect(qmgr_);
    KXHOBJ o = open(h, queue.c_str(), KXOO_OUTPUT | KXOO_INPUT_SHARED | KXOO_BROWSE | KXOO_INQUIRE |
                                          KXOO_SET);
    Result r;
    KXLONG sel = KXIA_BACKOUT_THRESHOLD, value = -1;
    KXINQ(h, o, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
    EXPECT_EQ(value, 5) << "the default threshold";
    if (t.threshold >= 0) {
      value = t.threshold;
      KXSET(h, o, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
      ASSERT_EQ(r.cc, KXCC_OK) << r.rc;
    }
    // A put does not carry a count in: the queue manager owns it.
    KXMD poison = KXMD_DEFAULT;
    poison.BackoutCount = 77;
    put(h, o, "poison", 0, &poison);
    put(h, o, "next");
    for (int i = 0; i < t.backouts; ++i) {
      Got g = get(h, o, KXGMO_SYNCPOINT);
      ASSERT_EQ(g.data, "poison") << i;
      EXPECT_EQ(g.md.BackoutCount, i);
      ASSERT_EQ(backOut(h).cc, KXCC_OK);
    }
    Got next = get(h, o, KXGMO_SYNCPOINT);
    if (t.threshold == 0) {
      EXPECT_EQ(next.data, "poison");
      EXPECT_EQ(next.md.BackoutCount, t.backouts);
      ASSERT_EQ(commit(h).cc, KXCC_OK);
      next = get(h, o, KXGMO_SYNCPOINT);
    }
    EXPECT_EQ(next.data, "next");
    EXPECT_EQ(next.md.BackoutCount, 0);
    ASSERT_EQ(commit(h).cc, KXCC_OK);
    Got left = get(h, o, KXGMO_BROWSE_FIRST);
    if (t.threshold == 0) {
      EXPECT_EQ(left.r.rc, KXRC_NO_MSG_AVAILABLE);
    } else if (t.deadLetterQueue) {
      EXPECT_EQ(left.r.rc, KXRC_NO_MSG_AVAILABLE) << "moved away";
      KXHOBJ dlq = open(h, "KX.DEAD.LETTER", KXOO_INPUT_SHARED);
      Got dead = get(h, dlq, 0);
      EXPECT_EQ(dead.data, "poison");
      EXPECT_EQ(dead.md.BackoutCount, t.backouts);
      EXPECT_EQ(0, memcmp(dead.md.MsgId, poison.MsgId, sizeof poison.MsgId));
    } else {
      // Left in place: browsed with its count, passed over by gets.
      EXPECT_EQ(left.data, "poison");
      EXPECT_EQ(left.md.BackoutCount, t.backouts);
      EXPECT_EQ(get(h, o, 0).r.rc, KXRC_NO_MSG_AVAILABLE);
      EXPECT_EQ(depth(h, queue.c_str()), 1);
    }
    disconnect(h);
  }
}

TEST_F(QmgrTest, GettersSkipOtherUnitsOfWorkAndFindWhatTheyGiveBack) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_INPUT_SHARED);
  for (int i = 0; i < 7; ++i) put(h, o, numbered(i));
  std::string qm = qmgr_;
  // A second unit of work on its own connection keeps a message locked throughout. The thread
  // that made the connection lives on, so that no later thread takes its id (and with it the
  // connection).
  std::promise<KXHCONN> made;
  std::promise<void> done;
  std::thread owner([&] {
    made.set_value(connect(qm));
    done.get_future().wait();
  });
  KXHCONN holder = made.get_future().get();
  KXHOBJ held = open(holder, "Q1", KXOO_INPUT_SHARED);
  // Another connection takes n messages outside syncpoint.
  auto takeElsewhere = [qm](int n) {
    return onOwnConnection(qm, [n](KXHCONN c) {
      std::vector<std::string> got;
      KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED);
      for (int i = 0; i < n; ++i) {
        Got g = get(c, q, 0);
        got.push_back(g.r.cc == KXCC_OK ? g.data : "rc " + std::to_string(g.r.rc));
      }
      return got;
    });
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
  EXPECT_EQ(takeElsewhere(3), (std::vector<std::string>{numbered(5), numbered(6), "rc 2033"}));
  EXPECT_EQ(commit(h).cc, KXCC_OK);
  EXPECT_EQ(takeElsewhere(2), (std::vector<std::string>{"late", "rc 2033"}));
  EXPECT_EQ(backOut(holder).cc, KXCC_OK);
  EXPECT_EQ(takeElsewhere(2), (std::vector<std::string>{numbered(2), "rc 2033"}));
  disconnect(holder);
  done.set_value();
  owner.join();
  disconnect(h);
}

// Puts four messages on Q1; a child process gets the first two and puts a long one under
// syncpoint, then is killed. Returns after the killed unit of work's lifetime.
static void killInsideAUnitOfWork(const std::string& qm, KXHCONN h, KXHOBJ o) {
  std::chrono::milliseconds lifetime = qmgrEnv().deadUnitLifetime();
  for (int i = 0; i < 4; ++i) ASSERT_EQ(put(h, o, numbered(i)).cc, KXCC_OK);
  auto started = std::chrono::steady_clock::now();  // before the child's unit of work begins
  pid_t child = spawn([qm] {
    KXHCONN c = connect(qm);
    KXHOBJ q = open(c, "Q1", KXOO_INPUT_SHARED | KXOO_OUTPUT);
    bool ok = get(c, q, KXGMO_SYNCPOINT).data == numbered(0) &&
              get(c, q, KXGMO_SYNCPOINT).data == numbered(1) &&
              put(c, q, std::string(5 << 20, 'x'), KXPMO_SYNCPOINT).cc == KXCC_OK;
    if (ok) kill(getpid(), SIGKILL);
    return false;
  });
  ASSERT_EQ(waitFor(child), 128 + SIGKILL);
  if (lifetime.count() > 0) {
    // While its unit of work lives, its messages stay hidden. On a machine too busy to look
    // within the lifetime the unit may already be gone, which is right too: then nothing is
    // checked here, and the caller checks the back-out.
    std::string first = get(h, o, KXGMO_BROWSE_FIRST).data;
    if (std::chrono::steady_clock::now() - started < lifetime / 2) {
      EXPECT_EQ(first, numbered(2));
    }
    std::this_thread::sleep_for(lifetime + std::chrono::milliseconds(200));
  }
}

static const std::vector<std::string> kAllFour = {numbered(0), numbered(1), numbered(2), numbered(3)};

TEST_F(QmgrTest, TheUnitOfWorkOfAKilledProcessIsBackedOut) {
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  killInsideAUnitOfWork(qmgr_, h, o);
  // A connection made now browses everything back in order, and the put is gone.
  EXPECT_EQ(onOwnConnection(qmgr_,
                            [](KXHCONN c) {
                              return takeAll(c, open(c, "Q1", KXOO_BROWSE), KXGMO_BROWSE_NEXT);
                            }),
            kAllFour);
  // A get of a process that died counts as a back-out.
  Got first = get(h, o, KXGMO_SYNCPOINT);
  EXPECT_EQ(first.data, numbered(0));
  EXPECT_EQ(first.md.BackoutCount, 1);
  EXPECT_EQ(backOut(h).cc, KXCC_OK);
  EXPECT_EQ(takeAll(h, o), kAllFour);
  disconnect(h);
}

TEST_F(QmgrTest, AConnectionOpenAcrossTheKillGetsTheMessagesBackWithoutNewConnections) {
  // A getter connected before the death, with nobody connecting after it, still gets the
  // messages back: an empty get looks for dead owners again. Messages it took before the
  // back-out came first, so only the set is compared.
  KXHCONN h = connect(qmgr_);
  KXHOBJ o = open(h, "Q1", KXOO_OUTPUT | KXOO_BROWSE | KXOO_INPUT_SHARED);
  killInsideAUnitOfWork(qmgr_, h, o);
  std::vector<std::string> all = takeAll(h, o);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, kAllFour);
  disconnect(h);
}

TEST_F(QmgrTest, TwoDrainerProcessesGetEveryMessageExactlyOnce) {
  constexpr int kCount = 10000;
  {
    KXHCONN h = connect(qmgr_);
    KXHOBJ o = open(h, "Q1", KXOO_OUTPUT);
    for (int i = 0; i < kCount; ++i) put(h, o, std::to_string(i), KXPMO_SYNCPOINT);
    ASSERT_EQ(commit(h).cc, KXCC_OK);
    disconnect(h);
  }
  char tmpl[] = "/tmp/qmgr-drain.XXXXXX";
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
      return disconnect(c).cc == KXCC_OK;  // commits the last unit of work
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

TEST_F(QmgrTest, FailuresAreReasonsNotCrashes) {
  Result r;
  // Unknown and malformed queue manager names, and no name at all.
  for (const char* name : {"NOSUCHQM", "bad/name", ""}) {
    connect(name, &r);
    EXPECT_EQ(r.cc, KXCC_FAILED) << name;
    EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR) << name;
  }
  KXCONN(nullptr, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_FAILED);

  KXHCONN h = connect(qmgr_, &r);
  ASSERT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(connect(qmgr_, &r), h);
  EXPECT_EQ(r.cc, KXCC_WARNING);
  EXPECT_EQ(r.rc, KXRC_CONN_ALREADY_EXISTS);

  // Unknown queue, bad handles and options.
  open(h, "NOSUCHQ", KXOO_BROWSE, &r);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.rc, KXRC_UNKNOWN_OBJECT_NAME);
  open(h + 100, "Q1", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_HCONN_ERROR);
  open(h, "Q1", KXOO_INPUT_SHARED | KXOO_INPUT_EXCLUSIVE, &r);
  EXPECT_EQ(r.rc, KXRC_OPTIONS_ERROR);
  KXOPEN(h, nullptr, KXOO_BROWSE, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  KXHOBJ out = open(h, "Q1", KXOO_OUTPUT);
  KXHOBJ in = open(h, "Q1", KXOO_INPUT_SHARED | KXOO_BROWSE);
  KXHOBJ browse = open(h, "Q1", KXOO_BROWSE);
  EXPECT_EQ(put(h, in, "x").rc, KXRC_NOT_OPEN_FOR_OUTPUT);
  EXPECT_EQ(get(h, out, KXGMO_BROWSE_FIRST).r.rc, KXRC_NOT_OPEN_FOR_BROWSE);
  EXPECT_EQ(get(h, out, 0).r.rc, KXRC_NOT_OPEN_FOR_INPUT);
  EXPECT_EQ(get(h, browse, 0).r.rc, KXRC_NOT_OPEN_FOR_INPUT);
  EXPECT_EQ(get(h, in, KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT).r.rc, KXRC_OPTIONS_ERROR);
  EXPECT_EQ(get(h, in, 0x4000000).r.rc, KXRC_OPTIONS_ERROR);
  EXPECT_EQ(get(h, in, KXGMO_WAIT, 10, -5).r.rc, KXRC_WAIT_INTERVAL_ERROR);
  EXPECT_EQ(get(h, out + 50, 0).r.rc, KXRC_HOBJ_ERROR);
  EXPECT_EQ(get(h + 77, in, KXGMO_BROWSE_FIRST).r.rc, KXRC_HCONN_ERROR);

  // Bad buffer length and descriptors.
  KXMD md = KXMD_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  KXLONG len = 0;
  gmo.Options = KXGMO_BROWSE_FIRST;
  KXGET(h, in, &md, &gmo, -1, nullptr, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_BUFFER_LENGTH_ERROR);
  KXGET(h, in, nullptr, &gmo, 0, nullptr, &len, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_MD_ERROR);
  memcpy(md.StrucId, "XX  ", 4);
  KXPMO pmo = KXPMO_DEFAULT;
  KXPUT(h, out, &md, &pmo, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_MD_ERROR);

  // The maximum message length: given at creation, or set, and inquired.
  char msg[256];
  ASSERT_EQ(kxmCreateQueue(qmgr_.c_str(), "SMALL", 10, msg, sizeof msg), 0) << msg;
  KXHOBJ small = open(h, "SMALL", KXOO_OUTPUT | KXOO_INQUIRE | KXOO_SET);
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
  KXLONG sel = KXIA_MAX_MSG_LENGTH, value = 20;
  KXSET(h, small, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK) << r.rc;
  EXPECT_EQ(put(h, small, std::string(20, 'a')).cc, KXCC_OK);
  EXPECT_EQ(put(h, small, std::string(21, 'a')).rc, KXRC_MSG_TOO_BIG_FOR_Q);
  KXSET(h, out, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_NOT_OPEN_FOR_SET);

  // Closed handles, and a queue deleted while open: puts fail, gets find nothing.
  KXCLOSE(h, &small, 0, &r.cc, &r.rc);
  EXPECT_EQ(r.cc, KXCC_OK);
  EXPECT_EQ(small, -1);
  KXCLOSE(h, &small, 0, &r.cc, &r.rc);
  EXPECT_EQ(r.rc, KXRC_HOBJ_ERROR);
  ASSERT_EQ(kxmDeleteQueue(qmgr_.c_str(), "Q1", msg, sizeof msg), 0) << msg;
  EXPECT_EQ(put(h, out, "x").rc, KXRC_Q_DELETED);
  EXPECT_EQ(get(h, in, 0).r.cc, KXCC_FAILED);
  open(h, "Q1", KXOO_BROWSE, &r);
  EXPECT_EQ(r.rc, KXRC_UNKNOWN_OBJECT_NAME);

  KXHCONN gone = h;
  EXPECT_EQ(disconnect(h).cc, KXCC_OK);
  EXPECT_EQ(disconnect(gone).rc, KXRC_HCONN_ERROR);
}

TEST_F(QmgrTest, AdministrationListsQueuesAndRefusesDuplicatesAndBadNames) {
  char msg[256];
  EXPECT_EQ(kxmCreateQmgr(qmgr_.c_str(), msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQmgr("bad/name", msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "Q1", -1, msg, sizeof msg), KXM_RC_ALREADY_EXISTS);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "", -1, msg, sizeof msg), KXM_RC_NAME_ERROR);
  EXPECT_EQ(kxmCreateQueue(qmgr_.c_str(), "bad name", -1, msg, sizeof msg), KXM_RC_NAME_ERROR);
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
  EXPECT_EQ(rows[1].name, "Q1");
  EXPECT_EQ(rows[1].max, KXM_DEFAULT_MAX_MSG_LENGTH);
  EXPECT_EQ(rows[2].name, "Q2");
  EXPECT_EQ(rows[2].depth, 2);
  disconnect(h);

  // A deleted queue manager is unknown to connect and to administration.
  std::string qm = qmgrEnv().createQmgr(msg, sizeof msg);
  ASSERT_FALSE(qm.empty()) << msg;
  EXPECT_EQ(kxmDeleteQmgr(qm.c_str(), msg, sizeof msg), 0) << msg;
  EXPECT_EQ(kxmDeleteQmgr(qm.c_str(), msg, sizeof msg), KXRC_Q_MGR_NAME_ERROR);
  Result r;
  connect(qm, &r);
  EXPECT_EQ(r.rc, KXRC_Q_MGR_NAME_ERROR);
}
