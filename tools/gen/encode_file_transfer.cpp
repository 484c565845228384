// Encoders of the file-transfer messages, chunk by chunk.
#include "tools/gen/encode_file_transfer.h"

#include <algorithm>

namespace {

constexpr uint16_t kTableVersion = 12;

size_t chunkFixedSize(uint16_t version) { return version >= kTableVersion ? 112 : 96; }

// Writes one chunk at `at` and returns its length.
size_t writeChunk(MsgWriter& w, size_t at, const XfChunkFields& c, uint16_t version) {
  std::string name = w.encodeText(c.fileName);
  size_t fixed = chunkFixedSize(version);
  size_t length = fixed + name.size() + c.data.size();
  w.resize(at + fixed);
  w.u32(at, static_cast<uint32_t>(c.chunkSize >= 0 ? static_cast<size_t>(c.chunkSize) : length));
  w.u32(at + 4, c.subId);
  w.raw(at + 8, c.controlMsgId.data(), c.controlMsgId.size());
  writeLogPosition(w, at + 32, c.crtLRLsn);
  size_t uowLen = std::min<size_t>(c.uow.size(), 12);
  w.raw(at + 56, c.uow.data(), uowLen);
  w.u16(at + 68, static_cast<uint16_t>(uowLen));
  w.u64(at + 72, c.totalFileSize != 0 ? c.totalFileSize : c.data.size());
  w.u64(at + 80, c.fileByteOffset);
  w.u16(at + 88, static_cast<uint16_t>(name.size()));
  w.u32(at + 92, static_cast<uint32_t>(c.data.size()));
  if (version >= kTableVersion) {
    w.u32(at + 96, static_cast<uint32_t>(fixed));
    w.u32(at + 100, static_cast<uint32_t>(fixed + name.size()));
    w.u32(at + 104, c.xfSendRequestTmSeq);
    w.u32(at + 108, c.xfSendRequestOrder);
  }
  w.raw(at + fixed, name);
  w.raw(at + fixed + name.size(), c.data.data(), c.data.size());
  // A chunk that says it is longer than its contents is padded with zeros to that size.
  if (c.chunkSize > static_cast<int64_t>(length)) {
    length = static_cast<size_t>(c.chunkSize);
    w.resize(at + length);
  }
  return length;
}

// The count at 8, then the items: back to back from 12 below version 12, else after an offset
// table at 12. `write` puts one item at an offset and returns its length.
template <typename Item, typename Write>
MsgWriter encodeItems(uint8_t type, const std::vector<Item>& items, uint16_t version, ByteOrder order,
                      int32_t ccsid, Write write) {
  MsgWriter w(order, ccsid);
  w.header(type, 0, version);
  w.u32(8, static_cast<uint32_t>(items.size()));
  bool table = version >= kTableVersion;
  size_t at = 12 + (table ? 4 * items.size() : 0);
  w.resize(at);
  for (size_t i = 0; i < items.size(); ++i) {
    if (table) w.u32(12 + 4 * i, static_cast<uint32_t>(at));
    at += write(w, at, items[i]);
  }
  return w;
}

}  // namespace

MsgWriter encodeXfPayloadMsg(const std::vector<XfChunkFields>& chunks, uint16_t version, ByteOrder order,
                             int32_t ccsid) {
  return encodeItems(131, chunks, version, order, ccsid, [version](MsgWriter& w, size_t at, const XfChunkFields& c) {
    return writeChunk(w, at, c, version);
  });
}

MsgWriter encodeXfAdminMsg(const std::vector<XfResponseFields>& responses, uint16_t version, ByteOrder order,
                           int32_t ccsid) {
  return encodeItems(132, responses, version, order, ccsid,
                     [version](MsgWriter& w, size_t at, const XfResponseFields& r) {
                       size_t length = 8 + writeChunk(w, at + 8, r.fileInfo, version);
                       w.u32(at, static_cast<uint32_t>(r.size >= 0 ? static_cast<size_t>(r.size) : length));
                       w.u32(at + 4, r.code);
                       return length;
                     });
}

MsgWriter encodeXfHeartBeatMsg(const XfHeartBeatFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(133, 0, f.version);
  w.raw(8, f.maxCoordMsgId.data(), f.maxCoordMsgId.size());
  writeLogPosition(w, 32, f.maxCrtLRLsn);
  w.u32(56, f.xfSendRequestTmSeq);
  w.u32(60, f.maxXfSendRequestOrder);
  return w;
}

std::array<uint8_t, 24> sampleXfMsgId(uint8_t seed) {
  std::array<uint8_t, 24> id{};
  for (size_t i = 0; i < id.size(); ++i) id[i] = static_cast<uint8_t>(seed + 0x11 * i);
  return id;
}

MsgWriter sampleXfPayloadMsg(ByteOrder order, int32_t ccsid) {
  const std::string file =
      "1001,\"2026-11-21\",\"OPEN\",125.50\n"
      "1002,\"2026-11-21\",\"SHIPPED\",89.99\n"
      "1003,\"2026-11-22\",\"OPEN\",12.00\n";
  size_t half = file.size() / 2;
  std::vector<XfChunkFields> chunks(2);
  for (size_t i = 0; i < chunks.size(); ++i) {
    XfChunkFields& c = chunks[i];
    c.subId = 12;
    c.controlMsgId = sampleXfMsgId(static_cast<uint8_t>(0xa0 + i));
    c.crtLRLsn = sampleLogPosition(static_cast<uint8_t>(0x40 + i), 1);
    c.totalFileSize = file.size();
    c.fileByteOffset = i == 0 ? 0 : half;
    c.fileName = "/var/kx/load/ORDERS.del";
    std::string part = i == 0 ? file.substr(0, half) : file.substr(half);
    c.data.assign(part.begin(), part.end());
    c.xfSendRequestTmSeq = 4;
    c.xfSendRequestOrder = static_cast<uint32_t>(i + 1);
  }
  return encodeXfPayloadMsg(chunks, 12, order, ccsid);
}
