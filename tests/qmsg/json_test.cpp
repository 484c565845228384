// The JSON rendering: every converted message type from three senders, parsed and checked for
// its keys and typed values, and valid objects with an "error" for every cut.
#include "tests/qmsg/json.h"

#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "qmsg/values.h"

#include "tools/gen/encode_data.h"
#include "tools/gen/encode_file_transfer.h"
#include "tools/gen/encode_lifecycle.h"
#include "tools/gen/encode_restart.h"
#include "tools/gen/encode_schema_change.h"
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

const JsonCase kLifecycle[] = {
    {"load done version 8", [](ByteOrder o, int32_t c) { return encodeLoadDoneMsg(LoadDoneFields{}, o, c); },
     with(head("RPLKX_LOADDONE_RCVD", 2, 8), {{"sub_id", 7}})},
    {"subscription deactivated", [](ByteOrder o, int32_t c) { return encodeSubDeactivatedMsg(SubDeactivatedFields{}, o, c); },
     with(head("RPLKX_SUBDEACTIVATED", 4, 1), {{"subname", "ORDERS0001"}, {"sub_id", 7}, {"stateinfo", "INACTIVE"}})},
    {"create subscription", [](ByteOrder o, int32_t c) { return encodeCreateSubMsg(CreateSubFields{}, o, c); },
     with(head("RPLKX_CREATESUB_MSG", 9, 1),
          {{"subName", "ORDERS0001"}, {"subId", 7}, {"srcDbName", "SALESDB"}, {"srcOwner", "SALES"},
           {"srcName", "ORDERS"}, {"targetType", 1}, {"subType", "U"}, {"conflictRule", "K"},
           {"subOkSqlStates", "02000"}, {"targetNode", 2}, {"hasLoadPhase", "I"},
           {"modelQ", "KXRP.SPILL.MODELQ"}, {"originated_from", "SIGNAL"}})},
    {"drop subscription", [](ByteOrder o, int32_t c) { return encodeDropSubMsg(DropSubFields{}, o, c); },
     with(head("RPLKX_DROPSUB_MSG", 10, 1),
          {{"subName", "ORDERS0001"}, {"schemaSubName", "SALES.SUBS"}, {"subGroup", "SALESGRP"}, {"flags", 0}})},
    {"peer join", [](ByteOrder o, int32_t c) { return encodeP2pJoinUsMsg(P2pJoinUsFields{}, o, c); },
     with(head("RPLKX_P2P_JOINUS_MSG", 80, 2),
          {{"subname", "ORDERS0001"}, {"sourceNode", 1}, {"targetNode", 3}, {"loadPhase", "I"}, {"subType", "P"}})},
    {"peer spooling", [](ByteOrder o, int32_t c) { return encodeP2pSpoolingMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_SPOOLING_MSG", 81, 1), {{"subname", "ORDERS0001"}, {"newNode", 3}})},
    {"peer load done", [](ByteOrder o, int32_t c) { return encodeP2pLoadDoneMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_LOADDONE_MSG", 82, 1), {{"sub_id", 7}, {"role", "S"}})},
    // Read as stored: its name count is in the machine's order, so only a little-endian
    // sender sends it readably.
    {"peer capture stop", [](ByteOrder o, int32_t c) { return encodeP2pCapStopMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_CAPSTOP_MSG", 83, 1), {{"subname", "ORDERS0001"}}), true},
    {"peer subscription stopping", [](ByteOrder o, int32_t c) { return encodeP2pSubStoppingMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_SUBSTOPPING_MSG", 84, 1), {{"subname", "ORDERS0001"}})},
    {"peer ready to stop", [](ByteOrder o, int32_t c) { return encodeP2pReadyToStopMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_READYTOSTOP_MSG", 85, 1), {{"subname", "ORDERS0001"}, {"sub_id", 7}})},
    // Read as stored: the sub_id is the sender's bytes in the machine's order.
    {"peer subscription deactivated", [](ByteOrder o, int32_t c) { return encodeP2pSubDeactivatedMsg(P2pFields{}, o, c); },
     Json{{"msgtype", "RPLKX_P2P_SUBDEACTIVATED_MSG"}, {"msgtype_code", 86}}},
    {"peer subscription deactivated, little-endian", [](ByteOrder o, int32_t c) { return encodeP2pSubDeactivatedMsg(P2pFields{}, o, c); },
     with(head("RPLKX_P2P_SUBDEACTIVATED_MSG", 86, 1), {{"sub_id", 7}}), true},
};

TEST(Json, Lifecycle) {
  for (const JsonCase& c : kLifecycle) expectJson(c);
}

// Out of line: inlined into the table's lambdas it trips a false uninitialised-copy warning.
[[gnu::noinline]] XfChunkFields chunk() {
  XfChunkFields c;
  c.data = {1, 2, 3};
  return c;
}

[[gnu::noinline]] XfResponseFields response() {
  XfResponseFields r;
  r.code = 4;
  r.fileInfo = chunk();
  return r;
}

const JsonCase kFileTransfer[] = {
    {"file transfer payload",
     [](ByteOrder o, int32_t c) { return encodeXfPayloadMsg({chunk(), chunk()}, 12, o, c); },
     with(head("RPLKX_XF_MSG", 131, 12),
          {{"numChunks", 2},
           {"chunks", Json::array({{{"chunkSize", 138}, {"subId", 7}, {"controlMsgId", std::string(48, '0')},
                                    {"crtLRLsn", "2021:2223:2425:2627:2829:2a2b:2c2d:2e2f"},
                                    {"uow_id", "0000123456789abcdef0"}, {"totalFileSize", 3}, {"fileByteOffset", 0},
                                    {"fileNameLen", 23}, {"dataLen", 3}, {"offset2FileName", 112},
                                    {"offset2Data", 135}, {"xfSendRequestTmSeq", 1}, {"xfSendRequestOrder", 1},
                                    {"fileName", "/var/kx/load/orders.del"}, {"data", "010203"}},
                                   {{"chunkSize", 138}, {"subId", 7}, {"controlMsgId", std::string(48, '0')},
                                    {"crtLRLsn", "2021:2223:2425:2627:2829:2a2b:2c2d:2e2f"},
                                    {"uow_id", "0000123456789abcdef0"}, {"totalFileSize", 3}, {"fileByteOffset", 0},
                                    {"fileNameLen", 23}, {"dataLen", 3}, {"offset2FileName", 112},
                                    {"offset2Data", 135}, {"xfSendRequestTmSeq", 1}, {"xfSendRequestOrder", 1},
                                    {"fileName", "/var/kx/load/orders.del"}, {"data", "010203"}}})}}),
     true},
    {"file transfer acknowledgement", [](ByteOrder o, int32_t c) { return encodeXfAdminMsg({response()}, 12, o, c); },
     with(head("RPLKX_XF_ACK_MSG", 132, 12), {{"numResponses", 1}}), true},
    // File transfer bodies are read in the machine's order: only a little-endian sender's read right.
    {"file transfer heartbeat",
     [](ByteOrder o, int32_t c) { return encodeXfHeartBeatMsg(XfHeartBeatFields{}, o, c); },
     with(head("RPLKX_XF_HEARTBEAT_MSG", 133, 12),
          {{"maxCoordMsgId", std::string(48, '0')}, {"xfSendRequestTmSeq", 3}, {"maxXfSendRequestOrder", 5}}),
     true},
};

TEST(Json, FileTransfer) {
  for (const JsonCase& c : kFileTransfer) expectJson(c);
}

TEST(Json, FileTransferResponsesHoldTheirChunk) {
  XfResponseFields r = response();
  for (const JsonSender& s : kJsonSenders) {
    if (s.order == ByteOrder::Big) continue;  // read in the machine's order
    Rendered d = renderAs(encodeXfAdminMsg({r}, 12, s.order, s.ccsid).bytes(), s.order, s.ccsid);
    ASSERT_FALSE(d.doc.is_discarded()) << d.text;
    ASSERT_EQ(d.doc["responses"].size(), 1u) << d.text;
    EXPECT_EQ(d.doc["responses"][0]["code"], 4);
    EXPECT_EQ(d.doc["responses"][0]["fileInfo"]["fileName"], "/var/kx/load/orders.del") << s.tag;
    EXPECT_EQ(d.doc["responses"][0]["fileInfo"]["data"], "010203");
  }
}

// The restart message is read as stored: a little-endian sender's message reads right here.
TEST(Json, RestartHoldsItsPartitionsAndSendQueues) {
  RestartMsgFields f;
  f.partitions = {sampleLogPosition(0x30, 3)};
  f.lastCommitMicros = 250;
  RestartSendqEntry q;
  q.nextMsgSeq[15] = 0x2a;
  f.sendqs = {q, q};
  JsonCase c{"restart", [&](ByteOrder o, int32_t cp) { return encodeRestartMsg(f, o, cp); },
             with(head("RPLKX_RESTART", 32, 1),
                  {{"behind_queue", nullptr},
                   {"capServer", "SRCDB"},
                   {"capSchema", "KXCAP"},
                   {"partitions", 1},
                   {"lastCommitTime", "2025-11-21T10:20:00.000250Z"},
                   {"sendqs", 2}}),
             true};
  expectJson(c);
  Rendered r = renderAs(encodeRestartMsg(f, ByteOrder::Little, 1208).bytes(), ByteOrder::Little, 1208);
  ASSERT_EQ(r.doc["restart_points"].size(), 1u) << r.text;
  EXPECT_EQ(r.doc["restart_points"][0]["nodeId"], 3);
  ASSERT_EQ(r.doc["sendq_entries"].size(), 2u) << r.text;
  EXPECT_EQ(r.doc["sendq_entries"][1]["sendq_name"], "KXRP.TO.APPLY.SENDQ");
  EXPECT_EQ(r.doc["sendq_entries"][1]["sendq_next_msg_seq_no"], std::string(30, '0') + "2a");
}

const JsonCase kSchemaChanges[] = {
    {"add column", [](ByteOrder o, int32_t c) { return encodeAddColumnMsg(AddColumnFields{}, o, c); },
     with(head("RPLKX_ADDCOLUMN_MSG", 5, 14),
          {{"sub_id", 7}, {"colName", "NOTE"}, {"colType", 449}, {"colTypeName", "VARCHAR"}, {"typelen", 64},
           {"codepage", 1208}, {"hasDefault", 0}, {"charSubtype", "S"}, {"colAttribFlags", 0}})},
    {"add replication key column", [](ByteOrder o, int32_t c) { return encodeAddReplKeyColMsg(AddReplKeyColFields{}, o, c); },
     with(head("RPLKX_ADD_REPL_KEY_COL_MSG", 12, 1), {{"sub_id", 7}, {"colName", "ORDER_ID"}})},
    {"drop column", [](ByteOrder o, int32_t c) { return encodeDropColumnMsg(DropColumnFields{}, o, c); },
     with(head("RPLKX_DDL_MSG", 6, 8),
          {{"msgDDLType", "RPLKX_DDL_DROP_COLUMN"}, {"sub_id", 7}, {"dropped_column_name", "OBSOLETE_FLAG"}})},
    {"alter column", [](ByteOrder o, int32_t c) { return encodeDdlMsg(1, 1, {0xde, 0xad}, o, c); },
     with(head("RPLKX_DDL_MSG", 6, 1), {{"msgDDLType", "RPLKX_DDL_ALTER_COLUMN"}, {"body", "dead"}})},
    {"generic DDL", [](ByteOrder o, int32_t c) { return encodeDdlMsg(16, 1, {0x01}, o, c); },
     with(head("RPLKX_DDL_MSG", 6, 1), {{"msgDDLType", "RPLKX_DDL_GENERIC"}, {"body", "01"}})},
    {"truncate table", [](ByteOrder o, int32_t c) { return encodeTruncateTableMsg(7, 1, o, c); },
     with(head("RPLKX_DDL_TRUNCATE_MSG", 17, 1), {{"subId", 7}})},
    {"redefine replication key",
     [](ByteOrder o, int32_t c) {
       RedefineReplKeyFields f;
       f.colNames = {"ORDER_ID", "LINE_NO"};
       return encodeRedefineReplKeyMsg(f, o, c);
     },
     with(head("RPLKX_REDEFINE_REPL_KEY_MSG", 18, 1),
          {{"sub_id", 7}, {"is_P2P", 0}, {"nCols", 2}, {"colNames", Json::array({"ORDER_ID", "LINE_NO"})}})},
};

TEST(Json, SchemaChanges) {
  for (const JsonCase& c : kSchemaChanges) expectJson(c);
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
  d.ext.emplace();
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

// The schema's object comes from the pass that prints its text: every field, the columns with
// precision and scale from either byte order, the partitioning keys and ranges; a cut schema
// ends with the error naming the field.
TEST(Json, SchemaHoldsEveryFieldOfItsText) {
  for (const JsonSender& s : kJsonSenders) {
    releaseSchemaCache();
    SchemaMsgDef d = data::schema(s.ccsid);
    d.initiatorNode = 1;
    d.activeNodes = {1, 3};
    d.sendqName = "KXRP.SENDQ";
    d.partKeys = {{"ID", 496, 4, 0, 0, 0, 1, 3}};
    d.ranges = {{1, 2, 10, 20, {"A", "B"}, {"M"}}};
    const Bytes msg = encodeSchemaMsg(d, s.order, s.ccsid);
    Rendered r = renderAs(msg, s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << r.text;
    EXPECT_EQ(r.rc, 0) << s.tag << r.reports;
    EXPECT_EQ(r.doc["subname"], "ORDERS0001") << s.tag;
    EXPECT_EQ(r.doc["sendq_name"], "KXRP.SENDQ") << s.tag;
    EXPECT_EQ(r.doc["activeNodes"], nlohmann::json::array({1, 3})) << s.tag;
    EXPECT_TRUE(r.doc["transInfo"].is_object()) << s.tag;
    EXPECT_EQ(r.doc["columns"][2]["typeprecision"], 7) << s.tag;
    EXPECT_EQ(r.doc["columns"][2]["typescale"], 2) << s.tag;
    EXPECT_EQ(r.doc["columns"][1]["codepage"], s.ccsid) << s.tag;
    EXPECT_EQ(r.doc["partKeys"][0]["ascOrDesc"], "A") << s.tag;
    EXPECT_EQ(r.doc["partRanges"][0]["limitKeyStr"], "ABM") << s.tag;
    EXPECT_EQ(findSchema(700) != nullptr, true) << s.tag;

    releaseSchemaCache();
    Rendered cut = renderAs(Bytes(msg.begin(), msg.begin() + 520), s.order, s.ccsid);
    ASSERT_FALSE(cut.doc.is_discarded()) << cut.text;
    EXPECT_EQ(cut.doc["error"]["field"], "qSubSchemaMsg.activeNodes") << s.tag << cut.text;
  }
}

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

TEST(Json, LobPartIsNamedByTheSchemaAndConvertedToUtf8) {
  for (const JsonSender& s : kJsonSenders) {
    releaseSchemaCache();
    SchemaMsgDef sch = data::schema(s.ccsid);
    sch.columns.push_back({"REMARKS", 409, 1048576, s.ccsid});
    ASSERT_EQ(renderAs(encodeSchemaMsg(sch, s.order, s.ccsid), s.order, s.ccsid).rc, 0);
    LobMsgDef lob;
    lob.subId = 700;
    lob.colNum = 8;
    lob.data = valText("Grüße aus Köln", s.ccsid).data;
    Rendered r = renderAs(encodeLobMsg(lob, s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << r.text;
    EXPECT_EQ(r.rc, 0) << r.reports;
    EXPECT_EQ(r.doc["msgtype"], "RPLKX_LOB_MSG");
    EXPECT_EQ(r.doc["sub_id"], 700);
    EXPECT_EQ(r.doc["rowNum"], 2);
    EXPECT_EQ(r.doc["colNum"], 8);
    EXPECT_EQ(r.doc["lob_codepage"], "DATABASE");
    EXPECT_EQ(r.doc["colname"], "REMARKS") << s.tag;
    EXPECT_EQ(r.doc["data"], "Grüße aus Köln") << s.tag;

    lob.flag = 2;  // a NULL value
    lob.data.clear();
    Rendered n = renderAs(encodeLobMsg(lob, s.order, s.ccsid), s.order, s.ccsid);
    EXPECT_TRUE(n.doc["data"].is_null()) << n.text;
  }
  releaseSchemaCache();
  LobMsgDef lob;
  lob.data = {1, 2};
  Rendered r = renderAs(encodeLobMsg(lob, ByteOrder::Little, 1208), ByteOrder::Little, 1208);
  EXPECT_TRUE(r.doc["colname"].is_null()) << r.text;
  EXPECT_EQ(r.doc["data"], "0102");
}

TEST(Json, TransactionInformationBlockIsAGroup) {
  for (const JsonSender& s : kJsonSenders) {
    Rendered r = renderAs(encodeLoadDoneMsg(LoadDoneFields{}, s.order, s.ccsid).bytes(), s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << r.text;
    ASSERT_TRUE(r.doc.contains("transInfo")) << r.text;
    EXPECT_EQ(r.doc["transInfo"]["commit_time"], "2025-11-21T10:20:00.000000Z") << s.tag;
    EXPECT_EQ(r.doc["transInfo"]["auth_id"], "KXADM") << s.tag;
    EXPECT_EQ(r.doc["transInfo"]["plan_id"], "KXPLAN");
    EXPECT_TRUE(r.doc["transInfo"]["uow_id"].is_string());
    Rendered a = renderAs(encodeAddColumnMsg(AddColumnFields{}, s.order, s.ccsid).bytes(), s.order, s.ccsid);
    EXPECT_EQ(a.doc["transInfo"]["commit_time"], "2025-11-21T10:20:00.250000Z") << a.text;
    EXPECT_EQ(a.doc["transInfo"]["auth_tkn"], "ALTERTBL");
  }
  LoadDoneFields none;
  none.trans.flags = 1;  // no transaction context
  Rendered r = renderAs(encodeLoadDoneMsg(none, ByteOrder::Little, 1208).bytes(), ByteOrder::Little, 1208);
  EXPECT_TRUE(r.doc["transInfo"].is_null()) << r.text;
}

TEST(Json, StatementChunkAndBatchedHeaderAreGroupsOfTheirRow) {
  for (const JsonSender& s : kJsonSenders) {
    releaseSchemaCache();
    StreamedTransMsgDef t;
    RowDef chunk;
    chunk.subId = 700;
    chunk.operation = 160;
    StmtChunkDef c;
    c.cols = {DataColDef{}, DataColDef{2, 1, 449, 20}};
    chunk.chunk = c;
    RowDef batched;
    batched.subId = 700;
    batched.keyAfter = std::vector<ColValue>{valInteger(7, s.order)};
    batched.batched = BatchedTransHeaderDef{};
    t.rows = {batched, chunk};
    Rendered r = renderAs(encodeStreamedTransMsg(t, s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << r.text;
    EXPECT_EQ(r.rc, 0) << s.tag << r.reports;
    ASSERT_EQ(r.doc["rows"].size(), 2u) << r.text;
    const Json& b = r.doc["rows"][0]["batchedTransHeader"];
    EXPECT_EQ(b["commit_time"], "2023-11-14T22:13:20.000005Z") << s.tag << " " << r.text;
    EXPECT_EQ(b["auth_id"], "BATCHUSER") << s.tag;
    EXPECT_EQ(b["uow_id"], "000000000a0c");
    const Json& st = r.doc["rows"][1]["stmt_chunk"];
    EXPECT_EQ(st["fileName"], "/tmp/chunk0001.dat") << s.tag << " " << r.text;
    EXPECT_EQ(st["nRows"], 1000);
    ASSERT_EQ(st["dataCols"].size(), 2u);
    EXPECT_EQ(st["dataCols"][1]["colType"], "VARCHAR");
    EXPECT_EQ(st["dataCols"][1]["typeLen"], 20);
  }
}

// Strings go out as JSON strings whatever bytes they hold: quotes, backslashes and control
// characters escaped, UTF-8 kept, a byte that is not UTF-8 replaced; the text around each kept
// in order. Each row is parsed back by the JSON parser and compared with what it must read.
TEST(JsonOutText, StringsAreEscapedAndParseBackToTheirText) {
  struct Row {
    std::string in;
    std::string reads;  // the parsed value
    const char* written;  // the exact text, where it matters
  };
  const Row rows[] = {
      {"ORDER_ID", "ORDER_ID", "\"ORDER_ID\""},
      {"", "", "\"\""},
      {"say \"hi\"", "say \"hi\"", "\"say \\\"hi\\\"\""},
      {"C:\\dir\\", "C:\\dir\\", "\"C:\\\\dir\\\\\""},
      {"a\nb\rc\td", "a\nb\rc\td", "\"a\\nb\\rc\\td\""},
      {std::string("x\0y\x1f", 4), std::string("x\0y\x1f", 4), "\"x\\u0000y\\u001f\""},
      {"caf\xC3\xA9 \xE2\x82\xAC", "caf\xC3\xA9 \xE2\x82\xAC", nullptr},
      {"ab\xFF" "cd", "ab\xEF\xBF\xBD" "cd", nullptr},
      {"\xC3", "\xEF\xBF\xBD", nullptr},
      {std::string(300, 'z') + "\"", std::string(300, 'z') + "\"", nullptr},
  };
  for (const Row& row : rows) {
    JsonOut out;
    out.beginObject();
    out.str("v", row.in);
    out.endObject();
    Json doc = Json::parse(out.str(), nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << out.str();
    EXPECT_EQ(doc["v"].get<std::string>(), row.reads) << out.str();
    if (row.written != nullptr) {
      EXPECT_EQ(out.str(), std::string("{\"v\":") + row.written + "}");
    }
  }
}

// REAL and DOUBLE values are JSON numbers with the digits "%.9g" and "%.17g" give: the exact
// text at the extremes, the same text as printf over every power of ten, and null for the
// infinities and NaN, which JSON has no number for. Each written number reads back as its value.
TEST(JsonOutText, RealsHavePrintfDigitsAndReadBackExactly) {
  struct Row {
    double value;
    bool single;
    const char* written;
  };
  const double inf = std::numeric_limits<double>::infinity();
  const Row rows[] = {
      {0.0, false, "0"},
      {-0.0, false, "-0"},
      {1.0, false, "1"},
      {-42.0, false, "-42"},
      {0.1, false, "0.10000000000000001"},
      {1.0 / 3, false, "0.33333333333333331"},
      {1e16, false, "10000000000000000"},
      {1e17, false, "1e+17"},
      {123456789012345678.0, false, "1.2345678901234568e+17"},
      {1e-5, false, "1.0000000000000001e-05"},
      {1e100, false, "1e+100"},
      {1.5e-300, false, "1.5000000000000001e-300"},
      {DBL_MAX, false, "1.7976931348623157e+308"},
      {-DBL_MAX, false, "-1.7976931348623157e+308"},
      {DBL_MIN, false, "2.2250738585072014e-308"},
      {DBL_TRUE_MIN, false, "4.9406564584124654e-324"},
      {-DBL_TRUE_MIN, false, "-4.9406564584124654e-324"},
      {0.1f, true, "0.100000001"},
      {1.5f, true, "1.5"},
      {-0.0f, true, "-0"},
      {16777216.0f, true, "16777216"},
      {1e9f, true, "1e+09"},
      {FLT_MAX, true, "3.40282347e+38"},
      {FLT_MIN, true, "1.17549435e-38"},
      {FLT_TRUE_MIN, true, "1.40129846e-45"},
      {inf, false, "null"},
      {-inf, true, "null"},
      {std::nan(""), false, "null"},
  };
  auto written = [](double d, bool single) {
    JsonOut out;
    out.beginObject();
    JsonValue v{out, "v"};
    v.real(d, single);
    out.endObject();
    const std::string_view s = out.str();
    return std::string(s.substr(5, s.size() - 6));
  };
  for (const Row& row : rows) {
    const std::string text = written(row.value, row.single);
    EXPECT_EQ(text, row.written) << std::hexfloat << row.value;
    if (!std::isfinite(row.value)) continue;
    EXPECT_TRUE(Json::parse(text, nullptr, false).is_number()) << text;
    const double back = std::strtod(text.c_str(), nullptr);
    if (row.single) EXPECT_EQ(static_cast<float>(back), static_cast<float>(row.value)) << text;
    else EXPECT_EQ(back, row.value) << text;
    EXPECT_EQ(std::signbit(back), std::signbit(row.value)) << text;
  }
  for (int k = -325; k <= 309; ++k) {
    for (const char* mantissa : {"1e", "9.999999999999995e", "1.000000000000005e", "-7.25e"}) {
      const std::string literal = mantissa + std::to_string(k);
      const double d = std::strtod(literal.c_str(), nullptr);
      const float f = std::strtof(literal.c_str(), nullptr);
      char expected[64];
      if (std::isfinite(d)) {
        std::snprintf(expected, sizeof expected, "%.17g", d);
        ASSERT_EQ(written(d, false), expected) << literal;
      }
      if (std::isfinite(f)) {
        std::snprintf(expected, sizeof expected, "%.9g", static_cast<double>(f));
        ASSERT_EQ(written(f, true), expected) << literal;
      }
    }
  }
}

// The names of a schema's columns are kept from row to row: a new schema for the same
// subscription renames the keys of the rows after it, and the names follow the schema that is
// current as schemas and senders take turns.
TEST(Json, RowsTakeTheNamesOfTheirSubscriptionsCurrentSchema) {
  struct Turn {
    const JsonSender* sender;
    const char* nameColumn;  // what the second column is called in the schema sent
  };
  releaseSchemaCache();
  const Turn turns[] = {{&kJsonSenders[0], "NAME"},      {&kJsonSenders[0], "NAME"},
                        {&kJsonSenders[0], "CUSTOMER"},  {&kJsonSenders[1], "CUSTOMER"},
                        {&kJsonSenders[2], "NAME"},      {&kJsonSenders[0], "NAME"},
                        {&kJsonSenders[2], "KÄUFER"},    {&kJsonSenders[1], "KÄUFER"},
                        {&kJsonSenders[0], "SAY \"HI\" C:\\"}, {&kJsonSenders[2], "SAY \"HI\" C:\\"}};
  for (const Turn& turn : turns) {
    const JsonSender& s = *turn.sender;
    SchemaMsgDef def = data::schema(s.ccsid);
    def.columns[1].name = turn.nameColumn;
    Rendered sch = renderAs(encodeSchemaMsg(def, s.order, s.ccsid), s.order, s.ccsid);
    ASSERT_EQ(sch.rc, 0) << sch.reports;
    for (int repeat = 0; repeat < 2; ++repeat) {
      Rendered r = renderAs(encodeTransMsg(data::trans(s.order, s.ccsid), s.order, s.ccsid), s.order, s.ccsid);
      ASSERT_FALSE(r.doc.is_discarded()) << r.text;
      const Json& after = r.doc["rows"][0]["cols_after"];
      EXPECT_EQ(after.size(), 7u) << s.tag << " " << r.text;
      EXPECT_EQ(after[turn.nameColumn], "Grüße") << s.tag << " " << r.text;
      EXPECT_EQ(after["PRICE"], "-12.50") << s.tag;
      EXPECT_EQ(r.doc["rows"][0]["key_after"]["ID"], 7) << s.tag;
    }
  }
}

// The members of a message written into an object that is already open (rplq's line, after the
// descriptor) are the members of the message's own object, in every sender's form and at
// every cut, failed reads included: the object is closed at the same depth either way.
TEST(Json, MembersJoinedToAnOpenObjectAreTheMessagesOwn) {
  for (const JsonSender& s : kJsonSenders) {
    releaseSchemaCache();
    ASSERT_EQ(renderAs(encodeSchemaMsg(data::schema(s.ccsid), s.order, s.ccsid), s.order, s.ccsid).rc, 0);
    const Bytes msg = encodeTransMsg(data::trans(s.order, s.ccsid), s.order, s.ccsid);
    for (size_t n = 0; n <= msg.size(); ++n) {
      const Bytes cut(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(n));
      Rendered own = renderAs(cut, s.order, s.ccsid);
      Rendered joined = renderAs(cut, s.order, s.ccsid, "kxmd");
      EXPECT_EQ(joined.rc, own.rc) << s.tag << " cut at " << n;
      EXPECT_EQ(joined.text, "{\"kxmd\":1," + own.text.substr(1)) << s.tag << " cut at " << n;
    }
  }
}

// The line's buffer grows while a string is written into it: strings of every kind longer than
// its first room, after text that leaves it nearly full, read back as they were written.
TEST(JsonOutText, LongStringsReadBackWhereverTheBufferGrows) {
  struct Row {
    const char* what;
    std::string in;
    std::string reads;
  };
  const std::string e = "\xC3\xA9";
  std::string accents, replaced;
  for (int i = 0; i < 1500; ++i) accents += e;
  for (int i = 0; i < 3000; ++i) replaced += "\xEF\xBF\xBD";
  const Row rows[] = {
      {"plain", std::string(9000, 'a'), std::string(9000, 'a')},
      {"quote at the end", std::string(5000, 'a') + "\"", std::string(5000, 'a') + "\""},
      {"control characters", std::string(3000, '\x01'), std::string(3000, '\x01')},
      {"two-byte characters", accents, accents},
      {"bytes that are not UTF-8", std::string(3000, '\xFF'), replaced},
      {"escapes between plain runs", std::string(3000, 'a') + "\\\n" + std::string(3000, 'b'),
       std::string(3000, 'a') + "\\\n" + std::string(3000, 'b')},
  };
  for (const Row& row : rows) {
    for (size_t before : {size_t{0}, size_t{4000}, size_t{4085}, size_t{4090}, size_t{4094}}) {
      JsonOut out;
      out.beginObject();
      out.str("p", std::string(before, 'p'));
      out.str("v", row.in);
      out.num("n", 7);
      out.endObject();
      Json doc = Json::parse(out.str(), nullptr, false);
      ASSERT_FALSE(doc.is_discarded()) << row.what << " after " << before;
      EXPECT_EQ(doc["v"].get<std::string>(), row.reads) << row.what << " after " << before;
      EXPECT_EQ(doc["n"], 7) << row.what << " after " << before;
    }
  }
}

// Recently written REAL and DOUBLE values are kept by their bits: written again, and with the
// same bits as the other width, each keeps the digits of its own width.
TEST(JsonOutText, RepeatedRealsKeepTheDigitsOfTheirWidth) {
  auto written = [](double d, bool single) {
    JsonOut out;
    out.beginArray();
    JsonValue v{out, nullptr};
    v.real(d, single);
    out.endArray();
    const std::string_view s = out.str();
    return std::string(s.substr(1, s.size() - 2));
  };
  auto expected = [](double d, bool single) {
    char b[64];
    return std::string(b, std::to_chars(b, b + sizeof b, d, std::chars_format::general, single ? 9 : 17).ptr);
  };
  std::vector<double> values = {static_cast<double>(0.1f), 0.1, 0.5, -0.0, 1e300, static_cast<double>(FLT_MAX)};
  for (int i = 1; i <= 300; ++i) values.push_back(i / 7.0);
  for (int pass = 0; pass < 2; ++pass) {
    for (double d : values) {
      EXPECT_EQ(written(d, false), expected(d, false)) << std::hexfloat << d;
      if (static_cast<double>(static_cast<float>(d)) == d) {
        EXPECT_EQ(written(d, true), expected(d, true)) << std::hexfloat << d;
      }
      EXPECT_EQ(written(d, false), expected(d, false)) << std::hexfloat << d;
    }
  }
  EXPECT_EQ(written(static_cast<double>(0.1f), true), "0.100000001");
  EXPECT_EQ(written(static_cast<double>(0.1f), false), "0.10000000149011612");
}

// A line handed on to another owner keeps its text and its open containers; the one it was
// taken from starts again empty.
TEST(JsonOutText, AMovedLineGoesOnWhereItWas) {
  JsonOut first;
  first.beginObject();
  first.str("a", std::string(5000, 'x'));
  JsonOut second(std::move(first));
  second.num("b", 2);
  first.clear();
  first.num(nullptr, 1);
  EXPECT_EQ(first.str(), "1");
  JsonOut third;
  third = std::move(second);
  third.endLine();
  EXPECT_EQ(third.str(), "{\"a\":\"" + std::string(5000, 'x') + "\",\"b\":2}\n");
}
