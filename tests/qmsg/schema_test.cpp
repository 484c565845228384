// Subscription schema messages: versions, node lines, options text, column descriptors,
// partitioning, both byte orders and an EBCDIC sender, the cached copy, truncation.
#include <cstring>

#include "qmsg/header.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

namespace {

SchemaMsgDef fullSchema(int32_t ccsid) {
  SchemaMsgDef s;
  s.version = 11;
  s.subId = 501;
  s.subname = "ORDERS_SUB";
  s.initiatorNode = 1;
  s.newNode = 2;
  s.sourceNode = 3;
  s.targetNode = 4;
  s.loadPhase = 'I';
  s.subType = 'P';
  s.opts = 1 | 4 | 32 | 64;
  s.reason = 3;
  s.replddl = 1;
  s.activeNodes = {1, 3};
  s.schemaFlag = 1;
  s.nColsInKey = 1;
  s.searchCond = "WHERE :ID > 5";
  s.columns = {{"ID", 496, 4, 0}, {"CODE", 453, 8, ccsid}, {"PRICE", 485, 0, 0, 9, 2}};
  s.partKeys = {{"ID", 496, 4, 0, 0, 0, 1, 3}};
  s.ranges = {{1, 2, 10, 20, {"A", "B"}, {"M"}}};
  s.ext.emplace();
  return s;
}

const char* const kFullSchemaBody =
    "    qGenericTransInfo.commit_LSN:    0000:0000:0000:1234:0000:0000:0000:5678\n"
    "    qGenericTransInfo.commit_time:   11-14-2023 22:13:20.000000 UTC\n"
    "    qGenericTransInfo.commit_time:   11-14-2023 22:13:20 LOCALTIME\n"
    "    qGenericTransInfo.uow_id:        0000:0000:0a0b\n"
    "    qGenericTransInfo.auth_id:       REPLUSER\n"
    "    qGenericTransInfo.auth_tkn:      TOKEN1\n"
    "    qGenericTransInfo.plan_id:       PLAN1\n"
    "schema.dbServerType: QORV/LINUX\n"
    "schema.dbRelease:    11.5.8\n"
    "schema.capRelease:   11.5.8\n"
    "schema.subname:   ORDERS_SUB\n"
    "schema.sub_id:    501\n"
    "schema.src_dbname:   SRCDB\n"
    "schema.src_owner schema.src_name:  APP.ORDERS\n"
    "schema.sendq_name: ASN.SENDQ\n"
    "schema.opts_mask: P2P=YES - ALLCHANGEDROWS=NO - BEFOREVALS=YES - CHANGEDCOLSONLY=NO - "
    "HASLOADPHASE=INTERNAL - IS_PARTITIONED=YES\n"
    "schema.replddl:    1\n"
    "schema.search_cond_offset: @SEARCH@\n"
    "schema.initiatorNode: 1\n"
    "schema.newNode: 2\n"
    "schema.sourceNode: 3\n"
    "schema.targetNode: 4\n"
    "schema.loadPhase: I\n"
    "schema.subType: P\n"
    "schema.nColsInKey: 1\n"
    "schema.nCols:     3\n"
    "schema.reason_code: REASON=ALTER_TABLE\n"
    "schema.numActiveNodes: 2\n"
    "schema.activeNodes:   1  3\n"
    "schema.schema_flag: COLUMNARisSrcColumnar=Y\n"
    "  col.colname:  ID\n"
    "  col.coltype:  496 = INTEGER\n"
    "  col.typelen:  4\n"
    "  col.codepage: 0\n"
    "  col.colname:  CODE\n"
    "  col.coltype:  453 = CHAR\n"
    "  col.typelen:  8\n"
    "  col.codepage: @CCSID@\n"
    "  col.colname:  PRICE\n"
    "  col.coltype:  485 = DECIMAL\n"
    "@DECIMAL@"
    "  col.codepage: 0\n"
    "schema.nPartKeys: 1\n"
    "schema.numPartRanges: 1\n"
    "  col.colname:  ID\n"
    "  col.coltype:  496 = INTEGER\n"
    "  col.typelen:  4\n"
    "  col.codepage: 0\n"
    "  col.partKeyNum: 1\n"
    "  col.ascOrDesc:  A\n"
    "  col.nullsLast:  Y\n"
    "  fromPhysPart:  1\n"
    "  toPhysPart:  2\n"
    "  minLogicalPart:  10\n"
    "  maxLogicalPart:  20\n"
    "  numFromStr:  2\n"
    "  numToStr:  1\n"
    "  limitKeyStr:  ABM\n"
    "schema.search_cond: WHERE :ID > 5\n";

std::string replaceAll(std::string s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) s.replace(p, from.size(), to);
  return s;
}

