// Queue control messages: heartbeat, synchronisation request and response, sequence-time reset,
// function level, send-queue start and administration queue, from little-endian UTF-8 and
// big-endian EBCDIC senders.
#include <gtest/gtest.h>

#include <functional>

#include "tests/qmsg/golden.h"
#include "tools/gen/encode_queue_control.h"

namespace {

TEST(Heartbeat, Version7TwoLinesVersion8Five) {
  HeartbeatFields f;
  f.version = 7;
  f.lastLogMicros = 431250;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeHeartbeatMsg(f, o, c); },
                    header("RPLKX_HEARTBEAT", 7),
                    "  heartbeat.sendq:       KXRP.SALES.TO.WAREHOUSE\n"
                    "  heartbeat.last_logtime: 11-21-2025 10:20:00.431250\n");
  f.version = 8;
  f.hbIntervalMillisec = 70000;
  f.kxcmtIntervalMillisec = -1;
  f.lastLogCmtLsn = sampleLogPosition(0x40, 0x0105);
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeHeartbeatMsg(f, o, c); },
                    header("RPLKX_HEARTBEAT", 8),
                    "  heartbeat.sendq:       KXRP.SALES.TO.WAREHOUSE\n"
                    "  heartbeat.last_logtime: 11-21-2025 10:20:00.431250\n"
                    "  heartbeat.last_log_cmtlsn: 4041:4243:4445:4647:4849:4a4b:4c4d:4e4f (node 261)\n"
                    "  heartbeat.hb_interval_millisec: 70000\n"
                    "  heartbeat.kxcmt_interval_millisec: -1\n");
}

TEST(Heartbeat, ZeroSecondsIsUninitializedWhateverTheMicroseconds) {
  HeartbeatFields f;
  f.version = 7;
  f.lastLogSeconds = 0;
  f.lastLogMicros = 123;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeHeartbeatMsg(f, o, c); },
                    header("RPLKX_HEARTBEAT", 7),
                    "  heartbeat.sendq:       KXRP.SALES.TO.WAREHOUSE\n"
                    "  heartbeat.last_logtime: Un-initialized\n");
}

TEST(SyncRequest, ReasonLineAndClampedPublishingTime) {
  SyncRequestFields f;
  f.publishedMicros = 1234567;
  f.lastCommitSeq = {1, 9, {0xab, 0xcd, 0xef, 0x01}};
  const std::string rest =
      "  sendQueue:         KXRP.SALES.TO.WAREHOUSE\n"
      "  lastTxPublishedTS: 2025-11-21-10.20.00.999999\n"
      "  lastCommitSEQ:     abcd:ef01 (node 9)\n";
  for (auto [reason, line] : {std::pair<uint8_t, const char*>{1, "  REASON=DATA_APPLIED REQUEST\n"},
                              {2, "  REASON=ISALIVE\n"}, {0, "\n"}, {3, "\n"}}) {
    f.reason = reason;
    expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSyncRequestMsg(f, o, c); },
                      header("RPLKX_SYNCREQUEST_MSG", 1), line + rest);
  }
}

TEST(SyncResponse, SuccessAndFailure) {
  SyncResponseFields f;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSyncResponseMsg(f, o, c); },
                    header("RPLKX_SYNCRESPONSE_MSG", 1),
                    "\n  sendQueue:         KXRP.SALES.TO.WAREHOUSE\n"
                    "  responseCode:      0 (sync was successful)\n");
  f.responseCode = 3;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSyncResponseMsg(f, o, c); },
                    header("RPLKX_SYNCRESPONSE_MSG", 1),
                    "\n  sendQueue:         KXRP.SALES.TO.WAREHOUSE\n"
                    "  responseCode:      3 (sync was not successful)\n");
}

TEST(SeqTimeReset, OnlyBitOneDecidesStartingOrEnding) {
  SeqTimeResetFields f;
  const std::string indexes = "  current parallel q index:    0\n  maximum parallel q index:    3\n";
  for (uint8_t flags : {1, 2, 3}) {
    f.flags = flags;
    bool starting = flags != 1;
    expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSeqTimeResetMsg(f, o, c); },
                      header("RPLKX_SEQTIME_RESET_MSG", 1),
                      std::string("  sequence reset flag:         ") +
                          (starting ? "SEQUENCE_TIME_STARTING\n" : "SEQUENCE_TIME_ENDING\n") + indexes +
                          (starting ? "  new" : "  old") +
                          " sequence time:           1763720400 (2025-11-21-10.20.00)\n");
  }
}

