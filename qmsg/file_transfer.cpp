// File-transfer messages: the payload that carries a file in chunks (type 131), the receiver's
// acknowledgements with one response per chunk (type 132) and the sender's heartbeat (type 133).
//
// Heartbeat (xfHeartBeatMsg, type 133), never swapped but for the header version:
//   0        8                    32                   56                   60
//   +--------+--------------------+--------------------+--------------------+-----------------------+
//   | header | maxCoordMsgId (24) | maxCrtLRLsn (24)   | xfSendRequestTmSeq | maxXfSendRequestOrder |
//   +--------+--------------------+--------------------+--------------------+-----------------------+
//
// Payload (xfPayloadMsg, type 131): 8 u32 numChunks (as stored, never swapped), then from 12
// the chunks. Below version 12 they lie back to back, each starting with its own size; from
// version 12 offset 12 holds a table of u32 offsets (as stored), one per chunk, counted from the
// start of the message.
//
// Acknowledgement (xfAdminMsg, type 132): 8 u32 numResponses, the responses found as the
// payload's chunks are; a response is u32 size, u32 code (both as stored), then a chunk.
//
// Chunk (xfChunk), offsets from its start:
//   0 u32 chunkSize   4 u32 subId   8 controlMsgId (24)   32 crtLRLsn (log position record)
//   56 uow_id (12)   68 u16 uow_id_length   72 u64 totalFileSize   80 u64 fileByteOffset
//   88 u16 fileNameLen   90 (2, unused)   92 u32 dataLen
//   from version 12: 96 u32 offset2FileName   100 u32 offset2Data   104 u32 xfSendRequestTmSeq
//   108 u32 xfSendRequestOrder
//   Below version 12 the file name follows at 96 and the data at 96 + fileNameLen; from
//   version 12 they lie at offset2FileName and offset2Data from the chunk's start.
//   totalFileSize and fileByteOffset travel as stored and are printed so.
#include <cinttypes>
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

