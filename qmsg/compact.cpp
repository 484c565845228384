// The compact-message decoder: banner, dispatch by message type, and the schema cache.
#include "qmsg/compact.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/json.h"
#include "qmsg/sink.h"
#include "runtime/catalog.h"
#include "runtime/trace.h"

// ---------------------------------------------------------------------------------------------
// Schema cache: a singly linked list, head first, one node per subscription key.

namespace {

struct SchemaNode {
  CachedSchema schema;
  uint32_t key;
  SchemaNode* next;
};

SchemaNode* g_schemaHead = nullptr;
uint64_t g_schemaSerial = 0;

constexpr size_t kSchemaSubKeyOffset = 156;

}  // namespace

size_t schemaColumnArrayOffset(uint16_t version) {
  switch (version) {
    case 1: return 512;
    case 2: case 3: return 516;
    case 4: case 6: case 7: return 550;
    case 8: return 554;
    case 9: case 10: return 558;
    case 11: case 12: case 13: case 14: case 15: case 16: return 562;
    default:
      reportFailuref("../include/rplqmsg:2140", "schemaColumnArrayOffset", kRcBadSchemaVersion,
                     "unrecognized version number (schema message version %u)", version);
      return 0;
  }
}

int32_t cacheSchema(const uint8_t* msg, size_t length, bool senderSwapped) {
  uint32_t key = 0;
  if (length < kSchemaSubKeyOffset + 4) {
    reportShortRead(4, "qSubSchemaMsg.sub_id (offset 156) of the schema message to cache");
    return kRcShortRead;
  }
  std::memcpy(&key, msg + kSchemaSubKeyOffset, 4);
  uint16_t version = 0;
  std::memcpy(&version, msg + 6, 2);

  uint8_t* copy = static_cast<uint8_t*>(std::malloc(length));
  if (copy == nullptr) {
    reportFailure("rplqcmsg:processSchemaMsg", "malloc", -1, "Cannot keep a copy of the subscription schema message");
    return -1;
  }
  std::memcpy(copy, msg, length);
  CachedSchema fresh{copy, length, senderSwapped, version, ++g_schemaSerial};

  SchemaNode** link = &g_schemaHead;
  for (SchemaNode* n = g_schemaHead; n != nullptr; n = n->next) {
    if (n->key == key) {
      std::free(const_cast<uint8_t*>(n->schema.msg));
      n->schema = fresh;
      return 0;
    }
    link = &n->next;
  }
  SchemaNode* node = static_cast<SchemaNode*>(std::malloc(sizeof(SchemaNode)));
  if (node == nullptr) {
    std::free(copy);
    reportFailure("rplqcmsg:processSchemaMsg", "malloc", -1, "Cannot keep a copy of the subscription schema message");
    return -1;
  }
  *node = SchemaNode{fresh, key, nullptr};
  *link = node;
  return 0;
}

const CachedSchema* findSchema(uint32_t subKey) {
  for (SchemaNode* n = g_schemaHead; n != nullptr; n = n->next)
    if (n->key == subKey) return &n->schema;
  return nullptr;
}

void releaseSchemaCache() {
  while (g_schemaHead != nullptr) {
    SchemaNode* n = g_schemaHead;
    g_schemaHead = n->next;
    std::free(const_cast<uint8_t*>(n->schema.msg));
    std::free(n);
  }
}

size_t schemaCacheSize() {
  size_t count = 0;
  for (SchemaNode* n = g_schemaHead; n != nullptr; n = n->next) ++count;
  return count;
}

uint32_t schemaCacheKeyAt(size_t index) {
  SchemaNode* n = g_schemaHead;
  while (n != nullptr && index-- > 0) n = n->next;
  return n != nullptr ? n->key : 0;
}

// ---------------------------------------------------------------------------------------------
// Printing by type.

