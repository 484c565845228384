// Rows and column sets: operations, markers, long offsets, rows without a schema, every value
// print form by column type, spilled rows, and the same transaction from two senders.
#include <cstdlib>
#include <ctime>
#include <random>

#include "qmsg/values.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

namespace {

constexpr uint32_t kSub = 700;

// A subscription with a column of every type the value printer knows, key column first.
SchemaMsgDef typesSchema(int32_t ccsid) {
  SchemaMsgDef s;
  s.subId = kSub;
  s.nColsInKey = 1;
  s.columns = {
      {"ID", 496, 4, 0},           {"SMALL", 501, 2, 0},       {"BIG", 493, 8, 0},
      {"DBL", 481, 8, 0},          {"REAL", 481, 4, 0},        {"PRICE", 485, 0, 0, 7, 2},
      {"QTY", 504, 0, 0, 5, 0},    {"DF16", 997, 8, 0},        {"DF34", 997, 16, 0},
      {"CODE", 453, 10, ccsid},    {"NAME", 449, 20, ccsid},   {"DAY", 385, 10, ccsid},
      {"CLOCK", 389, 8, ccsid},    {"STAMP", 393, 26, ccsid},  {"STAMPTZ", 2449, 32, ccsid},
      {"GR", 469, 5, 1200},        {"VGR", 465, 10, 1200},     {"NOTE", 409, 1000, ccsid},
      {"PIC", 405, 1000, 0},       {"DNOTE", 413, 1000, 1200}, {"DOC", 989, 0, ccsid},
      {"FLAG", 2437, 1, 0},        {"BIN", 913, 2, 0},         {"VBIN", 909, 4, 0},
      {"CSTR", 461, 4, ccsid},
  };
  return s;
}

std::vector<ColValue> typesValues(Sender s) {
  ByteOrder o = s.order;
  return {
      valSmallint(-2, o),
      valBigint(9000000000LL, o),
      valDouble(123.4567890123, o),
      valFloat(1.5f, o),
      valDecimal("-12.50", 7, 2),
      valDecimal("42", 5, 0),
      valDecfloat("15", -1, false, 8, o),
      valDecfloat("12345678901234567890123456789012", -30, false, 16, o),
      valText("ABC       ", s.ccsid),
      valVarchar("hello", s.ccsid, o),
      valText("2026-11-21", s.ccsid),
      valText("22.48.57", s.ccsid),
      valText("2026-11-21-22.48.57.123456", s.ccsid),
      valText("2026-11-21-22.48.57.123456+01:00", s.ccsid),
      valGraphic("Grüße", o),
      valVargraphic("日本", o),
      valLobRef(1, 17, 9, o, [&] { auto v = valText("clob text", s.ccsid); return v.data; }()),
      valLobRef(2, 18, 5000, o),
      valLobRef(1, 19, 4, o, utf16("ＡＢ", o)),
      valLobRef(1, 20, 4, o, [&] { auto v = valText("<a/>", s.ccsid); return v.data; }()),
      valText(std::string(1, '\1'), 0),
      valText("\x01\xab", 0),
      valVarchar("\xca\xfe", 0, o),
      valText(std::string("abc\0", 4), s.ccsid),
  };
}

const char* const kTypesRowText =
    "colset.nCols:   1\n"
    "  col.colname:  ID\n  col.coltype:  496 = INTEGER\n  col.typelen:  4\n  col.codepage: 0\n"
    "  col.VALUE:    7\n"
    "colset.nCols:   24\n"
    "  col.colname:  SMALL\n  col.coltype:  501 = SMALLINT\n  col.typelen:  2\n  col.codepage: 0\n"
    "  col.VALUE:    -2\n"
    "  col.colname:  BIG\n  col.coltype:  493 = BIGINT\n  col.typelen:  8\n  col.codepage: 0\n"
    "  col.VALUE:    9000000000\n"
    "  col.colname:  DBL\n  col.coltype:  481 = DOUBLE\n  col.typelen:  8\n  col.codepage: 0\n"
    "  col.VALUE:    1.23456789012300E+02\n"
    "  col.colname:  REAL\n  col.coltype:  481 = DOUBLE\n  col.typelen:  4\n  col.codepage: 0\n"
    "  col.VALUE:    1.50000E+00\n"
    "  col.colname:  PRICE\n  col.coltype:  485 = DECIMAL\n@PRICE@  col.codepage: 0\n"
    "  col.VALUE:    -12.50\n"
    "  col.colname:  QTY\n  col.coltype:  504 = Unknown\n@QTY@  col.codepage: 0\n"
    "  col.VALUE:    42\n"
    "  col.colname:  DF16\n  col.coltype:  997 = DECFLOAT\n  col.typelen:  8\n  col.codepage: 0\n"
    "  col.VALUE:    1.5\n"
    "  col.colname:  DF34\n  col.coltype:  997 = DECFLOAT\n  col.typelen:  16\n  col.codepage: 0\n"
    "  col.VALUE:    12.345678901234567890123456789012\n"
    "  col.colname:  CODE\n  col.coltype:  453 = CHAR\n  col.typelen:  10\n  col.codepage: @CP@\n"
    "  col.VALUE:    ABC       \n"
    "  col.colname:  NAME\n  col.coltype:  449 = VARCHAR\n  col.typelen:  20\n  col.codepage: @CP@\n"
    "  col.VALUE:    hello\n"
    "  col.colname:  DAY\n  col.coltype:  385 = DATE\n  col.typelen:  10\n  col.codepage: @CP@\n"
    "  col.VALUE:    2026-11-21\n"
    "  col.colname:  CLOCK\n  col.coltype:  389 = TIME\n  col.typelen:  8\n  col.codepage: @CP@\n"
    "  col.VALUE:    22.48.57\n"
    "  col.colname:  STAMP\n  col.coltype:  393 = TIMESTAMP\n  col.typelen:  26\n  col.codepage: @CP@\n"
    "  col.VALUE:    2026-11-21-22.48.57.123456\n"
    "  col.colname:  STAMPTZ\n  col.coltype:  2449 = TIMESTAMP WITH TIME ZONE\n  col.typelen:  32\n"
    "  col.codepage: @CP@\n"
    "  col.VALUE:    2026-11-21-22.48.57.123456+01:00\n"
    "  col.colname:  GR\n  col.coltype:  469 = GRAPHIC\n  col.typelen:  5\n  col.codepage: 1200\n"
    "  col.VALUE:    Grüße\n"
    "  col.colname:  VGR\n  col.coltype:  465 = VARGRAPHIC\n  col.typelen:  10\n  col.codepage: 1200\n"
    "  col.VALUE:    日本\n"
    "  col.colname:  NOTE\n  col.coltype:  409 = CLOB\n  col.typelen:  1000\n  col.codepage: @CP@\n"
    "  col.VALUE:    \n    lobId:      [ rowNum = 1, colNum = 17 ]\n    lobDataLen: 9\nclob text\n"
    "  col.colname:  PIC\n  col.coltype:  405 = BLOB\n  col.typelen:  1000\n  col.codepage: 0\n"
    "  col.VALUE:    \n    lobId:      [ rowNum = 2, colNum = 18 ]\n    lobDataLen: 5000\nNULL\n"
    "  col.colname:  DNOTE\n  col.coltype:  413 = DBCLOB\n  col.typelen:  1000\n  col.codepage: 1200\n"
    "  col.VALUE:    \n    lobId:      [ rowNum = 1, colNum = 19 ]\n    lobDataLen: 4\nＡＢ\n"
    "  col.colname:  DOC\n  col.coltype:  989 = xml\n  col.typelen:  0\n  col.codepage: @CP@\n"
    "  col.VALUE:    \n    lobId:      [ rowNum = 1, colNum = 20 ]\n    lobDataLen: 4\n"
    "    xmlDataLen: 4\n<a/>\n"
    "  col.colname:  FLAG\n  col.coltype:  2437 = BOOLEAN\n  col.typelen:  1\n  col.codepage: 0\n"
    "  col.VALUE:    TRUE\n"
    "  col.colname:  BIN\n  col.coltype:  913 = BINARY\n  col.typelen:  2\n  col.codepage: 0\n"
    "  col.VALUE:    01AB\n"
    "  col.colname:  VBIN\n  col.coltype:  909 = VARBINARY\n  col.typelen:  4\n  col.codepage: 0\n"
    "  col.VALUE:    CAFE\n"
    "  col.colname:  CSTR\n  col.coltype:  461 = C STRING\n  col.typelen:  4\n  col.codepage: @CP@\n"
    "  col.VALUE:    abc\n";

std::string replaceAll(std::string s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) s.replace(p, from.size(), to);
  return s;
}