TEST(FuncLevel, NotificationWithRestartInformation) {
  FuncLevelFields f;
  f.queueMinor = 10;
  f.publishedMicros = 5;
  f.lastCommitLsn = sampleLogPosition(0x40);
  f.restartLsn = {1, 2, {0x00, 0x01, 0x02, 0x03, 0x04, 0x05}};
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeFuncLevelMsg(f, o, c); },
                    header("RPLKX_FUNCLEVEL_MSG", 1),
                    "\n  REASON:                   NOTIFICATION FROM GLEANER\n"
                    "  sendQueue:                KXRP.SALES.TO.WAREHOUSE\n"
                    "  recvQueue:                KXRP.SALES.FROM.SALESDB\n"
                    "  qmap:                     SALES_TO_WAREHOUSE\n"
                    "  Glean current level:\t    0003.0012\n"
                    "  Send queue level:\t    0003.0010\n"
                    "  restartLSN:               0001:0203:0405 (node 2)\n"
                    "  lastTxPublishedTS:        2025-11-21-10.20.00.000005\n"
                    "  lastCommitLSN:            4041:4243:4445:4647:4849:4a4b:4c4d:4e4f\n");
}

TEST(FuncLevel, UnknownReasonWithoutRestartInformation) {
  FuncLevelFields f;
  f.reason = 7;
  f.flags = 0;
  f.queueMajor = -1;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeFuncLevelMsg(f, o, c); },
                    header("RPLKX_FUNCLEVEL_MSG", 1),
                    "\n  REASON:                   \n"
                    "  sendQueue:                KXRP.SALES.TO.WAREHOUSE\n"
                    "  recvQueue:                KXRP.SALES.FROM.SALESDB\n"
                    "  qmap:                     SALES_TO_WAREHOUSE\n"
                    "  Unknown current level:\t    0003.0012\n"
                    "  Unknown queue level:\t    -001.0012\n"
                    "  ** No restart information provided **\n");
  // The other reasons name their sides.
  for (auto [reason, text, current, queue] :
       {std::tuple{2, "NOTIFICATION FROM LANDER", "Land", "Recv"}, {3, "QUERY FROM GLEANER", "Glean", "Send"},
        {4, "RESPONSE FROM LANDER OK", "Land", "Recv"}, {5, "RESPONSE FROM LANDER FAILED", "Land", "Recv"}}) {
    f.reason = static_cast<uint8_t>(reason);
    std::string out = decode(encodeFuncLevelMsg(f)).out;
    EXPECT_NE(out.find(std::string("  REASON:                   ") + text + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find(std::string("  ") + current + " current level:\t    0003.0012\n"), std::string::npos) << out;
    EXPECT_NE(out.find(std::string("  ") + queue + " queue level:\t    -001.0012\n"), std::string::npos) << out;
  }
}

