// Row operations (qTransRow) and their column sets (qRowColSet): one row of a transaction,
// streamed transaction or spilled-row message, with its values printed by column type.
#include "qmsg/row.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qmsg/compact.h"
#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/schema.h"
#include "qmsg/trans.h"
#include "qmsg/values.h"
#include "runtime/catalog.h"
#include "runtime/trace.h"

// Row header, offsets from the row start:
//
//   0         4          5           6           7        8        12                   30
//   +---------+----------+-----------+-----------+--------+--------+--------------------+-------------+
//   | length  |encodetype| encodever | operation | bafter | sub_id | intentseq (10/16)  | partitionNo |
//   +---------+----------+-----------+-----------+--------+--------+--------------------+-------------+
//
// then the present column sets (key before, non-key before, key after, non-key after), each
// starting on a multiple of 4, and from version 8 perhaps a qBatchedTransHeader after them.
// A row of operation 160 carries a statement chunk where the first column set would start.
//
// Column set:
//
//   0         4        6
//   +---------+--------+-------------------+----- values
//   | length  | nCols  | u16 entry per col |
//   +---------+--------+-------------------+-----
//
// An entry below 0x8000 is the value's offset in the set; 0x8000-0x8004 are markers; any other
// entry with bit 15 set is a long offset: its low 15 bits place a u32 holding the real offset.

namespace {

inline constexpr ValueName kEncodeTypes[] = {{1, "COMPACT"}, {2, "XML"}};

inline constexpr ValueName kEncodeVersions[] = {
    {1, "RPLKX_ROW_ENCODE_V100"},
    {2, "RPLKX_ROW_ENCODE_V200"},
    {3, "RPLKX_ROW_ENCODE_V300"},
    {4, "RPLKX_ROW_ENCODE_V400"},
};

// The pairs 40/45, 72/77 and 136/141 are the table as the format defines it.
inline constexpr ValueName kRowOperations[] = {
    {0, "RPLKX_ROWOP_NO_SEND"},
    {16, "INSERT"}, {17, "INSERT"}, {20, "INSERT"}, {21, "INSERT"},
    {28, "INSERT WITH EMPTY XML"}, {29, "INSERT WITH EMPTY XML"},
    {32, "UPDATE"}, {33, "UPDATE"}, {36, "UPDATE"}, {37, "UPDATE"},
    {40, "UPDATE WITH EMPTY XML"}, {45, "UPDATE WITH EMPTY XML"},
    {64, "DELETE"}, {65, "DELETE"}, {68, "DELETE"}, {69, "DELETE"},
    {72, "DELETE WITH EMPTY XML"}, {77, "DELETE WITH EMPTY XML"},
    {128, "KEY UPDATE"}, {129, "KEY UPDATE"}, {132, "KEY UPDATE"}, {133, "KEY UPDATE"},
    {136, "KEY UPDATE WITH EMPTY XML"}, {141, "KEY UPDATE WITH EMPTY XML"},
    {160, "RPLKX_ROWOP_MASSIVE_STMT"},
    {176, "TRUNCATE"},
};

inline constexpr uint8_t kOpLobBit = 1;
inline constexpr uint8_t kOpXmlBit = 4;
inline constexpr uint8_t kOpMassiveStmt = 160;

// bafter bits, in the order their texts are joined.
inline constexpr ValueName kBafterBits[] = {
    {2, ":BEFORE VALUES KEY:"},
    {4, ":BEFORE VALUES COLS:"},
    {8, ":AFTER VALUES KEY:"},
    {1, ":AFTER VALUES COLS:"},
    {128, ":LOAD OR RESTARTLSN IN PROGRESS:"},
    {64, ":IMPLICIT DELETE:"},
    {16, ":FIRST ROW IN BATCH TRANS:"},
};
inline constexpr uint8_t kBafterBatchedHeader = 16;

// The column sets in stored order, by their bafter bit.
struct SetKind {
  uint8_t bit;
  bool key;
  const char* failure;
};
inline constexpr SetKind kSetKinds[] = {
    {2, true, "Cannot print key columns' before value"},
    {4, false, "Cannot print non-key columns' before value"},
    {8, true, "Cannot print key columns' after value"},
    {1, false, "Cannot print non-key columns' after value"},
};

inline constexpr ValueName kColumnMarkers[] = {
    {0x8000, "SUPPRESSED\n"},
    {0x8001, "NULL\n"},
    {0x8002, "P2P MODIFIED\n"},
    {0x8004, "OVERSIZED/NOT MODIFIED\n"},
};
inline constexpr uint16_t kLongOffset = 0x8000;

inline constexpr size_t kSetHeaderSize = 6;
inline constexpr size_t kLobRefSize = 10;  // u32 rowNum, u16 colNum, u32 data length

constexpr const char* kRowStep = "qTransRow::printMe";
constexpr const char* kSetStep = "qRowColSet::printMe";

size_t roundUp4(size_t n) { return (n + 3) & ~size_t{3}; }

// Swaps a field in place when it is all there; silent otherwise.
bool quietFix16(MsgReader& r, size_t at) { return r.has(at, 2) && r.fix16(at, "") == 0; }
bool quietFix32(MsgReader& r, size_t at) { return r.has(at, 4) && r.fix32(at, "") == 0; }

// The cached schema of the row's subscription: its column-offset array and descriptors, in
// machine order except the name counts.
struct SchemaColumns {
  QMsg msg;          // over the cached copy, printing to the row's stream
  size_t arrayAt;
  uint16_t nColsInKey;