uint16_t searchOffset(const Bytes& msg, ByteOrder order) {
  return order == ByteOrder::Little ? static_cast<uint16_t>(msg[506] | msg[507] << 8)
                                    : static_cast<uint16_t>(msg[506] << 8 | msg[507]);
}

// Every line of a version 11 schema from each sender, and every cut of it.
TEST(SchemaMsg, Version11FromEitherSenderPrintsEveryLine) {
  expectGolden({"schema version 11", [](ByteOrder o, int32_t c) { return encodeSchemaMsg(fullSchema(c), o, c); }, "",
                [](Sender s, const Bytes& msg) {
                  std::string body = replaceAll(kFullSchemaBody, "@SEARCH@", std::to_string(searchOffset(msg, s.order)));
                  body = replaceAll(body, "@CCSID@", std::to_string(s.ccsid));
                  // A descriptor swapped from a big-endian sender has its precision and scale
                  // bytes moved, so only the unswapped one prints them.
                  body = replaceAll(body, "@DECIMAL@",
                                    s.order == ByteOrder::Little ? "  col.typeprecision:  9\n  col.typescale:  2\n" : "");
                  return header("RPLKX_SUBSCHEMA_MSG", 11) + body;
                },
                [](Sender) { releaseSchemaCache(); }});
  EXPECT_EQ(schemaCacheSize(), 1u);
}

TEST(SchemaMsg, EarlierVersionsPrintOnlyTheirFields) {
  struct Case {
    uint16_t version;
    bool replddl, reason, ext, partitions, schemaFlag;
  };
  for (Case c : {Case{1, false, false, false, false, false}, Case{4, true, true, false, false, false},
                 Case{8, true, true, true, false, false}, Case{9, true, true, true, true, false},
                 Case{11, true, true, true, true, true}}) {
    releaseSchemaCache();
    SchemaMsgDef s = fullSchema(1208);
    s.version = c.version;
    Decoded d = decodeAs(encodeSchemaMsg(s, ByteOrder::Big, 1208), ByteOrder::Big, 1208);
    EXPECT_EQ(d.rc, 0) << c.version << d.reports;
    EXPECT_EQ(has(d.out, "schema.replddl:    1\n"), c.replddl) << c.version;
    EXPECT_EQ(has(d.out, "schema.reason_code: REASON=ALTER_TABLE\nschema.numActiveNodes: 2\n"), c.reason) << c.version;
    EXPECT_EQ(has(d.out, "qGenericTransInfo.commit_LSN"), c.ext) << c.version;
    EXPECT_EQ(has(d.out, "schema.nPartKeys: 1\n"), c.partitions) << c.version;
    EXPECT_EQ(has(d.out, "schema.schema_flag: COLUMNARisSrcColumnar=Y\n"), c.schemaFlag) << c.version;
    EXPECT_TRUE(has(d.out, "  col.colname:  PRICE\n")) << c.version;
    EXPECT_TRUE(has(d.out, "schema.search_cond: WHERE :ID > 5\n")) << c.version;
  }
}

