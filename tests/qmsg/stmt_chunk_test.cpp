// Statement chunks: a row of operation 160 in a streamed transaction, with 0 and 2 data
// columns, the name tables, the file name from an EBCDIC sender, truncation.
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

namespace {

RowDef chunkRow(StmtChunkDef chunk) {
  RowDef r;
  r.subId = 1;
  r.chunk = std::move(chunk);
  return r;
}

StmtChunkDef twoColumns() {
  StmtChunkDef c;
  c.operation = 64;
  c.format = 3;
  c.fileSize = 5000000000ULL;
  c.nRows = 77;
  c.fileName = "/var/rpl/chunk_0001.bin";
  c.cols = {{9, 1, 453, 10}, {2, 2, 497, 4}};
  return c;
}

TEST(StmtChunk, TwoDataColumnsFromEitherSender) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    StreamedTransMsgDef t;
    t.rows = {chunkRow(twoColumns())};
    Decoded d = decodeAs(encodeStreamedTransMsg(t, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    EXPECT_TRUE(has(d.out, "qStreamedTransMsgHeader.numSingleRowOps:       0\n"
                           "qStreamedTransMsgHeader.numStmtChunkFiles:     1\n"));
    // colPosition is printed as the sender stored it.
    const char* pos1 = s.order == ByteOrder::Little ? "1" : "256";
    const char* pos2 = s.order == ByteOrder::Little ? "2" : "512";
    std::string expected = std::string("rowheader.operation:   RPLKX_ROWOP_MASSIVE_STMT\n") +
                           "rowheader.intentseq:   0000:0000:0000:0001:0000:0000:0000:0002\n"
                           "rowheader.bafter:      \n"
                           "rowheader.sub_id:      1\n"
                           "rowheader.partitionNo: 0\n"
                           "    qStmtChunk.operation:         DELETE\n"
                           "    qStmtChunk.format:            BINARY\n"
                           "    qStmtChunk.fileSize:          5000000000\n"
                           "    qStmtChunk.nRows:             77\n"
                           "    qStmtChunk.nCols:             2\n"
                           "    qStmtChunk.fileName:          /var/rpl/chunk_0001.bin\n"
                           "    ****  qStmtChunkDataCol ****  \n"
                           "    * 0 *\n"
                           "      qStmtChunkDataCol.colMask:         RPLKX_DATACOL_KEY WITH FOR BIT DATA COL\n"
                           "      qStmtChunkDataCol.colPosition:     " + pos1 + "\n"
                           "      qStmtChunkDataCol.colType:         CHAR\n"
                           "      qStmtChunkDataCol.typeLen:         10\n"
                           "    * 1 *\n"
                           "      qStmtChunkDataCol.colMask:         RPLKX_DATACOL_NONKEY\n"
                           "      qStmtChunkDataCol.colPosition:     " + pos2 + "\n"
                           "      qStmtChunkDataCol.colType:         INTEGER\n"
                           "      qStmtChunkDataCol.typeLen:         4\n";
    size_t at = d.out.find("rowheader.operation:");
    ASSERT_NE(at, std::string::npos) << d.out;
    EXPECT_EQ(d.out.substr(at), expected);
  }
}

TEST(StmtChunk, NoDataColumnsAndUnknownCodes) {
  StmtChunkDef c;
  c.operation = 17;
  c.format = 1;
  RowDef r = chunkRow(c);
  TransMsgDef t;
  t.rows = {r};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_TRUE(has(d.out, "    qStmtChunk.operation:         Unknown\n"
                         "    qStmtChunk.format:            Unknown\n"
                         "    qStmtChunk.fileSize:          123456\n"
                         "    qStmtChunk.nRows:             1000\n"
                         "    qStmtChunk.nCols:             0\n"
                         "    qStmtChunk.fileName:          /tmp/chunk0001.dat\n"
                         "    ****  qStmtChunkDataCol ****  \n"));
  EXPECT_FALSE(has(d.out, "* 0 *"));
}

TEST(StmtChunk, MasksAndTypesByTable) {
  StmtChunkDef c;
  c.cols = {{1, 0, 452, 1}, {4, 0, 2448, 32}, {10, 0, 908, 8}, {12, 0, 1000, 0}, {3, 0, 996, 16}};
  TransMsgDef t;
  t.rows = {chunkRow(c)};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 37), ByteOrder::Big, 37);
  EXPECT_EQ(d.rc, 0) << d.reports;
  for (const char* line : {"colMask:         RPLKX_DATACOL_KEY\n", "colMask:         RPLKX_DATACOL_UNSUBSCRIBED\n",
                           "colMask:         RPLKX_DATACOL_NONKEY WITH FOR BIT DATA COL\n",
                           "colMask:         RPLKX_DATACOL_UNSUBSCRIBED WITH FOR BIT DATA COL\n",
                           "colMask:         Unknown\n", "colType:         TIMESTAMP WITH TIME ZONE\n",
                           "colType:         VARBINARY\n", "colType:         Unknown\n", "colType:         DECFLOAT\n"})
    EXPECT_TRUE(has(d.out, line)) << line;
}

TEST(StmtChunk, TruncationIsReportedNeverReadPast) {
  expectGolden({"streamed transaction of one statement chunk",
                [](ByteOrder o, int32_t c) {
                  StreamedTransMsgDef t;
                  t.rows = {chunkRow(twoColumns())};
                  return encodeStreamedTransMsg(t, o, c);
                },
                "", nullptr, [](Sender) { releaseSchemaCache(); }, true});
}

}  // namespace
