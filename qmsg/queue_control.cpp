// Queue control messages: heartbeat (type 3), synchronisation request (7) and response (8),
// sequence-time reset (11), function level (13) and administration queue (64). The send-queue
// start message (16) is its header alone, printed by the dispatch.
//
// Each printer prints the compact header lines, swaps its integers in place when the sender's
// byte order differs, converts its queue names (a failure ends the message before any line of
// its own), then prints.
#include <cstdio>
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/names.h"
#include "runtime/trace.h"

namespace {




void put(FILE* out, const char* format, const ConvText& t) { std::fprintf(out, format, t.size(), t.data()); }

// A log position record swapped into machine order and formatted.
int32_t fixAndFormatLsn(QMsg& m, size_t at, std::string& out, const char* field) {
  int32_t rc = fixLsnRecord(m.r, at, field);
  if (rc == 0) rc = formatLsnRecord(m.r, at, true, out, field);
  return rc;
}

// Seconds and microseconds swapped into machine order.
int32_t fixTime(QMsg& m, size_t at, uint32_t& seconds, uint32_t& micros, const char* field) {
  int32_t rc = m.r.fix32(at, seconds, field);
  if (rc == 0) rc = m.r.fix32(at + 4, micros, field);
  return rc;
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

int32_t printHeartbeatMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 350);
  const char* step = "qHeartBeatMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint16_t version = 0;
  uint32_t seconds = 0, micros = 0, hbInterval = 0, cmtInterval = 0;
  std::string lsn;
  ConvText sendq;
  rc = m.version(version);
  if (rc == 0) rc = fixTime(m, 60, seconds, micros, "qHeartBeatMsg.last_logtime");
  if (rc == 0 && version >= 8) {
    rc = m.r.fix32(68, hbInterval, "qHeartBeatMsg.hb_interval_millisec");
    if (rc == 0) rc = fixAndFormatLsn(m, 72, lsn, "qHeartBeatMsg.last_log_cmtlsn");
    if (rc == 0) rc = m.r.fix32(96, cmtInterval, "qHeartBeatMsg.kxcmt_interval_millisec");
  }
  if (rc == 0) rc = readNameInRoom(m, 8, 52, sendq, "qHeartBeatMsg.sendq", step, "sendq");
  if (rc != 0) return rplTrace_.ret(rc);

  put(m.out, "  heartbeat.sendq:       %.*s\n", sendq);
  std::fprintf(m.out, "  heartbeat.last_logtime: %s\n",
               formatUtc(seconds, static_cast<int32_t>(micros)).c_str());
  if (version >= 8) {
    std::fprintf(m.out, "  heartbeat.last_log_cmtlsn: %s\n", lsn.c_str());
    std::fprintf(m.out, "  heartbeat.hb_interval_millisec: %d\n", static_cast<int32_t>(hbInterval));
    std::fprintf(m.out, "  heartbeat.kxcmt_interval_millisec: %d\n", static_cast<int32_t>(cmtInterval));
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

int32_t printRequestSyncOnQueueMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 351);
  const char* step = "qRequestSyncOnQueueMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint8_t reason = 0;
  uint32_t seconds = 0, micros = 0;
  std::string lsn;
  ConvText sendQueue;
  rc = m.r.u8(58, reason, "qRequestSyncOnQueueMsg.reason");
  if (rc == 0) rc = fixTime(m, 60, seconds, micros, "qRequestSyncOnQueueMsg.lastTxPublishedTS");
  if (rc == 0) rc = fixAndFormatLsn(m, 72, lsn, "qRequestSyncOnQueueMsg.lastCommitSEQ");
  if (rc == 0) rc = readNameInRoom(m, 8, 50, sendQueue, "qRequestSyncOnQueueMsg.sendQueue", step, "sendQ");
  if (rc != 0) return rplTrace_.ret(rc);