  // Prints the descriptor of column `index` of the array and returns what the value printer needs.
  int32_t describe(size_t index, ColumnInfo& col) {
    uint16_t desc = 0;
    uint32_t codePage = 0;
    int32_t rc = msg.r.machine(arrayAt + 2 * index, desc, "qSubSchemaMsg column offset");
    if (rc == 0) rc = msg.r.machine(desc, col.type, "qColSchema.coltype");
    if (rc == 0) rc = msg.r.machine(desc + 8, codePage, "qColSchema.codepage");
    if (rc == 0) rc = printColSchema(msg, desc, false);
    if (rc != 0) return rc;
    // Precision and scale are bytes 4 and 5 as the sender wrote them; a swapped copy has
    // them turned round with the rest of the u32.
    const uint8_t* stored = nullptr;
    rc = msg.r.bytes(desc + 4, 4, stored, "qColSchema.typelen");
    if (rc != 0) return rc;
    col.precision = msg.swap() ? stored[3] : stored[0];
    col.scale = msg.swap() ? stored[2] : stored[1];
    col.codePage = static_cast<int32_t>(codePage);
    return 0;
  }
};

bool isLobType(uint16_t type) {
  uint16_t t = type & ~1u;
  return t == kColBlob || t == kColClob || t == kColDbclob || t == kColXml;
}

// A LOB or XML value: its reference, then the data that follows inline (rowNum 1).
int32_t printLobValue(QMsg& m, const MsgReader& value, ColumnInfo col) {
  uint32_t rowNum = 0, dataLen = 0;
  uint16_t colNum = 0;
  int32_t rc = value.u32(0, rowNum, "qLobRef.rowNum");
  if (rc == 0) rc = value.u16(4, colNum, "qLobRef.colNum");
  if (rc == 0) rc = value.u32(6, dataLen, "qLobRef.dataLen");
  if (rc != 0) return rc;
  std::fprintf(m.out, "\n    lobId:      [ rowNum = %d, colNum = %d ]\n", static_cast<int32_t>(rowNum), colNum);
  std::fprintf(m.out, "    lobDataLen: %d\n", static_cast<int32_t>(dataLen));
  uint16_t type = col.type & ~1u;
  if (m.converting()) col.codePage = type == kColDbclob ? m.enc->dbcsCcsid : m.enc->msgCcsid;
  if (type == kColXml) std::fprintf(m.out, "    xmlDataLen: %d\n", static_cast<int32_t>(dataLen));
  const uint8_t* data = nullptr;
  size_t n = rowNum == 1 ? value.size() - kLobRefSize : 0;
  if (n > dataLen) n = dataLen;
  if (n > 0) value.bytes(kLobRefSize, n, data, "qLobRef data");
  return printColumnValue(m, col, data, n, kSetStep);
}

// qRowColSet::printMe: the column set at `at` of the row reader.
int32_t printColSet(QMsg& m, const MsgReader& row, size_t at, SchemaColumns* schema, bool key) {
  RPL_TRACE(kCompPrinters, 24);
  uint32_t length = 0;
  uint16_t nCols = 0;
  MsgReader set;
  int32_t rc = row.machine(at, length, "qRowColSet.length");
  if (rc == 0) rc = row.sub(at, length, set, "qRowColSet");
  if (rc == 0) rc = set.machine(4, nCols, "qRowColSet.nCols");
  if (rc != 0) return rplTrace_.ret(rc);
  std::fprintf(m.out, "colset.nCols:   %d\n", nCols);

  // Where each value starts (-1: a marker) and how long it is: up to the next value, or to
  // the end of the set for the last one.
  std::vector<uint16_t> entry(nCols);
  std::vector<int64_t> start(nCols, -1);
  std::vector<size_t> size(nCols, 0);
  for (size_t i = 0; i < nCols && rc == 0; ++i) {
    rc = set.machine(kSetHeaderSize + 2 * i, entry[i], "qRowColSet column offset");
    if (rc != 0) break;
    if (entry[i] < kLongOffset) {
      start[i] = entry[i];
    } else if (nameOf(kColumnMarkers, entry[i], nullptr) == nullptr) {
      uint32_t real = 0;
      rc = set.u32(entry[i] & 0x7FFF, real, "qRowColSet long offset");
      start[i] = real;
    }
  }
  if (rc != 0) return rplTrace_.ret(rc);
  size_t largest = 0;
  int64_t end = length;
  for (size_t i = nCols; i-- > 0;) {
    if (start[i] < 0) continue;
    if (start[i] > end) {
      reportFailuref(kSetStep, "qRowColSet::printMe", kRcShortRead,
                     "Column %zu value at offset %" PRId64 " passes the next value or the %u-byte set",
                     i + 1, start[i], length);
      return rplTrace_.ret(kRcShortRead);
    }
    size[i] = static_cast<size_t>(end - start[i]);
    end = start[i];
    if (size[i] > largest) largest = size[i];
  }

  // One work area for the set, sized by its largest value (a set of markers needs none).
  std::unique_ptr<uint8_t, decltype(&std::free)> work(nullptr, &std::free);
  if (largest > 0) {
    work.reset(static_cast<uint8_t*>(std::malloc(largest + largest % 8)));
    if (!work) {
      reportFailure(kSetStep, "malloc", -1, "memory aligned sqldata buffer");
      return rplTrace_.ret(-1);
    }
  }

  for (size_t i = 0; i < nCols; ++i) {
    ColumnInfo col;
    if (schema != nullptr) {
      rc = schema->describe((key ? 0 : schema->nColsInKey) + i, col);
      if (rc != 0) {
        reportFailure(kSetStep, "qSchemaCol::printMe", rc, "Cannot print column schema");
        return rplTrace_.ret(rc);
      }
    }
    std::fputs("  col.VALUE:    ", m.out);
    if (start[i] < 0) {
      std::fputs(nameOf(kColumnMarkers, entry[i], ""), m.out);
      continue;
    }
    if (entry[i] >= kLongOffset) std::fputs(" (LONG OFFSET) ", m.out);
    const uint8_t* p = nullptr;
    rc = set.bytes(static_cast<size_t>(start[i]), size[i], p, "qRowColSet column value");
    if (rc != 0) return rplTrace_.ret(rc);
    if (size[i] > 0) std::memcpy(work.get(), p, size[i]);
    if (schema == nullptr) {
      std::fprintf(m.out, "  length:    %d\n", static_cast<int32_t>(size[i]));
      dumpHex(size[i], work.get(), m.out);
      continue;
    }
    if (isLobType(col.type)) {
      rc = printLobValue(m, MsgReader(work.get(), size[i], set.swapped()), col);
    } else {
      rc = printColumnValue(m, col, size[i] > 0 ? work.get() : nullptr, size[i], kSetStep);
    }
    if (rc != 0) return rplTrace_.ret(rc);
    std::fputc('\n', m.out);
  }
  return rplTrace_.ret(0);
}

}  // namespace

