// LOB messages: both layouts, NULL flag, code page kinds, the column from the schema cache
// (CLOB text, DBCLOB and BLOB dumps), the unknown-schema warning, truncation.
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

namespace {

constexpr uint32_t kSub = 800;

SchemaMsgDef lobSchema(int32_t ccsid) {
  SchemaMsgDef s;
  s.subId = kSub;
  s.columns = {{"ID", 496, 4, 0}, {"NOTE", 409, 1000, ccsid}, {"PIC", 404, 1000, 0}, {"DNOTE", 413, 1000, 1200}};
  return s;
}

class LobMsg : public ::testing::Test {
 protected:
  void SetUp() override { releaseSchemaCache(); }
  void cacheSchema(Sender s) {
    Decoded d = decodeAs(encodeSchemaMsg(lobSchema(s.ccsid), s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_EQ(d.rc, 0) << d.reports;
  }
};

void cacheLobSchema(Sender s);

TEST_F(LobMsg, ClobTextFromEitherSenderVersion7) {
  expectGolden({"CLOB part, version 7",
                [](ByteOrder o, int32_t c) {
                  LobMsgDef l;
                  l.subId = kSub;
                  l.colNum = 1;
                  l.flag = 1;
                  l.totalLen = 100;
                  l.data = valText("Once upon a time", c).data;
                  return encodeLobMsg(l, o, c);
                },
                header("RPLKX_LOB_MSG", 7) +
                    "  qMsgHeader.msgFlag:\n"
                    "    Last message in DB transaction.\n"
                    "  sub_id:          800\n"
                    "  lobId:           [ rowNum = 2, colNum = 1 ]\n"
                    "  lob codepage:    DATABASE codepage\n"
                    "  lobTotalDataLen: 100\n"
                    "  lobDataPartLen:  16\n"
                    "  colName:         NOTE\n"
                    "\n****  CLOB data ****\n\n"
                    "Once upon a time\n\n",
                nullptr, cacheLobSchema});
}

TEST_F(LobMsg, Version6HeaderRunsOnAfterTheLobId) {
  cacheSchema(kBigEbcdic);
  LobMsgDef l;
  l.version = 6;
  l.subId = kSub;
  l.colNum = 2;
  l.data = {0xde, 0xad, 0xbe, 0xef};
  Bytes msg = encodeLobMsg(l, ByteOrder::Big, 37);
  Decoded d = decodeAs(msg, ByteOrder::Big, 37);
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_EQ(d.out, banner(msg.size()) + header("RPLKX_LOB_MSG", 6) +
                       "  sub_id:          800\n"
                       "  lobId:           [ rowNum = 2, colNum = 2 ]  lobTotalDataLen: 4\n"
                       "  lobDataPartLen:  4\n"
                       "  colName:         PIC\n"
                       "\n****  BLOB data ****\n\n"
                       " 00000000 DEADBEEF                                      ....\n");
}

TEST_F(LobMsg, DbclobPartCountsDoubleByteCharacters) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    releaseSchemaCache();
    cacheSchema(s);
    LobMsgDef l;
    l.subId = kSub;
    l.colNum = 3;
    l.cpKind = 2;
    l.doubleByte = true;
    l.data = utf16("AB", s.order);
    Decoded d = decodeAs(encodeLobMsg(l, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    EXPECT_TRUE(has(d.out, "  lob codepage:    APPLICATION codepage\n  lobTotalDataLen: 4\n  lobDataPartLen:  2\n"
                           "  colName:         DNOTE\n\n****  DBCLOB data ****\n\n"
                           " 00000000 4142"))
        << d.out;
  }
}

TEST_F(LobMsg, NullValueHasNoDataSection) {
  cacheSchema(kLittleUtf8);
  LobMsgDef l;
  l.subId = kSub;
  l.colNum = 1;
  l.flag = 2 | 128;
  l.cpKind = 0;
  Bytes msg = encodeLobMsg(l, ByteOrder::Little, 1208);
  Decoded d = decodeAs(msg, ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, 0);
  EXPECT_EQ(d.out, banner(msg.size()) + header("RPLKX_LOB_MSG", 7) +
                       "  qMsgHeader.msgFlag:\n"
                       "    LOB value is NULL.\n"
                       "    Parallel send queues enabled.\n"
                       "  sub_id:          800\n"
                       "  lobId:           [ rowNum = 2, colNum = 1 ]\n"
                       "  lob codepage:   NOT SET\n"
                       "  lobTotalDataLen: 0\n"
                       "  lobDataPartLen:  0\n"
                       "  colName:         NOTE\n");
}

TEST_F(LobMsg, UnknownSchemaPrintsTheWarningAndSucceeds) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    LobMsgDef l;
    l.subId = 12345;
    l.data = {'h', 'i', 0, 1};
    Bytes msg = encodeLobMsg(l, s.order, s.ccsid);
    Decoded d = decodeAs(msg, s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0);
    EXPECT_TRUE(has(d.out, "  colName:         Unknown because schema info is not available.\n"
                           "\n**** WARNING: Column type info is not available ****\n"
                           "**** In case of DBCLOB only the first half of the data is printed out. ****\n"
                           "****  LOB data ****\n\n"
                           " 00000000 68690001                                      hi..\n"))
        << d.out;
  }
}

TEST_F(LobMsg, SchemaOfAnUnrecognizedVersionRefusesTheLookup) {
  // A version-5 schema is not printed (so not cached): the LOB prints without its column.
  SchemaMsgDef s = lobSchema(1208);
  s.version = 5;
  decodeAs(encodeSchemaMsg(s, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  LobMsgDef l;
  l.subId = kSub;
  l.data = {1};
  Decoded d = decodeAs(encodeLobMsg(l, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, 0);
  EXPECT_TRUE(has(d.out, "Unknown because schema info is not available."));
}

template <uint16_t kVersion>
Bytes clobPart(ByteOrder o, int32_t ccsid) {
  LobMsgDef l;
  l.version = kVersion;
  l.subId = kSub;
  l.colNum = 1;
  l.data = valText("some clob text", ccsid).data;
  return encodeLobMsg(l, o, ccsid);
}

void cacheLobSchema(Sender s) {
  releaseSchemaCache();
  decodeAs(encodeSchemaMsg(lobSchema(s.ccsid), s.order, s.ccsid), s.order, s.ccsid);
}

TEST_F(LobMsg, TruncationIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {"CLOB part, version 6", clobPart<6>, "", nullptr, cacheLobSchema, true},
      {"CLOB part, version 7", clobPart<7>, "", nullptr, cacheLobSchema, true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

}  // namespace