  std::fprintf(m.out, "%s\n", nameOf(kSyncRequestReasons, reason, ""));
  put(m.out, "  sendQueue:         %.*s\n", sendQueue);
  std::fprintf(m.out, "  lastTxPublishedTS: %s\n", formatLocalStampMicros(seconds, micros).c_str());
  std::fprintf(m.out, "  lastCommitSEQ:     %s\n", lsn.c_str());
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSyncResponseMsg (type 8)
//
//   0        8                58
//   +--------+----------------+--------------+
//   | header | sendQueue (50) | responseCode |   0: the synchronisation succeeded
//   +--------+----------------+--------------+

int32_t printSyncResponseMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 352);
  const char* step = "qSyncResponseMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint8_t response = 0;
  ConvText sendQueue;
  rc = m.r.u8(58, response, "qSyncResponseMsg.responseCode");
  if (rc == 0) rc = readNameInRoom(m, 8, 50, sendQueue, "qSyncResponseMsg.sendQueue", step, "sendQ");
  if (rc != 0) return rplTrace_.ret(rc);

  std::fputc('\n', m.out);
  put(m.out, "  sendQueue:         %.*s\n", sendQueue);
  if (response == 0)
    std::fprintf(m.out, "  responseCode:      %d (sync was successful)\n", response);
  else
    std::fprintf(m.out, "  responseCode:      %d (sync was not successful)\n", response);
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSequenceTimeResetMsg (type 11)
//
//   0        8       9        10       11  12
//   +--------+-------+--------+--------+---+---------------+
//   | header | flags | cur q  | max q  |   | sequence time |   flags bit 1: a sequence time starts
//   +--------+-------+--------+--------+---+---------------+

int32_t printSequenceTimeResetMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 353);
  int32_t rc = qMsgHeader::printFor(m, "qSequenceTimeResetMsg::printMe");
  if (rc != 0) return rplTrace_.ret(rc);
  uint8_t flags = 0, current = 0, maximum = 0;
  uint32_t seconds = 0;
  rc = m.r.u8(8, flags, "qSequenceTimeResetMsg.flags");
  if (rc == 0) rc = m.r.u8(9, current, "qSequenceTimeResetMsg.current parallel q index");
  if (rc == 0) rc = m.r.u8(10, maximum, "qSequenceTimeResetMsg.maximum parallel q index");
  if (rc == 0) rc = m.r.fix32(12, seconds, "qSequenceTimeResetMsg.sequence time");
  if (rc != 0) return rplTrace_.ret(rc);

  bool starting = (flags & 2) != 0;
  std::fprintf(m.out, "  sequence reset flag:         %s\n",
               starting ? "SEQUENCE_TIME_STARTING" : "SEQUENCE_TIME_ENDING");
  std::fprintf(m.out, "  current parallel q index:    %d\n", current);
  std::fprintf(m.out, "  maximum parallel q index:    %d\n", maximum);
  std::fprintf(m.out, "  %s sequence time:           %-11d(%s)\n", starting ? "new" : "old",
               static_cast<int32_t>(seconds), formatLocalStamp(seconds).c_str());
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

