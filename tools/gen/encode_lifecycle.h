// Encoders of the subscription lifecycle messages: load done (2), subscription deactivated (4),
// create (9) and drop (10) subscription, and the peer-to-peer messages (80 to 86).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/gen/encode.h"
#include "tools/gen/encode_restart.h"

// Transaction information block of the load-done message (128 bytes).
struct LoadDoneTransInfo {
  LogPosition commitLsn;
  uint32_t commitSeconds = 1763720400;
  uint32_t commitMicros = 0;
  uint16_t flags = 0;  // bit 0: no transaction context; written as a 16-bit word
  std::vector<uint8_t> uow;  // at most 12 bytes
  std::string authId = "KXADM";
  std::string authTkn = "LOADJOB";
  std::string planId = "KXPLAN";
};

struct LoadDoneFields {
  uint16_t version = 8;  // the transaction information travels from version 8
  int32_t subId = 7;
  LoadDoneTransInfo trans;
};
MsgWriter encodeLoadDoneMsg(const LoadDoneFields& f, ByteOrder order = ByteOrder::Little,
                            int32_t ccsid = 1208);

struct SubDeactivatedFields {
  uint16_t version = 1;
  int32_t subId = 7;
  std::string subname = "ORDERS0001";
  std::string stateinfo = "INACTIVE";  // 8 characters; empty leaves the field zero
};
MsgWriter encodeSubDeactivatedMsg(const SubDeactivatedFields& f, ByteOrder order = ByteOrder::Little,
                                  int32_t ccsid = 1208);

struct CreateSubFields {
  uint16_t version = 1;
  int32_t subId = 7;
  std::string subName = "ORDERS0001";
  std::string srcDbName = "SALESDB";
  std::string srcOwner = "SALES";
  std::string srcName = "ORDERS";
  int16_t targetType = 1;
  char subType = 'U';
  char conflictRule = 'K';
  char conflictAction = 'I';
  char errorAction = 'S';
  std::string spillQ = "KXRP.SPILL.MODELQ";
  std::string okSqlStates = "02000";
  std::string subGroup = "SALESGRP";
  int16_t initiatorNode = 1;
  int16_t sourceNode = 1;
  int16_t targetNode = 2;
  int16_t loadType = 0;
  std::string modelQ = "KXRP.SPILL.MODELQ";
  std::string schemaSubName = "SALES.SUBS";
  uint32_t flags = 0;  // bit 0: created by a CREATE TABLE statement
  char hasLoadPhase = 'I';
};
MsgWriter encodeCreateSubMsg(const CreateSubFields& f, ByteOrder order = ByteOrder::Little,
                             int32_t ccsid = 1208);

struct DropSubFields {
  uint16_t version = 1;
  int32_t subId = 7;
  std::string subName = "ORDERS0001";
  std::string schemaSubName = "SALES.SUBS";
  std::string subGroup = "SALESGRP";
  uint32_t flags = 0;  // bit 0: dropped by a DROP TABLE statement
  int16_t initiatorNode = 1;
  int16_t sourceNode = 1;
  int16_t targetNode = 2;
};
MsgWriter encodeDropSubMsg(const DropSubFields& f, ByteOrder order = ByteOrder::Little,
                           int32_t ccsid = 1208);

struct P2pJoinUsFields {
  uint16_t version = 2;  // sub_id travels from version 2
  std::string subname = "ORDERS0001";
  int16_t sourceNode = 1;
  int16_t targetNode = 3;
  char subType = 'P';
  char loadPhase = 'I';
  uint64_t groupMembers = 0x7;
  int32_t subId = 7;
};
MsgWriter encodeP2pJoinUsMsg(const P2pJoinUsFields& f, ByteOrder order = ByteOrder::Little,
                             int32_t ccsid = 1208);

// Spooling (81), capture stop (83), substopping (84) and ready to stop (85) carry a subname;
// spooling adds the new node, ready to stop the sub_id; load done (82) and subscription
// deactivated (86) carry the sub_id, load done the role.
struct P2pFields {
  uint16_t version = 1;
  std::string subname = "ORDERS0001";
  int16_t newNode = 3;
  int32_t subId = 7;
  char role = 'S';
};
MsgWriter encodeP2pSpoolingMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
MsgWriter encodeP2pLoadDoneMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
MsgWriter encodeP2pCapStopMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
MsgWriter encodeP2pSubStoppingMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
MsgWriter encodeP2pReadyToStopMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
MsgWriter encodeP2pSubDeactivatedMsg(const P2pFields& f, ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);

// A realistic create-subscription message for a table replicated from SALESDB.
MsgWriter sampleCreateSubMsg(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