TEST(FuncLevel, FailedConversionEndsTheMessageBeforeItsLines) {
  FuncLevelFields f;
  MsgWriter w = encodeFuncLevelMsg(f);
  w.raw(110, "\xc3", 1);  // a cut UTF-8 sequence in the queue map
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(w, 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_EQ(d.out, banner(w.size()) + header("RPLKX_FUNCLEVEL_MSG", 1));
  EXPECT_NE(d.reports.find("Cannot convert qmap"), std::string::npos) << d.reports;
  EXPECT_NE(d.reports.find("cannot print qFuncLevelMsg class"), std::string::npos) << d.reports;
}

TEST(SendqStart, HeaderAlone) {
  expectBothSenders([](ByteOrder o, int32_t c) { return encodeSendqStartMsg(3, o, c); },
                    header("RPLKX_SENDQ_START", 3), "");
}

TEST(AdminQ, Version1NamesAndTexts) {
  AdminQFields f;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeAdminQMsg(f, o, c); },
                    header("RPLKX_ADMINQ_MSG", 1),
                    "  qAdminQMsg.sendq:    KXRP.SALES.TO.WAREHOUSE\n"
                    "  qAdminQMsg.subname:  ORDERS0001\n"
                    "  qAdminQMsg.actionTaken: RPLKX_DONE_SUB_INVALIDATED\n"
                    "  qAdminQMsg.actionToTake: RPLKX_TODO_INVALIDATE_SUB\n"
                    "  qAdminQMsg.msgNum: 2140\n"
                    "  qAdminQMsg.msgTokens: ORDERS0001,SQLCODE -803\n"
                    "  qAdminQMsg.serviceText: Row rejected: duplicate key\n");
  f.serviceText = "";
  f.actionTaken = 9;
  f.actionToTake = 6;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeAdminQMsg(f, o, c); },
                    header("RPLKX_ADMINQ_MSG", 1),
                    "  qAdminQMsg.sendq:    KXRP.SALES.TO.WAREHOUSE\n"
                    "  qAdminQMsg.subname:  ORDERS0001\n"
                    "  qAdminQMsg.actionTaken: Not defined\n"
                    "  qAdminQMsg.actionToTake: Not defined\n"
                    "  qAdminQMsg.msgNum: 2140\n"
                    "  qAdminQMsg.msgTokens: ORDERS0001,SQLCODE -803\n"
                    "  qAdminQMsg.serviceText: \n");
}

TEST(AdminQ, Version2SubIdAndActionsOnly) {
  AdminQFields f;
  f.version = 2;
  f.subId = 0x01020304;
  f.actionTaken = 9;
  f.actionToTake = 5;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeAdminQMsg(f, o, c); },
                    header("RPLKX_ADMINQ_MSG", 2),
                    "  qAdminQMsg.sub_id: 16909060\n"
                    "  qAdminQMsg.actionTaken: Not defined\n"
                    "  qAdminQMsg.actionToTake: RPLKX_TODO_INVALIDATE_P2P_SUB\n");
}

TEST(QueueControl, EveryCutIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {.name = "heartbeat", .encode = [](ByteOrder o, int32_t c) { return encodeHeartbeatMsg(HeartbeatFields{}, o, c); }, .cutsOnly = true},
      {.name = "heartbeat, version 7",
       .encode = [](ByteOrder o, int32_t c) {
         HeartbeatFields h7;
         h7.version = 7;
         return encodeHeartbeatMsg(h7, o, c);
       },
       .cutsOnly = true},
      {.name = "synchronisation request",
       .encode = [](ByteOrder o, int32_t c) { return encodeSyncRequestMsg(SyncRequestFields{}, o, c); },
       .cutsOnly = true},
      {.name = "synchronisation response",
       .encode = [](ByteOrder o, int32_t c) { return encodeSyncResponseMsg(SyncResponseFields{}, o, c); },
       .cutsOnly = true},
      {.name = "sequence-time reset",
       .encode = [](ByteOrder o, int32_t c) { return encodeSeqTimeResetMsg(SeqTimeResetFields{}, o, c); },
       .cutsOnly = true},
      {.name = "function level", .encode = [](ByteOrder o, int32_t c) { return encodeFuncLevelMsg(FuncLevelFields{}, o, c); }, .cutsOnly = true},
      {.name = "administration queue", .encode = [](ByteOrder o, int32_t c) { return encodeAdminQMsg(AdminQFields{}, o, c); }, .cutsOnly = true},
      {.name = "administration queue, version 2",
       .encode = [](ByteOrder o, int32_t c) {
         AdminQFields a2;
         a2.version = 2;
         return encodeAdminQMsg(a2, o, c);
       },
       .cutsOnly = true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

TEST(Heartbeat, DemoSamplePrintsTheSameFromEitherSender) {
  Decoded little = decode(sampleHeartbeatMsg(ByteOrder::Little, 1208));
  Decoded big = decode(sampleHeartbeatMsg(ByteOrder::Big, 37));
  EXPECT_EQ(little.rc, 0);
  EXPECT_EQ(little.reports + big.reports, "");
  EXPECT_EQ(little.out, big.out);
}

}  // namespace
