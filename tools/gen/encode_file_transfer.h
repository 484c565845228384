// Encoders of the file-transfer messages: payload (type 131), acknowledgement (type 132) and
// heartbeat (type 133). Every integer is written in the sender's byte order.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/gen/encode.h"
#include "tools/gen/encode_restart.h"

// One chunk of a file. Below version 12 the file name follows the 96-byte fixed part and the
// data the name; from version 12 the fixed part is 112 bytes and the chunk names the places of
// the name and the data.
struct XfChunkFields {
  int64_t chunkSize = -1;  // -1 writes the chunk's own length; a larger size pads the chunk
  uint32_t subId = 7;
  std::array<uint8_t, 24> controlMsgId{};
  LogPosition crtLRLsn = sampleLogPosition(0x20);
  std::vector<uint8_t> uow = {0x00, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0};  // up to 12
  uint64_t totalFileSize = 0;   // 0 writes the data length
  uint64_t fileByteOffset = 0;
  std::string fileName = "/var/kx/load/orders.del";
  std::vector<uint8_t> data;
  uint32_t xfSendRequestTmSeq = 1;
  uint32_t xfSendRequestOrder = 1;
};

// Payload: the chunks back to back below version 12, through an offset table from version 12.
MsgWriter encodeXfPayloadMsg(const std::vector<XfChunkFields>& chunks, uint16_t version = 12,
                             ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);

// One response of an acknowledgement: its code and the chunk it answers.
struct XfResponseFields {
  int64_t size = -1;  // -1 writes the response's own length
  uint32_t code = 0;
  XfChunkFields fileInfo;
};
MsgWriter encodeXfAdminMsg(const std::vector<XfResponseFields>& responses, uint16_t version = 12,
                           ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);

struct XfHeartBeatFields {
  uint16_t version = 12;
  std::array<uint8_t, 24> maxCoordMsgId{};
  LogPosition maxCrtLRLsn = sampleLogPosition(0x30);
  uint32_t xfSendRequestTmSeq = 3;
  uint32_t maxXfSendRequestOrder = 5;
};
MsgWriter encodeXfHeartBeatMsg(const XfHeartBeatFields& f, ByteOrder order = ByteOrder::Little,
                               int32_t ccsid = 1208);

// A 24-byte message id counting up from `seed`.
std::array<uint8_t, 24> sampleXfMsgId(uint8_t seed);

// A realistic payload for the demo: the first two chunks of a small delimited load file.
MsgWriter sampleXfPayloadMsg(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
