// Row operations (qTransRow) and their column sets (qRowColSet): one row of a transaction,
// streamed transaction or spilled-row message, with its values printed by column type.
#include "qmsg/row.h"

#include <charconv>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qmsg/compact.h"
#include "qmsg/emit.h"
#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/schema.h"
#include "qmsg/sink.h"
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

// A name table with the lengths of its names counted once, when compiled: the row header's
// names are written for every row.
template <size_t N>
struct NameViews {
  uint32_t value[N];
  std::string_view name[N];
};
template <size_t N>
constexpr NameViews<N> viewsOf(const ValueName (&table)[N]) {
  NameViews<N> v{};
  for (size_t i = 0; i < N; ++i) {
    v.value[i] = table[i].value;
    v.name[i] = table[i].name;
  }
  return v;
}
template <size_t N>
std::string_view viewOf(const NameViews<N>& v, uint32_t value, std::string_view unknown) {
  for (size_t i = 0; i < N; ++i)
    if (v.value[i] == value) return v.name[i];
  return unknown;
}
inline constexpr auto kEncodeTypeViews = viewsOf(kEncodeTypes);
inline constexpr auto kEncodeVersionViews = viewsOf(kEncodeVersions);
inline constexpr auto kRowOperationViews = viewsOf(kRowOperations);
inline constexpr auto kBafterViews = viewsOf(kBafterBits);

// The column sets in stored order, by their bafter bit.
struct SetKind {
  uint8_t bit;
  bool key;
  const char* failure;
  const char* json;
};
inline constexpr SetKind kSetKinds[] = {
    {2, true, "Cannot print key columns' before value", "key_before"},
    {4, false, "Cannot print non-key columns' before value", "cols_before"},
    {8, true, "Cannot print key columns' after value", "key_after"},
    {1, false, "Cannot print non-key columns' after value", "cols_after"},
};

inline constexpr ValueName kColumnMarkers[] = {
    {0x8000, "SUPPRESSED\n"},
    {0x8001, "NULL\n"},
    {0x8002, "P2P MODIFIED\n"},
    {0x8004, "OVERSIZED/NOT MODIFIED\n"},
};


constexpr const char* kRowStep = "qTransRow::printMe";
// What comes before every value of a set, kept at the end of a column's rendered lines.
constexpr char kValueLabel[] = "  col.VALUE:    ";
constexpr const char* kSetStep = "qRowColSet::printMe";

size_t roundUp4(size_t n) { return (n + 3) & ~size_t{3}; }

// Swaps a field in place when it is all there; silent otherwise.
bool quietFix16(MsgReader& r, size_t at) { return r.has(at, 2) && r.fix16(at, "") == 0; }
bool quietFix32(MsgReader& r, size_t at) { return r.has(at, 4) && r.fix32(at, "") == 0; }

// The descriptor lines of a cached schema's columns are the same for every row that names
// them: they are printed once per schema copy and code pages, kept with the value label after
// them, and written as they stand.
struct RenderedColumn {
  bool ready = false;
  ValueForm form = ValueForm::General;
  std::string lines;
  ColumnInfo info;
};
// The columns of a cached schema as one rendering needs them, kept per schema copy and code
// pages: a few schemas at a time, the oldest replaced.
template <class Column>
struct ColumnsFor {
  std::vector<Column> columns;
};
// A schema's kept columns as a row's loop reads them: through locals, since the text written
// between two columns could otherwise be taken to change where they are. Taken again after a
// column is added to the cache.
template <class Column>
struct KeptColumns {
  const Column* at = nullptr;
  size_t count = 0;
  void take(const ColumnsFor<Column>* cache) {
    if (cache == nullptr) return;
    at = cache->columns.data();
    count = cache->columns.size();
  }
  // Column `index` when it is kept, else null.
  const Column* ready(size_t index) const { return index < count && at[index].ready ? &at[index] : nullptr; }
};

template <class Column>
ColumnsFor<Column>& columnsFor(uint64_t serial, const QMsg& m) {
  static SchemaSlots<ColumnsFor<Column>> slots;
  bool fresh = false;
  return slots.at(SchemaContext::of(serial, m), fresh);
}
using RenderedSchema = ColumnsFor<RenderedColumn>;

