// The light pass over transaction messages (see scan.h): the header printers write into the
// keeping sink, the rows are walked as the row printer walks them, and only the named column's
// values are rendered, each by the value printer of the JSON rendering.
#include "qmsg/scan.h"

#include <strings.h>

#include <cstring>

#include "qmsg/compact.h"
#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/json.h"
#include "qmsg/row.h"
#include "qmsg/schema.h"
#include "qmsg/trans.h"
#include "qmsg/values.h"

void ScanSink::keepTime(const UtcTime& t) {
  JsonOut j;
  j.utc(nullptr, t.seconds, t.micros);
  const std::string_view s = j.str();
  commitTime = s.size() >= 2 && s.front() == '"' ? std::string(s.substr(1, s.size() - 2)) : std::string();
}

void ScanSink::keepHex(const HexBytes& h) {
  uow.resize(2 * h.n);
  hexRun(h.p, h.n, false, uow.data());
}

namespace {

constexpr uint8_t kOpMassiveStmt = 160;
constexpr uint8_t kBafterBatchedHeader = 16;
constexpr const char* kSetStep = "qRowColSet::printMe";

// The column sets in stored order: their bafter bit, and whether they hold the key columns.
struct SetKind {
  uint8_t bit;
  bool key;
};
constexpr SetKind kSetKinds[] = {{2, true}, {4, false}, {8, true}, {1, false}};

// The marker entries and the text the rendering gives them (0x8001 is null).
const char* markerText(uint16_t entry) {
  switch (entry) {
    case 0x8000: return "SUPPRESSED";
    case 0x8002: return "P2P MODIFIED";
    case 0x8004: return "OVERSIZED/NOT MODIFIED";
    default: return nullptr;
  }
}
bool isMarker(uint16_t entry) { return entry == 0x8001 || markerText(entry) != nullptr; }

size_t roundUp4(size_t n) { return (n + 3) & ~size_t{3}; }

// The columns of a cached schema that carry the wanted name, once per schema copy, wanted
// name and conversion context.
struct NamedColumns {
  SchemaContext context;
  std::string name;
  uint16_t nColsInKey = 0;
  size_t arrayAt = 0;
  std::vector<int> matches;          // schema column indexes whose name reads `name`
  std::vector<ColumnInfo> infos;     // by index in `matches`
};

thread_local NamedColumns g_named;
thread_local bool g_namedReady = false;

// Reads the columns of `cached` named `column` into `n`, their names converted as the row
// printer converts them (with the row message's context).
int32_t readNamedColumns(const CachedSchema& cached, const QMsg& m, const char* column, NamedColumns& n) {
  n = NamedColumns{};
  n.context = SchemaContext::of(cached.serial, m);
  n.name = column;
  n.arrayAt = schemaColumnArrayOffset(cached.version);
  if (n.arrayAt == 0) return kRcBadSchemaVersion;
  uint8_t* copy = const_cast<uint8_t*>(cached.msg);
  QMsg s(copy, cached.length, nullptr, m.enc, m.cm);
  s.r = MsgReader(copy, cached.length, cached.senderSwapped);
  Cursor c(s.r);
  n.nColsInKey = c.machine<uint16_t>(508, "qSubSchemaMsg.nColsInKey");
  uint16_t nCols = c.machine<uint16_t>(510, "qSubSchemaMsg.nCols");
  if (!c) return c.rc();
  for (size_t i = 0; i < nCols; ++i) {
    ColumnInfo col;
    const uint8_t* chars = nullptr;
    uint16_t nameLen = 0;
    int32_t rc = readSchemaColumn(s.r, n.arrayAt, i, col, chars, nameLen);
    if (rc != 0) return rc;
    ConvText text;
    rc = convertText(s, chars, nameLen, text, kSetStep, "ConvMgr::cpcvl", "colname");
    if (rc != 0) return rc;
    if (static_cast<size_t>(text.size()) == n.name.size() &&
        strncasecmp(text.data(), n.name.data(), n.name.size()) == 0) {
      n.matches.push_back(static_cast<int>(i));
      n.infos.push_back(col);
    }
  }
  return 0;
}

int32_t namedColumns(const CachedSchema& cached, const QMsg& m, const char* column, NamedColumns*& out) {
  NamedColumns& n = g_named;
  if (g_namedReady && n.context == SchemaContext::of(cached.serial, m) && n.name == column) {
    out = &n;
    return 0;
  }
  g_namedReady = false;
  int32_t rc = readNamedColumns(cached, m, column, n);
  if (rc != 0) return rc;
  g_namedReady = true;
  out = &n;
  return 0;
}

// ---- Whether the full rendering reads every value ----------------------------------------------
//
// The summary lists the messages whose full rendering fails. The light pass does not render
// values, so it makes the checks the value printers make, without formatting: a value whose
// check fails, or any doubt (a column the schema may not describe, a row part it does not
// walk), leaves the message to the full rendering, which gives the exact reason.

bool isTextType(uint16_t type) {
  switch (type & ~1u) {
    case kColDate: case kColTime: case kColTimestamp: case kColTimestampTz: case kColCString:
    case kColChar: case kColClob: case kColXml: case kColVarchar: case kColLongVarchar:
    case kColGraphic: case kColDbclob: case kColVargraphic: case kColLongVargraphic:
      return true;
    default:
      return false;
  }
}

// Whether the column's text converts to the output: its converter is opened by converting two
// bytes (bytes a code page cannot decode are replaced, so the data itself cannot fail). A LOB's
// inline data is in the message's code page (DBCLOB: its double-byte one) when converted.
bool textConverts(QMsg& m, const ColumnInfo& col) {
  const uint16_t type = col.type & ~1u;
  if (!isTextType(type)) return true;
  int32_t codePage = col.codePage;
  if (isLobType(type) && m.converting())
    codePage = type == kColDbclob ? m.enc->dbcsCcsid : m.enc->msgCcsid;
  static const uint8_t kProbe[2] = {0x00, 0x41};
  ConvText text;
  return convertText(m, kProbe, sizeof kProbe, text, kSetStep, "ConvMgr::cpcvc", "text", codePage) == 0;
}

// What the value printer checks of a value, by the column's type: nothing (text, whose
// converter is checked with the column, binary, BOOLEAN), a least length (integers; `size`),
// DOUBLE (4 bytes, or at least 8), packed digits (the first `size` bytes, all of them when 0),
// DECFLOAT (8 or 16 bytes), a length prefix within the value (`size`: bytes a character), or a
// LOB reference (10 bytes, even when NULL would be empty).
enum class ValueCheck : uint8_t { kNone, kAtLeast, kDouble, kPacked, kDecfloat, kPrefixed, kLobRef };

// A column of a cached schema as the checks need it: whether the full rendering reads its
// descriptor and name and converts its text (`sure`), and what it checks of its values.
struct CheckedColumn {
  bool looked = false;
  bool sure = false;
  ValueCheck check = ValueCheck::kNone;
  uint16_t size = 0;
};

// The checked columns of a cached schema, per schema copy and conversion context: a few
// schemas at a time, the oldest replaced.
struct CheckedSchema {
  bool readable = false;  // its layout version and key column count read
  uint16_t nColsInKey = 0, nCols = 0;
  size_t arrayAt = 0;
  std::vector<CheckedColumn> columns;
};

CheckedSchema& checkedSchema(const CachedSchema& cached, const QMsg& m) {
  thread_local SchemaSlots<CheckedSchema> slots;
  bool fresh = false;
  CheckedSchema& s = slots.at(SchemaContext::of(cached.serial, m), fresh);
  if (!fresh) return s;
  s.arrayAt = schemaColumnArrayOffset(cached.version);
  MsgReader r(const_cast<uint8_t*>(cached.msg), cached.length, cached.senderSwapped);
  s.readable = s.arrayAt != 0 && r.machine(508, s.nColsInKey, "qSubSchemaMsg.nColsInKey") == 0 &&
               r.machine(510, s.nCols, "qSubSchemaMsg.nCols") == 0;
  return s;
}

const CheckedColumn& lookAtColumn(CheckedSchema& s, const CachedSchema& cached, QMsg& m, size_t index);

inline const CheckedColumn& checkedColumn(CheckedSchema& s, const CachedSchema& cached, QMsg& m,
                                          size_t index) {
  if (index < s.columns.size() && s.columns[index].looked) return s.columns[index];
  return lookAtColumn(s, cached, m, index);
}

const CheckedColumn& lookAtColumn(CheckedSchema& s, const CachedSchema& cached, QMsg& m, size_t index) {
  if (s.columns.size() <= index) s.columns.resize(index + 1);
  CheckedColumn& c = s.columns[index];
  c.looked = true;
  // A column past the schema's array is read from whatever follows it: left to the rendering.
  if (!s.readable || index >= s.nCols) return c;
  uint8_t* copy = const_cast<uint8_t*>(cached.msg);
  QMsg schema(copy, cached.length, nullptr, m.enc, m.cm);
  schema.r = MsgReader(copy, cached.length, cached.senderSwapped);
  const uint8_t* chars = nullptr;
  uint16_t nameLen = 0;
  ConvText name;
  ColumnInfo info;
  c.sure = readSchemaColumn(schema.r, s.arrayAt, index, info, chars, nameLen) == 0 &&
           convertText(schema, chars, nameLen, name, kSetStep, "ConvMgr::cpcvl", "colname") == 0 &&
           textConverts(m, info);
  const uint16_t type = info.type & ~1u;
  auto set = [&c](ValueCheck check, uint16_t size) {
    c.check = check;
    c.size = size;
  };
  if (isLobType(type)) {
    set(ValueCheck::kLobRef, kLobRefSize);
    return c;
  }
  switch (type) {
    case kColSmallint: set(ValueCheck::kAtLeast, 2); break;
    case kColInteger: set(ValueCheck::kAtLeast, 4); break;
    case kColBigint: set(ValueCheck::kAtLeast, 8); break;
    case kColDouble: set(ValueCheck::kDouble, 0); break;
    case kColDecimal:
    case kColDecimal504: set(ValueCheck::kPacked, info.precision > 0 ? info.precision / 2 + 1 : 0); break;
    case kColDecfloat: set(ValueCheck::kDecfloat, 0); break;
    case kColVarchar:
    case kColLongVarchar:
    case kColVarbinary: set(ValueCheck::kPrefixed, 1); break;
    case kColVargraphic:
    case kColLongVargraphic: set(ValueCheck::kPrefixed, 2); break;
    default: set(ValueCheck::kNone, 0); break;
  }
  return c;
}

// A u16 count in the sender's order, then that many `unit`-byte characters within `len`.
bool prefixedFits(const uint8_t* p, size_t len, size_t unit, bool swapped) {
  if (len < 2) return false;
  uint16_t n = 0;
  std::memcpy(&n, p, 2);
  if (swapped) n = static_cast<uint16_t>(n << 8 | n >> 8);
  return size_t{n} * unit <= len - 2;
}

// Packed decimal digits: every half-byte 0-9 but the sign's.
bool packedDigits(const uint8_t* p, size_t n) {
  for (size_t i = 0; i + 1 < n; ++i)
    if ((p[i] >> 4) > 9 || (p[i] & 15) > 9) return false;
  return n > 0 && (p[n - 1] >> 4) <= 9;
}

// Whether the value printer reads a value of column `c` (`len` bytes at `p`, `swapped` as the
// row) without a failure; its text conversion is checked with the column.
inline bool valueReadable(const CheckedColumn& c, const uint8_t* p, size_t len, bool swapped) {
  if (c.check == ValueCheck::kNone) return true;
  if (c.check == ValueCheck::kLobRef) return len >= c.size;  // the reference, then inline data
  if (len == 0) return true;                                  // NULL
  switch (c.check) {
    case ValueCheck::kAtLeast: return len >= c.size;
    case ValueCheck::kDouble: return len == 4 || len >= 8;
    case ValueCheck::kPacked: {
      const size_t n = c.size > 0 ? c.size : len;
      return n <= len && packedDigits(p, n);
    }
    case ValueCheck::kDecfloat: return len == 8 || len == 16;
    case ValueCheck::kPrefixed: return prefixedFits(p, len, c.size, swapped);
    default: return true;
  }
}

// Appends a rendered value to the result.
std::string& nextValue(ScanResult& out) {
  if (out.valuesUsed == out.values.size()) out.values.emplace_back();
  std::string& v = out.values[out.valuesUsed++];
  v.clear();
  return v;
}

// The JSON text of one value, as the row printer's JSON branch writes it.
int32_t renderValue(QMsg& m, const ColumnInfo& col, const uint8_t* p, size_t n, bool swapped,
                    JsonOut& j) {
  j.clear();
  if (!isLobType(col.type)) {
    JsonValue v{j, nullptr};
    return jsonColumnValue(m, v, col, n > 0 ? p : nullptr, n, kSetStep);
  }
  // A LOB value reads as its data: the bytes that follow the reference inline (row 1).
  MsgReader value(const_cast<uint8_t*>(p), n, swapped);
  ColumnInfo data = col;
  LobValue lob;
  int32_t rc = readLobValue(m, value, data, lob);
  if (rc != 0) return rc;
  JsonValue v{j, nullptr};
  return jsonColumnValue(m, v, data, lob.data, lob.n, kSetStep);
}

// One column set at `at` of the row: its structure checked as the row printer checks it, with
// `checked` (the row's schema, when values are checked) each value checked, and the values of
// the wanted columns rendered: those of `named`, or the set column wanted by position
// (`positional`, rows without a schema).
int32_t scanColSet(QMsg& m, const MsgReader& row, size_t at, const NamedColumns* named, bool key,
                   long positional, ScanResult& out, ScanRow& r, const CachedSchema* cached,
                   CheckedSchema* checked) {
  uint32_t length = 0;
  uint16_t nCols = 0;
  MsgReader set;
  int32_t rc = openColumnSet(row, at, set, length, nCols);
  if (rc != 0) return rc;

  thread_local std::vector<int64_t> start;
  thread_local std::vector<uint16_t> entry;
  start.assign(nCols, -1);
  entry.assign(nCols, 0);
  for (size_t i = 0; i < nCols; ++i) {
    rc = set.machine(kSetHeaderSize + 2 * i, entry[i], "qRowColSet column offset");
    if (rc != 0) return rc;
    if (entry[i] < kLongOffset) {
      start[i] = entry[i];
    } else if (!isMarker(entry[i])) {
      uint32_t real = 0;
      rc = set.u32(entry[i] & 0x7FFF, real, "qRowColSet long offset");
      if (rc != 0) return rc;
      start[i] = real;
    }
  }
  // Each value runs to the next one's start, the last to the end of the set; with `checked`,
  // each is checked as its printer reads it.
  const size_t first = checked == nullptr ? 0 : key ? 0 : checked->nColsInKey;
  int64_t end = length;
  for (size_t i = nCols; i-- > 0;) {
    if (checked != nullptr) {
      const CheckedColumn& c = checkedColumn(*checked, *cached, m, first + i);
      if (!c.sure) return kRcUnknownType;
      if (start[i] >= 0 && start[i] <= end &&
          !valueReadable(c, set.data() + start[i], static_cast<size_t>(end - start[i]), set.swapped()))
        return kRcUnknownType;
    }
    if (start[i] < 0) continue;
    if (start[i] > end) return kRcShortRead;  // the rendering says which value
    end = start[i];
  }

  auto wantedIndex = [&](size_t i) -> int {
    if (named == nullptr) return static_cast<long>(i) + 1 == positional ? 0 : -1;
    const size_t index = (key ? 0 : named->nColsInKey) + i;
    for (size_t k = 0; k < named->matches.size(); ++k)
      if (static_cast<size_t>(named->matches[k]) == index) return static_cast<int>(k);
    return -1;
  };
  if (named == nullptr && positional <= 0) return 0;
  if (named != nullptr && named->matches.empty()) return 0;
  thread_local JsonOut j;
  for (size_t i = 0; i < nCols; ++i) {
    const int k = wantedIndex(i);
    if (k < 0) continue;
    std::string& v = nextValue(out);
    ++r.valueCount;
    if (start[i] < 0) {
      const char* marker = markerText(entry[i]);
      if (marker == nullptr) v = "null";
      else v.append("\"").append(marker).append("\"");
      continue;
    }
    int64_t next = length;
    for (size_t k2 = i + 1; k2 < nCols; ++k2)
      if (start[k2] >= 0) {
        next = start[k2];
        break;
      }
    const size_t size = static_cast<size_t>(next - start[i]);
    const uint8_t* p = nullptr;
    rc = set.bytes(static_cast<size_t>(start[i]), size, p, "qRowColSet column value");
    if (rc != 0) return rc;
    // The value printers read from an aligned copy, as the row printer gives them.
    thread_local std::vector<uint64_t> work;
    if (work.size() * 8 < size + 8) work.resize(size / 8 + 2);
    uint8_t* copy = reinterpret_cast<uint8_t*>(work.data());
    if (size > 0) std::memcpy(copy, p, size);
    if (named == nullptr) {
      j.clear();
      j.hex(nullptr, copy, size);
    } else {
      // A value that cannot be rendered reads as nothing (empty); the rows go on.
      if (renderValue(m, named->infos[static_cast<size_t>(k)], copy, size, set.swapped(), j) != 0) {
        out.unreadValues = true;
        continue;
      }
    }
    v = j.str();
  }
  return 0;
}

// A column name the rendering uses for a value by position (rows without a schema): "1", "2", ...
long positionalName(const char* column) {
  if (column == nullptr || column[0] < '1' || column[0] > '9') return 0;
  long n = 0;
  for (const char* c = column; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9' || n > 100000) return 0;
    n = n * 10 + (*c - '0');
  }
  return n;
}

int32_t scanRow(QMsg& m, size_t at, uint16_t version, const char* column, bool check, ScanResult& out) {
  uint32_t length = 0;
  MsgReader row;
  int32_t rc = m.r.machine(at, length, "qTransRow.length");
  if (rc == 0) rc = m.r.sub(at, length, row, "qTransRow");
  uint8_t operation = 0, bafter = 0;
  uint32_t subId = 0;
  uint16_t partitionNo = 0;
  const uint8_t* intent = nullptr;
  if (rc == 0) rc = row.has(4, 2) ? 0 : row.shortRead(4, 2, "qTransRow.encodever");
  if (rc == 0) rc = row.u8(6, operation, "qTransRow.operation");
  if (rc == 0) rc = row.u8(7, bafter, "qTransRow.bafter");
  if (rc == 0) rc = row.machine(8, subId, "qTransRow.sub_id");
  if (rc == 0 && version >= 7) rc = row.machine(30, partitionNo, "qTransRow.partitionNo");
  if (rc == 0 && version >= 2) rc = row.bytes(12, version >= 7 ? 16 : 10, intent, "qTransRow.intentseq");
  if (rc != 0) return rc;

  ScanRow& r = out.rows.emplace_back();
  r.subId = static_cast<int32_t>(subId);
  r.operation = rowOperationName(operation);
  r.firstValue = static_cast<uint32_t>(out.valuesUsed);
  const size_t firstSet = rowColumnSetsOffset(version);
  // Rows with a batched transaction header or a statement chunk are left to the full
  // rendering when a column is wanted or values are checked (they are not walked here).
  const bool walk = column != nullptr || check;
  if (operation == kOpMassiveStmt) return walk ? kRcUnknownType : 0;
  if (version >= 8 && (bafter & kBafterBatchedHeader) && walk) return kRcUnknownType;

  const CachedSchema* cached = walk ? findSchema(subId) : nullptr;
  CheckedSchema* checked = nullptr;
  if (check && cached != nullptr) {
    checked = &checkedSchema(*cached, m);
    if (!checked->readable) return kRcUnknownType;
  }
  const NamedColumns* named = nullptr;
  long positional = 0;
  if (column != nullptr) {
    if (cached != nullptr) {
      NamedColumns* n = nullptr;
      rc = namedColumns(*cached, m, column, n);
      if (rc != 0) return rc;
      named = n;
    } else {
      positional = positionalName(column);
    }
  }
  size_t pos = firstSet;
  for (const SetKind& kind : kSetKinds) {
    if (!(bafter & kind.bit)) continue;
    uint32_t setLen = 0;
    rc = scanColSet(m, row, pos, named, kind.key, positional, out, out.rows.back(), cached, checked);
    if (rc == 0) rc = row.machine(pos, setLen, "qRowColSet.length");
    if (rc == 0 && setLen < kSetHeaderSize) rc = row.shortRead(pos, kSetHeaderSize, "qRowColSet.length");
    if (rc != 0) return rc;
    pos += roundUp4(setLen);
  }
  return 0;
}

}  // namespace

