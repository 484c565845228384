// Queue control messages: heartbeat (type 3), synchronisation request (7) and response (8),
// sequence-time reset (11), function level (13) and administration queue (64). The send-queue
// start message (16) is its header alone, printed by the dispatch.
//
// The dispatch prints the compact header lines; each printer then reads its fields in wire
// order (swapping its integers in place when the sender's byte order differs), converts its
// queue names (a failure ends the message before any line of its own), then writes its fields
// through the sink.
#include <cstdio>
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/names.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

namespace {

// A log position record swapped into machine order and formatted (empty after a failure).
std::string lsnAt(Cursor& c, size_t at, const char* field) {
  std::string lsn;
  if (c && c.take(fixLsnRecord(c.reader(), at, field))) c.take(formatLsnRecord(c.reader(), at, true, lsn, field));
  return lsn;
}

// A queue name in its fixed room, converted.
void nameAt(QMsg& m, Cursor& c, size_t at, size_t room, ConvText& out, const char* field,
            const char* step, const char* label) {
  if (c) c.take(readNameInRoom(m, at, room, out, field, step, label));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// qHeartBeatMsg (type 3)
//
//   0        8            60    64    68          72                 96          100
//   +--------+------------+-----+-----+-----------+------------------+-----------+
//   | header | sendq (52) | sec | usec| hb_interv | last_log_cmtlsn  | kxcmt_int |
//   +--------+------------+-----+-----+-----------+------------------+-----------+
//                                      `------------ version 8 on ---------------'

template <class O>
int32_t printHeartbeatMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 350);
  const char* step = "qHeartBeatMsg::printMe";
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  uint32_t seconds = c.fix32(60, "qHeartBeatMsg.last_logtime");
  uint32_t micros = c.fix32(64, "qHeartBeatMsg.last_logtime");
  uint32_t hbInterval = 0, cmtInterval = 0;
  std::string lsn;
  if (version >= 8) {
    hbInterval = c.fix32(68, "qHeartBeatMsg.hb_interval_millisec");
    lsn = lsnAt(c, 72, "qHeartBeatMsg.last_log_cmtlsn");
    cmtInterval = c.fix32(96, "qHeartBeatMsg.kxcmt_interval_millisec");
  }
  ConvText sendq;
  nameAt(m, c, 8, 52, sendq, "qHeartBeatMsg.sendq", step, "sendq");
  if (!c) return rplTrace_.ret(c.rc());

