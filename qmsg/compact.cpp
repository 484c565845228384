// The compact-message decoder: banner, dispatch by message type, and the schema cache.
#include "qmsg/compact.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "qmsg/families.h"
#include "qmsg/header.h"
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
int32_t printRows(QMsg& m, size_t at, int64_t count, uint16_t version, const char* step) {
  for (int64_t i = 0; i < count; ++i) {
    uint32_t len = 0;
    int32_t rc = m.r.machine(at, len, "qTransRow.length");
    if (rc == 0 && (len < 4 || !m.r.has(at, len))) {
      reportFailuref(step, "rplqcmsg::processRowMsg", kRcShortRead,
                     "Row %" PRId64 " at offset %zu has length %u, which does not fit the %zu-byte message",
                     i + 1, at, len, m.r.size());
      rc = kRcShortRead;
    }
    if (rc == 0) rc = printTransRow(m, at, version);
    if (rc != 0) {
      reportFailure(step, "rplqcmsg::processRowMsg", rc, "Cannot print row");
      return rc;
    }
    at += (static_cast<size_t>(len) + 3) & ~size_t{3};
  }
  return 0;
}

int32_t decodeSchema(Decode& d) {
  int32_t rc = printSubSchemaMsg(d.m);
  if (rc != 0) {
    reportFailure("rplqcmsg:processSchemaMsg", "qSubSchemaMsg::printMe", rc,
                  "Cannot print subscription schema message");
    return rc;
  }
  return cacheSchema(d.m.r.data(), d.m.r.size(), d.m.swap());
}

int32_t decodeTrans(Decode& d) {
  int32_t rc = printTransMsgHeader(d.m, d.noPosTime);
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
  return printRows(d.m, first, rows, version, "rplqcmsg:processTransMsg");
}

int32_t decodeStreamedTrans(Decode& d) {
  int32_t rc = printStreamedTransMsgHeader(d.m, d.noPosTime);
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
      rc = printRows(d.m, 160, static_cast<int64_t>(single) + chunks, version, "rplqcmsg:processTransMsg");
  }
  if (rc != 0)
    reportFailure("processCompactMsg", "processTransMsg", rc, "cannot print streamed trans message class");
  return rc;
}

int32_t decodeSpilledRow(Decode& d) {
  int32_t rc = qMsgHeader::printMe(d.m);
  if (rc != 0) {
    reportFailure("processCompactMsg", "qMsgHeader::printMe", rc, "cannot print qSpilledRow header");
    return rc;
  }
  uint16_t v = 0;
  rc = d.m.version(v);
  if (rc != 0) return rc;
  size_t at = v == 1 ? 16 : v <= 4 ? 110 : v <= 6 ? 128 : v == 7 ? 136 : v == 8 ? 152 : 168;
  rc = printTransRow(d.m, at, v);
  if (rc != 0)
    reportFailure("processCompactMsg", "qSpilledRow::printMe", rc, "cannot print qSpilledRow struct");
  return rc;
}

