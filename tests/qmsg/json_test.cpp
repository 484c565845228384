// The JSON rendering: every converted message type from three senders, parsed and checked for
// its keys and typed values, and valid objects with an "error" for every cut.
#include "tests/qmsg/json.h"

#include "tools/gen/encode_data.h"
#include "tools/gen/encode_queue_control.h"

namespace {

// The members of the common header for a type and version.
Json head(const char* type, int code, int version) {
  return Json{{"msgFamily", "KXRP"}, {"msgtype", type}, {"msgtype_code", code}, {"msgVersion", version}};
}
Json with(Json a, const Json& b) {
  a.update(b);
  return a;
}

const JsonCase kQueueControl[] = {
    {"heartbeat version 8",
     [](ByteOrder o, int32_t c) {
       HeartbeatFields f;
       f.lastLogMicros = 431250;
       f.kxcmtIntervalMillisec = -1;
       f.lastLogCmtLsn = sampleLogPosition(0x40, 0x0105);
       return encodeHeartbeatMsg(f, o, c);
     },
     with(head("RPLKX_HEARTBEAT", 3, 8),
          {{"sendq", "KXRP.SALES.TO.WAREHOUSE"},
           {"last_logtime", "2025-11-21T10:20:00.431250Z"},
           {"last_log_cmtlsn", "4041:4243:4445:4647:4849:4a4b:4c4d:4e4f (node 261)"},
           {"hb_interval_millisec", 60000},
           {"kxcmt_interval_millisec", -1}})},
    {"heartbeat never set",
     [](ByteOrder o, int32_t c) {
       HeartbeatFields f;
       f.version = 7;
       f.lastLogSeconds = 0;
       return encodeHeartbeatMsg(f, o, c);
     },
     with(head("RPLKX_HEARTBEAT", 3, 7), {{"last_logtime", nullptr}})},
    {"synchronisation request",
     [](ByteOrder o, int32_t c) { return encodeSyncRequestMsg(SyncRequestFields{}, o, c); },
     with(head("RPLKX_SYNCREQUEST_MSG", 7, 1),
          {{"reason", 1}, {"sendQueue", "KXRP.SALES.TO.WAREHOUSE"}, {"lastTxPublishedTS", "2025-11-21T10:20:00.000000Z"}})},
    {"synchronisation response",
     [](ByteOrder o, int32_t c) {
       SyncResponseFields f;
       f.responseCode = 4;
       return encodeSyncResponseMsg(f, o, c);
     },
     with(head("RPLKX_SYNCRESPONSE_MSG", 8, 1), {{"sendQueue", "KXRP.SALES.TO.WAREHOUSE"}, {"responseCode", 4}})},
    {"sequence time reset",
     [](ByteOrder o, int32_t c) { return encodeSeqTimeResetMsg(SeqTimeResetFields{}, o, c); },
     with(head("RPLKX_SEQTIME_RESET_MSG", 11, 1),
          {{"sequence_reset_flag", "SEQUENCE_TIME_STARTING"},
           {"current_parallel_q_index", 0},
           {"maximum_parallel_q_index", 3},
           {"sequence_time", "2025-11-21T10:20:00Z"}})},
    {"function level",
     [](ByteOrder o, int32_t c) { return encodeFuncLevelMsg(FuncLevelFields{}, o, c); },
     with(head("RPLKX_FUNCLEVEL_MSG", 13, 1),
          {{"reason", 1},
           {"sendQueue", "KXRP.SALES.TO.WAREHOUSE"},
           {"recvQueue", "KXRP.SALES.FROM.SALESDB"},
           {"qmap", "SALES_TO_WAREHOUSE"},
           {"current_level", 3},
           {"current_level_minor", 12}})},
    {"send-queue start", [](ByteOrder o, int32_t c) { return encodeSendqStartMsg(1, o, c); },
     head("RPLKX_SENDQ_START", 16, 1)},
    {"administration queue version 1",
     [](ByteOrder o, int32_t c) { return encodeAdminQMsg(AdminQFields{}, o, c); },
     with(head("RPLKX_ADMINQ_MSG", 64, 1),
          {{"sendq", "KXRP.SALES.TO.WAREHOUSE"},
           {"subname", "ORDERS0001"},
           {"actionTaken", "RPLKX_DONE_SUB_INVALIDATED"},
           {"actionToTake", "RPLKX_TODO_INVALIDATE_SUB"},
           {"msgNum", 2140},
           {"msgTokens", "ORDERS0001,SQLCODE -803"},
           {"serviceText", "Row rejected: duplicate key"}})},
    {"administration queue version 2",
     [](ByteOrder o, int32_t c) {
       AdminQFields f;
       f.version = 2;
       return encodeAdminQMsg(f, o, c);
     },
     with(head("RPLKX_ADMINQ_MSG", 64, 2), {{"sub_id", 7}, {"actionTaken", "RPLKX_DONE_SUB_INVALIDATED"}})},
};

TEST(Json, QueueControl) {
  for (const JsonCase& c : kQueueControl) expectJson(c);
}

TEST(Json, UnknownTypeIsAValidObjectWithItsError) {
  std::vector<uint8_t> msg = {'K', 'X', 'R', 'P', 200, 0, 1, 0};
  Rendered r = renderAs(msg, ByteOrder::Little, 1208);
  ASSERT_FALSE(r.doc.is_discarded()) << r.text;
  EXPECT_EQ(r.rc, kRcUnknownType);
  EXPECT_EQ(r.doc["msgtype"], "Unknown");
  EXPECT_EQ(r.doc["msgtype_code"], 200);
  EXPECT_EQ(r.doc["error"]["text"], "unknown message type");
}

TEST(Json, ShortHeaderNamesTheHeaderAndItsOffset) {
  std::vector<uint8_t> msg = {'K', 'X', 'R', 'P', 3, 0};
  Rendered r = renderAs(msg, ByteOrder::Little, 1208);
  ASSERT_FALSE(r.doc.is_discarded()) << r.text;
  EXPECT_EQ(r.rc, kRcShortRead);
  EXPECT_EQ(r.doc["error"]["field"], "qMsgHeader");
  EXPECT_EQ(r.doc["error"]["offset"], 0);
  EXPECT_EQ(r.doc["length"], 6);
}

TEST(Json, TextThatIsNotUtf8BecomesReplacementCharacters) {
  JsonOut out;
  out.beginObject();
  out.str("name", std::string_view("a\xff\"b\n", 5));
  out.endObject();
  Json doc = Json::parse(out.str());
  EXPECT_EQ(doc["name"], "a\xEF\xBF\xBD\"b\n");
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The data path: a schema, then a transaction whose rows are keyed by the schema's column names.

namespace data {

SchemaMsgDef schema(int32_t ccsid) {
  SchemaMsgDef d;
  d.version = 11;
  d.subId = 700;
  d.subname = "ORDERS0001";
  d.nColsInKey = 1;
  d.ext = GenericTransInfoDef{};
  d.columns = {{"ID", 496, 4, 0},         {"NAME", 449, 20, ccsid}, {"PRICE", 485, 0, 0, 7, 2},
               {"BIG", 493, 8, 0},        {"DBL", 481, 8, 0},       {"NOTE", 449, 20, ccsid},
               {"VBIN", 909, 4, 0},       {"GR", 469, 5, 1200}};
  return d;
}

TransMsgDef trans(ByteOrder o, int32_t ccsid) {
  TransMsgDef t;
  t.seconds = 1763720400;
  t.micros = 250;
  RowDef r;
  r.subId = 700;
  r.operation = 16;
  r.keyAfter = std::vector<ColValue>{valInteger(7, o)};
  r.colsAfter = std::vector<ColValue>{valVarchar("Grüße", ccsid, o), valDecimal("-12.50", 7, 2), valBigint(9000000000LL, o),
                                      valDouble(0.5, o), marker(kMarkerNull), valVarchar("\xca\xfe", 0, o),
                                      valGraphic("日本", o)};
  t.rows = {r};
  return t;
}

}  // namespace data

TEST(Json, TransactionRowsAreKeyedByColumnName) {
  for (const JsonSender& s : kJsonSenders) {
    releaseSchemaCache();
    Rendered sch = renderAs(encodeSchemaMsg(data::schema(s.ccsid), s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_FALSE(sch.doc.is_discarded()) << sch.text;
    EXPECT_EQ(sch.rc, 0) << sch.reports;
    EXPECT_EQ(sch.doc["msgtype"], "RPLKX_SUBSCHEMA_MSG");
    EXPECT_EQ(sch.doc["sub_id"], 700);
    ASSERT_EQ(sch.doc["columns"].size(), 8u) << sch.text;
    EXPECT_EQ(sch.doc["columns"][1]["colname"], "NAME");
    EXPECT_EQ(sch.doc["columns"][0]["key"], true);

    const Bytes msg = encodeTransMsg(data::trans(s.order, s.ccsid), s.order, s.ccsid);
    Rendered r = renderAs(msg, s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << r.text;
    EXPECT_EQ(r.rc, 0) << s.tag << r.reports;
    EXPECT_EQ(r.doc["msgtype"], "RPLKX_TRANS_MSG");
    EXPECT_EQ(r.doc["commit_time"], "2025-11-21T10:20:00.000250Z");
    EXPECT_EQ(r.doc["nRows"], 1);
    EXPECT_EQ(r.doc["auth_id"], "REPLUSER");
    EXPECT_TRUE(r.doc["uow_id"].is_string());
    ASSERT_EQ(r.doc["rows"].size(), 1u) << r.text;
    const Json& row = r.doc["rows"][0];
    EXPECT_EQ(row["operation"], "INSERT");
    EXPECT_EQ(row["sub_id"], 700);
    EXPECT_EQ(row["key_after"]["ID"], 7) << s.tag << " " << r.text;
    const Json& after = row["cols_after"];
    EXPECT_EQ(after["NAME"], "Grüße") << s.tag;
    EXPECT_EQ(after["PRICE"], "-12.50");
    EXPECT_EQ(after["BIG"], 9000000000LL);
    EXPECT_EQ(after["DBL"], 0.5);
    EXPECT_TRUE(after["NOTE"].is_null());
    EXPECT_EQ(after["VBIN"], "cafe");
    EXPECT_EQ(after["GR"], "日本");

    // Every cut gives one valid object; a failed read names its field.
    for (size_t n = 0; n < msg.size(); ++n) {
      std::vector<uint8_t> cut(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(n));
      cut.shrink_to_fit();
      Rendered t = renderAs(cut, s.order, s.ccsid);
      ASSERT_FALSE(t.doc.is_discarded()) << "cut at " << n << ": " << t.text;
      if (t.rc != 0) {
        EXPECT_TRUE(t.doc["error"].contains("rc")) << "cut at " << n << ": " << t.text;
      }
    }
  }
}

TEST(Json, RowsWithoutSchemaAreKeyedByPositionAsHex) {
  releaseSchemaCache();
  const Bytes msg = encodeTransMsg(data::trans(ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  Rendered r = renderAs(msg, ByteOrder::Little, 1208);
  ASSERT_FALSE(r.doc.is_discarded()) << r.text;
  EXPECT_EQ(r.doc["rows"][0]["key_after"]["1"], "07000000");
  EXPECT_TRUE(r.doc["rows"][0]["cols_after"]["5"].is_null());
}
