// The compact-message decoder: banner, dispatch by message type, and the schema cache.
#include "qmsg/compact.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/json.h"
#include "qmsg/row.h"
#include "qmsg/schema.h"
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

// One message being decoded and how the run prints.
struct Decode : DecodeRun {
  QMsg& m;
};

// Walks `count` rows from `at`: each row begins with its u32 length (machine order once the
// header printer has swapped the message) and the next starts at that length rounded up to 4.
template <class O>
int32_t printRows(QMsg& m, O& o, size_t at, int64_t count, uint16_t version, const char* step) {
  o.beginList("rows");
  for (int64_t i = 0; i < count; ++i) {
    Cursor c(m.r);
    const uint32_t len = c.machine<uint32_t>(at, "qTransRow.length");
    if (c && (len < 4 || !m.r.has(at, len))) {
      reportFailuref(step, "rplqcmsg::processRowMsg", kRcShortRead,
                     "Row %" PRId64 " at offset %zu has length %u, which does not fit the %zu-byte message",
                     i + 1, at, len, m.r.size());
      c.take(kRcShortRead);
    }
    if (c) {
      o.beginItem();
      if (c.take(printTransRow(m, o, at, version))) o.endItem();
    }
    if (!c) {
      reportFailure(step, "rplqcmsg::processRowMsg", c.rc(), "Cannot print row");
      return c.rc();
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
  Cursor c(d.m.r);
  uint16_t version = 0;
  c.take(d.m.version(version));
  const int32_t rows = c.machine<int32_t>(28, "qTransMsgHeader.nRows");
  if (!c) return c.rc();
  const size_t first = version < 2 ? 32 : version <= 5 ? 116 : version == 6 ? 144 : 152;
  return printRows(d.m, o, first, rows, version, "rplqcmsg:processTransMsg");
}

template <class O>
int32_t decodeStreamedTrans(Decode& d, O& o) {
  Cursor c(d.m.r);
  if (!c.take(printStreamedTransMsgHeader(d.m, o, d.noPosTime))) {
    reportFailure("rplqcmsg:processTransMsg", "qStreamedTransMsgHeader::printMe", c.rc(),
                  "Cannot print transaction message header information");
  } else if (!d.headerOnly) {
    uint16_t version = 0;
    c.take(d.m.version(version));
    const uint32_t single = c.machine<uint32_t>(144, "qStreamedTransMsgHeader.numSingleRowOps");
    const uint32_t chunks = c.machine<uint32_t>(148, "qStreamedTransMsgHeader.numStmtChunkFiles");
    if (c) c.take(printRows(d.m, o, 160, static_cast<int64_t>(single) + chunks, version, "rplqcmsg:processTransMsg"));
  }
  if (!c)
    reportFailure("processCompactMsg", "processTransMsg", c.rc(), "cannot print streamed trans message class");
  return c.rc();
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
  const size_t at = spilledRowOffset(v);
  o.beginGroup("row");
  rc = printTransRow(d.m, o, at, v);
  if (rc == 0) o.endGroup();
  if (rc != 0)
    reportFailure("processCompactMsg", "qSpilledRow::printMe", rc, "cannot print qSpilledRow struct");
  return rc;
}

// The LOB message's column comes from the cached schema of its subscription.
template <class O>
int32_t decodeLob(Decode& d, O& o) {
  Cursor c(d.m.r);
  const uint32_t subKey = c.u32(8, "qLobMsg.sub_id");
  const uint16_t colNum = c.u16(16, "qLobMsg.colNum");
  if (!c) return c.rc();

  const CachedSchema* schema = findSchema(subKey);
  if (schema == nullptr) {
    printLobMsg(d.m, o, LobColumn{});
    return 0;
  }
  const size_t array = schemaColumnArrayOffset(schema->version);
  if (array == 0) return kRcBadSchemaVersion;

  MsgReader s(const_cast<uint8_t*>(schema->msg), schema->length, schema->senderSwapped);
  Cursor sc(s);
  LobColumn col;
  const uint16_t desc = sc.machine<uint16_t>(array + 2 * size_t{colNum}, "qSubSchemaMsg column offset of the LOB column");
  col.type = sc.machine<uint16_t>(desc, "qColSchema.colType of the LOB column");
  col.codePage = static_cast<int32_t>(sc.machine<uint32_t>(desc + 8, "qColSchema.codepage of the LOB column"));
  col.nameLen = sc.u16(desc + 12, "qColSchema.colName length of the LOB column");
  col.name = sc.bytes(desc + 14, col.nameLen, "qColSchema.colName of the LOB column");
  if (!sc) return sc.rc();

  const int32_t rc = printLobMsg(d.m, o, col);
  if (rc != 0)
    reportFailuref("rplqcmsg:processLOBMsg", "qRowColSet::printMe", rc,
                   "Cannot print LOB message for column %.*s", col.nameLen,
                   reinterpret_cast<const char*>(col.name));
  return rc;
}

template <class O>
int32_t decodeDdl(Decode& d, O& o) {
  const uint8_t sub = d.m.r.data()[5] & 127;
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

// The restart message prints no header lines and a failure ends its lines without failing the
// run; every other rendering names the message and keeps the failure.
template <class O>
int32_t decodeRestart(Decode& d, O& o) {
  if constexpr (std::is_same_v<O, TextSink>) {
    printRestartMsg(d.m, o);
    return 0;
  } else {
    int32_t rc = printHeaderLines(d.m, o, false);
    if (rc == 0) rc = printRestartMsg(d.m, o);
    return rc;
  }
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

// One row per message type: its code and name, the printer's step (the header's failure
// report), how it is read and prologued, the failure report of the dispatch (when `failText`
// is set: step "processCompactMsg", `method` and `failText`), and its body.
//
// The table is a template over the sink: kTypeRows<O> holds the body printers instantiated
// for the sink O, so a new rendering (a sink with the members of TextSink) needs no new column:
// it is added to RPL_FOR_EACH_SINK (qmsg/sink.h), which instantiates every family's printers
// and decodeCompact for it.
template <class O>
struct TypeRow {
  uint8_t type;
  const char* name;
  const char* step;
  Order order;
  Prologue prologue;
  const char* method;
  const char* failText;
  Body<O> body;
};

#define RPL_BODY(print) sinkBody<O, print<O>>
template <class O>
constexpr TypeRow<O> kTypeRows[] = {
    {1, "RPLKX_SUBSCHEMA_MSG", "qSubSchemaMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSchema<O>},
    {2, "RPLKX_LOADDONE_RCVD", "qLoaddoneRcvdMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printLoadDoneMsg)},
    {3, "RPLKX_HEARTBEAT", "qHeartBeatMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printHeartbeatMsg)},
    {4, "RPLKX_SUBDEACTIVATED", "qSubDeactivatedMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printSubDeactivatedMsg)},
    {5, "RPLKX_ADDCOLUMN_MSG", "qAddColumnMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_BODY(printAddColumnMsg)},
    {kTypeDdl, "RPLKX_DDL_MSG", "qDdlMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeDdl<O>},
    {7, "RPLKX_SYNCREQUEST_MSG", "qRequestSyncOnQueueMsg::printMe", Order::Sender, Prologue::Header, "qRequestSyncOnQueueMsg::printMe", "cannot print qRequestSyncOnQueueMsg class", RPL_BODY(printRequestSyncOnQueueMsg)},
    {8, "RPLKX_SYNCRESPONSE_MSG", "qSyncResponseMsg::printMe", Order::Sender, Prologue::Header, "qSyncResponseMsg::printMe", "cannot print qSyncResponseMsg class", RPL_BODY(printSyncResponseMsg)},
    {9, "RPLKX_CREATESUB_MSG", "qCreateSubMsg::printMe", Order::Sender, Prologue::Header, "qCreateSubMsg::printMe", "cannot print qCreateSubMsg class", RPL_BODY(printCreateSubMsg)},
    {10, "RPLKX_DROPSUB_MSG", "qDropSubMsg::printMe", Order::Sender, Prologue::Header, "qDropSubMsg::printMe", "cannot print qDropSubMsg class", RPL_BODY(printDropSubMsg)},
    {11, "RPLKX_SEQTIME_RESET_MSG", "qSequenceTimeResetMsg::printMe", Order::Sender, Prologue::Header, "qSequenceTimeResetMsg::printMe", "cannot print qSequenceTimeResetMsg", RPL_BODY(printSequenceTimeResetMsg)},
    {12, "RPLKX_ADD_REPL_KEY_COL_MSG", "qAddReplKeyColumnMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_BODY(printAddReplKeyColMsg)},
    {13, "RPLKX_FUNCLEVEL_MSG", "qFuncLevelMsg::printMe", Order::Sender, Prologue::Header, "qFuncLevelMsg::printMe", "cannot print qFuncLevelMsg class", RPL_BODY(printFuncLevelMsg)},
    {16, "RPLKX_SENDQ_START", "qSendQStartMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSendqStart<O>},
    {17, "RPLKX_DDL_TRUNCATE_MSG", "qTruncateTableMsg::printMe", Order::Sender, Prologue::Body, "qTruncateTableMsg::printMe", "cannot print truncate ddl message class", RPL_BODY(printTruncateTableMsg)},
    {18, "RPLKX_REDEFINE_REPL_KEY_MSG", "qRedefineReplKeyMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, RPL_BODY(printRedefineReplKeyMsg)},
    {32, "RPLKX_RESTART", "qRestartMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeRestart<O>},
    {kTypeSpillRow, "RPLKX_SPILLROW", "qSpilledRow::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeSpilledRow<O>},
    {64, "RPLKX_ADMINQ_MSG", "qAdminQMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printAdminQMsg)},
    {80, "RPLKX_P2P_JOINUS_MSG", "p2pJoinUsMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pJoinUsMsg)},
    {81, "RPLKX_P2P_SPOOLING_MSG", "p2pSpoolingMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pSpoolingMsg)},
    {82, "RPLKX_P2P_LOADDONE_MSG", "p2pLoadDoneMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pLoadDoneMsg)},
    {83, "RPLKX_P2P_CAPSTOP_MSG", "p2pCapStopMsg::printMe", Order::Stored, Prologue::Body, nullptr, nullptr, RPL_BODY(printP2pCapStopMsg)},
    {84, "RPLKX_P2P_SUBSTOPPING_MSG", "p2pSubStoppingMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pSubStoppingMsg)},
    {85, "RPLKX_P2P_READYTOSTOP_MSG", "p2pReadyToStopMsg::printMe", Order::Sender, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pReadyToStopMsg)},
    {86, "RPLKX_P2P_SUBDEACTIVATED_MSG", "p2pSubDeactivatedMsg::printMe", Order::Stored, Prologue::Header, nullptr, nullptr, RPL_BODY(printP2pSubDeactivatedMsg)},
    {128, "RPLKX_TRANS_MSG", "qTransMsgHeader::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeTrans<O>},
    {129, "RPLKX_LOB_MSG", "qLobMsg::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeLob<O>},
    {130, "RPLKX_STREAMED_TRANS_MSG", "qStreamedTransMsgHeader::printMe", Order::Sender, Prologue::Body, nullptr, nullptr, decodeStreamedTrans<O>},
    {131, "RPLKX_XF_MSG", "xfPayloadMsg::printMe", Order::Sender, Prologue::Header, "xfPayloadMsg::printMe", "cannot print xfPayloadMsg class", RPL_BODY(printXfPayloadMsg)},
    {132, "RPLKX_XF_ACK_MSG", "xfAdminMsg::printMe", Order::Sender, Prologue::Header, "xfAdminMsg::printMe", "cannot print xfAdminMsg class", RPL_BODY(printXfAdminMsg)},
    {133, "RPLKX_XF_HEARTBEAT_MSG", "xfHeartBeatMsg::printMe", Order::Sender, Prologue::Header, "xfHeartBeatMsg::printMe", "cannot print xfHeartBeatMsg class", RPL_BODY(printXfHeartBeatMsg)},
};
#undef RPL_BODY

template <class O>
const TypeRow<O>* rowOf(uint8_t type) {
  for (const TypeRow<O>& r : kTypeRows<O>)
    if (r.type == type) return &r;
  return nullptr;
}

// Version, header and body of one message by its row, and the dispatch's failure report.
template <class O>
int32_t dispatch(const TypeRow<O>& row, Decode& d, O& o) {
  QMsg stored(d.m.r.data(), d.m.r.size(), d.m.out, nullptr, nullptr);
  Decode asStored{{d}, stored};
  Decode& use = row.order == Order::Stored ? asStored : d;
  int32_t rc = 0;
  if (row.prologue == Prologue::Header) rc = printHeader(use.m, o, row.step);
  if (rc == 0) rc = row.body(use, o);
  if (rc != 0 && row.failText != nullptr) reportFailure("processCompactMsg", row.method, rc, row.failText);
  return rc;
}

}  // namespace

template <class O>
int32_t decodeCompact(QMsg& m, O& o, const DecodeRun& run) {
  Cursor c(m.r);
  const uint8_t type = c.u8(4, "qMsgHeader.msgtype");
  if (c && !m.r.has(0, kHeaderSize)) c.take(m.r.shortRead(0, kHeaderSize, "qMsgHeader"));
  if (!c) return c.rc();
  Decode d{{run}, m};
  const TypeRow<O>* row = rowOf<O>(type);
  if (row != nullptr) return dispatch(*row, d, o);
  o.text("Unknown msg types: %d received in queue: %s\n", type, run.queueName);
  const int32_t rc = printHeaderLines(m, o, true);
  // The text goes on to the next message whatever its header did; other renderings keep the
  // header's failure.
  return rc != 0 && !std::is_same_v<O, TextSink> ? rc : kRcUnknownType;
}

#define RPL_DECODER(O) template int32_t decodeCompact(QMsg&, O&, const DecodeRun&);
RPL_FOR_EACH_SINK(RPL_DECODER)
#undef RPL_DECODER

const char* compactTypeName(uint8_t type) {
  const TypeRow<TextSink>* row = rowOf<TextSink>(type);
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
  TextSink o(out);
  return rplTrace_.ret(decodeCompact(m, o, DecodeRun{queueName, noPosTime, headerOnly}));
}

int32_t renderCompactJsonMembers(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm,
                                 JsonOut& out) {
  RPL_TRACE(kCompPrinters, 3);
  // Text fields go to UTF-8 whatever the run's output code page.
  encodingInfo utf8 = enc;
  utf8.outCcsid = kCcsidUtf8;
  cm.dropExpired();
  QMsg m(msg, length, nullptr, &utf8, &cm);
  JsonSink o(out);
  const size_t depth = out.depth();
  out.num("format", kJsonFormatVersion);
  out.unum("length", length);
  lastReadFailure() = ReadFailure{};
  const int32_t rc = decodeCompact(m, o, DecodeRun{"", false, false});
  if (rc != 0) {
    while (out.depth() > depth) {
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
      if (f.start >= base && f.start - base <= length) {
        out.unum("offset", f.at - base);
        out.str("text", f.at - base >= length ? "the field runs past the end of the message"
                                              : "the field cannot be read");
      } else {
        // A field of the subscription schema cached from an earlier message: it has no offset
        // in this one.
        out.str("text", "the field of the cached subscription schema cannot be read");
      }
    } else {
      out.str("text", "the message cannot be rendered");
    }
    out.endObject();
  }
  return rplTrace_.ret(rc);
}

int32_t renderCompactJson(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm, JsonOut& out) {
  out.beginObject();
  const int32_t rc = renderCompactJsonMembers(msg, length, enc, cm, out);
  out.endObject();
  out.endLine();
  return rc;
}

int32_t processSchemaMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{{"", false, false}, m};
  TextSink o(out);
  return decodeSchema(d, o);
}

int32_t learnSchemaMsg(uint8_t* msg, size_t length, encodingInfo* enc, ConvMgr* cm, SchemaNamesSink& names) {
  QMsg m(msg, length, nullptr, enc, cm);
  Decode d{{"", false, false}, m};
  return decodeSchema(d, names);
}

int32_t processTransMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm,
                        bool noPosTime, bool headerOnly) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{{"", noPosTime, headerOnly}, m};
  TextSink o(out);
  return decodeTrans(d, o);
}
