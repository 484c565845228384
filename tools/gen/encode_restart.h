// Encoder of the restart message (type 32) and of the log position record that the control
// messages share.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/gen/encode.h"

// Log position record, 24 bytes: u8 flags (bit 0: a node number is present), 3 reserved bytes,
// u16 node at 4, u16 count of significant bytes at 6, up to 16 value bytes from 8.
struct LogPosition {
  uint8_t flags = 0;
  uint16_t node = 0;
  std::vector<uint8_t> value;  // at most 16 bytes; the count written is its size
};
void writeLogPosition(MsgWriter& w, size_t at, const LogPosition& p);
// A 16-byte position counting up from `seed`, for samples.
LogPosition sampleLogPosition(uint8_t seed, uint16_t node = 0);

// One send queue's restart state.
struct RestartSendqEntry {
  uint32_t activationTime = 1763720100;  // seconds since 1970-01-01 UTC
  std::array<uint8_t, 16> nextMsgSeq{};
  std::string name = "KXRP.TO.APPLY.SENDQ";
  LogPosition lastCommitLsn;
  uint32_t lastCommitSeconds = 1763720400;
  uint32_t lastCommitMicros = 0;
  std::vector<LogPosition> restartPoints;
};

struct RestartMsgFields {
  uint16_t version = 1;
  int32_t size = -1;  // qRestartMsgSize; -1 writes the message's own length
  std::string capServer = "SRCDB";
  std::string capSchema = "KXCAP";
  LogPosition lastCommitLsn;
  uint32_t lastCommitSeconds = 1763720400;
  uint32_t lastCommitMicros = 0;
  LogPosition reuseLsn;
  std::string reuseTime = "2025-11-21-10.19.58.000000";  // text, the first 20 bytes are kept
  std::string behindQueue;  // empty: the message belongs to the main log reader
  std::vector<LogPosition> partitions;
  std::vector<RestartSendqEntry> sendqs;
};

// The restart message in the current layout. The tool reads it in its own byte order whatever
// the sender's, so `order` only shows what a sender of that order would put on the queue.
MsgWriter encodeRestartMsg(const RestartMsgFields& f, ByteOrder order = ByteOrder::Little,
                           int32_t ccsid = 1208);

// A realistic restart message of the main log reader: two partitions and two send queues.
MsgWriter sampleRestartMsg(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