// What the JSON rendering needs of a cached schema's columns (value form, name converted to
// UTF-8) is the same for every row that names them: read once per schema copy and code pages.
struct JsonColumn {
  bool ready = false;
  bool lob = false;  // a LOB or XML column: its value is a reference and inline data
  ColumnInfo info;
  std::string name;  // up to a zero byte, as a key is written
  std::string key;   // the name as a member's key, JsonOut::keyText
};
using JsonColumns = ColumnsFor<JsonColumn>;

// The cached schema of the row's subscription: its column-offset array and descriptors, in
// machine order except the name counts.
struct SchemaColumns {
  QMsg msg;          // over the cached copy, printing to the row's stream
  size_t arrayAt;
  uint16_t nColsInKey;
  RenderedSchema* rendered = nullptr;
  JsonColumns* json = nullptr;

  // Prints the descriptor of column `index` of the array through `e`, and after it the value's
  // label when it succeeds, and returns what the value printer needs: from the rendered lines
  // when they are there, else printed into a memory stream and kept (a failure is written and
  // reported as the plain print does, and not kept).
  // `form` is how its values are printed (General when it is not kept).
  int32_t describe(size_t index, ColumnInfo& col, ValueForm& form, Emit& e) {
    form = ValueForm::General;
    if (rendered == nullptr) {
      int32_t rc = describePlain(index, col);
      if (rc == 0) e.lit(kValueLabel);
      return rc;
    }
    if (index < rendered->columns.size() && rendered->columns[index].ready) {
      const RenderedColumn& c = rendered->columns[index];
      e.raw(c.lines.data(), c.lines.size());
      col = c.info;
      form = c.form;
      return 0;
    }
    char* text = nullptr;
    size_t size = 0;
    FILE* mem = open_memstream(&text, &size);
    if (mem == nullptr) {
      e.flush();
      int32_t rc = describePlain(index, col);
      if (rc == 0) e.lit(kValueLabel);
      return rc;
    }
    FILE* out = msg.out;
    msg.out = mem;
    int32_t rc = describePlain(index, col);
    msg.out = out;
    std::fclose(mem);
    e.raw(text, size);
    if (rc == 0) {
      e.lit(kValueLabel);
      if (rendered->columns.size() <= index) rendered->columns.resize(index + 1);
      RenderedColumn& c = rendered->columns[index];
      c.lines.assign(text, size);
      c.lines += kValueLabel;
      c.info = col;
      c.form = isLobType(col.type) ? ValueForm::General : valueForm(msg, col);
      c.ready = true;
    }
    std::free(text);
    return rc;
  }

  // What the JSON rendering needs of column `index`: its value form and its name, converted
  // from the schema's code page; kept in `json` when it is there (a failure is reported each
  // time and not kept).
  const JsonColumn* jsonColumn(size_t index, int32_t& rc) {
    if (json != nullptr && index < json->columns.size() && json->columns[index].ready)
      return &json->columns[index];
    thread_local JsonColumn scratch;
    JsonColumn* c = &scratch;
    if (json != nullptr) {
      if (json->columns.size() <= index) json->columns.resize(index + 1);
      c = &json->columns[index];
    }
    rc = readJsonColumn(index, c->info, c->name);
    if (rc == 0) {
      c->name.resize(std::strlen(c->name.c_str()));
      c->key = JsonOut::keyText(c->name.c_str());
      c->lob = isLobType(c->info.type);
    }
    c->ready = rc == 0;
    return rc == 0 ? c : nullptr;
  }

  int32_t readJsonColumn(size_t index, ColumnInfo& col, std::string& name) {
    uint16_t nameLen = 0;
    const uint8_t* chars = nullptr;
    int32_t rc = readSchemaColumn(msg.r, arrayAt, index, col, chars, nameLen);
    if (rc != 0) return rc;
    ConvText text;
    rc = convertText(msg, chars, nameLen, text, kSetStep, "ConvMgr::cpcvl", "colname");
    if (rc == 0) name.assign(text.data(), static_cast<size_t>(text.size()));
    return rc;
  }

  int32_t describePlain(size_t index, ColumnInfo& col) {
    uint16_t desc = 0;
    uint32_t codePage = 0;
    int32_t rc = msg.r.machine(arrayAt + 2 * index, desc, "qSubSchemaMsg column offset");
    if (rc == 0) rc = msg.r.machine(desc, col.type, "qColSchema.coltype");
    if (rc == 0) rc = msg.r.machine(desc + 8, codePage, "qColSchema.codepage");
    if (rc == 0) rc = printColSchema(msg, desc, false);
    if (rc != 0) return rc;
    const uint8_t* stored = nullptr;
    rc = msg.r.bytes(desc + 4, 4, stored, "qColSchema.typelen");
    if (rc != 0) return rc;
    readPrecisionScale(stored, msg.swap(), col);
    col.codePage = static_cast<int32_t>(codePage);
    return 0;
  }
};

