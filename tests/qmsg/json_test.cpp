// The JSON rendering: every converted message type from three senders, parsed and checked for
// its keys and typed values, and valid objects with an "error" for every cut.
#include "tests/qmsg/json.h"

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
