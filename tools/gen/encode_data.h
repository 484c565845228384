// Encoders of the data-path compact messages: subscription schemas, transaction and streamed
// transaction messages with their rows and column values, spilled rows, LOB messages and
// statement chunks. Each message is described by a struct of field values with sensible
// defaults and written in the chosen byte order with text in the chosen code page.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/gen/encode.h"

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------------------------
// Shared records.

// 24-byte log position record: flags (bit 0: node present), node, then up to 16 bytes.
struct LsnDef {
  uint8_t flags = 0;
  uint16_t node = 0;
  Bytes bytes = {0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0x56, 0x78};
};
void writeLsn(MsgWriter& w, size_t at, const LsnDef& lsn);

// qGenericTransInfo (128 bytes).
struct GenericTransInfoDef {
  bool noContext = false;
  LsnDef lsn;
  uint32_t seconds = 1700000000;
  uint32_t micros = 0;
  Bytes uow = {0, 0, 0, 0, 0x0a, 0x0b};
  std::string authId = "REPLUSER";
  std::string authTkn = "TOKEN1";
  std::string planId = "PLAN1";
};
inline constexpr size_t kGenericTransInfoBytes = 128;
void writeGenericTransInfo(MsgWriter& w, size_t at, const GenericTransInfoDef& info);

// ---------------------------------------------------------------------------------------------
// Subscription schema (type 1).

struct ColumnDef {
  std::string name;
  uint16_t type = 496;       // SQL type code; bit 0 nullable
  uint32_t typelen = 4;      // ignored for DECIMAL (precision and scale are used)
  int32_t codePage = 0;
  uint8_t precision = 0;     // DECIMAL
  uint8_t scale = 0;
  uint8_t partKeyNum = 0;    // partitioning key columns
  uint8_t partFlags = 0;     // bit 0 ascending, bit 1 nulls last
};

struct PartRangeDef {
  uint16_t fromPhysPart = 0, toPhysPart = 0, minLogicalPart = 0, maxLogicalPart = 0;
  std::vector<std::string> fromStrs, toStrs;
};

struct SchemaMsgDef {
  uint16_t version = 11;
  uint8_t flag = 0;
  uint16_t serverType = 6;
  uint16_t dbRelease[3] = {11, 5, 8};
  uint16_t capRelease[3] = {11, 5, 8};
  std::string subname = "SUB1";
  uint32_t subId = 1;
  std::string srcDbname = "SRCDB";
  std::string srcOwner = "APP";
  std::string srcName = "ORDERS";
  std::string sendqName = "ASN.SENDQ";
  uint8_t reason = 1;
  uint32_t opts = 0;
  uint16_t initiatorNode = 0, newNode = 0, sourceNode = 0, targetNode = 0;
  char loadPhase = 'N', subType = 'U';
  std::string searchCond;            // empty: none
  uint16_t nColsInKey = 1;
  uint32_t replddl = 0;
  std::vector<uint16_t> activeNodes;
  uint8_t schemaFlag = 0;
  std::optional<GenericTransInfoDef> ext;  // from version 8
  std::vector<ColumnDef> columns;
  std::vector<ColumnDef> partKeys;   // from version 9
  std::vector<PartRangeDef> ranges;
};
// Where the column-offset array starts for a schema version (0 for versions without one).
size_t schemaArrayAt(uint16_t version);
Bytes encodeSchemaMsg(const SchemaMsgDef& def, ByteOrder order, int32_t ccsid);

// ---------------------------------------------------------------------------------------------
// Column values, in the sender's byte order and code pages.

// One column of a column set: data, a marker (0x8000 suppressed, 0x8001 NULL, 0x8002 P2P
// modified, 0x8004 oversized), or data reached through a long offset.
struct ColValue {
  uint16_t marker = 0;
  bool longOffset = false;
  Bytes data;
};
inline constexpr uint16_t kMarkerSuppressed = 0x8000;
inline constexpr uint16_t kMarkerNull = 0x8001;
inline constexpr uint16_t kMarkerP2pModified = 0x8002;
inline constexpr uint16_t kMarkerOversized = 0x8004;
ColValue marker(uint16_t code);

ColValue valSmallint(int16_t v, ByteOrder order);
ColValue valInteger(int32_t v, ByteOrder order);
ColValue valBigint(int64_t v, ByteOrder order);
ColValue valDouble(double v, ByteOrder order);
ColValue valFloat(float v, ByteOrder order);
// Packed decimal of `precision` digits from its text ("-123.45"), with `scale` fraction digits.
ColValue valDecimal(const std::string& text, uint8_t precision, uint8_t scale);
// DECFLOAT (8 or 16 bytes, densely packed decimal) of coefficient digits times 10^exponent.
ColValue valDecfloat(const std::string& digits, int exponent, bool negative, size_t bytes, ByteOrder order);
ColValue valDecfloatSpecial(bool infinity, bool negative, size_t bytes, ByteOrder order);
// Characters in a code page (CHAR, DATE, TIME, TIMESTAMP, CLOB data, ...).
ColValue valText(const std::string& utf8, int32_t ccsid);
// u16 byte count then the characters (VARCHAR, LONG VARCHAR).
ColValue valVarchar(const std::string& utf8, int32_t ccsid, ByteOrder order);
// UTF-16 characters in the sender's byte order (GRAPHIC), and with a u16 character count
// before them (VARGRAPHIC).
ColValue valGraphic(const std::string& utf8, ByteOrder order);
ColValue valVargraphic(const std::string& utf8, ByteOrder order);
// LOB reference: rowNum, colNum, length; rowNum 1 carries the data inline.
ColValue valLobRef(uint32_t rowNum, uint16_t colNum, uint32_t length, ByteOrder order, const Bytes& inlineData = {});
// UTF-16 text in the sender's byte order, as DBCLOB and GRAPHIC data travel.
Bytes utf16(const std::string& utf8, ByteOrder order);