size_t rowColumnSetsOffset(uint16_t version) {
  return version == 0 ? 0 : version == 1 ? 12 : version <= 6 ? 24 : 32;
}

void fixTransRow(MsgReader& r, size_t at, uint16_t version) {
  uint32_t length = 0;
  if (!quietFix32(r, at) || r.machine(at, length, "") != 0) return;
  MsgReader row = r.from(at);
  if (length < row.size()) row = MsgReader(row.data(), length, row.swapped());
  quietFix32(row, 8);
  if (version >= 7) quietFix16(row, 30);
  uint8_t operation = 0, bafter = 0;
  if (!row.has(0, 8)) return;
  row.u8(6, operation, "");
  row.u8(7, bafter, "");
  if (operation == kOpMassiveStmt) return;  // the statement chunk printer swaps its chunk
  if (version == 0) return;  // its column sets would start on the row header itself
  size_t pos = rowColumnSetsOffset(version);
  for (const SetKind& kind : kSetKinds) {
    if (!(bafter & kind.bit)) continue;
    uint32_t setLen = 0;
    uint16_t nCols = 0;
    if (!quietFix32(row, pos) || !quietFix16(row, pos + 4)) return;
    row.machine(pos, setLen, "");
    row.machine(pos + 4, nCols, "");
    for (size_t i = 0; i < nCols; ++i)
      if (!quietFix16(row, pos + kSetHeaderSize + 2 * i)) return;
    if (setLen < kSetHeaderSize) return;  // the row printer reports it
    pos += roundUp4(setLen);
  }
}

