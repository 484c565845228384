// Encoders of the queue control messages: heartbeat (3), synchronisation request (7) and
// response (8), sequence-time reset (11), function level (13), send-queue start (16) and
// administration queue (64).
#pragma once

#include <cstdint>
#include <string>

#include "tools/gen/encode.h"
#include "tools/gen/encode_restart.h"

struct HeartbeatFields {
  uint16_t version = 8;  // interval and commit position travel from version 8
  std::string sendq = "KXRP.SALES.TO.WAREHOUSE";
  uint32_t lastLogSeconds = 1763720400;
  uint32_t lastLogMicros = 0;
  int32_t hbIntervalMillisec = 60000;
  LogPosition lastLogCmtLsn;
  int32_t kxcmtIntervalMillisec = 500;
};
MsgWriter encodeHeartbeatMsg(const HeartbeatFields& f, ByteOrder order = ByteOrder::Little,
                             int32_t ccsid = 1208);

struct SyncRequestFields {
  uint16_t version = 1;
  std::string sendQueue = "KXRP.SALES.TO.WAREHOUSE";
  uint8_t reason = 1;  // 1 data applied, 2 is alive
  uint32_t publishedSeconds = 1763720400;
  uint32_t publishedMicros = 0;
  LogPosition lastCommitSeq;
};
MsgWriter encodeSyncRequestMsg(const SyncRequestFields& f, ByteOrder order = ByteOrder::Little,
                               int32_t ccsid = 1208);

struct SyncResponseFields {
  uint16_t version = 1;
  std::string sendQueue = "KXRP.SALES.TO.WAREHOUSE";
  uint8_t responseCode = 0;  // 0: the synchronisation succeeded
};
MsgWriter encodeSyncResponseMsg(const SyncResponseFields& f, ByteOrder order = ByteOrder::Little,
                                int32_t ccsid = 1208);

struct SeqTimeResetFields {
  uint16_t version = 1;
  uint8_t flags = 2;  // bit 1: a sequence time starts
  uint8_t currentIndex = 0;
  uint8_t maximumIndex = 3;
  uint32_t sequenceSeconds = 1763720400;
};
MsgWriter encodeSeqTimeResetMsg(const SeqTimeResetFields& f, ByteOrder order = ByteOrder::Little,
                                int32_t ccsid = 1208);

struct FuncLevelFields {
  uint16_t version = 1;
  std::string sendQueue = "KXRP.SALES.TO.WAREHOUSE";
  std::string recvQueue = "KXRP.SALES.FROM.SALESDB";
  std::string qmap = "SALES_TO_WAREHOUSE";
  uint8_t reason = 1;
  uint8_t flags = 1;  // bit 0: restart information present
  uint32_t publishedSeconds = 1763720400;
  uint32_t publishedMicros = 0;
  int16_t currentMajor = 3, currentMinor = 12;
  int16_t queueMajor = 3, queueMinor = 12;
  LogPosition lastCommitLsn;
  LogPosition restartLsn;
};
MsgWriter encodeFuncLevelMsg(const FuncLevelFields& f, ByteOrder order = ByteOrder::Little,
                             int32_t ccsid = 1208);

// The send-queue start message is its header alone.
MsgWriter encodeSendqStartMsg(uint16_t version = 1, ByteOrder order = ByteOrder::Little,
                              int32_t ccsid = 1208);

struct AdminQFields {
  uint16_t version = 1;  // 1: names and texts; any other: sub_id and the actions only
  std::string sendq = "KXRP.SALES.TO.WAREHOUSE";
  std::string subname = "ORDERS0001";
  int32_t subId = 7;     // written for versions other than 1
  uint8_t actionTaken = 2;
  uint8_t actionToTake = 1;
  int16_t msgNum = 2140;
  std::string msgTokens = "ORDERS0001,SQLCODE -803";
  std::string serviceText = "Row rejected: duplicate key";
};
MsgWriter encodeAdminQMsg(const AdminQFields& f, ByteOrder order = ByteOrder::Little,
                          int32_t ccsid = 1208);

// A realistic heartbeat of an idle send queue (version 8).
MsgWriter sampleHeartbeatMsg(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