// A LOB or XML value: its reference, then the data that follows inline (rowNum 1).
int32_t printLobValue(QMsg& m, Emit& e, const MsgReader& value, ColumnInfo col) {
  LobValue lob;
  int32_t rc = readLobValue(m, value, col, lob);
  if (rc != 0) return rc;
  e.lit("\n    lobId:      [ rowNum = ").num(static_cast<int32_t>(lob.rowNum)).lit(", colNum = ").num(lob.colNum).lit(" ]\n");
  e.lit("    lobDataLen: ").num(static_cast<int32_t>(lob.dataLen)).ch('\n');
  if ((col.type & ~1u) == kColXml) e.lit("    xmlDataLen: ").num(static_cast<int32_t>(lob.dataLen)).ch('\n');
  return printColumnValue(m, e, col, lob.data, lob.n, kSetStep);
}

// The JSON form of a LOB or XML value: its reference and the data that follows inline.
int32_t jsonLobValue(QMsg& m, JsonOut& j, JsonKey key, const MsgReader& value, ColumnInfo col) {
  LobValue lob;
  int32_t rc = readLobValue(m, value, col, lob);
  if (rc != 0) return rc;
  j.beginObject(key);
  j.num("rowNum", static_cast<int32_t>(lob.rowNum));
  j.num("colNum", lob.colNum);
  j.num("lobDataLen", static_cast<int32_t>(lob.dataLen));
  JsonValue v{j, "data"};
  rc = jsonColumnValue(m, v, col, lob.data, lob.n, kSetStep);
  if (rc == 0) j.endObject();
  return rc;
}