int32_t scanCompactMsg(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm,
                       const char* column, ScanResult& out, bool checkValues) {
  out.clear();
  if (column != nullptr && column[0] == '\0') column = nullptr;
  encodingInfo utf8 = enc;
  utf8.outCcsid = 1208;
  cm.dropExpired();
  QMsg m(msg, length, nullptr, &utf8, &cm);
  uint8_t type = 0;
  int32_t rc = m.r.u8(4, type, "qMsgHeader.msgtype");
  if (rc == 0) rc = m.r.has(0, kHeaderSize) ? 0 : m.r.shortRead(0, kHeaderSize, "qMsgHeader");
  if (rc != 0) return rc;
  uint16_t version = 0;
  size_t at = 0;
  int64_t rows = 0;
  if (type == kTypeTransMsg) {
    rc = printTransMsgHeader(m, out.fields, false);
    int32_t n = 0;
    if (rc == 0) rc = m.version(version);
    if (rc == 0) rc = m.r.machine(28, n, "qTransMsgHeader.nRows");
    rows = n;
    at = firstTransRow(version);
  } else if (type == kTypeStreamedTransMsg) {
    rc = printStreamedTransMsgHeader(m, out.fields, false);
    uint32_t single = 0, chunks = 0;
    if (rc == 0) rc = m.version(version);
    if (rc == 0) rc = m.r.machine(144, single, "qStreamedTransMsgHeader.numSingleRowOps");
    if (rc == 0) rc = m.r.machine(148, chunks, "qStreamedTransMsgHeader.numStmtChunkFiles");
    rows = int64_t{single} + chunks;
    at = 160;
  } else if (type == kTypeSpillRow) {
    // The header, then the one row at the offset its version gives; it is swapped here, as
    // the row printer swaps it.
    out.spilled = true;
    rc = printHeaderLines(m, out.fields, true);
    if (rc == 0) rc = m.version(version);
    if (rc != 0) return rc;
    at = spilledRowOffset(version);
    if (m.swap()) fixTransRow(m.r, at, version);
    rows = 1;
  } else {
    return kRcUnknownType;
  }
  if (rc != 0) return rc;
  for (int64_t i = 0; i < rows; ++i) {
    uint32_t len = 0;
    rc = m.r.machine(at, len, "qTransRow.length");
    if (rc == 0 && (len < 4 || !m.r.has(at, len))) rc = kRcShortRead;
    if (rc == 0) rc = scanRow(m, at, version, column, checkValues, out);
    if (rc != 0) return rc;
    at += (static_cast<size_t>(len) + 3) & ~size_t{3};
  }
  return 0;
}

int32_t namedColumnForms(const encodingInfo& enc, ConvMgr& cm, const char* column, unsigned& forms) {
  forms = 0;
  encodingInfo utf8 = enc;
  utf8.outCcsid = 1208;
  uint8_t none = 0;
  QMsg m(&none, 0, nullptr, &utf8, &cm);
  for (size_t i = 0; i < schemaCacheSize(); ++i) {
    const CachedSchema* cached = findSchema(schemaCacheKeyAt(i));
    if (cached == nullptr) continue;
    NamedColumns n;
    int32_t rc = readNamedColumns(*cached, m, column, n);
    if (rc != 0) return rc;
    for (const ColumnInfo& col : n.infos) {
      switch (col.type & ~1u) {
        case kColSmallint: forms |= kFormInt16; break;
        case kColInteger: forms |= kFormInt32; break;
        case kColBigint: forms |= kFormInt64; break;
        default: forms |= kFormOther;
      }
    }
  }
  return 0;
}