int32_t decodeLob(Decode& d) {
  uint32_t subKey = 0;
  uint16_t colNum = 0;
  int32_t rc = d.m.r.u32(8, subKey, "qLobMsg.sub_id");
  if (rc == 0) rc = d.m.r.u16(16, colNum, "qLobMsg.colNum");
  if (rc != 0) return rc;

  const CachedSchema* schema = findSchema(subKey);
  if (schema == nullptr) {
    printLobMsg(d.m, LobColumn{});
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

  rc = printLobMsg(d.m, col);
  if (rc != 0)
    reportFailuref("rplqcmsg:processLOBMsg", "qRowColSet::printMe", rc,
                   "Cannot print LOB message for column %.*s", col.nameLen,
                   reinterpret_cast<const char*>(col.name));
  return rc;
}

int32_t decodeDdl(Decode& d) {
  uint8_t sub = d.m.r.data()[5] & 127;
  switch (sub) {
    case kDdlAlterColumn: return printAlterColumnMsg(d.m);
    case kDdlDropColumn: return printDropColumnMsg(d.m);
    case kDdlGeneric: return printGenericDdlMsg(d.m);
    default:
      std::fprintf(d.m.out, "Unknown DDL msg type: %d received in queue: %s\n", sub, d.queueName);
      qMsgHeader::printMe(d.m);
      return kRcUnknownType;
  }
}

int32_t decodeSendqStart(Decode& d) {
  int32_t rc = qMsgHeader::printMe(d.m);
  if (rc != 0) {
    reportFailure("processCompactMsg", "qSendQStartMsg::printMe", rc, "Cannot print message header");
    reportFailure("processCompactMsg", "qSendQStartMsg::printMe", rc, "cannot print sendq start message class");
  }
  return rc;
}

int32_t decodeRestart(Decode& d) {
  printRestartMsg(d.m);
  return 0;
}

int32_t decodeP2pSubDeactivated(Decode& d) {
  // Printed as stored: the message travels without conversion context.
  QMsg raw(d.m.r.data(), d.m.r.size(), d.m.out, nullptr, nullptr);
  return printP2pSubDeactivatedMsg(raw);
}

// One route per message type. `print` takes the message alone; `decode` the whole context.
// When `text` is set a failure is reported with step "processCompactMsg", `method` and `text`.
struct Route {
  uint8_t type;
  int32_t (*print)(QMsg&);
  int32_t (*decode)(Decode&);
  const char* method;
  const char* text;
};

constexpr Route kRoutes[] = {
    {kTypeSubSchema, nullptr, decodeSchema, nullptr, nullptr},
    {kTypeLoadDone, printLoadDoneMsg, nullptr, nullptr, nullptr},
    {kTypeHeartbeat, printHeartbeatMsg, nullptr, nullptr, nullptr},
    {kTypeSubDeactivated, printSubDeactivatedMsg, nullptr, nullptr, nullptr},
    {kTypeAddColumn, printAddColumnMsg, nullptr, nullptr, nullptr},
    {kTypeDdl, nullptr, decodeDdl, nullptr, nullptr},
    {kTypeSyncRequest, printRequestSyncOnQueueMsg, nullptr, "qRequestSyncOnQueueMsg::printMe", "cannot print qRequestSyncOnQueueMsg class"},
    {kTypeSyncResponse, printSyncResponseMsg, nullptr, "qSyncResponseMsg::printMe", "cannot print qSyncResponseMsg class"},
    {kTypeCreateSub, printCreateSubMsg, nullptr, "qCreateSubMsg::printMe", "cannot print qCreateSubMsg class"},
    {kTypeDropSub, printDropSubMsg, nullptr, "qDropSubMsg::printMe", "cannot print qDropSubMsg class"},
    {kTypeSeqTimeReset, printSequenceTimeResetMsg, nullptr, "qSequenceTimeResetMsg::printMe", "cannot print qSequenceTimeResetMsg"},
    {kTypeAddReplKeyCol, printAddReplKeyColMsg, nullptr, nullptr, nullptr},
    {kTypeFuncLevel, printFuncLevelMsg, nullptr, "qFuncLevelMsg::printMe", "cannot print qFuncLevelMsg class"},
    {kTypeSendqStart, nullptr, decodeSendqStart, nullptr, nullptr},
    {kTypeTruncate, printTruncateTableMsg, nullptr, "qTruncateTableMsg::printMe", "cannot print truncate ddl message class"},
    {kTypeRedefineReplKey, printRedefineReplKeyMsg, nullptr, nullptr, nullptr},
    {kTypeRestart, nullptr, decodeRestart, nullptr, nullptr},
    {kTypeSpillRow, nullptr, decodeSpilledRow, nullptr, nullptr},
    {kTypeAdminQ, printAdminQMsg, nullptr, nullptr, nullptr},
    {kTypeP2pJoinUs, printP2pJoinUsMsg, nullptr, nullptr, nullptr},
    {kTypeP2pSpooling, printP2pSpoolingMsg, nullptr, nullptr, nullptr},
    {kTypeP2pLoadDone, printP2pLoadDoneMsg, nullptr, nullptr, nullptr},
    {kTypeP2pCapStop, printP2pCapStopMsg, nullptr, nullptr, nullptr},
    {kTypeP2pSubStopping, printP2pSubStoppingMsg, nullptr, nullptr, nullptr},
    {kTypeP2pReadyToStop, printP2pReadyToStopMsg, nullptr, nullptr, nullptr},
    {kTypeP2pSubDeactivated, nullptr, decodeP2pSubDeactivated, nullptr, nullptr},
    {kTypeTrans, nullptr, decodeTrans, nullptr, nullptr},
    {kTypeLob, nullptr, decodeLob, nullptr, nullptr},
    {kTypeStreamedTrans, nullptr, decodeStreamedTrans, nullptr, nullptr},
    {kTypeXfPayload, printXfPayloadMsg, nullptr, "xfPayloadMsg::printMe", "cannot print xfPayloadMsg class"},
    {kTypeXfAck, printXfAdminMsg, nullptr, "xfAdminMsg::printMe", "cannot print xfAdminMsg class"},
    {kTypeXfHeartbeat, printXfHeartBeatMsg, nullptr, "xfHeartBeatMsg::printMe", "cannot print xfHeartBeatMsg class"},
};

const Route* routeOf(uint8_t type) {
  for (const Route& r : kRoutes)
    if (r.type == type) return &r;
  return nullptr;
}

}  // namespace

int32_t processCompactMsg(uint8_t* msg, size_t length, const char* queueName, FILE* out,
                          int32_t* msgCounter, encodingInfo* enc, ConvMgr* cm, bool noSizeLine,
                          bool noPosTime, bool headerOnly) {
  RPL_TRACE(kCompPrinters, 2);
  ++*msgCounter;
  std::fprintf(out, "\n\n**** Message number: %d\n", *msgCounter);
  if (!noSizeLine)
    std::fprintf(out, "**** Message size:   %" PRIu64 "\n", static_cast<uint64_t>(length) + kMsgDescriptorSize);
  std::fputc('\n', out);
  if (cm != nullptr) cm->dropExpired();

  QMsg m(msg, length, out, enc, cm);
  uint8_t type = 0;
  int32_t rc = m.r.u8(4, type, "qMsgHeader.msgtype");
  if (rc == 0) rc = m.r.has(0, kHeaderSize) ? 0 : m.r.shortRead(0, kHeaderSize, "qMsgHeader");
  if (rc != 0) return rplTrace_.ret(rc);

  Decode d{m, queueName, noPosTime, headerOnly};
  const Route* route = routeOf(type);
  if (route == nullptr) {
    std::fprintf(out, "Unknown msg types: %d received in queue: %s\n", type, queueName);
    qMsgHeader::printMe(m);
    return rplTrace_.ret(kRcUnknownType);
  }
  rc = route->decode != nullptr ? route->decode(d) : route->print(m);
  if (rc != 0 && route->text != nullptr)
    reportFailure("processCompactMsg", route->method, rc, route->text);
  return rplTrace_.ret(rc);
}

int32_t processSchemaMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{m, "", false, false};
  return decodeSchema(d);
}

int32_t processTransMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm,
                        bool noPosTime, bool headerOnly) {
  QMsg m(msg, length, out, enc, cm);
  Decode d{m, "", noPosTime, headerOnly};
  return decodeTrans(d);
}
