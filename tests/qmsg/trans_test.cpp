// Transaction headers: the transaction message of every version, the streamed header, the
// batched header inside a row, the generic transaction information, times and positions.
#include <cstdlib>
#include <ctime>

#include "qmsg/trans.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

namespace {

class TransMsg : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    releaseSchemaCache();
  }
};

RowDef smallRow(ByteOrder o) {
  RowDef r;
  r.subId = 9999;  // no schema: lengths and dumps
  r.keyAfter = std::vector<ColValue>{valInteger(7, o)};
  return r;
}

TEST_F(TransMsg, Version8HeaderPrintsEveryLine) {
  expectGolden({"transaction header, version 8",
                [](ByteOrder o, int32_t c) {
                  TransMsgDef t;
                  t.flag = 0x83;
                  t.segment = 0x1a;
                  t.micros = 42;
                  t.lsn.flags = 1;
                  t.lsn.node = 7;
                  return encodeTransMsg(t, o, c);
                },
                header("RPLKX_TRANS_MSG", 8) +
                    "  qMsgHeader.msgFlag:    Last message in DB transaction.\n"
                    "  qMsgHeader.isMultiSubTrans():     TRUE: contains multiple sub-transactions.\n"
                    "    Parallel send queues enabled.\n"
                    "qTransMsgHeader.segment_num: 001a\n"
                    "qTransMsgHeader.commit_LSN:     0000:0000:0000:1234:0000:0000:0000:5678 (node 7)\n"
                    "qTransMsgHeader.commit_time:    11-14-2023 22:13:20.000042 UTC\n"
                    "qTransMsgHeader.commit_time:    11-14-2023 22:13:20.000042 LOCALTIME\n"
                    "qTransMsgHeader.nRows:          0\n"
                    "qTransMsgHeader.numPartitionNo: 0\n"
                    "qTransMsgHeader.auth_id:       REPLUSER\n"
                    "qTransMsgHeader.auth_tkn:      TOKEN1\n"
                    "qTransMsgHeader.plan_id:       PLAN1\n"
                    "qTransMsgHeader.uow_id:        0000:0000:0a0b:0000:0001\n"});
}

TEST_F(TransMsg, Version1HasNoIdentityLinesAndRowsAt32) {
  TransMsgDef t;
  t.version = 1;
  t.flag = 0;
  t.rows = {smallRow(ByteOrder::Big)};
  Bytes msg = encodeTransMsg(t, ByteOrder::Big, 1208);
  ASSERT_EQ(msg[32 + 3], 24);  // the row's length word starts at 32 (big-endian)
  Decoded d = decodeAs(msg, ByteOrder::Big, 1208);
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_TRUE(has(d.out, "qTransMsgHeader.commit_LSN:     0000:0000:1234:0000:5678\n"));
  EXPECT_TRUE(has(d.out, "qTransMsgHeader.numPartitionNo: 0\nqTransRow.length:      "));
  EXPECT_FALSE(has(d.out, "auth_id"));
  EXPECT_FALSE(has(d.out, "uow_id"));
  EXPECT_FALSE(has(d.out, "rowheader.intentseq"));
  EXPECT_TRUE(has(d.out, "colset.nCols:   1\n  col.VALUE:      length:    4\n")) << d.out;
}

TEST_F(TransMsg, VersionsPlaceTheirRowsAndFields) {
  for (uint16_t v : {2, 6, 7, 8}) {
    for (Sender s : {kLittleUtf8, kBigEbcdic}) {
      TransMsgDef t;
      t.version = v;
      t.rows = {smallRow(s.order), smallRow(s.order)};
      Bytes msg = encodeTransMsg(t, s.order, s.ccsid);
      Decoded d = decodeAs(msg, s.order, s.ccsid);
      EXPECT_EQ(d.rc, 0) << v << d.reports;
      EXPECT_TRUE(has(d.out, "qTransMsgHeader.auth_id:       REPLUSER\n")) << v;
      EXPECT_TRUE(has(d.out, v < 6 ? "commit_LSN:     0000:0000:1234:0000:5678\n"
                                   : "commit_LSN:     0000:0000:0000:1234:0000:0000:0000:5678\n")) << v;
      EXPECT_TRUE(has(d.out, v < 8 ? "uow_id:        0000:0000:0a0b:0000:0001\n" : "uow_id:        0000:0000:0a0b:0000:0001\n"));
      EXPECT_TRUE(has(d.out, v < 7 ? "rowheader.intentseq:   0000:0000:0000:0001:0000\n"
                                   : "rowheader.intentseq:   0000:0000:0000:0001:0000:0000:0000:0002\n")) << v << d.out;
      size_t first = d.out.find("qTransRow.length:");
      EXPECT_NE(first, std::string::npos);
      EXPECT_NE(d.out.find("qTransRow.length:", first + 1), std::string::npos) << v;
    }
  }
}

