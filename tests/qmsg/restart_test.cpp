// Restart messages: main log reader and behind queue, partitions, send-queue entries with their
// restart points, the clamped commit microseconds, and a message read as stored.
#include <gtest/gtest.h>

#include "qmsg/families.h"
#include "qmsg/sink.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_restart.h"

namespace {

// The restart printer called on its own, for its result code (the dispatch drops it).
int32_t printAlone(std::vector<uint8_t> msg, std::string& reports) {
  Capture out, rep;
  msgLogger* logger = rplLogger();
  if (logger == nullptr) {
    logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    setRplLogger(logger);
  }
  FILE* saved = logger->output();
  logger->setOutput(rep.file());
  QMsg m(msg.data(), msg.size(), out.file(), nullptr, nullptr);
  TextSink o(out.file());
  int32_t rc = printRestartMsg(m, o);
  logger->setOutput(saved);
  reports = rep.text();
  return rc;
}

RestartMsgFields twoSendqs() {
  RestartMsgFields f;
  f.capServer = "SRCDB";
  f.capSchema = "KXCAP";
  f.partitions = {sampleLogPosition(0x30, 3)};
  f.lastCommitLsn = sampleLogPosition(0x40);
  f.lastCommitSeconds = 1763720400;
  f.lastCommitMicros = 1234567;
  f.reuseLsn = {0, 0, {0x00, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0}};
  f.reuseTime = "2025-11-21-10.19.58.000000";
  RestartSendqEntry q0;
  q0.activationTime = 1763720100;
  q0.nextMsgSeq[15] = 0x2a;
  q0.lastCommitLsn = {0, 0, {1, 2}};
  q0.lastCommitMicros = 5;
  q0.restartPoints = {sampleLogPosition(0x10, 1), LogPosition{0, 7, {0xaa, 0xbb, 0xcc}}};
  RestartSendqEntry q1;
  q1.name = "Q2";
  q1.activationTime = 0;
  q1.lastCommitLsn = {0, 0, {0xfe, 0xdc}};
  q1.lastCommitSeconds = 1763720401;
  f.sendqs = {q0, q1};
  return f;
}

TEST(Restart, MainLogReaderWithPartitionsAndSendQueues) {
  MsgWriter w = encodeRestartMsg(twoSendqs());
  // The second entry starts 112 + 2 x 24 = 160 bytes after the first.
  ASSERT_EQ(w.size(), 320u + 24 + 160 + 112);
  const std::string expected =
      "  qRestartMsg for MAINLINE log reader.\n"
      "  qRestartMsg.capServer: SRCDB\n"
      "  qRestartMsg.capSchema: KXCAP\n"
      "  qRestartMsg.qRestartsgSize: 616\n"
      "  Number of partition at restart: 1\n"
      "  qRestartMsg.restartLSN=3031:3233:3435:3637:3839:3a3b:3c3d:3e3f (node 3) nodeId=3\n"
      "  qRestartMsg.lastCommitLSN:  4041:4243:4445:4647:4849:4a4b:4c4d:4e4f\n"
      "  qRestartMsg.lastCommitTime: 2025-11-21-10.20.00.999999\n"
      "  qRestartMsg.reuseLSN:       0000:1234:5678:9abc:def0\n"
      "  qRestartMsg.reuseTime:      2025-11-21-10.19.58\n"
      "  Number of send queues at restart: 2\n"
      "  [   0] sendq name:             KXRP.TO.APPLY.SENDQ\n"
      "         sendq activation time:  1763720100 (2025-11-21-10.15.00)\n"
      "         sendq next msg seq no:  0000000000000000000000000000002a\n"
      "         sendq lastCommitLSN:    0102\n"
      "         sendq lastCommitTime:   2025-11-21-10.20.00.000005\n"
      "         sendq restartLSN=1011:1213:1415:1617:1819:1a1b:1c1d:1e1f (node 1) nodeId=1\n"
      "         sendq restartLSN=aabb:cc nodeId=7\n"
      "  [   1] sendq name:             Q2\n"
      "         sendq activation time:  0          (1970-01-01-00.00.00)\n"
      "         sendq next msg seq no:  00000000000000000000000000000000\n"
      "         sendq lastCommitLSN:    fedc\n"
      "         sendq lastCommitTime:   2025-11-21-10.20.01.000000\n";
  Decoded d = decode(w);
  EXPECT_EQ(d.rc, 0);
  EXPECT_EQ(d.out, banner(w.size()) + expected);  // no compact header lines
  EXPECT_EQ(d.reports, "");
}

TEST(Restart, BehindQueueNamePrintsExactlyItsCount) {
  RestartMsgFields f;
  f.behindQueue = "ABCDEF";
  auto firstLine = [](const MsgWriter& w) {
    Decoded d = decode(w);
    std::string text = d.out.substr(banner(w.size()).size());
    return text.substr(0, text.find('\n') + 1);
  };
  MsgWriter w = encodeRestartMsg(f);
  EXPECT_EQ(firstLine(w), "  qRestartMsg for BEHIND queue: ABCDEF\n");
  w.u16(260, 3);
  EXPECT_EQ(firstLine(w), "  qRestartMsg for BEHIND queue: ABC\n");
  w.u16(260, 1);
  EXPECT_EQ(firstLine(w), "  qRestartMsg for BEHIND queue: A\n");
  // 0 or less belongs to the main log reader, whatever stands in the name's room.
  w.u16(260, 0);
  EXPECT_EQ(firstLine(w), "  qRestartMsg for MAINLINE log reader.\n");
  w.u16(260, 0xFFFF);
  EXPECT_EQ(firstLine(w), "  qRestartMsg for MAINLINE log reader.\n");
}

TEST(Restart, NoPartitionsAndNoSendQueues) {
  RestartMsgFields f;
  f.lastCommitMicros = 5;
  MsgWriter w = encodeRestartMsg(f);
  Decoded d = decode(w);
  EXPECT_EQ(d.out, banner(320) +
                       "  qRestartMsg for MAINLINE log reader.\n"
                       "  qRestartMsg.capServer: SRCDB\n"
                       "  qRestartMsg.capSchema: KXCAP\n"
                       "  qRestartMsg.qRestartsgSize: 320\n"
                       "  Number of partition at restart: 0\n"
                       "  qRestartMsg.lastCommitLSN:  0000\n"
                       "  qRestartMsg.lastCommitTime: 2025-11-21-10.20.00.000005\n"
                       "  qRestartMsg.reuseLSN:       0000\n"
                       "  qRestartMsg.reuseTime:      2025-11-21-10.19.58\n"
                       "  Number of send queues at restart: 0\n");
}

TEST(Restart, ReadAsStoredWhateverTheSender) {
  // A big-endian sender's integers are not swapped: 256 reads as 65536 here.
  RestartMsgFields f;
  f.capServer = "";
  f.capSchema = "";
  f.size = 256;
  Decoded big = decode(encodeRestartMsg(f, ByteOrder::Big));
  EXPECT_NE(big.out.find("  qRestartMsg.qRestartsgSize: 65536\n"), std::string::npos) << big.out;
  // Names are printed in the sender's code page, not converted.
  Decoded ebcdic = decode(encodeRestartMsg(RestartMsgFields{}, ByteOrder::Little, 37));
  EXPECT_NE(ebcdic.out.find("  qRestartMsg.capServer: \xe2\xd9\xc3\xc4\xc2\n"), std::string::npos)
      << ebcdic.out;
}

TEST(Restart, EveryCutIsReportedNeverReadPast) {
  MsgWriter w = encodeRestartMsg(twoSendqs());
  for (size_t n = 8; n < w.size(); ++n) {
    std::vector<uint8_t> cut(w.bytes().begin(), w.bytes().begin() + n);
    std::string reports;
    EXPECT_EQ(printAlone(cut, reports), kRcShortRead) << n;
    EXPECT_NE(reports.find("543"), std::string::npos) << n << reports;
    // Through the dispatch the message still counts as printed.
    EXPECT_EQ(decodeAs(cut, ByteOrder::Little, 1208).rc, 0) << n;
  }
  // A count that walks past the end is reported the same way.
  w.u32(316, 3);
  std::string reports;
  EXPECT_EQ(printAlone(w.bytes(), reports), kRcShortRead);
  EXPECT_NE(reports.find("qRestartMsg.sendq"), std::string::npos) << reports;
}

TEST(Restart, DemoSamplePrintsCleanly) {
  for (int32_t ccsid : {1208, 37}) {
    Decoded d = decode(sampleRestartMsg(ByteOrder::Little, ccsid));
    EXPECT_EQ(d.reports, "");
    EXPECT_NE(d.out.find("  [   1] sendq name:"), std::string::npos) << d.out;
  }
}

}  // namespace