// qRowColSet::printMe: the column set at `at` of the row reader. The JSON form is an object
// of the set's values keyed by column name (by position, from 1, without a schema).
template <class O>
int32_t printColSet(QMsg& m, O& o, const MsgReader& row, size_t at, SchemaColumns* schema, bool key,
                    const char* setKey) {
  RPL_TRACE(kCompPrinters, 24);
  Emit e(o.out());
  uint32_t length = 0;
  uint16_t nCols = 0;
  MsgReader set;
  int32_t rc = openColumnSet(row, at, set, length, nCols);
  if (rc != 0) return rplTrace_.ret(rc);
  if constexpr (O::kJson) o.beginGroup(setKey);
  else e.lit("colset.nCols:   ").num(nCols).ch('\n');

  // Where each value starts (-1: a marker) and how long it is: up to the next value, or to
  // the end of the set for the last one. The table is kept from set to set (no allocation per
  // set) and used through a plain pointer, so that its stores are not read back through the
  // thread's storage on every column.
  struct Slot {
    int64_t start;
    size_t size;
    uint16_t entry;
  };
  thread_local std::vector<Slot> slots;
  if (slots.size() < nCols) slots.resize(nCols);
  Slot* const slot = slots.data();
  for (size_t i = 0; i < nCols; ++i) {
    Slot& c = slot[i];
    c.size = 0;
    c.start = -1;
    rc = set.machine(kSetHeaderSize + 2 * i, c.entry, "qRowColSet column offset");
    if (rc != 0) break;
    if (c.entry < kLongOffset) {
      c.start = c.entry;
    } else if (nameOf(kColumnMarkers, c.entry, nullptr) == nullptr) {
      uint32_t real = 0;
      rc = set.u32(c.entry & 0x7FFF, real, "qRowColSet long offset");
      c.start = real;
      if (rc != 0) break;
    }
  }
  if (rc != 0) return rplTrace_.ret(rc);
  int64_t end = length;
  for (size_t i = nCols; i-- > 0;) {
    Slot& c = slot[i];
    if (c.start < 0) continue;
    if (c.start > end) {
      reportFailuref(kSetStep, "qRowColSet::printMe", kRcShortRead,
                     "Column %zu value at offset %" PRId64 " passes the next value or the %u-byte set",
                     i + 1, c.start, length);
      return rplTrace_.ret(kRcShortRead);
    }
    c.size = static_cast<size_t>(end - c.start);
    end = c.start;
  }

  if constexpr (O::kJson) {
    JsonOut& j = o.json();
    KeptColumns<JsonColumn> kept;
    if (schema != nullptr) kept.take(schema->json);
    const size_t firstColumn = schema == nullptr || key ? 0 : schema->nColsInKey;
    for (size_t i = 0; i < nCols; ++i) {
      // The key: the column's name, or its position from 1 without a schema.
      const JsonColumn* column = nullptr;
      char position[24];
      JsonKey name;
      if (schema != nullptr) {
        const size_t index = firstColumn + i;
        column = kept.ready(index);
        if (column == nullptr) {
          column = schema->jsonColumn(index, rc);
          if (column == nullptr) return rplTrace_.ret(rc);
          kept.take(schema->json);
        }
        name = std::string_view(column->name);
      } else {
        name = std::string_view(position, static_cast<size_t>(std::to_chars(position, position + sizeof position, i + 1).ptr - position));
      }
      const Slot& c = slot[i];
      if (c.start < 0) {
        JsonValue v{j, name, column != nullptr ? std::string_view(column->key) : std::string_view()};
        if (c.entry == 0x8001) v.null();
        else {
          std::string_view marker = nameOf(kColumnMarkers, c.entry, "");
          j.str(v.member(), marker.substr(0, marker.size() - 1));
        }
        continue;
      }
      const uint8_t* p = nullptr;
      rc = set.bytes(static_cast<size_t>(c.start), c.size, p, "qRowColSet column value");
      if (rc != 0) return rplTrace_.ret(rc);
      // Values are read from the set where they lie, as the text reads them.
      if (column == nullptr) {
        j.hex(name, p, c.size);
        continue;
      }
      const ColumnInfo& col = column->info;
      if (column->lob) {
        rc = jsonLobValue(m, j, name, MsgReader(const_cast<uint8_t*>(p), c.size, set.swapped()), col);
      } else {
        JsonValue v{j, name, column->key};
        rc = jsonColumnValue(m, v, col, c.size > 0 ? p : nullptr, c.size, kSetStep);
      }
      if (rc != 0) return rplTrace_.ret(rc);
    }
    o.endGroup();
    return rplTrace_.ret(0);
  }
  // The text: each value is printed from the set where it lies (its readers copy what they
  // read, so no aligned copy is needed). Values of the commonest forms are printed here, unless
  // the value printer's entries and exits are traced.
  const bool direct = !(traceLevel(kCompPrinters, kFnColumnValue) & kTraceFlow);
  const bool swap = m.swap();
  const bool lowFirst = m.converting() && (m.enc->flags & kEncLowByteFirst) != 0;
  KeptColumns<RenderedColumn> kept;
  if (schema != nullptr) kept.take(schema->rendered);
  const size_t firstColumn = schema == nullptr || key ? 0 : schema->nColsInKey;
  for (size_t i = 0; i < nCols; ++i) {
    const Slot& c = slot[i];
    ColumnInfo col;
    ValueForm form = ValueForm::General;
    if (schema != nullptr) {
      // The descriptor lines and the value's label.
      const size_t index = firstColumn + i;
      if (const RenderedColumn* r = kept.ready(index)) {
        e.raw(r->lines.data(), r->lines.size());
        col = r->info;
        form = r->form;
      } else {
        rc = schema->describe(index, col, form, e);
        if (rc != 0) {
          reportFailure(kSetStep, "qSchemaCol::printMe", rc, "Cannot print column schema");
          return rplTrace_.ret(rc);
        }
        kept.take(schema->rendered);
      }
    } else {
      e.lit(kValueLabel);
    }
    if (c.start < 0) {
      e.str(nameOf(kColumnMarkers, c.entry, ""));
      continue;
    }
    if (c.entry >= kLongOffset) e.lit(" (LONG OFFSET) ");
    const uint8_t* p = nullptr;
    rc = set.bytes(static_cast<size_t>(c.start), c.size, p, "qRowColSet column value");
    if (rc != 0) return rplTrace_.ret(rc);
    if (schema == nullptr) {
      e.lit("  length:    ").num(static_cast<int32_t>(c.size)).ch('\n');
      e.flush();
      dumpHex(c.size, p, m.out);
      continue;
    }
    if (direct && form != ValueForm::General && printValueAsForm(e, form, swap, lowFirst, p, c.size)) {
      e.ch('\n');
      continue;
    }
    if (isLobType(col.type)) {
      rc = printLobValue(m, e, MsgReader(const_cast<uint8_t*>(p), c.size, set.swapped()), col);
    } else {
      rc = printColumnValue(m, e, col, c.size > 0 ? p : nullptr, c.size, kSetStep);
    }
    if (rc != 0) return rplTrace_.ret(rc);
    e.ch('\n');
  }
  return rplTrace_.ret(0);
}

}  // namespace