std::string typesRowText(Sender s) {
  std::string t = replaceAll(kTypesRowText, "@CP@", std::to_string(s.ccsid));
  bool little = s.order == ByteOrder::Little;
  t = replaceAll(t, "@PRICE@", little ? "  col.typeprecision:  7\n  col.typescale:  2\n" : "");
  // 504 is a packed decimal too, named by no table.
  return replaceAll(t, "@QTY@", little ? "  col.typeprecision:  5\n  col.typescale:  0\n" : "");
}

class Rows : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    releaseSchemaCache();
  }
  void cacheSchema(Sender s, SchemaMsgDef def) {
    Decoded d = decodeAs(encodeSchemaMsg(def, s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_EQ(d.rc, 0) << d.reports;
  }
};

RowDef typesRow(Sender s, uint8_t op = 16) {
  RowDef r;
  r.subId = kSub;
  r.operation = op;
  r.keyAfter = std::vector<ColValue>{valInteger(7, s.order)};
  r.colsAfter = typesValues(s);
  return r;
}

TEST_F(Rows, EveryValueTypePrintsItsForm) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    releaseSchemaCache();
    cacheSchema(s, typesSchema(s.ccsid));
    TransMsgDef t;
    t.rows = {typesRow(s, 21)};
    Bytes msg = encodeTransMsg(t, s.order, s.ccsid);
    Decoded d = decodeAs(msg, s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    EXPECT_EQ(d.reports, "");
    std::string rowHead = "rowheader.operation:   INSERT\n"
                          "rowheader.intentseq:   0000:0000:0000:0001:0000:0000:0000:0002\n"
                          "                       Row operation involves LOB and XML columns\n"
                          "rowheader.bafter:      :AFTER VALUES KEY::AFTER VALUES COLS:\n"
                          "rowheader.sub_id:      700\n"
                          "rowheader.partitionNo: 0\n";
    size_t at = d.out.find(rowHead);
    ASSERT_NE(at, std::string::npos) << d.out;
    EXPECT_EQ(d.out.substr(at + rowHead.size()), typesRowText(s));
  }
}