namespace {

constexpr uint16_t kTableVersion = 12;  // chunks found through an offset table, chunk offsets

constexpr size_t kCount = 8;   // numChunks / numResponses
constexpr size_t kArea = 12;   // first chunk, or the offset table

// Chunk fields.
constexpr size_t kChunkSize = 0;
constexpr size_t kChunkSubId = 4;
constexpr size_t kChunkControlMsgId = 8, kMsgIdSize = 24;
constexpr size_t kChunkLsn = 32;
constexpr size_t kChunkUow = 56;
constexpr size_t kChunkUowLen = 68;
constexpr size_t kChunkTotalSize = 72;
constexpr size_t kChunkByteOffset = 80;
constexpr size_t kChunkNameLen = 88;
constexpr size_t kChunkDataLen = 92;
constexpr size_t kChunkFileNameV11 = 96;
constexpr size_t kChunkOffsetName = 96;
constexpr size_t kChunkOffsetData = 100;
constexpr size_t kChunkTmSeq = 104;
constexpr size_t kChunkOrder = 108;

constexpr size_t kChunkLsnArea = 64;
constexpr size_t kChunkUowArea = 50;


// Swaps the chunk's integers into machine order (when the sender's order differs).
int32_t fixChunk(MsgReader& c, uint16_t version) {
  int32_t rc = c.fix32(kChunkSize, "xfChunk.chunkSize");
  if (rc == 0) rc = c.fix32(kChunkSubId, "xfChunk.subId");
  if (rc == 0) rc = fixLsnRecord(c, kChunkLsn, "xfChunk.crtLRLsn");
  if (rc == 0) rc = c.fix16(kChunkUowLen, "xfChunk.uow_id_length");
  if (rc == 0) rc = c.fix16(kChunkNameLen, "xfChunk.fileNameLen");
  if (rc == 0) rc = c.fix32(kChunkDataLen, "xfChunk.dataLen");
  if (rc == 0 && version >= kTableVersion) {
    rc = c.fix32(kChunkOffsetName, "xfChunk.offset2FileName");
    if (rc == 0) rc = c.fix32(kChunkOffsetData, "xfChunk.offset2Data");
    if (rc == 0) rc = c.fix32(kChunkTmSeq, "xfChunk.xfSendRequestTmSeq");
    if (rc == 0) rc = c.fix32(kChunkOrder, "xfChunk.xfSendRequestOrder");
  }
  return rc;
}

// xfChunk::printMe: the chunk at `at` of the message, in the layout of `version`.
template <class O>
int32_t printChunk(QMsg& m, O& o, size_t at, uint16_t version) {
  RPL_TRACE(kCompPrinters, 173);
  MsgReader c = m.r.from(at);
  int32_t rc = fixChunk(c, version);

  uint32_t chunkSize = 0, subId = 0, dataLen = 0;
  uint32_t offsetName = 0, offsetData = 0, tmSeq = 0, order = 0;
  uint16_t uowLen = 0, nameLen = 0;
  uint64_t totalSize = 0, byteOffset = 0;
  const uint8_t *msgId = nullptr, *uow = nullptr, *name = nullptr, *data = nullptr;
  std::string lsn;
  if (rc == 0) rc = c.machine(kChunkSize, chunkSize, "xfChunk.chunkSize");
  if (rc == 0) rc = c.machine(kChunkSubId, subId, "xfChunk.subId");
  if (rc == 0) rc = c.bytes(kChunkControlMsgId, kMsgIdSize, msgId, "xfChunk.controlMsgId");
  if (rc == 0) rc = formatLsnRecord(c, kChunkLsn, true, lsn, "xfChunk.crtLRLsn");
  if (rc == 0) rc = c.machine(kChunkUowLen, uowLen, "xfChunk.uow_id_length");
  if (rc == 0) rc = c.bytes(kChunkUow, uowLen, uow, "xfChunk.uow_id");
  if (rc == 0) rc = c.machine(kChunkTotalSize, totalSize, "xfChunk.totalFileSize");
  if (rc == 0) rc = c.machine(kChunkByteOffset, byteOffset, "xfChunk.fileByteOffset");
  if (rc == 0) rc = c.machine(kChunkNameLen, nameLen, "xfChunk.fileNameLen");
  if (rc == 0) rc = c.machine(kChunkDataLen, dataLen, "xfChunk.dataLen");
  if (rc == 0 && version >= kTableVersion) {
    rc = c.machine(kChunkOffsetName, offsetName, "xfChunk.offset2FileName");
    if (rc == 0) rc = c.machine(kChunkOffsetData, offsetData, "xfChunk.offset2Data");
    if (rc == 0) rc = c.machine(kChunkTmSeq, tmSeq, "xfChunk.xfSendRequestTmSeq");
    if (rc == 0) rc = c.machine(kChunkOrder, order, "xfChunk.xfSendRequestOrder");
  } else {
    offsetName = kChunkFileNameV11;
    offsetData = kChunkFileNameV11 + nameLen;
  }
  if (rc == 0) rc = c.bytes(offsetName, nameLen, name, "xfChunk.fileName");
  if (rc == 0) rc = c.bytes(offsetData, dataLen, data, "xfChunk.data");
  ConvText fileName;
  if (rc == 0) rc = convertText(m, name, nameLen, fileName, "xChunk::printMe", "ConvMgr::cpcvc", "file name");
  if (rc != 0) return rplTrace_.ret(rc);

  o.field("chunkSize", chunkSize, "    xfChunk.chunkSize:        %u\n");
  o.field("subId", subId, "    xfChunk.subId:            %u\n");
  o.show("controlMsgId", HexBytes{msgId, kMsgIdSize}, "    xfChunk.controlMsgId:     %s\n",
         hexRunText(msgId, kMsgIdSize, false).c_str());
  o.show("crtLRLsn", lsn, "    xfChunk.crtLRLsn:         %s\n",
         lsn.size() + 1 > kChunkLsnArea ? "...buffer full\n" : lsn.c_str());
  o.text("    xfChunk.uow_id_length:    %hu\n", uowLen);
  o.show("uow_id", HexBytes{uow, uowLen}, "    xfChunk.uow_id:           %s\n",
         formatHexPairs(uow, uowLen, kChunkUowArea).c_str());
  o.field("totalFileSize", totalSize, "    xfChunk.totalFileSize:    %" PRIu64 "\n");
  o.field("fileByteOffset", byteOffset, "    xfChunk.fileByteOffset:   %" PRIu64 "\n");
  o.field("fileNameLen", nameLen, "    xfChunk.fileNameLen:      %u\n");
  o.field("dataLen", dataLen, "    xfChunk.dataLen:          %u\n");
  if (version >= kTableVersion) {
    o.field("offset2FileName", offsetName, "    xfChunk.offset2FileName:      %u\n");
    o.field("offset2Data", offsetData, "    xfChunk.offset2Data:      %u\n");
    o.field("xfSendRequestTmSeq", tmSeq, "    xfChunk.xfSendRequestTmSeq:%u\n");
    o.field("xfSendRequestOrder", order, "    xfChunk.xfSendRequestOrder:%u\n");
  }
  o.field("fileName", fileName, "    xfChunk.fileName:         %.*s\n");
  if (dataLen != 0) {
    if constexpr (O::kJson) {
      o.hidden("data", HexBytes{data, dataLen});
    } else {
      o.text("    \n****  Chunk Data  ****\n\n");
      dumpHex(dataLen, data, o.out());
    }
  }
  return rplTrace_.ret(0);
}

// Finds item `i` (from 0) of a payload or acknowledgement: through the offset table from
// version 12, else `next`, the place after the previous item. The table's entries and the
// message-level count travel as stored.
int32_t locate(const QMsg& m, uint16_t version, uint32_t i, size_t next, size_t& at, const char* field) {
  if (version < kTableVersion) {
    at = next;
    return 0;
  }
  uint32_t offset = 0;
  int32_t rc = m.r.machine(kArea + 4 * size_t{i}, offset, field);
  at = offset;
  return rc;
}

// Below version 12 the next item starts `size` bytes on; an item of size 0 would leave the
// walk in place for every count that follows, so it ends the walk.
int32_t stepOver(const QMsg& m, uint16_t version, size_t at, uint32_t size, uint32_t number,
                 const char* step, const char* what, size_t& next) {
  next = at + size;
  if (version >= kTableVersion || size != 0) return 0;
  reportFailuref(step, what, kRcShortRead,
                 "%s %u at offset %zu of the %zu-byte message has size 0: the next one cannot be found",
                 what, number, at, m.r.size());
  return kRcShortRead;
}

}  // namespace