namespace {

struct Decode {
  QMsg& m;
  const char* queueName;
  bool noPosTime;
  bool headerOnly;
};

// Walks `count` rows from `at`: each row begins with its u32 length (machine order once the
// header printer has swapped the message) and the next starts at that length rounded up to 4.
template <class O>
int32_t printRows(QMsg& m, O& o, size_t at, int64_t count, uint16_t version, const char* step) {
  o.beginList("rows");
  for (int64_t i = 0; i < count; ++i) {
    uint32_t len = 0;
    int32_t rc = m.r.machine(at, len, "qTransRow.length");
    if (rc == 0 && (len < 4 || !m.r.has(at, len))) {
      reportFailuref(step, "rplqcmsg::processRowMsg", kRcShortRead,
                     "Row %" PRId64 " at offset %zu has length %u, which does not fit the %zu-byte message",
                     i + 1, at, len, m.r.size());
      rc = kRcShortRead;
    }
    if (rc == 0) {
      o.beginItem();
      rc = printTransRow(m, o, at, version);
      if (rc == 0) o.endItem();
    }
    if (rc != 0) {
      reportFailure(step, "rplqcmsg::processRowMsg", rc, "Cannot print row");
      return rc;
    }
    at += (static_cast<size_t>(len) + 3) & ~size_t{3};
  }
  o.endList();
  return 0;
}

// The schema message: printed, then kept in the schema cache (in machine order) for the rows
// and LOB messages that follow.
template <class O>
int32_t decodeSchema(Decode& d, O& o) {
  int32_t rc = printSubSchemaMsg(d.m, o);
  if (rc != 0) {
    reportFailure("rplqcmsg:processSchemaMsg", "qSubSchemaMsg::printMe", rc,
                  "Cannot print subscription schema message");
    return rc;
  }
  return cacheSchema(d.m.r.data(), d.m.r.size(), d.m.swap());
}

template <class O>
int32_t decodeTrans(Decode& d, O& o) {
  int32_t rc = printTransMsgHeader(d.m, o, d.noPosTime);
  if (rc != 0) {
    reportFailure("rplqcmsg:processTransMsg", "qTransMsgHeader::printMe", rc,
                  "Cannot print transaction message header information");
    return rc;
  }
  if (d.headerOnly) return 0;
  uint16_t version = 0;
  int32_t rows = 0;
  rc = d.m.version(version);
  if (rc == 0) rc = d.m.r.machine(28, rows, "qTransMsgHeader.nRows");
  if (rc != 0) return rc;
  size_t first = version < 2 ? 32 : version <= 5 ? 116 : version == 6 ? 144 : 152;
  return printRows(d.m, o, first, rows, version, "rplqcmsg:processTransMsg");
}

template <class O>
int32_t decodeStreamedTrans(Decode& d, O& o) {
  int32_t rc = printStreamedTransMsgHeader(d.m, o, d.noPosTime);
  if (rc != 0) {
    reportFailure("rplqcmsg:processTransMsg", "qStreamedTransMsgHeader::printMe", rc,
                  "Cannot print transaction message header information");
  } else if (!d.headerOnly) {
    uint16_t version = 0;
    uint32_t single = 0, chunks = 0;
    rc = d.m.version(version);
    if (rc == 0) rc = d.m.r.machine(144, single, "qStreamedTransMsgHeader.numSingleRowOps");
    if (rc == 0) rc = d.m.r.machine(148, chunks, "qStreamedTransMsgHeader.numStmtChunkFiles");
    if (rc == 0)
      rc = printRows(d.m, o, 160, static_cast<int64_t>(single) + chunks, version, "rplqcmsg:processTransMsg");
  }
  if (rc != 0)
    reportFailure("processCompactMsg", "processTransMsg", rc, "cannot print streamed trans message class");
  return rc;
}

template <class O>
int32_t decodeSpilledRow(Decode& d, O& o) {
  int32_t rc = printHeaderLines(d.m, o, true);
  if (rc != 0) {
    reportFailure("processCompactMsg", "qMsgHeader::printMe", rc, "cannot print qSpilledRow header");
    return rc;
  }
  uint16_t v = 0;
  rc = d.m.version(v);
  if (rc != 0) return rc;
  size_t at = v == 1 ? 16 : v <= 4 ? 110 : v <= 6 ? 128 : v == 7 ? 136 : v == 8 ? 152 : 168;
  o.beginGroup("row");
  rc = printTransRow(d.m, o, at, v);
  if (rc == 0) o.endGroup();
  if (rc != 0)
    reportFailure("processCompactMsg", "qSpilledRow::printMe", rc, "cannot print qSpilledRow struct");
  return rc;
}

template <class O>
int32_t decodeLob(Decode& d, O& o) {
  uint32_t subKey = 0;
  uint16_t colNum = 0;
  int32_t rc = d.m.r.u32(8, subKey, "qLobMsg.sub_id");
  if (rc == 0) rc = d.m.r.u16(16, colNum, "qLobMsg.colNum");
  if (rc != 0) return rc;

  const CachedSchema* schema = findSchema(subKey);
  if (schema == nullptr) {
    printLobMsg(d.m, o, LobColumn{});
    return 0;
  }
  size_t array = schemaColumnArrayOffset(schema->version);
  if (array == 0) return kRcBadSchemaVersion;

  MsgReader s(const_cast<uint8_t*>(schema->msg), schema->length, schema->senderSwapped);
  LobColumn col;
  uint16_t descOffset = 0;
  uint32_t codePage = 0;
  rc = s.machine(array + 2 * size_t{colNum}, descOffset, "qSubSchemaMsg column offset of the LOB column");
  if (rc == 0) rc = s.machine(descOffset, col.type, "qColSchema.colType of the LOB column");
  if (rc == 0) rc = s.machine(descOffset + 8, codePage, "qColSchema.codepage of the LOB column");
  if (rc == 0) rc = s.u16(descOffset + 12, col.nameLen, "qColSchema.colName length of the LOB column");
  if (rc == 0) rc = s.bytes(descOffset + 14, col.nameLen, col.name, "qColSchema.colName of the LOB column");
  if (rc != 0) return rc;
  col.codePage = static_cast<int32_t>(codePage);

  rc = printLobMsg(d.m, o, col);
  if (rc != 0)
    reportFailuref("rplqcmsg:processLOBMsg", "qRowColSet::printMe", rc,
                   "Cannot print LOB message for column %.*s", col.nameLen,
                   reinterpret_cast<const char*>(col.name));
  return rc;
}

template <class O>
int32_t decodeDdl(Decode& d, O& o) {
  uint8_t sub = d.m.r.data()[5] & 127;
  switch (sub) {
    case kDdlAlterColumn: return printAlterColumnMsg(d.m, o);
    case kDdlDropColumn: return printDropColumnMsg(d.m, o);
    case kDdlGeneric: return printGenericDdlMsg(d.m, o);
    default:
      o.text("Unknown DDL msg type: %d received in queue: %s\n", sub, d.queueName);
      printHeaderLines(d.m, o, true);
      return kRcUnknownType;
  }
}
// The send-queue start message is its header alone.
template <class O>
int32_t decodeSendqStart(Decode& d, O& o) {
  int32_t rc = printHeaderLines(d.m, o, true);
  if (rc != 0) {
    reportFailure("processCompactMsg", "qSendQStartMsg::printMe", rc, "Cannot print message header");
    reportFailure("processCompactMsg", "qSendQStartMsg::printMe", rc, "cannot print sendq start message class");
  }
  return rc;
}

// The restart message prints no header lines; a failure ends its lines without failing the
// run. The JSON object still names the message and keeps the failure.
int32_t decodeRestart(Decode& d, TextSink& o) {
  printRestartMsg(d.m, o);
  return 0;
}

int32_t decodeRestart(Decode& d, JsonSink& o) {
  int32_t rc = printHeaderLines(d.m, o, false);
  if (rc == 0) rc = printRestartMsg(d.m, o);
  return rc;
}

// How the dispatcher treats a type before its body printer runs.
enum class Prologue : uint8_t {
  Body,     // the body printer prints everything, the header included (or no header at all)
  Header,   // the dispatcher prints the header lines with the row's step, then the body
};

// How the message's bytes are read.
enum class Order : uint8_t {
  Sender,   // in the sender's byte order, text converted from the sender's code page
  Stored,   // as stored, without conversion: the message travels without conversion context
};

template <class O>
using Body = int32_t (*)(Decode&, O&);

// A printer that writes through the field sink.
template <class O, int32_t (*Print)(QMsg&, O&)>
int32_t sinkBody(Decode& d, O& o) {
  return Print(d.m, o);
}
#define RPL_SINK_BODIES(print) sinkBody<TextSink, print<TextSink>>, sinkBody<JsonSink, print<JsonSink>>

// One row per message type: its code and name, the printer's step (the header's failure
// report), how it is read and prologued, the failure report of the dispatch (when `failText`
// is set: step "processCompactMsg", `method` and `failText`), and its body for each rendering
// (no JSON body: the JSON object holds the header and says that the body has no rendering).
struct TypeRow {
  uint8_t type;
  const char* name;
  const char* step;
  Order order;
  Prologue prologue;
  const char* method;
  const char* failText;
  Body<TextSink> text;
  Body<JsonSink> json;
};

constexpr TypeRow kTypeRows[] = {
    {kTypeSubSchema, "RPLKX_SUBSCHEMA_MSG", "qSubSchemaMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSchema<TextSink>, decodeSchema<JsonSink>},
    {kTypeLoadDone, "RPLKX_LOADDONE_RCVD", "qLoaddoneRcvdMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printLoadDoneMsg)},
    {kTypeHeartbeat, "RPLKX_HEARTBEAT", "qHeartBeatMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printHeartbeatMsg)},
    {kTypeSubDeactivated, "RPLKX_SUBDEACTIVATED", "qSubDeactivatedMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printSubDeactivatedMsg)},
    {kTypeAddColumn, "RPLKX_ADDCOLUMN_MSG", "qAddColumnMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_SINK_BODIES(printAddColumnMsg)},
    {kTypeDdl, "RPLKX_DDL_MSG", "qDdlMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeDdl<TextSink>, decodeDdl<JsonSink>},
    {kTypeSyncRequest, "RPLKX_SYNCREQUEST_MSG", "qRequestSyncOnQueueMsg::printMe", Order::Sender, Prologue::Header, "qRequestSyncOnQueueMsg::printMe", "cannot print qRequestSyncOnQueueMsg class", RPL_SINK_BODIES(printRequestSyncOnQueueMsg)},
    {kTypeSyncResponse, "RPLKX_SYNCRESPONSE_MSG", "qSyncResponseMsg::printMe", Order::Sender, Prologue::Header, "qSyncResponseMsg::printMe", "cannot print qSyncResponseMsg class", RPL_SINK_BODIES(printSyncResponseMsg)},
    {kTypeCreateSub, "RPLKX_CREATESUB_MSG", "qCreateSubMsg::printMe", Order::Sender, Prologue::Header, "qCreateSubMsg::printMe", "cannot print qCreateSubMsg class", RPL_SINK_BODIES(printCreateSubMsg)},
    {kTypeDropSub, "RPLKX_DROPSUB_MSG", "qDropSubMsg::printMe", Order::Sender, Prologue::Header, "qDropSubMsg::printMe", "cannot print qDropSubMsg class", RPL_SINK_BODIES(printDropSubMsg)},
    {kTypeSeqTimeReset, "RPLKX_SEQTIME_RESET_MSG", "qSequenceTimeResetMsg::printMe", Order::Sender, Prologue::Header, "qSequenceTimeResetMsg::printMe", "cannot print qSequenceTimeResetMsg", RPL_SINK_BODIES(printSequenceTimeResetMsg)},
    {kTypeAddReplKeyCol, "RPLKX_ADD_REPL_KEY_COL_MSG", "qAddReplKeyColumnMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_SINK_BODIES(printAddReplKeyColMsg)},
    {kTypeFuncLevel, "RPLKX_FUNCLEVEL_MSG", "qFuncLevelMsg::printMe", Order::Sender, Prologue::Header, "qFuncLevelMsg::printMe", "cannot print qFuncLevelMsg class", RPL_SINK_BODIES(printFuncLevelMsg)},
    {kTypeSendqStart, "RPLKX_SENDQ_START", "qSendQStartMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSendqStart<TextSink>, decodeSendqStart<JsonSink>},
    {kTypeTruncate, "RPLKX_DDL_TRUNCATE_MSG", "qTruncateTableMsg::printMe", Order::Sender, Prologue::Body, "qTruncateTableMsg::printMe", "cannot print truncate ddl message class", RPL_SINK_BODIES(printTruncateTableMsg)},
    {kTypeRedefineReplKey, "RPLKX_REDEFINE_REPL_KEY_MSG", "qRedefineReplKeyMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_SINK_BODIES(printRedefineReplKeyMsg)},
    {kTypeRestart, "RPLKX_RESTART", "qRestartMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeRestart, decodeRestart},
    {kTypeSpillRow, "RPLKX_SPILLROW", "qSpilledRow::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSpilledRow<TextSink>, decodeSpilledRow<JsonSink>},
    {kTypeAdminQ, "RPLKX_ADMINQ_MSG", "qAdminQMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printAdminQMsg)},
    {kTypeP2pJoinUs, "RPLKX_P2P_JOINUS_MSG", "p2pJoinUsMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pJoinUsMsg)},
    {kTypeP2pSpooling, "RPLKX_P2P_SPOOLING_MSG", "p2pSpoolingMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pSpoolingMsg)},
    {kTypeP2pLoadDone, "RPLKX_P2P_LOADDONE_MSG", "p2pLoadDoneMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pLoadDoneMsg)},
    {kTypeP2pCapStop, "RPLKX_P2P_CAPSTOP_MSG", "p2pCapStopMsg::printMe", Order::Stored, Prologue::Body, nullptr, nullptr, RPL_SINK_BODIES(printP2pCapStopMsg)},
    {kTypeP2pSubStopping, "RPLKX_P2P_SUBSTOPPING_MSG", "p2pSubStoppingMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pSubStoppingMsg)},
    {kTypeP2pReadyToStop, "RPLKX_P2P_READYTOSTOP_MSG", "p2pReadyToStopMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pReadyToStopMsg)},
    {kTypeP2pSubDeactivated, "RPLKX_P2P_SUBDEACTIVATED_MSG", "p2pSubDeactivatedMsg::printMe", Order::Stored, Prologue::Header, nullptr, nullptr, RPL_SINK_BODIES(printP2pSubDeactivatedMsg)},
    {kTypeTrans, "RPLKX_TRANS_MSG", "qTransMsgHeader::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeTrans<TextSink>, decodeTrans<JsonSink>},
    {kTypeLob, "RPLKX_LOB_MSG", "qLobMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeLob<TextSink>, decodeLob<JsonSink>},
    {kTypeStreamedTrans, "RPLKX_STREAMED_TRANS_MSG", "qStreamedTransMsgHeader::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeStreamedTrans<TextSink>, decodeStreamedTrans<JsonSink>},
    {kTypeXfPayload, "RPLKX_XF_MSG", "xfPayloadMsg::printMe", Order::Sender, Prologue::Header, "xfPayloadMsg::printMe", "cannot print xfPayloadMsg class", RPL_SINK_BODIES(printXfPayloadMsg)},
    {kTypeXfAck, "RPLKX_XF_ACK_MSG", "xfAdminMsg::printMe", Order::Sender, Prologue::Header, "xfAdminMsg::printMe", "cannot print xfAdminMsg class", RPL_SINK_BODIES(printXfAdminMsg)},
    {kTypeXfHeartbeat, "RPLKX_XF_HEARTBEAT_MSG", "xfHeartBeatMsg::printMe", Order::Sender, Prologue::Header, "xfHeartBeatMsg::printMe", "cannot print xfHeartBeatMsg class", RPL_SINK_BODIES(printXfHeartBeatMsg)},
};

const TypeRow* rowOf(uint8_t type) {
  for (const TypeRow& r : kTypeRows)
    if (r.type == type) return &r;
  return nullptr;
}

template <class O>
Body<O> bodyOf(const TypeRow& row) {
  if constexpr (O::kJson) return row.json;
  else return row.text;
}

// Version, header and body of one message by its row, and the dispatch's failure report.
template <class O>
int32_t dispatch(const TypeRow& row, Decode& d, O& o) {
  Body<O> body = bodyOf<O>(row);
  QMsg stored(d.m.r.data(), d.m.r.size(), d.m.out, nullptr, nullptr);
  Decode asStored{stored, d.queueName, d.noPosTime, d.headerOnly};
  Decode& use = row.order == Order::Stored ? asStored : d;
  int32_t rc = 0;
  if (row.prologue == Prologue::Header) rc = printHeader(use.m, o, row.step);
  if (rc == 0) rc = body(use, o);
  if (rc != 0 && row.failText != nullptr) reportFailure("processCompactMsg", row.method, rc, row.failText);
  return rc;
}

}  // namespace

const char* compactTypeName(uint8_t type) {
  const TypeRow* row = rowOf(type);
  return row != nullptr ? row->name : "Unknown";
}

void printBanner(FILE* out, int32_t number, size_t length, bool sizeLine) {
  std::fprintf(out, "\n\n**** Message number: %d\n", number);
  if (sizeLine)
    std::fprintf(out, "**** Message size:   %" PRIu64 "\n", static_cast<uint64_t>(length) + kMsgDescriptorSize);
}

int32_t processCompactMsg(uint8_t* msg, size_t length, const char* queueName, FILE* out,
                          int32_t* msgCounter, encodingInfo* enc, ConvMgr* cm, bool noSizeLine,
                          bool noPosTime, bool headerOnly) {
  RPL_TRACE(kCompPrinters, 2);
  ++*msgCounter;
  printBanner(out, *msgCounter, length, !noSizeLine);
  std::fputc('\n', out);
  if (cm != nullptr) cm->dropExpired();

  QMsg m(msg, length, out, enc, cm);
  uint8_t type = 0;
  int32_t rc = m.r.u8(4, type, "qMsgHeader.msgtype");
  if (rc == 0) rc = m.r.has(0, kHeaderSize) ? 0 : m.r.shortRead(0, kHeaderSize, "qMsgHeader");
  if (rc != 0) return rplTrace_.ret(rc);

  Decode d{m, queueName, noPosTime, headerOnly};
  const TypeRow* row = rowOf(type);
  if (row == nullptr) {
    std::fprintf(out, "Unknown msg types: %d received in queue: %s\n", type, queueName);
    qMsgHeader::printMe(m);
    return rplTrace_.ret(kRcUnknownType);
  }
  TextSink o(out);
  return rplTrace_.ret(dispatch(*row, d, o));
}

int32_t renderCompactJson(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm, JsonOut& out) {
  RPL_TRACE(kCompPrinters, 3);
  // Text fields go to UTF-8 whatever the run's output code page.
  encodingInfo utf8 = enc;
  utf8.outCcsid = kCcsidUtf8;
  cm.dropExpired();
  QMsg m(msg, length, nullptr, &utf8, &cm);
  JsonSink o(out);
  const size_t depth = out.depth();
  out.beginObject();
  out.num("format", kJsonFormatVersion);
  out.unum("length", length);
  lastReadFailure() = ReadFailure{};
  uint8_t type = 0;
  int32_t rc = m.r.u8(4, type, "qMsgHeader.msgtype");
  if (rc == 0) rc = m.r.has(0, kHeaderSize) ? 0 : m.r.shortRead(0, kHeaderSize, "qMsgHeader");
  const TypeRow* row = rc == 0 ? rowOf(type) : nullptr;
  if (rc == 0 && row == nullptr) {
    rc = printHeaderLines(m, o, false);
    if (rc == 0) rc = kRcUnknownType;
  } else if (rc == 0) {
    Decode d{m, "", false, false};
    rc = dispatch(*row, d, o);
  }
  if (rc != 0) {
    while (out.depth() > depth + 1) {
      if (out.inObject()) out.endObject();
      else out.endArray();
    }
    const ReadFailure f = lastReadFailure();
    out.beginObject("error");
    out.num("rc", rc);
    if (rc == kRcUnknownType) {
      out.str("text", "unknown message type");
    } else if (f.field != nullptr) {
      const uintptr_t base = reinterpret_cast<uintptr_t>(msg);
      out.str("field", f.field);
      out.unum("offset", f.at >= base ? f.at - base : 0);
      out.str("text", f.at - base >= length ? "the field runs past the end of the message"
                                            : "the field cannot be read");
    } else {
      out.str("text", "the message cannot be rendered");
    }
    out.endObject();
  }
  out.endObject();
  out.endLine();
  return rplTrace_.ret(rc);
}

int32_t processSchemaMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{m, "", false, false};
  TextSink o(out);
  return decodeSchema<TextSink>(d, o);
}

int32_t processTransMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm,
                        bool noPosTime, bool headerOnly) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{m, "", noPosTime, headerOnly};
  TextSink o(out);
  return decodeTrans<TextSink>(d, o);
}