TEST(SchemaMsg, NonPeerToPeerSubscriptionHasNoNodeLines) {
  releaseSchemaCache();
  SchemaMsgDef s = fullSchema(1208);
  s.initiatorNode = 0;
  Decoded d = decodeAs(encodeSchemaMsg(s, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, 0);
  EXPECT_TRUE(has(d.out, "schema.search_cond_offset: "));
  for (const char* line : {"schema.initiatorNode", "schema.newNode", "schema.sourceNode", "schema.targetNode"})
    EXPECT_FALSE(has(d.out, line)) << line;
  EXPECT_FALSE(has(d.out, "schema.loadPhase"));
  EXPECT_FALSE(has(d.out, "schema.subType"));
}

TEST(SchemaMsg, OptionsText) {
  struct Case {
    uint32_t mask;
    const char* text;
  };
  for (Case c : {Case{0, "P2P=NO - ALLCHANGEDROWS=NO - BEFOREVALS=NO - CHANGEDCOLSONLY=NO - HASLOADPHASE=NO \n"},
                 Case{2 | 8 | 16 | 32, "P2P=NO - ALLCHANGEDROWS=YES - BEFOREVALS=NO - CHANGEDCOLSONLY=YES - HASLOADPHASE=EXTERNAL\n"},
                 Case{64, "P2P=NO - ALLCHANGEDROWS=NO - BEFOREVALS=NO - CHANGEDCOLSONLY=NO - HASLOADPHASE=NO  - IS_PARTITIONED=YES\n"}}) {
    releaseSchemaCache();
    SchemaMsgDef s = fullSchema(1208);
    s.opts = c.mask;
    Decoded d = decodeAs(encodeSchemaMsg(s, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
    EXPECT_TRUE(has(d.out, std::string("schema.opts_mask: ") + c.text)) << c.mask << "\n" << d.out;
  }
}

TEST(SchemaMsg, TablesNameUnknownValues) {
  releaseSchemaCache();
  SchemaMsgDef s = fullSchema(1208);
  s.serverType = 10;
  s.reason = 11;
  s.columns[0].type = 503;
  Decoded d = decodeAs(encodeSchemaMsg(s, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_TRUE(has(d.out, "schema.dbServerType: Unknown\n"));
  EXPECT_TRUE(has(d.out, "schema.reason_code: REASON=UNKNOWN\n"));
  EXPECT_TRUE(has(d.out, "  col.coltype:  503 = Unknown\n"));
}

TEST(SchemaMsg, Version5StopsAtTheColumnsAndIsNotCached) {
  releaseSchemaCache();
  SchemaMsgDef s = fullSchema(1208);
  s.version = 5;
  Decoded d = decodeAs(encodeSchemaMsg(s, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, kRcBadSchemaVersion);
  EXPECT_TRUE(has(d.out, "schema.activeNodes:   1  3\n"));
  EXPECT_FALSE(has(d.out, "col.colname"));
  EXPECT_TRUE(has(d.reports, "unrecognized version number")) << d.reports;
  EXPECT_TRUE(has(d.reports, "Cannot print subscription schema message")) << d.reports;
  EXPECT_EQ(schemaCacheSize(), 0u);
}

TEST(SchemaMsg, EbcdicNamesAreConverted) {
  releaseSchemaCache();
  SchemaMsgDef s = fullSchema(37);
  s.srcOwner = "ÄPP";
  Bytes msg = encodeSchemaMsg(s, ByteOrder::Big, 37);
  // The name really travels in EBCDIC.
  EXPECT_EQ(msg[180 + 2 + 1], 0xD7);  // 'P'
  Decoded d = decodeAs(msg, ByteOrder::Big, 37);
  EXPECT_TRUE(has(d.out, "schema.src_owner schema.src_name:  ÄPP.ORDERS\n")) << d.out;
  EXPECT_TRUE(has(d.out, "  col.colname:  CODE\n"));
}

TEST(SchemaMsg, CachedCopyKeepsSwappedOffsetsAndSenderOrderNameCounts) {
  releaseSchemaCache();
  Bytes msg = encodeSchemaMsg(fullSchema(37), ByteOrder::Big, 37);
  Decoded d = decodeAs(msg, ByteOrder::Big, 37);
  ASSERT_EQ(d.rc, 0);
  const CachedSchema* c = findSchema(501);
  ASSERT_NE(c, nullptr);
  EXPECT_TRUE(c->senderSwapped);
  EXPECT_EQ(c->version, 11);
  uint16_t desc = 0, type = 0;
  uint32_t codePage = 0;
  std::memcpy(&desc, c->msg + 562 + 2, 2);  // column 1, machine order
  std::memcpy(&type, c->msg + desc, 2);
  std::memcpy(&codePage, c->msg + desc + 8, 4);
  EXPECT_EQ(type, 453);
  EXPECT_EQ(codePage, 37u);
  EXPECT_EQ(c->msg[desc + 12], 0);  // name count still big-endian: 0x0004
  EXPECT_EQ(c->msg[desc + 13], 4);
}

}  // namespace