template <class O>
int32_t printXfPayloadMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 170);
  uint16_t version = 0;
  uint32_t numChunks = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = m.r.machine(kCount, numChunks, "xfPayloadMsg.numChunks");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("numChunks", numChunks, "  xfPayloadMsg.numChunks:          %u\n");

  size_t next = kArea;
  o.beginList("chunks");
  for (uint32_t i = 0; i < numChunks; ++i) {
    size_t at = 0;
    rc = locate(m, version, i, next, at, "xfPayloadMsg.chunkOffset");
    if (rc == 0) {
      o.text("\n***  Chunk %u  ***\n\n", i + 1);
      o.beginItem();
      rc = printChunk(m, o, at, version);
      if (rc == 0) o.endItem();
    }
    uint32_t size = 0;
    if (rc == 0) rc = m.r.machine(at + kChunkSize, size, "xfChunk.chunkSize");
    if (rc == 0 && i + 1 < numChunks)
      rc = stepOver(m, version, at, size, i + 1, "xfPayloadMsg::printMe", "xfChunk", next);
    if (rc != 0) {
      reportFailure("xfPayloadMsg::printMe", "xChunk::printMe", rc, "Cannot print xfChunk");
      return rplTrace_.ret(rc);
    }
  }
  o.endList();
  return rplTrace_.ret(0);
}