TEST_F(TransMsg, ZeroMicrosecondsAndZeroSeconds) {
  TransMsgDef t;
  t.micros = 0;
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_TRUE(has(d.out, "commit_time:    11-14-2023 22:13:20.000000 UTC\n"));
  EXPECT_TRUE(has(d.out, "commit_time:    11-14-2023 22:13:20 LOCALTIME\n"));
  t.seconds = 0;
  d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_TRUE(has(d.out, "commit_time:    Un-initialized UTC\n"));
  EXPECT_TRUE(has(d.out, "commit_time:    Un-initialized LOCALTIME\n"));
}

TEST_F(TransMsg, SourceLocalTimeFromVersion7PrintsThroughTheUtcForm) {
  TransMsgDef t;
  t.version = 7;
  t.sourceLocal = 1700003600;
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 1208), ByteOrder::Big, 1208);
  EXPECT_TRUE(has(d.out, "commit_time:    11-14-2023 23:13:20.000000 LOCALTIME (source)\n")) << d.out;
  t.version = 6;
  d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 1208), ByteOrder::Big, 1208);
  EXPECT_TRUE(has(d.out, "commit_time:    11-14-2023 22:13:20 LOCALTIME\n")) << d.out;
}

TEST_F(TransMsg, PartitionCountIsPrintedAsStored) {
  TransMsgDef t;
  t.numPartitionNo = 3;
  EXPECT_TRUE(has(decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208).out,
                  "qTransMsgHeader.numPartitionNo: 3\n"));
  EXPECT_TRUE(has(decodeAs(encodeTransMsg(t, ByteOrder::Big, 1208), ByteOrder::Big, 1208).out,
                  "qTransMsgHeader.numPartitionNo: 768\n"));
}

TEST_F(TransMsg, HeaderOnlyAndSuppressedPositions) {
  TransMsgDef t;
  t.rows = {smallRow(ByteOrder::Little)};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208, 1208, true);
  EXPECT_EQ(d.rc, 0);
  EXPECT_TRUE(has(d.out, "qTransMsgHeader.nRows:          1\n"));
  EXPECT_FALSE(has(d.out, "qTransRow"));
}

TEST_F(TransMsg, StreamedHeader) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    StreamedTransMsgDef t;
    t.transType = 16;
    t.flags = 3;
    t.rows = {smallRow(s.order)};
    t.numTotalRowOps = 12;
    Bytes msg = encodeStreamedTransMsg(t, s.order, s.ccsid);
    Decoded d = decodeAs(msg, s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    std::string expected = banner(msg.size()) + header("RPLKX_STREAMED_TRANS_MSG", 8) +
                           "qStreamedTransMsgHeader.transMsgType:          RPLKX_STREAMED_TRANS_COMMIT\n"
                           "qStreamedTransMsgHeader.flags:                 :IN DOUBT::FORCED ABORT:\n"
                           "qStreamedTransMsgHeader.segment_num:           0\n"
                           "qStreamedTransMsgHeader.LSN:                   0000:0000:0000:1234:0000:0000:0000:5678\n"
                           "qStreamedTransMsgHeader.trans_time:            11-14-2023 22:13:20.000250 UTC\n"
                           "qStreamedTransMsgHeader.trans_time:            11-14-2023 22:13:20.000250 LOCALTIME\n"
                           "qStreamedTransMsgHeader.numTotalRowOps:        12\n"
                           "qStreamedTransMsgHeader.numSingleRowOps:       1\n"
                           "qStreamedTransMsgHeader.numStmtChunkFiles:     0\n"
                           "qStreamedTransMsgHeader.auth_id:               REPLUSER\n"
                           "qStreamedTransMsgHeader.auth_tkn:              TOKEN1\n"
                           "qStreamedTransMsgHeader.plan_id:               PLAN1\n"
                           "qStreamedTransMsgHeader.uowID:                 0000:0000:0a0d\n"
                           "qStreamedTransMsgHeader.numPartitionNo:        0\n"
                           "qTransRow.length:      ";
    EXPECT_EQ(d.out.substr(0, expected.size()), expected);
  }
}