TEST_F(Rows, SameTransactionFromLittleEndianUtf8AndBigEndianEbcdicPrintsTheSameText) {
  std::string text[2];
  int i = 0;
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    releaseSchemaCache();
    cacheSchema(s, typesSchema(s.ccsid));
    TransMsgDef t;
    RowDef del = typesRow(s, 64);
    del.keyBefore = del.keyAfter;
    del.colsBefore = del.colsAfter;
    del.keyAfter.reset();
    del.colsAfter.reset();
    t.rows = {typesRow(s), del};
    Decoded d = decodeAs(encodeTransMsg(t, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    // The column descriptors name each sender's code page, and a swapped DECIMAL descriptor
    // prints no precision and scale; everything else is the same.
    text[i++] = withoutLines(d.out, {"  col.codepage:", "  col.typeprecision:", "  col.typescale:", "  col.typelen:"});
  }
  EXPECT_EQ(text[0], text[1]);
  EXPECT_TRUE(has(text[0], "rowheader.bafter:      :BEFORE VALUES KEY::BEFORE VALUES COLS:\n"));
}

TEST_F(Rows, EbcdicCharacterValuesAreConverted) {
  cacheSchema(kBigEbcdic, typesSchema(37));
  TransMsgDef t;
  RowDef r = typesRow(kBigEbcdic);
  (*r.colsAfter)[9] = valVarchar("héllo wörld", 37, ByteOrder::Big);
  t.rows = {r};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 37), ByteOrder::Big, 37);
  EXPECT_TRUE(has(d.out, "  col.VALUE:    héllo wörld\n")) << d.out;
  EXPECT_TRUE(has(d.out, "  col.VALUE:    ABC       \n"));
}