int32_t printFuncLevelMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 354);
  const char* step = "qFuncLevelMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint8_t reason = 0, flags = 0;
  uint32_t seconds = 0, micros = 0;
  uint16_t level[4] = {};
  std::string lastCommit, restart;
  rc = m.r.u8(238, reason, "qFuncLevelMsg.reason");
  if (rc == 0) rc = m.r.u8(239, flags, "qFuncLevelMsg.flags");
  if (rc == 0) rc = fixTime(m, 240, seconds, micros, "qFuncLevelMsg.lastTxPublishedTS");
  for (size_t i = 0; i < 4 && rc == 0; ++i)
    rc = m.r.fix16(248 + 2 * i, level[i], i < 2 ? "qFuncLevelMsg.current level" : "qFuncLevelMsg.queue level");
  if (rc == 0) rc = fixAndFormatLsn(m, 256, lastCommit, "qFuncLevelMsg.lastCommitLSN");
  if (rc == 0) rc = fixAndFormatLsn(m, 280, restart, "qFuncLevelMsg.restartLSN");
  ConvText sendQueue, recvQueue, qmap;
  if (rc == 0) rc = readNameInRoom(m, 8, 50, sendQueue, "qFuncLevelMsg.sendQueue", step, "sendQ");
  if (rc == 0) rc = readNameInRoom(m, 58, 50, recvQueue, "qFuncLevelMsg.recvQueue", step, "recvQ");
  if (rc == 0) rc = readNameInRoom(m, 108, 130, qmap, "qFuncLevelMsg.qmap", step, "qmap");
  if (rc != 0) return rplTrace_.ret(rc);

  FILE* out = m.out;
  std::fprintf(out, "\n  REASON:                   %s\n", nameOf(kFuncLevelReasons, reason, ""));
  put(out, "  sendQueue:                %.*s\n", sendQueue);
  put(out, "  recvQueue:                %.*s\n", recvQueue);
  put(out, "  qmap:                     %.*s\n", qmap);
  std::fprintf(out, "  %s current level:\t    %04hd.%04hd\n", nameOf(kFuncLevelCurrentLabels, reason, "Unknown"),
               static_cast<int16_t>(level[0]), static_cast<int16_t>(level[1]));
  std::fprintf(out, "  %s queue level:\t    %04hd.%04hd\n", nameOf(kFuncLevelQueueLabels, reason, "Unknown"),
               static_cast<int16_t>(level[2]), static_cast<int16_t>(level[3]));
  if (flags & 1) {
    std::fprintf(out, "  restartLSN:               %s\n", restart.c_str());
    std::fprintf(out, "  lastTxPublishedTS:        %s\n", formatLocalStampMicros(seconds, micros).c_str());
    std::fprintf(out, "  lastCommitLSN:            %s\n", lastCommit.c_str());
  } else {
    std::fputs("  ** No restart information provided **\n", out);
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

int32_t printAdminQMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 355);
  const char* step = "qAdminQMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint16_t version = 0, serviceLen = 0;
  uint8_t taken = 0, toTake = 0;
  rc = m.version(version);
  if (rc == 0) rc = m.r.fix16(192, "qAdminQMsg.actionTaken");
  if (rc == 0) rc = m.r.fix16(194, "qAdminQMsg.actionToTake");
  if (rc == 0) rc = m.r.fix16(196, "qAdminQMsg.msgNum");
  if (rc == 0) rc = m.r.fix16(456, serviceLen, "qAdminQMsg.serviceText length");
  if (rc == 0) rc = m.r.u8(192, taken, "qAdminQMsg.actionTaken");
  if (rc == 0) rc = m.r.u8(194, toTake, "qAdminQMsg.actionToTake");
  if (rc != 0) return rplTrace_.ret(rc);

  if (version != 1) {
    uint32_t subId = 0;
    rc = version >= 2 ? m.r.fix32(60, subId, "qAdminQMsg.sub_id") : m.r.machine(60, subId, "qAdminQMsg.sub_id");
    if (rc != 0) return rplTrace_.ret(rc);
    std::fprintf(m.out, "  qAdminQMsg.sub_id: %d\n", static_cast<int32_t>(subId));
    std::fprintf(m.out, "  qAdminQMsg.actionTaken: %s\n", nameOf(kActionsTaken, taken, "Not defined"));
    std::fprintf(m.out, "  qAdminQMsg.actionToTake: %s\n", nameOf(kActionsToTake, toTake, "Not defined"));
    return rplTrace_.ret(0);
  }

  int16_t msgNum = 0;
  int16_t textLen = static_cast<int16_t>(serviceLen);
  ConvText sendq, subname, tokens, service;
  rc = m.r.machine(196, msgNum, "qAdminQMsg.msgNum");
  if (rc == 0) rc = readNameInRoom(m, 58, 134, subname, "qAdminQMsg.subname", step, "subname");
  if (rc == 0) rc = readNameInRoom(m, 8, 50, sendq, "qAdminQMsg.sendq", step, "sendq");
  if (rc == 0) rc = readNameInRoom(m, 198, 258, tokens, "qAdminQMsg.msgTokens", step, "msgTokens");
  if (rc == 0 && textLen > 0) {
    const uint8_t* p = nullptr;
    rc = m.r.bytes(458, static_cast<size_t>(textLen), p, "qAdminQMsg.serviceText");
    if (rc == 0) rc = convertText(m, p, static_cast<size_t>(textLen), service, step, "ConvMgr::cpcvc", "serviceText");
  }
  if (rc != 0) return rplTrace_.ret(rc);

  FILE* out = m.out;
  put(out, "  qAdminQMsg.sendq:    %.*s\n", sendq);
  put(out, "  qAdminQMsg.subname:  %.*s\n", subname);
  std::fprintf(out, "  qAdminQMsg.actionTaken: %s\n", nameOf(kActionsTaken, taken, "Not defined"));
  std::fprintf(out, "  qAdminQMsg.actionToTake: %s\n", nameOf(kActionsToTake, toTake, "Not defined"));
  std::fprintf(out, "  qAdminQMsg.msgNum: %d\n", msgNum);
  put(out, "  qAdminQMsg.msgTokens: %.*s\n", tokens);
  // A service text of no characters (or a negative count) prints empty.
  put(out, "  qAdminQMsg.serviceText: %.*s\n", service);
  return rplTrace_.ret(0);
}
