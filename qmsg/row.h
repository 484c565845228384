// Row operations, column sets and statement chunks: the entries shared by the transaction
// headers, the spilled row and the row printer.
#pragma once

#include <cstdint>

#include "qmsg/msg.h"
#include "qmsg/values.h"

// The name of a row operation as the row printer gives it ("INSERT", "KEY UPDATE", ...).
const char* rowOperationName(uint8_t operation);
// Offset of the first column set from the row start for a message of layout `version`.
size_t rowColumnSetsOffset(uint16_t version);
// Offset of the one row of a spilled-row message (type 33) of layout `version`.
size_t spilledRowOffset(uint16_t version);

// What a cached schema's columns are worked out for: the schema copy (its serial) and, when the
// message's text is converted, its code pages and encoding flags. What a row printer or a
// light pass works out once per schema is kept under it.
struct SchemaContext {
  uint64_t serial = 0;
  bool converting = false;
  int32_t msgCcsid = 0, outCcsid = 0, flags = 0;

  static SchemaContext of(uint64_t serial, const QMsg& m) {
    if (!m.converting()) return SchemaContext{serial};
    return SchemaContext{serial, true, m.enc->msgCcsid, m.enc->outCcsid, m.enc->flags};
  }
  bool operator==(const SchemaContext&) const = default;
};

// A few T kept by schema context, the oldest replaced by a new T{}.
template <class T, size_t N = 8>
class SchemaSlots {
 public:
  // The entry of `context`; `fresh` tells that it was just made.
  T& at(const SchemaContext& context, bool& fresh) {
    for (Slot& s : slots_)
      if (s.used && s.context == context) {
        fresh = false;
        return s.value;
      }
    Slot& s = slots_[next_];
    next_ = (next_ + 1) % N;
    s.used = true;
    s.context = context;
    s.value = T{};
    fresh = true;
    return s.value;
  }

 private:
  struct Slot {
    bool used = false;
    SchemaContext context;
    T value;
  };
  Slot slots_[N];
  size_t next_ = 0;
};

// A column set: u32 length, u16 column count, then a u16 entry per column (an offset into the
// set, or a marker at or above kLongOffset).
inline constexpr size_t kSetHeaderSize = 6;
inline constexpr uint16_t kLongOffset = 0x8000;
// The column set at `at` of a row (its header already in machine order): a reader over the
// set's bytes, its length and its column count.
inline int32_t openColumnSet(const MsgReader& row, size_t at, MsgReader& set, uint32_t& length, uint16_t& nCols) {
  int32_t rc = row.machine(at, length, "qRowColSet.length");
  if (rc == 0) rc = row.sub(at, length, set, "qRowColSet");
  if (rc == 0) rc = set.machine(4, nCols, "qRowColSet.nCols");
  return rc;
}
// A LOB or XML value starts with its reference: u32 rowNum, u16 colNum, u32 data length.
inline constexpr size_t kLobRefSize = 10;

// The descriptor (qColSchema) of column `index` of a cached subscription schema: the u16 at
// `arrayAt` + 2 * index places it; its type, code page, precision and scale go into `col`, and
// its name's characters (`nameLen` bytes, in the schema's code page) are placed in `name`. The
// schema's integers are in machine order, the name's count in the sender's.
int32_t readSchemaColumn(MsgReader& schema, size_t arrayAt, size_t index, ColumnInfo& col,
                         const uint8_t*& name, uint16_t& nameLen);
// Precision and scale: bytes 4 and 5 of a descriptor as the sender wrote them (`stored`); a
// swapped copy has them turned round with the rest of their u32.
inline void readPrecisionScale(const uint8_t* stored, bool swapped, ColumnInfo& col) {
  col.precision = swapped ? stored[3] : stored[0];
  col.scale = swapped ? stored[2] : stored[1];
}

// Whether a column of `type` holds a LOB reference (BLOB, CLOB, DBCLOB, XML).
bool isLobType(uint16_t type);

// A LOB or XML value: its reference, and the data that follows it inline in the reference's
// first row (rowNum 1), cut to the data length.
struct LobValue {
  uint32_t rowNum = 0;
  uint16_t colNum = 0;
  uint32_t dataLen = 0;
  const uint8_t* data = nullptr;
  size_t n = 0;
};
// Reads the reference and places the inline data; when the message is converted, `col`'s
// code page becomes the one its data is in (DBCLOB: the double-byte code page).
int32_t readLobValue(const QMsg& m, const MsgReader& value, ColumnInfo& col, LobValue& lob);

// Swaps the structural integers of the row at `at` in place: the row length, sub_id and
// partition number, and of each present column set its length, column count and entries.
// Values, long offsets and LOB references stay in the sender's order (their readers swap
// them as they read). Rows of transaction messages (types 128 and 130) are swapped by their
// header printer before anything walks them; the one row of a spilled-row message (type 33)
// is swapped by the row printer itself. A row that cannot be walked is left as far as it
// could be swapped, without a report: the row printer reports it when it gets there.
void fixTransRow(MsgReader& r, size_t at, uint16_t version);
// Swaps `count` rows from `at` (each advancing by its length rounded up to 4).
void fixTransRows(MsgReader& r, size_t at, int64_t count, uint16_t version);

// qStmtChunk::printMe: the statement chunk at `at` (a row of operation 160).
template <class O>
int32_t printStmtChunk(QMsg& m, O& o, size_t at);