  o.field("sendq", sendq, "  heartbeat.sendq:       %.*s\n");
  o.field("last_logtime", UtcTime{seconds, static_cast<int32_t>(micros)}, "  heartbeat.last_logtime: %s\n");
  if (version >= 8) {
    o.field("last_log_cmtlsn", lsn, "  heartbeat.last_log_cmtlsn: %s\n");
    o.field("hb_interval_millisec", static_cast<int32_t>(hbInterval), "  heartbeat.hb_interval_millisec: %d\n");
    o.field("kxcmt_interval_millisec", static_cast<int32_t>(cmtInterval),
            "  heartbeat.kxcmt_interval_millisec: %d\n");
  }
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qRequestSyncOnQueueMsg (type 7)
//
//   0        8                58     59  60    64    68   72               96
//   +--------+----------------+------+---+-----+-----+----+----------------+
//   | header | sendQueue (50) |reason|   | sec | usec|    | lastCommitSEQ  |
//   +--------+----------------+------+---+-----+-----+----+----------------+

constexpr ValueName kSyncRequestReasons[] = {
    {1, "  REASON=DATA_APPLIED REQUEST"},
    {2, "  REASON=ISALIVE"},
};

template <class O>
int32_t printRequestSyncOnQueueMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 351);
  const char* step = "qRequestSyncOnQueueMsg::printMe";
  Cursor c(m.r);
  uint8_t reason = c.u8(58, "qRequestSyncOnQueueMsg.reason");
  uint32_t seconds = c.fix32(60, "qRequestSyncOnQueueMsg.lastTxPublishedTS");
  uint32_t micros = c.fix32(64, "qRequestSyncOnQueueMsg.lastTxPublishedTS");
  std::string lsn = lsnAt(c, 72, "qRequestSyncOnQueueMsg.lastCommitSEQ");
  ConvText sendQueue;
  nameAt(m, c, 8, 50, sendQueue, "qRequestSyncOnQueueMsg.sendQueue", step, "sendQ");
  if (!c) return rplTrace_.ret(c.rc());

  o.show("reason", reason, "%s\n", nameOf(kSyncRequestReasons, reason, ""));
  o.field("sendQueue", sendQueue, "  sendQueue:         %.*s\n");
  o.show("lastTxPublishedTS", UtcTime{seconds, static_cast<int32_t>(micros > 999999 ? 999999 : micros)},
         "  lastTxPublishedTS: %s\n", formatLocalStampMicros(seconds, micros).c_str());
  o.field("lastCommitSEQ", lsn, "  lastCommitSEQ:     %s\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSyncResponseMsg (type 8)
//
//   0        8                58
//   +--------+----------------+--------------+
//   | header | sendQueue (50) | responseCode |   0: the synchronisation succeeded
//   +--------+----------------+--------------+

template <class O>
int32_t printSyncResponseMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 352);
  const char* step = "qSyncResponseMsg::printMe";
  Cursor c(m.r);
  uint8_t response = c.u8(58, "qSyncResponseMsg.responseCode");
  ConvText sendQueue;
  nameAt(m, c, 8, 50, sendQueue, "qSyncResponseMsg.sendQueue", step, "sendQ");
  if (!c) return rplTrace_.ret(c.rc());

  o.text("\n");
  o.field("sendQueue", sendQueue, "  sendQueue:         %.*s\n");
  o.show("responseCode", response,
         response == 0 ? "  responseCode:      %d (sync was successful)\n"
                       : "  responseCode:      %d (sync was not successful)\n",
         response);
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSequenceTimeResetMsg (type 11)
//
//   0        8       9        10       11  12
//   +--------+-------+--------+--------+---+---------------+
//   | header | flags | cur q  | max q  |   | sequence time |   flags bit 1: a sequence time starts
//   +--------+-------+--------+--------+---+---------------+

template <class O>
int32_t printSequenceTimeResetMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 353);
  Cursor c(m.r);
  uint8_t flags = c.u8(8, "qSequenceTimeResetMsg.flags");
  uint8_t current = c.u8(9, "qSequenceTimeResetMsg.current parallel q index");
  uint8_t maximum = c.u8(10, "qSequenceTimeResetMsg.maximum parallel q index");
  uint32_t seconds = c.fix32(12, "qSequenceTimeResetMsg.sequence time");
  if (!c) return rplTrace_.ret(c.rc());

  bool starting = (flags & 2) != 0;
  o.field("sequence_reset_flag", starting ? "SEQUENCE_TIME_STARTING" : "SEQUENCE_TIME_ENDING",
          "  sequence reset flag:         %s\n");
  o.field("current_parallel_q_index", current, "  current parallel q index:    %d\n");
  o.field("maximum_parallel_q_index", maximum, "  maximum parallel q index:    %d\n");
  o.show("sequence_time", UtcTime{seconds, -1}, "  %s sequence time:           %-11d(%s)\n",
         starting ? "new" : "old", static_cast<int32_t>(seconds), formatLocalStamp(seconds).c_str());
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qFuncLevelMsg (type 13)
//
//   0        8          58         108          238    239   240   244   248     252     256   280   304
//   +--------+----------+----------+------------+------+-----+-----+-----+-------+-------+-----+-----+
//   | header | sendQueue| recvQueue| qmap (130) |reason|flags| sec | usec|current| queue |lastC|restr|
//   |        | (50)     | (50)     |            |      |     |     |     |maj/min|maj/min| LSN | LSN |
//   +--------+----------+----------+------------+------+-----+-----+-----+-------+-------+-----+-----+
//
// flags bit 0: the restart information (the two positions and the publishing time) is present.