TEST_F(TransMsg, StreamedUnknownTypeAndEarlyVersionPosition) {
  StreamedTransMsgDef t;
  t.transType = 32;
  t.version = 5;
  Decoded d = decodeAs(encodeStreamedTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_TRUE(has(d.out, "qStreamedTransMsgHeader.transMsgType:          Unknown\n"));
  EXPECT_TRUE(has(d.out, "qStreamedTransMsgHeader.flags:                 \n"));
  EXPECT_TRUE(has(d.out, "qStreamedTransMsgHeader.LSN:                   \n"));
}

TEST_F(TransMsg, BatchedHeaderComesBeforeItsRow) {
  for (bool identity : {true, false}) {
    TransMsgDef t;
    RowDef r = smallRow(ByteOrder::Big);
    r.batched = BatchedTransHeaderDef{};
    r.batched->withIdentity = identity;
    t.rows = {r};
    Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 37), ByteOrder::Big, 37);
    EXPECT_EQ(d.rc, 0) << d.reports;
    std::string expected = std::string("--> qBatchedTransHeader.length:        ") + (identity ? "126" : "50") +
                           "\n"
                           "    qBatchedTransHeader.commit_LSN:    0000:0000:0000:1234:0000:0000:0000:5679\n"
                           "    qBatchedTransHeader.commit_time:   11-14-2023 22:13:20.000005 UTC\n"
                           "    qBatchedTransHeader.commit_time:   11-14-2023 23:13:20.000005 LOCALTIME\n"
                           "    qBatchedTransHeader.uow_id:        0000:0000:0a0c\n" +
                           (identity ? "    qBatchedTransHeader.auth_id:       BATCHUSER\n"
                                       "    qBatchedTransHeader.auth_tkn:      BTOKEN\n"
                                       "    qBatchedTransHeader.plan_id:       BPLAN\n"
                                     : "") +
                           "qTransRow.length:";
    EXPECT_TRUE(has(d.out, expected)) << d.out;
    EXPECT_TRUE(has(d.out, ":AFTER VALUES KEY::FIRST ROW IN BATCH TRANS:\n"));
  }
}

// The generic block as the schema and control messages carry it.
TEST_F(TransMsg, GenericTransInfo) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    MsgWriter w(s.order, s.ccsid);
    GenericTransInfoDef info;
    info.lsn.flags = 1;
    info.lsn.node = 2;
    info.micros = 7;
    info.planId = "";
    writeGenericTransInfo(w, 16, info);
    encodingInfo enc = senderContext(s.order, s.ccsid);
    ConvMgr::init();
    ConvMgr cm(6, "test");
    Capture out;
    QMsg m(w.bytes().data(), w.size(), out.file(), &enc, &cm);
    ASSERT_EQ(fixGenericTransInfo(m, 16), 0);
    ASSERT_EQ(printGenericTransInfo(m, 16), 0);
    EXPECT_EQ(out.text(),
              "    qGenericTransInfo.commit_LSN:    0000:0000:0000:1234:0000:0000:0000:5678 (node 2)\n"
              "    qGenericTransInfo.commit_time:   11-14-2023 22:13:20.000007 UTC\n"
              "    qGenericTransInfo.commit_time:   11-14-2023 22:13:20.000007 LOCALTIME\n"
              "    qGenericTransInfo.uow_id:        0000:0000:0a0b\n"
              "    qGenericTransInfo.auth_id:       REPLUSER\n"
              "    qGenericTransInfo.auth_tkn:      TOKEN1\n");
    info.noContext = true;
    writeGenericTransInfo(w, 16, info);
    Capture out2;
    QMsg m2(w.bytes().data(), w.size(), out2.file(), &enc, &cm);
    ASSERT_EQ(printGenericTransInfo(m2, 16), 0);
    EXPECT_EQ(out2.text(), "    qGenericTransInfo:  NO Transaction context.\n");
    // A block cut inside its identity texts is reported, not read past.
    info.noContext = false;
    writeGenericTransInfo(w, 16, info);
    Capture out3, reports;
    msgLogger* logger = rplLogger();
    if (logger == nullptr) {  // this test may run alone, before any decode created the logger
      logger = msgLogger::create(13, 0);
      logger->loadCatalog(kRplCatalog);
      setRplLogger(logger);
    }
    FILE* saved = logger->output();
    logger->setOutput(reports.file());
    QMsg cut(w.bytes().data(), 16 + 100, out3.file(), &enc, &cm);
    EXPECT_EQ(fixGenericTransInfo(cut, 16), 0);
    EXPECT_EQ(printGenericTransInfo(cut, 16), kRcShortRead);
    logger->setOutput(saved);
    EXPECT_TRUE(has(reports.text(), "qGenericTransInfo.plan_id")) << reports.text();
  }
}

TEST_F(TransMsg, TruncationIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {"transaction of two rows, the first with a batched header",
       [](ByteOrder o, int32_t c) {
         TransMsgDef t;
         RowDef r = smallRow(o);
         r.batched = BatchedTransHeaderDef{};
         t.rows = {r, smallRow(o)};
         return encodeTransMsg(t, o, c);
       },
       "", nullptr, nullptr, true},
      {"streamed transaction",
       [](ByteOrder o, int32_t c) {
         StreamedTransMsgDef st;
         st.rows = {smallRow(o)};
         return encodeStreamedTransMsg(st, o, c);
       },
       "", nullptr, nullptr, true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

}  // namespace