template <class O>
int32_t printXfAdminMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 171);
  constexpr size_t kResponseSize = 0, kResponseCode = 4, kResponseChunk = 8;
  uint16_t version = 0;
  uint32_t numResponses = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = m.r.machine(kCount, numResponses, "xfAdminMsg.numResponses");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("numResponses", numResponses, "  xfAdminMsg.numResponses:          %u\n");

  size_t next = kArea;
  o.beginList("responses");
  for (uint32_t i = 0; i < numResponses; ++i) {
    size_t at = 0;
    uint32_t size = 0, code = 0;
    rc = locate(m, version, i, next, at, "xfAdminMsg.responseOffset");
    if (rc == 0) rc = m.r.machine(at + kResponseSize, size, "xfAdminResponse.size");
    if (rc == 0) rc = m.r.machine(at + kResponseCode, code, "xfAdminResponse.code");
    if (rc != 0) return rplTrace_.ret(rc);
    o.text("\n***  Response %u  ***\n\n", i + 1);
    o.beginItem();
    o.field("size", size, "    xfAdminResponse.size:             %u\n");
    o.field("code", code, "    xfAdminResponse.code:             %u\n");
    o.text("    xfAdminResponse - fileInfo    \n");
    o.beginGroup("fileInfo");
    rc = printChunk(m, o, at + kResponseChunk, version);
    if (rc == 0) {
      o.endGroup();
      o.endItem();
    }
    if (rc == 0 && i + 1 < numResponses)
      rc = stepOver(m, version, at, size, i + 1, "xfAdminMsg::printMe", "xfAdminResponse", next);
    if (rc != 0) return rplTrace_.ret(rc);
  }
  o.endList();
  return rplTrace_.ret(0);
}

template <class O>
int32_t printXfHeartBeatMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 172);
  constexpr size_t kMaxCoordMsgId = 8, kMaxLsn = 32, kTmSeq = 56, kMaxOrder = 60;
  const uint8_t* msgId = nullptr;
  std::string lsn;
  uint32_t tmSeq = 0, maxOrder = 0;
  // Nothing of the body is swapped: the fields are printed as they travel.
  int32_t rc = m.r.bytes(kMaxCoordMsgId, kMsgIdSize, msgId, "xfHeartBeatMsg.maxCoordMsgId");
  if (rc == 0) rc = formatLsnRecord(m.r, kMaxLsn, true, lsn, "xfHeartBeatMsg.maxCrtLRLsn");
  if (rc == 0) rc = m.r.machine(kTmSeq, tmSeq, "xfHeartBeatMsg.xfSendRequestTmSeq");
  if (rc == 0) rc = m.r.machine(kMaxOrder, maxOrder, "xfHeartBeatMsg.maxXfSendRequestOrder");
  if (rc != 0) return rplTrace_.ret(rc);

  o.show("maxCoordMsgId", HexBytes{msgId, kMsgIdSize}, "xfHeartBeatMsg.maxCoordMsgId:          %s\n",
         hexRunText(msgId, kMsgIdSize, true).c_str());
  o.field("maxCrtLRLsn", lsn, "xfHeartBeatMsg.maxCrtLRLsn:            %s\n");
  o.field("xfSendRequestTmSeq", tmSeq, "xfHeartBeatMsg.xfSendRequestTmSeq:     %u\n");
  o.field("maxXfSendRequestOrder", maxOrder, "xfHeartBeatMsg.maxXfSendRequestOrder:  %u\n");
  return rplTrace_.ret(0);
}

#define RPL_FILE_TRANSFER_PRINTERS(O)            \
  template int32_t printXfPayloadMsg(QMsg&, O&); \
  template int32_t printXfAdminMsg(QMsg&, O&);   \
  template int32_t printXfHeartBeatMsg(QMsg&, O&);
RPL_FOR_EACH_SINK(RPL_FILE_TRANSFER_PRINTERS)