TEST_F(Rows, OperationNames) {
  struct Op {
    uint8_t code;
    const char* name;
  };
  const Op ops[] = {{0, "RPLKX_ROWOP_NO_SEND"}, {16, "INSERT"}, {17, "INSERT"}, {20, "INSERT"}, {21, "INSERT"},
                    {28, "INSERT WITH EMPTY XML"}, {29, "INSERT WITH EMPTY XML"}, {32, "UPDATE"}, {33, "UPDATE"},
                    {36, "UPDATE"}, {37, "UPDATE"}, {40, "UPDATE WITH EMPTY XML"}, {41, "Unexpected"},
                    {44, "Unexpected"}, {45, "UPDATE WITH EMPTY XML"}, {64, "DELETE"}, {65, "DELETE"},
                    {68, "DELETE"}, {69, "DELETE"}, {72, "DELETE WITH EMPTY XML"}, {73, "Unexpected"},
                    {77, "DELETE WITH EMPTY XML"}, {128, "KEY UPDATE"}, {129, "KEY UPDATE"}, {132, "KEY UPDATE"},
                    {133, "KEY UPDATE"}, {136, "KEY UPDATE WITH EMPTY XML"}, {137, "Unexpected"},
                    {141, "KEY UPDATE WITH EMPTY XML"}, {176, "TRUNCATE"}, {1, "Unexpected"}, {255, "Unexpected"}};
  for (const Op& op : ops) {
    TransMsgDef t;
    RowDef r;
    r.subId = 1;
    r.operation = op.code;
    r.keyAfter = std::vector<ColValue>{marker(kMarkerNull)};
    t.rows = {r};
    Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
    EXPECT_TRUE(has(d.out, std::string("rowheader.operation:   ") + op.name + "\n")) << int(op.code);
    bool lob = op.code & 1, xml = op.code & 4;
    EXPECT_EQ(has(d.out, "Row operation involves LOB and XML columns\n"), lob && xml) << int(op.code);
    EXPECT_EQ(has(d.out, "Row operation involves LOB columns\n"), lob && !xml) << int(op.code);
    EXPECT_EQ(has(d.out, "Row operation involves XML columns\n"), !lob && xml) << int(op.code);
  }
}

TEST_F(Rows, RowWithoutCachedSchemaPrintsLengthsAndDumps) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    TransMsgDef t;
    RowDef r;
    r.subId = 4242;
    r.encodeType = 3;
    r.encodeVer = 9;
    r.extraBafter = 128 | 64;
    r.keyAfter = std::vector<ColValue>{valText("KEY-ONE", s.ccsid), marker(kMarkerSuppressed)};
    t.rows = {r};
    Bytes msg = encodeTransMsg(t, s.order, s.ccsid);
    Decoded d = decodeAs(msg, s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    std::string dump = s.ccsid == 37 ? " 00000000 D2C5E860 D6D5C5                               ...`...\n"
                                     : " 00000000 4B45592D 4F4E45                               KEY-ONE\n";
    std::string expected = "qTransRow.length:      49\n"
                           "rowheader.encodetype:  Unsupported\n"
                           "rowheader.encodever:   Unknown\n"
                           "rowheader.operation:   INSERT\n"
                           "rowheader.intentseq:   0000:0000:0000:0001:0000:0000:0000:0002\n"
                           "rowheader.partitionNo: 0\n"
                           "rowheader.bafter:      :AFTER VALUES KEY::LOAD OR RESTARTLSN IN PROGRESS::IMPLICIT DELETE:\n"
                           "rowheader.sub_id:      4242\n"
                           "rowheader.partitionNo: 0\n"
                           "colset.nCols:   2\n"
                           "  col.VALUE:      length:    7\n" +
                           dump + "  col.VALUE:    SUPPRESSED\n";
    size_t at = d.out.find("qTransRow.length:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(d.out.substr(at), expected);
  }
}