constexpr ValueName kFuncLevelReasons[] = {
    {1, "NOTIFICATION FROM GLEANER"},
    {2, "NOTIFICATION FROM LANDER"},
    {3, "QUERY FROM GLEANER"},
    {4, "RESPONSE FROM LANDER OK"},
    {5, "RESPONSE FROM LANDER FAILED"},
};
// Whose level the two level lines show, by reason: the capture side's or the apply side's.
constexpr ValueName kFuncLevelCurrentLabels[] = {
    {1, "Glean"}, {2, "Land"}, {3, "Glean"}, {4, "Land"}, {5, "Land"},
};
constexpr ValueName kFuncLevelQueueLabels[] = {
    {1, "Send"}, {2, "Recv"}, {3, "Send"}, {4, "Recv"}, {5, "Recv"},
};

template <class O>
int32_t printFuncLevelMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 354);
  const char* step = "qFuncLevelMsg::printMe";
  Cursor c(m.r);
  uint8_t reason = c.u8(238, "qFuncLevelMsg.reason");
  uint8_t flags = c.u8(239, "qFuncLevelMsg.flags");
  uint32_t seconds = c.fix32(240, "qFuncLevelMsg.lastTxPublishedTS");
  uint32_t micros = c.fix32(244, "qFuncLevelMsg.lastTxPublishedTS");
  int16_t level[4] = {};
  for (size_t i = 0; i < 4; ++i)
    level[i] = static_cast<int16_t>(c.fix16(248 + 2 * i, i < 2 ? "qFuncLevelMsg.current level" : "qFuncLevelMsg.queue level"));
  std::string lastCommit = lsnAt(c, 256, "qFuncLevelMsg.lastCommitLSN");
  std::string restart = lsnAt(c, 280, "qFuncLevelMsg.restartLSN");
  ConvText sendQueue, recvQueue, qmap;
  nameAt(m, c, 8, 50, sendQueue, "qFuncLevelMsg.sendQueue", step, "sendQ");
  nameAt(m, c, 58, 50, recvQueue, "qFuncLevelMsg.recvQueue", step, "recvQ");
  nameAt(m, c, 108, 130, qmap, "qFuncLevelMsg.qmap", step, "qmap");
  if (!c) return rplTrace_.ret(c.rc());

  o.show("reason", reason, "\n  REASON:                   %s\n", nameOf(kFuncLevelReasons, reason, ""));
  o.field("sendQueue", sendQueue, "  sendQueue:                %.*s\n");
  o.field("recvQueue", recvQueue, "  recvQueue:                %.*s\n");
  o.field("qmap", qmap, "  qmap:                     %.*s\n");
  o.text("  %s current level:\t    %04hd.%04hd\n", nameOf(kFuncLevelCurrentLabels, reason, "Unknown"), level[0], level[1]);
  o.hidden("current_level", level[0]);
  o.hidden("current_level_minor", level[1]);
  o.text("  %s queue level:\t    %04hd.%04hd\n", nameOf(kFuncLevelQueueLabels, reason, "Unknown"), level[2], level[3]);
  o.hidden("queue_level", level[2]);
  o.hidden("queue_level_minor", level[3]);
  if (flags & 1) {
    o.field("restartLSN", restart, "  restartLSN:               %s\n");
    o.show("lastTxPublishedTS", UtcTime{seconds, static_cast<int32_t>(micros > 999999 ? 999999 : micros)},
           "  lastTxPublishedTS:        %s\n", formatLocalStampMicros(seconds, micros).c_str());
    o.field("lastCommitLSN", lastCommit, "  lastCommitLSN:            %s\n");
  } else {
    o.text("  ** No restart information provided **\n");
  }
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qAdminQMsg (type 64)
//
// Version 1:
//   0        8            58              192     194     196    198              456   458
//   +--------+------------+---------------+-------+-------+------+----------------+-----+-------..
//   | header | sendq (50) | subname (134) | taken | toTake|msgNum| msgTokens (258)| len | serviceText
//   +--------+------------+---------------+-------+-------+------+----------------+-----+-------..
// Other versions: 60 sub_id (swapped from version 2); 192 taken and 194 toTake as above; the
// words at 196 and 456 are swapped but not printed.
//
// actionTaken and actionToTake are 16-bit words whose first byte, once in machine order, is the
// action code.