size_t rowColumnSetsOffset(uint16_t version) {
  return version == 0 ? 0 : version == 1 ? 12 : version <= 6 ? 24 : 32;
}

size_t spilledRowOffset(uint16_t version) {
  return version == 1 ? 16 : version <= 4 ? 110 : version <= 6 ? 128 : version == 7 ? 136 : version == 8 ? 152 : 168;
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

template <class O>
int32_t printTransRow(QMsg& m, O& o, size_t at, uint16_t version) {
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
  char intent[48] = "";  // sixteen bytes as hex pairs: 39 characters
  size_t intentLength = 0;
  if (rc == 0 && version >= 2) {
    const uint8_t* p = nullptr;
    rc = row.bytes(12, version >= 7 ? 16 : 10, p, "qTransRow.intentseq");
    if (rc == 0 && version >= 7) intent[intentLength = hexPairChars(p, 16, intent)] = '\0';
    else if (rc == 0) {
      std::snprintf(intent, sizeof intent, "%s", formatPos10(p).c_str());
      intentLength = std::strlen(intent);
    }
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
    rc = printBatchedTransHeader(m, o, at + pos);
    if (rc != 0) return rplTrace_.ret(rc);
  }

  if constexpr (O::kJson) {
    o.hidden("length", static_cast<int32_t>(length));
    o.hidden("encodetype", viewOf(kEncodeTypeViews, encodeType, "Unsupported"));
    o.hidden("encodever", viewOf(kEncodeVersionViews, encodeVer, "Unknown"));
    o.hidden("operation", viewOf(kRowOperationViews, operation, "Unexpected"));
    o.hidden("operation_code", operation);
    if (version >= 2) o.hidden("intentseq", std::string_view(intent, intentLength));
    // The texts of the set bits in table order, joined on the stack.
    char flags[256];
    static_assert([] {
      size_t all = 0;
      for (std::string_view name : kBafterViews.name) all += name.size();
      return all;
    }() <= sizeof flags);
    size_t nFlags = 0;
    for (size_t i = 0; i < std::size(kBafterBits); ++i)
      if (bafter & kBafterViews.value[i]) {
        std::memcpy(flags + nFlags, kBafterViews.name[i].data(), kBafterViews.name[i].size());
        nFlags += kBafterViews.name[i].size();
      }
    o.hidden("bafter", std::string_view(flags, nFlags));
    o.hidden("sub_id", static_cast<int32_t>(subId));
    o.hidden("partitionNo", partitionNo);
  } else {
    Emit e(m.out);
    e.lit("qTransRow.length:      ").num(static_cast<int32_t>(length)).ch('\n');
    auto view = [&e](std::string_view v) -> Emit& { return e.raw(v.data(), v.size()); };
    e.lit("rowheader.encodetype:  ");
    view(viewOf(kEncodeTypeViews, encodeType, "Unsupported")).ch('\n');
    e.lit("rowheader.encodever:   ");
    view(viewOf(kEncodeVersionViews, encodeVer, "Unknown")).ch('\n');
    e.lit("rowheader.operation:   ");
    view(viewOf(kRowOperationViews, operation, "Unexpected")).ch('\n');
    if (version >= 2) {
      e.lit("rowheader.intentseq:   ").raw(intent, intentLength).ch('\n');
      if (encodeVer > 3) e.lit("rowheader.partitionNo: ").num(partitionNo).ch('\n');  // "%d"
    }
    if ((operation & kOpLobBit) && (operation & kOpXmlBit))
      e.lit("                       Row operation involves LOB and XML columns\n");
    else if (operation & kOpLobBit)
      e.lit("                       Row operation involves LOB columns\n");
    else if (operation & kOpXmlBit)
      e.lit("                       Row operation involves XML columns\n");
    // The texts of the set bits in table order, as joinFlags joins them, written one by one.
    e.lit("rowheader.bafter:      ");
    for (size_t i = 0; i < std::size(kBafterBits); ++i)
      if (bafter & kBafterViews.value[i]) view(kBafterViews.name[i]);
    e.ch('\n');
    e.lit("rowheader.sub_id:      ").num(static_cast<int32_t>(subId)).ch('\n');
    e.lit("rowheader.partitionNo: ").num(partitionNo).ch('\n');  // "%hu"
  }

  if (operation == kOpMassiveStmt) {
    rc = printStmtChunk(m, o, at + firstSet);
    if (rc != 0) reportFailure(kRowStep, "qStmtChunk::printMe", rc, "Cannot print statement chunk data");
    return rplTrace_.ret(rc);
  }

  std::optional<SchemaColumns> schema;
  if (const CachedSchema* cached = findSchema(subId)) {
    size_t arrayAt = schemaColumnArrayOffset(cached->version);
    if (arrayAt == 0) return rplTrace_.ret(kRcBadSchemaVersion);
    uint8_t* copy = const_cast<uint8_t*>(cached->msg);
    schema.emplace(SchemaColumns{QMsg(copy, cached->length, m.out, m.enc, m.cm), arrayAt, 0});
    schema->msg.r = MsgReader(copy, cached->length, cached->senderSwapped);
    if constexpr (!O::kJson) schema->rendered = &columnsFor<RenderedColumn>(cached->serial, schema->msg);
    else schema->json = &columnsFor<JsonColumn>(cached->serial, schema->msg);
    rc = schema->msg.r.machine(508, schema->nColsInKey, "qSubSchemaMsg.nColsInKey");
    if (rc != 0) return rplTrace_.ret(rc);
  }

  size_t pos = firstSet;
  for (const SetKind& kind : kSetKinds) {
    if (!(bafter & kind.bit)) continue;
    uint32_t setLen = 0;
    rc = printColSet(m, o, row, pos, schema ? &*schema : nullptr, kind.key, kind.json);
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

template int32_t printTransRow(QMsg&, TextSink&, size_t, uint16_t);
template int32_t printTransRow(QMsg&, JsonSink&, size_t, uint16_t);

int32_t printTransRow(QMsg& m, size_t at, uint16_t version) {
  TextSink o(m.out);
  return printTransRow(m, o, at, version);
}

const char* rowOperationName(uint8_t operation) {
  return nameOf(kRowOperations, operation, "Unexpected");
}

int32_t readSchemaColumn(MsgReader& schema, size_t arrayAt, size_t index, ColumnInfo& col,
                         const uint8_t*& name, uint16_t& nameLen) {
  Cursor c(schema);
  const uint16_t desc = c.machine<uint16_t>(arrayAt + 2 * index, "qSubSchemaMsg column offset");
  col.type = c.machine<uint16_t>(desc, "qColSchema.coltype");
  const uint32_t codePage = c.machine<uint32_t>(desc + 8, "qColSchema.codepage");
  const uint8_t* stored = c.bytes(desc + 4, 4, "qColSchema.typelen");
  nameLen = c.u16(desc + 12, "qColSchema.colname length");
  name = c.bytes(desc + 14, nameLen, "qColSchema.colname");
  if (!c) return c.rc();
  readPrecisionScale(stored, schema.swapped(), col);
  col.codePage = static_cast<int32_t>(codePage);
  return 0;
}

bool isLobType(uint16_t type) {
  uint16_t t = type & ~1u;
  return t == kColBlob || t == kColClob || t == kColDbclob || t == kColXml;
}

int32_t readLobValue(const QMsg& m, const MsgReader& value, ColumnInfo& col, LobValue& lob) {
  Cursor c(const_cast<MsgReader&>(value));
  lob.rowNum = c.u32(0, "qLobRef.rowNum");
  lob.colNum = c.u16(4, "qLobRef.colNum");
  lob.dataLen = c.u32(6, "qLobRef.dataLen");
  if (!c) return c.rc();
  if (m.converting()) col.codePage = (col.type & ~1u) == kColDbclob ? m.enc->dbcsCcsid : m.enc->msgCcsid;
  lob.n = lob.rowNum == 1 ? value.size() - kLobRefSize : 0;
  if (lob.n > lob.dataLen) lob.n = lob.dataLen;
  if (lob.n > 0) value.bytes(kLobRefSize, lob.n, lob.data, "qLobRef data");
  return 0;
}
