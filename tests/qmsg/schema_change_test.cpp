// Schema-change messages: add column, replication-key column, drop column and the rest of
// type 6, truncate table, redefine replication key.
#include <gtest/gtest.h>

#include "qmsg/header.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_schema_change.h"

namespace {

// The lines of the default transaction context of the encoder.
const std::string kTransLines =
    "    qGenericTransInfo.commit_LSN:    1011:1213:1415:1617:1819:1a1b:1c1d:1e1f\n"
    "    qGenericTransInfo.commit_time:   11-21-2025 10:20:00.250000 UTC\n"
    "    qGenericTransInfo.commit_time:   11-21-2025 10:20:00.250000 LOCALTIME\n"
    "    qGenericTransInfo.uow_id:        0000:1234:5678:9abc:def0\n"
    "    qGenericTransInfo.auth_id:       KXADMIN\n"
    "    qGenericTransInfo.auth_tkn:      ALTERTBL\n"
    "    qGenericTransInfo.plan_id:       KXPLAN\n";

// The same message from a little-endian UTF-8 sender and from a big-endian EBCDIC sender must
// print the same text; returns the little-endian result.
template <typename Encode>
Decoded decodeBothOrders(Encode encode) {
  MsgWriter little = encode(ByteOrder::Little, 1208);
  MsgWriter big = encode(ByteOrder::Big, 37);
  Decoded l = decode(little);
  Decoded b = decode(big);
  EXPECT_EQ(l.rc, b.rc);
  EXPECT_EQ(l.out, b.out);
  EXPECT_EQ(l.reports, b.reports);
  return l;
}

// Cuts the message at every length short of its own: each cut is reported as a short read, or,
// where only bytes that nothing prints were cut, prints what the whole message prints. Returns
// the shortest length that prints (the whole length when every cut is reported).
size_t expectEveryCutReported(const MsgWriter& w) {
  const std::vector<uint8_t>& whole = w.bytes();
  const Decoded full = decodeAs(whole, w.order(), w.ccsid());
  EXPECT_EQ(full.rc, 0) << full.reports;
  const std::string body = full.out.substr(full.out.find("\n\n", 2));
  size_t shortest = whole.size();
  for (size_t n = whole.size(); n-- > 0;) {
    std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    cut.shrink_to_fit();
    Decoded d = decodeAs(cut, w.order(), w.ccsid());
    if (d.rc == 0 && n + 1 == shortest) {
      EXPECT_EQ(d.out.substr(d.out.find("\n\n", 2)), body) << "cut at " << n;
      shortest = n;
    } else {
      EXPECT_NE(d.rc, 0) << "cut at " << n << " of " << whole.size() << " prints, a longer one did not\n" << d.out;
      EXPECT_NE(d.reports.find("543"), std::string::npos) << "cut at " << n << "\n" << d.reports;
    }
  }
  return shortest;
}

AddColumnFields fullAddColumn() {
  AddColumnFields f;
  f.version = 14;
  f.subId = 12;
  f.colName = "DELIVERY_NOTE";
  f.colType = 449;
  f.typeLen = 64;
  f.codepage = 1208;
  f.hasDefault = 1;
  f.charSubtype = "M";
  f.defaultVal = "'none'";
  f.beforeColName = "STATUS";
  f.targetColName = "DLV_NOTE";
  f.colAttribFlags = 3;
  return f;
}

TEST(AddColumn, CurrentVersionPrintsEveryLineInBothByteOrders) {
  AddColumnFields f = fullAddColumn();
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeAddColumnMsg(f, o, ccsid); });
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_EQ(d.out, banner(1592) + headerLines("RPLKX_ADDCOLUMN_MSG", 14) + kTransLines +
                       "  sub_id:      12\n"
                       "  colName:     DELIVERY_NOTE\n"
                       "  colType:     449 = VARCHAR\n"
                       "  col.typelen: 64\n"
                       "  codepage:    1208\n"
                       "  hasDefault:  1\n"
                       "  charSubtype:  M\n"
                       "  default:  'none'\n"
                       "  beforeColName:     STATUS\n"
                       "  targetColName:     DLV_NOTE\n"
                       "  colAttribFlags: 3\n");
  EXPECT_EQ(d.reports, "");
}