constexpr ValueName kActionsTaken[] = {
    {0, "RPLKX_DONE_NOTHING"},
    {1, "RPLKX_DONE_ROW_IGNORED"},
    {2, "RPLKX_DONE_SUB_INVALIDATED"},
};
constexpr ValueName kActionsToTake[] = {
    {0, "RPLKX_TODO_NOTHING"},
    {1, "RPLKX_TODO_INVALIDATE_SUB"},
    {2, "RPLKX_TODO_INVALIDATE_QUEUE"},
    {3, "RPLKX_TODO_REQUEST_LOADDONE"},
    {4, "RPLKX_TODO_ACTIVATE_SUB"},
    {5, "RPLKX_TODO_INVALIDATE_P2P_SUB"},
};

template <class O>
int32_t printAdminQMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 355);
  const char* step = "qAdminQMsg::printMe";
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  c.fix16(192, "qAdminQMsg.actionTaken");
  c.fix16(194, "qAdminQMsg.actionToTake");
  c.fix16(196, "qAdminQMsg.msgNum");
  uint16_t serviceLen = c.fix16(456, "qAdminQMsg.serviceText length");
  uint8_t taken = c.u8(192, "qAdminQMsg.actionTaken");
  uint8_t toTake = c.u8(194, "qAdminQMsg.actionToTake");
  if (!c) return rplTrace_.ret(c.rc());

  if (version != 1) {
    uint32_t subId = version >= 2 ? c.fix32(60, "qAdminQMsg.sub_id") : c.machine<uint32_t>(60, "qAdminQMsg.sub_id");
    if (!c) return rplTrace_.ret(c.rc());
    o.field("sub_id", static_cast<int32_t>(subId), "  qAdminQMsg.sub_id: %d\n");
    o.field("actionTaken", nameOf(kActionsTaken, taken, "Not defined"), "  qAdminQMsg.actionTaken: %s\n");
    o.field("actionToTake", nameOf(kActionsToTake, toTake, "Not defined"), "  qAdminQMsg.actionToTake: %s\n");
    return rplTrace_.ret(0);
  }

  int16_t textLen = static_cast<int16_t>(serviceLen);
  int16_t msgNum = c.machine<int16_t>(196, "qAdminQMsg.msgNum");
  ConvText sendq, subname, tokens, service;
  nameAt(m, c, 58, 134, subname, "qAdminQMsg.subname", step, "subname");
  nameAt(m, c, 8, 50, sendq, "qAdminQMsg.sendq", step, "sendq");
  nameAt(m, c, 198, 258, tokens, "qAdminQMsg.msgTokens", step, "msgTokens");
  if (textLen > 0) {
    const uint8_t* p = c.bytes(458, static_cast<size_t>(textLen), "qAdminQMsg.serviceText");
    if (c) c.take(convertText(m, p, static_cast<size_t>(textLen), service, step, "ConvMgr::cpcvc", "serviceText"));
  }
  if (!c) return rplTrace_.ret(c.rc());

  o.field("sendq", sendq, "  qAdminQMsg.sendq:    %.*s\n");
  o.field("subname", subname, "  qAdminQMsg.subname:  %.*s\n");
  o.field("actionTaken", nameOf(kActionsTaken, taken, "Not defined"), "  qAdminQMsg.actionTaken: %s\n");
  o.field("actionToTake", nameOf(kActionsToTake, toTake, "Not defined"), "  qAdminQMsg.actionToTake: %s\n");
  o.field("msgNum", msgNum, "  qAdminQMsg.msgNum: %d\n");
  o.field("msgTokens", tokens, "  qAdminQMsg.msgTokens: %.*s\n");
  // A service text of no characters (or a negative count) prints empty.
  o.field("serviceText", service, "  qAdminQMsg.serviceText: %.*s\n");
  return rplTrace_.ret(0);
}

#define RPL_QUEUE_CONTROL_PRINTERS(O)                     \
  template int32_t printHeartbeatMsg(QMsg&, O&);          \
  template int32_t printRequestSyncOnQueueMsg(QMsg&, O&); \
  template int32_t printSyncResponseMsg(QMsg&, O&);       \
  template int32_t printSequenceTimeResetMsg(QMsg&, O&);  \
  template int32_t printFuncLevelMsg(QMsg&, O&);          \
  template int32_t printAdminQMsg(QMsg&, O&);
RPL_FOR_EACH_SINK(RPL_QUEUE_CONTROL_PRINTERS)