TEST_F(Rows, SetOfOnlyMarkers) {
  cacheSchema(kLittleUtf8, typesSchema(1208));
  TransMsgDef t;
  RowDef r;
  r.subId = kSub;
  r.operation = 32;
  r.colsBefore = std::vector<ColValue>{marker(kMarkerSuppressed), marker(kMarkerNull), marker(kMarkerP2pModified),
                                       marker(kMarkerOversized)};
  t.rows = {r};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_TRUE(has(d.out, "colset.nCols:   4\n"
                         "  col.colname:  SMALL\n  col.coltype:  501 = SMALLINT\n  col.typelen:  2\n  col.codepage: 0\n"
                         "  col.VALUE:    SUPPRESSED\n"
                         "  col.colname:  BIG\n  col.coltype:  493 = BIGINT\n  col.typelen:  8\n  col.codepage: 0\n"
                         "  col.VALUE:    NULL\n"
                         "  col.colname:  DBL\n  col.coltype:  481 = DOUBLE\n  col.typelen:  8\n  col.codepage: 0\n"
                         "  col.VALUE:    P2P MODIFIED\n"
                         "  col.colname:  REAL\n  col.coltype:  481 = DOUBLE\n  col.typelen:  4\n  col.codepage: 0\n"
                         "  col.VALUE:    OVERSIZED/NOT MODIFIED\n"))
      << d.out;
}

TEST_F(Rows, EncodingVersion4ShowsThePartitionTwice) {
  TransMsgDef t;
  RowDef r;
  r.subId = 1;
  r.encodeVer = 4;
  r.partitionNo = 513;
  r.keyAfter = std::vector<ColValue>{marker(kMarkerNull)};
  t.rows = {r};
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    Decoded d = decodeAs(encodeTransMsg(t, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_TRUE(has(d.out, "rowheader.encodever:   RPLKX_ROW_ENCODE_V400\n"
                           "rowheader.operation:   INSERT\n"
                           "rowheader.intentseq:   0000:0000:0000:0001:0000:0000:0000:0002\n"
                           "rowheader.partitionNo: 513\n"
                           "rowheader.bafter:      :AFTER VALUES KEY:\n"
                           "rowheader.sub_id:      1\n"
                           "rowheader.partitionNo: 513\n"))
        << d.out;
  }
}

TEST_F(Rows, LongOffsets) {
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    releaseSchemaCache();
    cacheSchema(s, typesSchema(s.ccsid));
    TransMsgDef t;
    RowDef r;
    r.subId = kSub;
    ColValue small = valSmallint(300, s.order);
    small.longOffset = true;
    ColValue big = valBigint(-5, s.order);
    r.colsAfter = std::vector<ColValue>{small, big};
    t.rows = {r};
    Decoded d = decodeAs(encodeTransMsg(t, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    EXPECT_TRUE(has(d.out, "  col.VALUE:     (LONG OFFSET) 300\n")) << d.out;
    EXPECT_TRUE(has(d.out, "  col.VALUE:    -5\n")) << d.out;
  }
}

TEST_F(Rows, IntegersFromABigEndianSender) {
  cacheSchema(kBigEbcdic, typesSchema(37));
  TransMsgDef t;
  RowDef r;
  r.subId = kSub;
  r.keyAfter = std::vector<ColValue>{valInteger(-123456, ByteOrder::Big)};
  r.colsAfter = std::vector<ColValue>{valSmallint(-32768, ByteOrder::Big), valBigint(-9007199254740993LL, ByteOrder::Big)};
  t.rows = {r};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Big, 37), ByteOrder::Big, 37);
  EXPECT_TRUE(has(d.out, "  col.VALUE:    -123456\n"));
  EXPECT_TRUE(has(d.out, "  col.VALUE:    -32768\n"));
  EXPECT_TRUE(has(d.out, "  col.VALUE:    -9007199254740993\n"));
}