TEST(AddColumn, VersionRules) {
  AddColumnFields f;
  f.colName = "C1";
  f.charSubtype = "S";
  auto body = [&](uint16_t version, ByteOrder order, int32_t ccsid) {
    f.version = version;
    Decoded d = decode(encodeAddColumnMsg(f, order, ccsid));
    EXPECT_EQ(d.rc, 0) << d.reports;
    return d.out.substr(d.out.find("  qMsgHeader.msgVersion: "));
  };
  const std::string common =
      "  sub_id:      7\n  colName:     C1\n  colType:     449 = VARCHAR\n  col.typelen: 64\n"
      "  codepage:    1208\n  hasDefault:  0\n";

  // Version 7: no transaction context, the subtype printed as it travels, no attribute flags.
  EXPECT_EQ(body(7, ByteOrder::Little, 1208),
            "  qMsgHeader.msgVersion: 7\n" + common + "  charSubtype:  S\n");
  EXPECT_EQ(body(7, ByteOrder::Big, 37),
            "  qMsgHeader.msgVersion: 7\n" + common + "  charSubtype:  \xE2\n");  // EBCDIC 'S'
  // Version 9: the context, and the subtype converted from the sender's code page.
  EXPECT_EQ(body(9, ByteOrder::Big, 37),
            "  qMsgHeader.msgVersion: 9\n" + kTransLines + common + "  charSubtype:  S\n");
  // Version 14 adds the attribute flags.
  EXPECT_EQ(body(14, ByteOrder::Big, 37),
            "  qMsgHeader.msgVersion: 14\n" + kTransLines + common + "  charSubtype:  S\n  colAttribFlags: 0\n");
}

TEST(AddColumn, ColumnTypesDecimalAndSubtypes) {
  auto lines = [](uint16_t colType) {
    AddColumnFields f;
    f.version = 9;
    f.colType = colType;
    f.typeLen = 10;
    f.precision = 15;
    f.scale = 2;
    f.charSubtype = "B";
    Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeAddColumnMsg(f, o, ccsid); });
    size_t from = d.out.find("  colType:");
    size_t to = d.out.find("  codepage:");
    std::string out = d.out.substr(from, to - from);
    size_t sub = d.out.find("  charSubtype:");
    if (sub != std::string::npos) out += d.out.substr(sub);
    return out;
  };
  // A nullable decimal: precision and scale from bytes 18 and 19, never swapped.
  EXPECT_EQ(lines(485), "  colType:     485 = DECIMAL\n  typeprecision:  15\n  typescale:    2\n");
  EXPECT_EQ(lines(484), "  colType:     484 = DECIMAL\n  typeprecision:  15\n  typescale:    2\n");
  EXPECT_EQ(lines(449), "  colType:     449 = VARCHAR\n  col.typelen: 10\n  charSubtype:  B\n");
  EXPECT_EQ(lines(453), "  colType:     453 = CHAR\n  col.typelen: 10\n  charSubtype:  B\n");
  EXPECT_EQ(lines(450), "  colType:     450 = Unknown\n  col.typelen: 10\n");
  EXPECT_EQ(lines(497), "  colType:     497 = INTEGER\n  col.typelen: 10\n");
  EXPECT_EQ(lines(988), "  colType:     988 = xml\n  col.typelen: 10\n");
}

TEST(AddColumn, HasDefaultOtherThanOnePrintsNoDefault) {
  AddColumnFields f = fullAddColumn();
  f.hasDefault = 2;
  f.beforeColName = "";
  f.targetColName = "";
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeAddColumnMsg(f, o, ccsid); });
  EXPECT_EQ(d.rc, 0);
  EXPECT_NE(d.out.find("  hasDefault:  2\n  charSubtype:  M\n  colAttribFlags: 3\n"), std::string::npos) << d.out;
  EXPECT_EQ(d.out.find("default:  "), std::string::npos);
  EXPECT_EQ(d.out.find("ColName:     "), std::string::npos);
}

