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
// One chunk: its integers are swapped and read first (their order decides at which field a
// short chunk is reported), then its byte runs.
template <class O>
int32_t printChunk(QMsg& m, O& o, size_t at, uint16_t version) {
  RPL_TRACE(kCompPrinters, 173);
  MsgReader r = m.r.from(at);
  Cursor c(r);
  const uint32_t chunkSize = c.fix32(kChunkSize, "xfChunk.chunkSize");
  const uint32_t subId = c.fix32(kChunkSubId, "xfChunk.subId");
  if (c) c.take(fixLsnRecord(r, kChunkLsn, "xfChunk.crtLRLsn"));
  const uint16_t uowLen = c.fix16(kChunkUowLen, "xfChunk.uow_id_length");
  const uint16_t nameLen = c.fix16(kChunkNameLen, "xfChunk.fileNameLen");
  const uint32_t dataLen = c.fix32(kChunkDataLen, "xfChunk.dataLen");
  uint32_t offsetName = kChunkFileNameV11, offsetData = kChunkFileNameV11 + nameLen, tmSeq = 0, order = 0;
  if (version >= kTableVersion) {
    offsetName = c.fix32(kChunkOffsetName, "xfChunk.offset2FileName");
    offsetData = c.fix32(kChunkOffsetData, "xfChunk.offset2Data");
    tmSeq = c.fix32(kChunkTmSeq, "xfChunk.xfSendRequestTmSeq");
    order = c.fix32(kChunkOrder, "xfChunk.xfSendRequestOrder");
  }
  const uint8_t* msgId = c.bytes(kChunkControlMsgId, kMsgIdSize, "xfChunk.controlMsgId");
  std::string lsn;
  if (c) c.take(formatLsnRecord(r, kChunkLsn, true, lsn, "xfChunk.crtLRLsn"));
  const uint8_t* uow = c.bytes(kChunkUow, uowLen, "xfChunk.uow_id");
  // The sizes travel in the sender's order and are printed as they stand.
  const uint64_t totalSize = c.machine<uint64_t>(kChunkTotalSize, "xfChunk.totalFileSize");
  const uint64_t byteOffset = c.machine<uint64_t>(kChunkByteOffset, "xfChunk.fileByteOffset");
  const uint8_t* name = c.bytes(offsetName, nameLen, "xfChunk.fileName");
  const uint8_t* data = c.bytes(offsetData, dataLen, "xfChunk.data");
  ConvText fileName;
  if (c) c.take(convertText(m, name, nameLen, fileName, "xChunk::printMe", "ConvMgr::cpcvc", "file name"));
  if (!c) return rplTrace_.ret(c.rc());

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
// Where entry i lies: after the one before (`next`) below version 12, else from the offset table.
size_t locate(Cursor& c, uint16_t version, uint32_t i, size_t next, const char* field) {
  return version < kTableVersion ? next : c.machine<uint32_t>(kArea + 4 * size_t{i}, field);
}

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
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const uint32_t numChunks = c.machine<uint32_t>(kCount, "xfPayloadMsg.numChunks");
  if (!c) return rplTrace_.ret(c.rc());
  o.field("numChunks", numChunks, "  xfPayloadMsg.numChunks:          %u\n");

  size_t next = kArea;
  o.beginList("chunks");
  for (uint32_t i = 0; i < numChunks; ++i) {
    const size_t at = locate(c, version, i, next, "xfPayloadMsg.chunkOffset");
    if (c) {
      o.text("\n***  Chunk %u  ***\n\n", i + 1);
      o.beginItem();
      if (c.take(printChunk(m, o, at, version))) o.endItem();
    }
    const uint32_t size = c.machine<uint32_t>(at + kChunkSize, "xfChunk.chunkSize");
    if (c && i + 1 < numChunks) c.take(stepOver(m, version, at, size, i + 1, "xfPayloadMsg::printMe", "xfChunk", next));
    if (!c) {
      reportFailure("xfPayloadMsg::printMe", "xChunk::printMe", c.rc(), "Cannot print xfChunk");
      return rplTrace_.ret(c.rc());
    }
  }
  o.endList();
  return rplTrace_.ret(0);
}

template <class O>
int32_t printXfAdminMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 171);
  constexpr size_t kResponseSize = 0, kResponseCode = 4, kResponseChunk = 8;
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const uint32_t numResponses = c.machine<uint32_t>(kCount, "xfAdminMsg.numResponses");
  if (!c) return rplTrace_.ret(c.rc());
  o.field("numResponses", numResponses, "  xfAdminMsg.numResponses:          %u\n");

  size_t next = kArea;
  o.beginList("responses");
  for (uint32_t i = 0; i < numResponses; ++i) {
    const size_t at = locate(c, version, i, next, "xfAdminMsg.responseOffset");
    const uint32_t size = c.machine<uint32_t>(at + kResponseSize, "xfAdminResponse.size");
    const uint32_t code = c.machine<uint32_t>(at + kResponseCode, "xfAdminResponse.code");
    if (!c) return rplTrace_.ret(c.rc());
    o.text("\n***  Response %u  ***\n\n", i + 1);
    o.beginItem();
    o.field("size", size, "    xfAdminResponse.size:             %u\n");
    o.field("code", code, "    xfAdminResponse.code:             %u\n");
    o.text("    xfAdminResponse - fileInfo    \n");
    o.beginGroup("fileInfo");
    if (c.take(printChunk(m, o, at + kResponseChunk, version))) {
      o.endGroup();
      o.endItem();
    }
    if (c && i + 1 < numResponses)
      c.take(stepOver(m, version, at, size, i + 1, "xfAdminMsg::printMe", "xfAdminResponse", next));
    if (!c) return rplTrace_.ret(c.rc());
  }
  o.endList();
  return rplTrace_.ret(0);
}

template <class O>
int32_t printXfHeartBeatMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 172);
  constexpr size_t kMaxCoordMsgId = 8, kMaxLsn = 32, kTmSeq = 56, kMaxOrder = 60;
  // Nothing of the body is swapped: the fields are printed as they travel.
  Cursor c(m.r);
  const uint8_t* msgId = c.bytes(kMaxCoordMsgId, kMsgIdSize, "xfHeartBeatMsg.maxCoordMsgId");
  std::string lsn;
  if (c) c.take(formatLsnRecord(m.r, kMaxLsn, true, lsn, "xfHeartBeatMsg.maxCrtLRLsn"));
  const uint32_t tmSeq = c.machine<uint32_t>(kTmSeq, "xfHeartBeatMsg.xfSendRequestTmSeq");
  const uint32_t maxOrder = c.machine<uint32_t>(kMaxOrder, "xfHeartBeatMsg.maxXfSendRequestOrder");
  if (!c) return rplTrace_.ret(c.rc());

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