void fixTransRows(MsgReader& r, size_t at, int64_t count, uint16_t version) {
  for (int64_t i = 0; i < count; ++i) {
    fixTransRow(r, at, version);
    uint32_t length = 0;
    if (r.machine(at, length, "") != 0 || length < 4 || !r.has(at, length)) return;
    at += roundUp4(length);
  }
}

int32_t printTransRow(QMsg& m, size_t at, uint16_t version) {
  RPL_TRACE(kCompPrinters, 23);
  // The one row of a spilled-row message is not swapped by a header printer.
  uint8_t msgType = 0;
  int32_t rc = m.r.u8(4, msgType, "qMsgHeader.msgtype");
  if (rc != 0) return rplTrace_.ret(rc);
  if (m.swap() && msgType == kTypeSpillRow) fixTransRow(m.r, at, version);

  uint32_t length = 0;
  MsgReader row;
  rc = m.r.machine(at, length, "qTransRow.length");
  if (rc == 0) rc = m.r.sub(at, length, row, "qTransRow");
  uint8_t encodeType = 0, encodeVer = 0, operation = 0, bafter = 0;
  uint32_t subId = 0;
  uint16_t partitionNo = 0;
  if (rc == 0) rc = row.u8(4, encodeType, "qTransRow.encodetype");
  if (rc == 0) rc = row.u8(5, encodeVer, "qTransRow.encodever");
  if (rc == 0) rc = row.u8(6, operation, "qTransRow.operation");
  if (rc == 0) rc = row.u8(7, bafter, "qTransRow.bafter");
  if (rc == 0) rc = row.machine(8, subId, "qTransRow.sub_id");
  // The partition number is part of the row header from version 7.
  if (rc == 0 && version >= 7) rc = row.machine(30, partitionNo, "qTransRow.partitionNo");
  std::string intent;
  if (rc == 0 && version >= 2) {
    const uint8_t* p = nullptr;
    rc = row.bytes(12, version >= 7 ? 16 : 10, p, "qTransRow.intentseq");
    if (rc == 0) intent = version >= 7 ? formatLsnBytes(p, 16) : formatPos10(p);
  }
  if (rc != 0) return rplTrace_.ret(rc);
  const size_t firstSet = rowColumnSetsOffset(version);

  if (version >= 8 && (bafter & kBafterBatchedHeader)) {
    size_t pos = firstSet;
    for (const SetKind& kind : kSetKinds) {
      if (!(bafter & kind.bit)) continue;
      uint32_t setLen = 0;
      rc = row.machine(pos, setLen, "qRowColSet.length");
      if (rc == 0 && setLen < kSetHeaderSize) rc = row.shortRead(pos, kSetHeaderSize, "qRowColSet.length");
      if (rc != 0) return rplTrace_.ret(rc);
      pos += roundUp4(setLen);
    }
    rc = printBatchedTransHeader(m, at + pos);
    if (rc != 0) return rplTrace_.ret(rc);
  }

  FILE* out = m.out;
  std::fprintf(out, "qTransRow.length:      %d\n", static_cast<int32_t>(length));
  std::fprintf(out, "rowheader.encodetype:  %s\n", nameOf(kEncodeTypes, encodeType, "Unsupported"));
  std::fprintf(out, "rowheader.encodever:   %s\n", nameOf(kEncodeVersions, encodeVer, "Unknown"));
  std::fprintf(out, "rowheader.operation:   %s\n", nameOf(kRowOperations, operation, "Unexpected"));
  if (version >= 2) {
    std::fprintf(out, "rowheader.intentseq:   %s\n", intent.c_str());
    if (encodeVer > 3) std::fprintf(out, "rowheader.partitionNo: %d\n", partitionNo);
  }
  if ((operation & kOpLobBit) && (operation & kOpXmlBit))
    std::fputs("                       Row operation involves LOB and XML columns\n", out);
  else if (operation & kOpLobBit)
    std::fputs("                       Row operation involves LOB columns\n", out);
  else if (operation & kOpXmlBit)
    std::fputs("                       Row operation involves XML columns\n", out);
  std::fprintf(out, "rowheader.bafter:      %s\n", joinFlags(kBafterBits, bafter).c_str());
  std::fprintf(out, "rowheader.sub_id:      %d\n", static_cast<int32_t>(subId));
  std::fprintf(out, "rowheader.partitionNo: %hu\n", partitionNo);

  if (operation == kOpMassiveStmt) {
    rc = printStmtChunk(m, at + firstSet);
    if (rc != 0) reportFailure(kRowStep, "qStmtChunk::printMe", rc, "Cannot print statement chunk data");
    return rplTrace_.ret(rc);
  }

  std::unique_ptr<SchemaColumns> schema;
  if (const CachedSchema* cached = findSchema(subId)) {
    size_t arrayAt = schemaColumnArrayOffset(cached->version);
    if (arrayAt == 0) return rplTrace_.ret(kRcBadSchemaVersion);
    uint8_t* copy = const_cast<uint8_t*>(cached->msg);
    schema.reset(new SchemaColumns{QMsg(copy, cached->length, m.out, m.enc, m.cm), arrayAt, 0});
    schema->msg.r = MsgReader(copy, cached->length, cached->senderSwapped);
    rc = schema->msg.r.machine(508, schema->nColsInKey, "qSubSchemaMsg.nColsInKey");
    if (rc != 0) return rplTrace_.ret(rc);
  }

  size_t pos = firstSet;
  for (const SetKind& kind : kSetKinds) {
    if (!(bafter & kind.bit)) continue;
    uint32_t setLen = 0;
    rc = printColSet(m, row, pos, schema.get(), kind.key);
    if (rc == 0) rc = row.machine(pos, setLen, "qRowColSet.length");
    if (rc == 0 && setLen < kSetHeaderSize) rc = row.shortRead(pos, kSetHeaderSize, "qRowColSet.length");
    if (rc != 0) {
      reportFailure(kRowStep, "qRowColSet::printMe", rc, kind.failure);
      return rplTrace_.ret(rc);
    }
    pos += roundUp4(setLen);
  }
  return rplTrace_.ret(0);
}
