// The compact-message decoder: banner, dispatch by message type, and the schema cache.
#pragma once

#include <cstdint>
#include <cstdio>

#include "runtime/conv.h"

// Result of an unknown message type or DDL sub-type.
inline constexpr int32_t kRcUnknownType = static_cast<int32_t>(0xFFFFFFFF);
// Result of a schema message of a version whose column array cannot be placed.
inline constexpr int32_t kRcBadSchemaVersion = 2140;

struct QMsg;
class SchemaNamesSink;

// How a run prints: the queue named in the unknown-type lines, the transaction lines without
// their log position and time, the transactions without their rows.
struct DecodeRun {
  const char* queueName;
  bool noPosTime;
  bool headerOnly;
};

// Decodes one compact message (its header checked, then the version, swap, header lines, body
// and failure report of its type's row) through the field sink `o`, without the banner.
// Returns 0, a printer's result code or kRcUnknownType. Instantiated for every sink of
// RPL_FOR_EACH_SINK (qmsg/sink.h).
template <class O>
int32_t decodeCompact(QMsg& m, O& o, const DecodeRun& run);

// Prints one compact message: banner, header and body by type. The buffer is read-write
// (integers are swapped in place). Returns 0, a printer's result code, or kRcUnknownType.
int32_t processCompactMsg(uint8_t* msg, size_t length, const char* queueName, FILE* out,
                          int32_t* msgCounter, encodingInfo* enc, ConvMgr* cm,
                          bool noSizeLine, bool noPosTime, bool headerOnly);

// The name of a message type ("RPLKX_TRANS_MSG"), or "Unknown".
const char* compactTypeName(uint8_t type);
// The banner every message of the run starts with: "**** Message number: <number>" after two
// blank lines, and the size line (the message and its descriptor) unless left out.
void printBanner(FILE* out, int32_t number, size_t length, bool sizeLine);

// Prints a subscription schema message and keeps a copy in the schema cache (type 1).
int32_t processSchemaMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm);
// Decodes a subscription schema message (type 1) into the schema cache as processSchemaMsg
// does, the same failures reported, through the sink that keeps its names instead of a
// rendering. The buffer is read-write (integers are swapped in place).
int32_t learnSchemaMsg(uint8_t* msg, size_t length, encodingInfo* enc, ConvMgr* cm, SchemaNamesSink& names);
// Prints a transaction message and its rows (type 128).
int32_t processTransMsg(uint8_t* msg, size_t length, FILE* out, encodingInfo* enc, ConvMgr* cm,
                        bool noPosTime, bool headerOnly);

// The subscription-schema cache: one private copy per subscription key (u32 at offset 156),
// in machine order after the schema printer, kept for the whole run.
struct CachedSchema {
  const uint8_t* msg;     // the copy
  size_t length;
  bool senderSwapped;     // name-field counts are still in the sender's byte order
  uint16_t version;       // msgVersion, machine order
  uint64_t serial = 0;    // unique to this copy for the whole run (a replaced copy gets a new one)
};

// Offset of the column-offset array inside a schema message of `version`, or 0 (with the
// "unrecognized version number" report) for versions 0, 5 and above 16.
size_t schemaColumnArrayOffset(uint16_t version);

// Stores a copy of a printed schema message (replacing an earlier one of the same key in its place).
int32_t cacheSchema(const uint8_t* msg, size_t length, bool senderSwapped);
// The cached schema of a subscription, or null.
const CachedSchema* findSchema(uint32_t subKey);
// Frees every cached schema (end of the run).
void releaseSchemaCache();
// Number of cached schemas and the key at a position (for tests).
size_t schemaCacheSize();
uint32_t schemaCacheKeyAt(size_t index);