// ---------------------------------------------------------------------------------------------
// Rows.

struct BatchedTransHeaderDef {
  Bytes lsn = {0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0x56, 0x79};
  uint32_t seconds = 1700000000;
  uint32_t micros = 5;
  uint32_t sourceLocal = 1700003600;
  Bytes uow = {0, 0, 0, 0, 0x0a, 0x0c};
  std::string authId = "BATCHUSER";
  std::string authTkn = "BTOKEN";
  std::string planId = "BPLAN";
  bool withIdentity = true;   // false: the header ends after the unit of work
};

struct DataColDef {
  uint16_t mask = 1;
  uint16_t position = 0;
  uint16_t type = 496;
  uint32_t typeLen = 4;
};

struct StmtChunkDef {
  uint8_t operation = 16;
  uint8_t format = 0;
  uint64_t fileSize = 123456;
  uint64_t nRows = 1000;
  std::string fileName = "/tmp/chunk0001.dat";
  std::vector<DataColDef> cols;
};

struct RowDef {
  uint8_t encodeType = 1;
  uint8_t encodeVer = 3;
  uint8_t operation = 16;       // INSERT
  uint8_t extraBafter = 0;      // bits beyond the column sets and the batched header
  uint32_t subId = 1;
  Bytes intentseq = {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2};
  uint16_t partitionNo = 0;
  std::optional<std::vector<ColValue>> keyBefore, colsBefore, keyAfter, colsAfter;
  std::optional<BatchedTransHeaderDef> batched;   // from version 8
  std::optional<StmtChunkDef> chunk;              // operation 160
};
// One row (its length not padded) for a message of layout `version`.
Bytes encodeRow(const RowDef& row, uint16_t version, ByteOrder order, int32_t ccsid);
size_t rowSetsAt(uint16_t version);

// ---------------------------------------------------------------------------------------------
// Transaction messages.

struct TransMsgDef {
  uint16_t version = 8;
  uint8_t flag = 1;
  uint16_t segment = 1;
  Bytes lsn10 = {0, 0, 0, 0, 0x12, 0x34, 0, 0, 0x56, 0x78};   // below version 6
  LsnDef lsn;                                                  // from version 6
  uint32_t seconds = 1700000000;
  uint32_t micros = 0;
  uint32_t sourceLocal = 0;     // from version 7
  std::string authId = "REPLUSER";
  std::string authTkn = "TOKEN1";
  std::string planId = "PLAN1";
  Bytes uow = {0, 0, 0, 0, 0x0a, 0x0b, 0, 0, 0, 1};
  uint16_t numPartitionNo = 0;   // printed as stored
  std::vector<RowDef> rows;
};
size_t transRowsAt(uint16_t version);
Bytes encodeTransMsg(const TransMsgDef& def, ByteOrder order, int32_t ccsid);

struct StreamedTransMsgDef {
  uint16_t version = 8;
  uint8_t flag = 0;
  uint8_t transType = 2;       // BEGIN
  uint8_t flags = 0;
  uint16_t segment = 0;        // printed as stored
  Bytes uow = {0, 0, 0, 0, 0x0a, 0x0d};
  LsnDef lsn;
  uint32_t seconds = 1700000000;
  uint32_t micros = 250;
  std::string authId = "REPLUSER";
  std::string authTkn = "TOKEN1";
  std::string planId = "PLAN1";
  uint32_t numTotalRowOps = 0;   // 0: the number of rows given
  uint16_t numPartitionNo = 0;   // printed as stored
  std::vector<RowDef> rows;      // chunk rows counted as statement chunk files
};
Bytes encodeStreamedTransMsg(const StreamedTransMsgDef& def, ByteOrder order, int32_t ccsid);

// Spilled row (type 33): the row at the offset its version gives.
size_t spilledRowAt(uint16_t version);
Bytes encodeSpilledRowMsg(uint16_t version, const RowDef& row, ByteOrder order, int32_t ccsid);

// ---------------------------------------------------------------------------------------------
// LOB messages (type 129).

struct LobMsgDef {
  uint16_t version = 7;
  uint8_t flag = 0;             // bit 1: NULL value
  uint32_t subId = 1;
  uint32_t rowNum = 2;
  uint16_t colNum = 0;
  uint32_t totalLen = 0;        // 0: the data length
  uint32_t cpKind = 1;          // from version 7
  Bytes data;
  bool doubleByte = false;      // DBCLOB: the part length counts two-byte characters
};
Bytes encodeLobMsg(const LobMsgDef& def, ByteOrder order, int32_t ccsid);