TEST_F(Rows, ShortIntegerValueIsReported) {
  cacheSchema(kLittleUtf8, typesSchema(1208));
  TransMsgDef t;
  RowDef r;
  r.subId = kSub;
  r.colsAfter = std::vector<ColValue>{valText("x", 0)};  // SMALL: one byte only
  t.rows = {r};
  Decoded d = decodeAs(encodeTransMsg(t, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, kRcShortRead);
  EXPECT_TRUE(has(d.reports, "ConvMgr::readShortPtr")) << d.reports;
  EXPECT_TRUE(has(d.reports, "Cannot print non-key columns' after value")) << d.reports;
  EXPECT_TRUE(has(d.reports, "Cannot print row")) << d.reports;
}

TEST_F(Rows, SpilledRowIsSwappedByTheRowPrinter) {
  for (uint16_t v : {1, 4, 6, 7, 8, 9}) {
    std::string text[2];
    int i = 0;
    for (Sender s : {kLittleUtf8, kBigEbcdic}) {
      releaseSchemaCache();
      cacheSchema(s, typesSchema(s.ccsid));
      RowDef r;
      r.subId = kSub;
      r.keyAfter = std::vector<ColValue>{valInteger(77, s.order)};
      Bytes msg = encodeSpilledRowMsg(v, r, s.order, s.ccsid);
      Decoded d = decodeAs(msg, s.order, s.ccsid);
      EXPECT_EQ(d.rc, 0) << v << d.reports;
      EXPECT_TRUE(has(d.out, header("RPLKX_SPILLROW", v) + "qTransRow.length:")) << d.out;
      EXPECT_TRUE(has(d.out, "  col.VALUE:    77\n")) << v << d.out;
      text[i++] = withoutLines(d.out, {"  col.codepage:"});
    }
    EXPECT_EQ(text[0], text[1]) << v;
  }
}

TEST_F(Rows, DecimalAndDecfloatForms) {
  struct Dec {
    const char* in;
    uint8_t precision, scale;
    const char* out;
  };
  for (Dec c : {Dec{"0", 5, 2, "0.00"}, Dec{"-12.5", 7, 2, "-12.50"}, Dec{"0.05", 4, 2, "0.05"},
                Dec{"123", 6, 0, "123"}, Dec{"-0", 3, 0, "0"}, Dec{"99999.999", 8, 3, "99999.999"},
                Dec{"-1", 1, 0, "-1"}}) {
    ColValue v = valDecimal(c.in, c.precision, c.scale);
    std::string text;
    ASSERT_TRUE(packedDecimalText(v.data.data(), v.data.size(), c.scale, text)) << c.in;
    EXPECT_EQ(text, c.out) << c.in;
  }
  uint8_t bad[2] = {0x1A, 0x0C};
  std::string text;
  EXPECT_FALSE(packedDecimalText(bad, 2, 0, text));

  struct Df {
    Bytes be;
    const char* out;
  };
  auto be64 = [](uint64_t v) {
    Bytes b(8);
    for (int i = 0; i < 8; ++i) b[static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return b;
  };
  // Known decimal64 encodings, independent of the encoder.
  for (const Df& c : {Df{be64(0x2238000000000001ULL), "1"}, Df{be64(0x2234000000000015ULL), "1.5"},
                      Df{be64(0xA238000000000001ULL), "-1"}, Df{be64(0x7800000000000000ULL), "Infinity"},
                      Df{be64(0xF800000000000000ULL), "-Infinity"}, Df{be64(0x7C00000000000000ULL), "NaN"},
                      Df{be64(0x7E00000000000000ULL), "sNaN"}, Df{be64(0x2238000000000000ULL), "0"},
                      Df{be64(0x2238000000000080ULL), "100"}, Df{be64(0x2230000000000001ULL), "0.01"}}) {
    std::string t;
    ASSERT_TRUE(decfloatText(c.be.data(), 8, t));
    EXPECT_EQ(t, c.out);
  }
  // Round trips through the encoder, both widths, every digit shape of a declet.
  struct Rt {
    const char* digits;
    int exponent;
    bool negative;
    size_t bytes;
    const char* out;
  };
  for (Rt c : {Rt{"9876543210987654", 0, false, 8, "9876543210987654"}, Rt{"8", 20, true, 8, "-8E+20"},
               Rt{"1234500", -2, false, 8, "12345"}, Rt{"989898", -9, false, 8, "9.89898E-4"}, Rt{"989898", -8, false, 8, "0.00989898"},
               Rt{"899988", -12, false, 16, "8.99988E-7"},
               Rt{"9999999999999999999999999999999999", 0, false, 16, "9999999999999999999999999999999999"},
               Rt{"1", 6111, false, 16, "1E+6111"}, Rt{"1", -6176, false, 16, "1E-6176"}}) {
    ColValue v = valDecfloat(c.digits, c.exponent, c.negative, c.bytes, ByteOrder::Big);
    std::string t;
    ASSERT_TRUE(decfloatText(v.data.data(), c.bytes, t));
    EXPECT_EQ(t, c.out) << c.digits;
  }
}

TEST_F(Rows, DoubleExponentRule) {
  EXPECT_EQ(doubleText(1.5, true), "1.50000E+00");
  EXPECT_EQ(doubleText(-0.000125, false), "-1.25000000000000E-04");
  EXPECT_EQ(doubleText(1e100, false), "1.00000000000000E+100");
  EXPECT_EQ(doubleText(3.4e38, true), "3.40000E+38");
}

TEST_F(Rows, TruncationIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {"row of every type with a batched header and a long value",
       [](ByteOrder o, int32_t c) {
         TransMsgDef t;
         RowDef r = typesRow(Sender{o, c});
         r.batched = BatchedTransHeaderDef{};
         (*r.colsAfter)[0].longOffset = true;
         t.rows = {r};
         return encodeTransMsg(t, o, c);
       },
       "", nullptr,
       [](Sender s) {
         releaseSchemaCache();
         decodeAs(encodeSchemaMsg(typesSchema(s.ccsid), s.order, s.ccsid), s.order, s.ccsid);
       },
       true},
      {"spilled row without a schema",
       [](ByteOrder o, int32_t c) {
         RowDef r;
         r.subId = 31337;
         r.keyBefore = std::vector<ColValue>{valInteger(1, o)};
         r.colsAfter = std::vector<ColValue>{valText("abc", c)};
         return encodeSpilledRowMsg(8, r, o, c);
       },
       "", nullptr, [](Sender) { releaseSchemaCache(); }, true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

// Corrupted bytes anywhere in a schema-backed transaction (and in the schema itself) are
// reported or printed as they stand, never read past (run under the address sanitizer).
TEST_F(Rows, CorruptedMessagesAreReportedNotReadPast) {
  std::mt19937 rng(20261121);
  for (Sender s : {kLittleUtf8, kBigEbcdic}) {
    SchemaMsgDef schema = typesSchema(s.ccsid);
    Bytes schemaMsg = encodeSchemaMsg(schema, s.order, s.ccsid);
    TransMsgDef t;
    RowDef r = typesRow(s);
    r.batched = BatchedTransHeaderDef{};
    (*r.colsAfter)[1].longOffset = true;
    t.rows = {r, typesRow(s, 64)};
    Bytes trans = encodeTransMsg(t, s.order, s.ccsid);
    for (int i = 0; i < 400; ++i) {
      Bytes sc = schemaMsg, tx = trans;
      Bytes& victim = i % 4 == 0 ? sc : tx;
      for (int k = 0; k < 1 + i % 3; ++k)
        victim[rng() % victim.size()] = static_cast<uint8_t>(rng());
      releaseSchemaCache();
      decodeAs(sc, s.order, s.ccsid);
      Decoded d = decodeAs(tx, s.order, s.ccsid);
      if (d.rc != 0) {
        EXPECT_NE(d.reports, "") << i;
      }
    }
  }
}

}  // namespace