TEST(AddColumn, ConversionFailureStopsBeforeTheLines) {
  AddColumnFields f = fullAddColumn();
  f.defaultVal = "\xFF\xFE";  // not UTF-8
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(encodeAddColumnMsg(f, ByteOrder::Little, 1208), 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_NE(d.reports.find("Cannot convert defaultVal"), std::string::npos) << d.reports;
  EXPECT_EQ(d.out, banner(1592) + headerLines("RPLKX_ADDCOLUMN_MSG", 14));
}

TEST(AddReplKeyColumn, BothByteOrders) {
  AddReplKeyColFields f;
  f.subId = 300;
  f.colName = "ORDER_ID";
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeAddReplKeyColMsg(f, o, ccsid); });
  EXPECT_EQ(d.rc, 0);
  EXPECT_EQ(d.out, banner(142) + headerLines("RPLKX_ADD_REPL_KEY_COL_MSG", 1) +
                       "  sub_id:      300\n  colName:     ORDER_ID\n");
}

TEST(DropColumn, HighBitOfTheDdlCodeIsIgnored) {
  DropColumnFields f;
  f.ddlCode = 130;
  f.subId = 12;
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeDropColumnMsg(f, o, ccsid); });
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_EQ(d.out, banner(280 + f.sqlText.size()) + headerLines("RPLKX_DDL_MSG", 8) +
                       "  qMsgHeader.msgDDLType:    RPLKX_DDL_DROP_COLUMN\n" + kTransLines +
                       "  sub_id:      12\n  dropped column name:     OBSOLETE_FLAG\n");
}

TEST(DropColumn, BelowVersionEightHasNoContext) {
  DropColumnFields f;
  f.version = 7;
  f.sqlText = "";
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeDropColumnMsg(f, o, ccsid); });
  EXPECT_EQ(d.out, banner(152) + headerLines("RPLKX_DDL_MSG", 7) +
                       "  qMsgHeader.msgDDLType:    RPLKX_DDL_DROP_COLUMN\n"
                       "  sub_id:      7\n  dropped column name:     OBSOLETE_FLAG\n");
}

TEST(DropColumn, UnconvertibleSqlTextIsReportedThoughNeverPrinted) {
  DropColumnFields f;
  f.sqlText = "ALTER \xFF";
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(encodeDropColumnMsg(f, ByteOrder::Little, 1208), 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_NE(d.reports.find("Cannot convert sql text"), std::string::npos) << d.reports;
  EXPECT_EQ(d.out.find("sub_id"), std::string::npos);
}

TEST(DdlMessage, AlterAndGenericShowTheirBodyAsHexDump) {
  std::vector<uint8_t> body = {'A', 'L', 'T', 'E', 'R', 0, 1, 2};
  for (uint8_t code : {uint8_t{1}, uint8_t{16}, uint8_t{0x81}}) {
    Decoded d = decode(encodeDdlMsg(code, 3, body, ByteOrder::Big, 1208));
    EXPECT_EQ(d.rc, 0);
    std::string ddl = (code & 127) == 1 ? "RPLKX_DDL_ALTER_COLUMN" : "RPLKX_DDL_GENERIC";
    EXPECT_EQ(d.out, banner(16) + headerLines("RPLKX_DDL_MSG", 3) + "  qMsgHeader.msgDDLType:    " + ddl +
                         "\n 00000008 414C5445 52000102                             ALTER...\n");
  }
}

TEST(DdlMessage, UnknownCodesPrintTheUnknownLineAndTheHeader) {
  for (uint8_t code : {uint8_t{0}, uint8_t{3}, uint8_t{0x85}}) {
    Decoded d = decode(encodeDdlMsg(code, 2, {0, 0, 0, 0}, ByteOrder::Big, 37));
    EXPECT_EQ(d.rc, -1);
    EXPECT_EQ(d.out, banner(12) + "Unknown DDL msg type: " + std::to_string(code & 127) +
                         " received in queue: TESTQ\n" + headerLines("RPLKX_DDL_MSG", 2) +
                         "  qMsgHeader.msgDDLType:    " + (code == 0 ? "RPLKX_DDL_ADD_COLUMN" : "Unknown") + "\n");
  }
}

TEST(TruncateTable, BothByteOrders) {
  Decoded d = decodeBothOrders([](ByteOrder o, int32_t ccsid) { return encodeTruncateTableMsg(70000, 1, o, ccsid); });
  EXPECT_EQ(d.out, banner(12) + headerLines("RPLKX_DDL_TRUNCATE_MSG", 1) + "  truncateTable.subId: 70000\n");
}

TEST(RedefineReplKey, NamesInTableOrderAndAnEmptyKey) {
  RedefineReplKeyFields f;
  f.subId = 9;
  f.isP2p = 1;
  f.colNames = {"REGION", "ORDER_ID", "LINE_NO"};
  Decoded d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeRedefineReplKeyMsg(f, o, ccsid); });
  EXPECT_EQ(d.out.substr(d.out.find("  sub_id")),
            "  sub_id:      9\n  is_P2P:      1\n  nCols:       3\n"
            "  colName:     REGION\n  colName:     ORDER_ID\n  colName:     LINE_NO\n");

  f.colNames.clear();
  d = decodeBothOrders([&](ByteOrder o, int32_t ccsid) { return encodeRedefineReplKeyMsg(f, o, ccsid); });
  EXPECT_EQ(d.rc, 0);
  EXPECT_EQ(d.out, banner(16) + headerLines("RPLKX_REDEFINE_REPL_KEY_MSG", 1) +
                       "  sub_id:      9\n  is_P2P:      1\n  nCols:       0\n");
}

