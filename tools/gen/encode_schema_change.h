// Encoders of the schema-change messages: add column (type 5), add replication-key column
// (type 12), the DDL message (type 6: alter column, drop column, generic DDL and any other DDL
// code), truncate table (type 17) and redefine replication key (type 18).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/gen/encode.h"
#include "tools/gen/encode_restart.h"

// The transaction context a schema change carries from version 8 (128 bytes): log position,
// commit time, a flag word (bit 0: no transaction context), unit of work and identity texts.
struct DdlTransInfo {
  LogPosition commitLsn = sampleLogPosition(0x10);
  uint32_t commitSeconds = 1763720400;  // 2025-11-21 10:20:00 UTC
  uint32_t commitMicros = 250000;
  uint8_t flags = 0;
  std::vector<uint8_t> uow = {0x00, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0};  // up to 12
  std::string authId = "KXADMIN";
  std::string authToken = "ALTERTBL";
  std::string planId = "KXPLAN";
};
void writeDdlTransInfo(MsgWriter& w, size_t at, const DdlTransInfo& t);

// Add column. Versions below 8 carry no transaction context, charSubtype is a converted
// character from version 9 and colAttribFlags is there from version 14.
struct AddColumnFields {
  uint16_t version = 14;
  int32_t subId = 7;
  uint16_t colType = 449;      // nullable VARCHAR
  int32_t typeLen = 64;        // written for every type but DECIMAL (484, 485)
  uint8_t precision = 0;       // DECIMAL only (bytes 18 and 19)
  uint8_t scale = 0;
  int32_t codepage = 1208;
  std::string colName = "NOTE";
  uint8_t hasDefault = 0;
  std::string charSubtype = "S";  // one character
  std::string defaultVal;
  std::string beforeColName;
  std::string targetColName;
  uint16_t colAttribFlags = 0;
  DdlTransInfo trans;
};
MsgWriter encodeAddColumnMsg(const AddColumnFields& f, ByteOrder order = ByteOrder::Little,
                             int32_t ccsid = 1208);

struct AddReplKeyColFields {
  uint16_t version = 1;
  int32_t subId = 7;
  std::string colName = "ORDER_ID";
};
MsgWriter encodeAddReplKeyColMsg(const AddReplKeyColFields& f, ByteOrder order = ByteOrder::Little,
                                 int32_t ccsid = 1208);

// Drop column (type 6, DDL code 2; `ddlCode` may carry the high bit). The SQL text follows the
// fixed part (at 152, or 280 after the transaction context from version 8).
struct DropColumnFields {
  uint16_t version = 8;
  uint8_t ddlCode = 2;
  int32_t subId = 7;
  std::string droppedColName = "OBSOLETE_FLAG";
  std::string sqlText = "ALTER TABLE KXAPP.ORDERS DROP COLUMN OBSOLETE_FLAG";
  DdlTransInfo trans;
};
MsgWriter encodeDropColumnMsg(const DropColumnFields& f, ByteOrder order = ByteOrder::Little,
                              int32_t ccsid = 1208);

// Any other type-6 message (alter column 1, generic 16, or an unknown code): the header and
// the body bytes as given.
MsgWriter encodeDdlMsg(uint8_t ddlCode, uint16_t version, const std::vector<uint8_t>& body,
                       ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);

MsgWriter encodeTruncateTableMsg(int32_t subId, uint16_t version = 1, ByteOrder order = ByteOrder::Little,
                                 int32_t ccsid = 1208);

// Redefine replication key: the offset table is followed by the names back to back.
struct RedefineReplKeyFields {
  uint16_t version = 1;
  int32_t subId = 7;
  uint16_t isP2p = 0;
  std::vector<std::string> colNames = {"ORDER_ID", "LINE_NO"};
};
MsgWriter encodeRedefineReplKeyMsg(const RedefineReplKeyFields& f, ByteOrder order = ByteOrder::Little,
                                   int32_t ccsid = 1208);

// A realistic column addition for the demo: a nullable VARCHAR(64) with a default value,
// placed before an existing column, in the current layout (version 14).
MsgWriter sampleAddColumnMsg(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208);