TEST(RedefineReplKey, FirstUnconvertibleNameEndsTheList) {
  RedefineReplKeyFields f;
  f.colNames = {"REGION", "BAD\xFF", "LINE_NO"};
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(encodeRedefineReplKeyMsg(f, ByteOrder::Little, 1208), 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_NE(d.reports.find("Cannot convert colName"), std::string::npos) << d.reports;
  EXPECT_NE(d.out.find("  colName:     REGION\n"), std::string::npos);
  EXPECT_EQ(d.out.find("LINE_NO"), std::string::npos);
}

// Only what is printed must be present: without the transaction information block (before
// version 8) a message may end right after the characters of its last name.
TEST(SchemaChange, EveryCutIsReportedNeverReadPast) {
  AddColumnFields add = fullAddColumn();
  const struct {
    uint16_t version;
    size_t shortest;  // 1328: targetColName's count, then "DLV_NOTE"
  } kAdd[] = {{7, 1328 + 2 + 8}, {9, 0}, {14, 0}};
  for (const auto& c : kAdd) {
    add.version = c.version;
    MsgWriter w = encodeAddColumnMsg(add, ByteOrder::Big, 37);
    EXPECT_EQ(expectEveryCutReported(w), c.shortest != 0 ? c.shortest : w.size() - 4) << c.version;  // plan_id's room
  }
  EXPECT_EQ(expectEveryCutReported(encodeAddReplKeyColMsg({}, ByteOrder::Big, 37)), 12u + 2 + 8);  // "ORDER_ID"
  // The SQL text is not printed: a drop-column message ends with its name or its block.
  DropColumnFields drop;
  MsgWriter dropped = encodeDropColumnMsg(drop, ByteOrder::Little, 1208);
  EXPECT_EQ(expectEveryCutReported(dropped), 152u + 116 + 2 + 6);  // plan_id "KXPLAN"
  drop.version = 7;
  EXPECT_EQ(expectEveryCutReported(encodeDropColumnMsg(drop, ByteOrder::Big, 37)), 12u + 2 + 13);  // "OBSOLETE_FLAG"
  expectEveryCutReported(encodeTruncateTableMsg(4, 1, ByteOrder::Big, 37));
  expectEveryCutReported(encodeRedefineReplKeyMsg({}, ByteOrder::Big, 37));
}

TEST(SchemaChange, DemoSampleDecodes) {
  Decoded d = decodeBothOrders([](ByteOrder o, int32_t ccsid) { return sampleAddColumnMsg(o, ccsid); });
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_NE(d.out.find("  colName:     DELIVERY_NOTE\n"), std::string::npos) << d.out;
}

}  // namespace
