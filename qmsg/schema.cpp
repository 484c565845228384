// Subscription schema messages (type 1) and the column descriptor printer shared by every
// printer that shows a column.
#include "qmsg/schema.h"

#include <set>
#include <string>

#include "qmsg/compact.h"
#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/sink.h"
#include "qmsg/trans.h"
#include "runtime/trace.h"

// ---------------------------------------------------------------------------------------------
// qColSchema
//
//   0         2            3       4          8           12
//   +---------+------------+-------+----------+-----------+--------+-------------+
//   | coltype | partKeyNum | flags | typelen  | codepage  | u16 len| colname ... |
//   +---------+------------+-------+----------+-----------+--------+-------------+
//
// The name's count stays in the sender's order: it is read where it is used.

namespace {

// Swaps the integers of the column descriptor at `at` into machine order.
void fixColSchema(Cursor& c, size_t at) {
  c.fix16(at, "qColSchema.coltype");
  c.fix32(at + 4, "qColSchema.typelen");
  c.fix32(at + 8, "qColSchema.codepage");
}

}  // namespace

template <class O>
int32_t printColSchema(QMsg& m, O& o, size_t at, bool partKey) {
  RPL_TRACE(kCompPrinters, 11);
  Cursor c(m.r);
  const uint16_t coltype = c.machine<uint16_t>(at, "qColSchema.coltype");
  const uint8_t partKeyNum = c.u8(at + 2, "qColSchema.partKeyNum");
  const uint8_t flags = c.u8(at + 3, "qColSchema.flags");
  const uint32_t typelen = c.machine<uint32_t>(at + 4, "qColSchema.typelen");
  // Precision and scale are bytes 4 and 5 as the sender wrote them; a swapped descriptor has
  // them turned round with the rest of the u32 (bytes 7 and 6).
  const uint8_t precision = c.u8(at + (m.swap() ? 7 : 4), "qColSchema.typeprecision");
  const uint8_t scale = c.u8(at + (m.swap() ? 6 : 5), "qColSchema.typescale");
  const uint32_t codepage = c.machine<uint32_t>(at + 8, "qColSchema.codepage");
  ConvText name;
  size_t room = m.r.size() > at + 12 ? m.r.size() - at - 12 : 0;
  if (c) c.take(readName(m, at + 12, room, name, "qColSchema.colname", "qColSchema::printMe", "ConvMgr::cpcvl", "colname"));
  if (!c) return rplTrace_.ret(c.rc());

  o.field("colname", name, "  col.colname:  %.*s\n");
  o.show("coltype", coltype, "  col.coltype:  %d = %s\n", coltype, columnTypeName(coltype));
  // Code 504 carries a packed decimal too: its length word holds precision and scale.
  const uint16_t base = coltype & ~1u;
  if (base != kColDecimal && base != kColDecimal504) {
    o.field("typelen", static_cast<int32_t>(typelen), "  col.typelen:  %d\n");
  } else if (!m.swap()) {
    o.field("typeprecision", precision, "  col.typeprecision:  %d\n");
    o.field("typescale", scale, "  col.typescale:  %d\n");
  } else {
    // The text of a swapped descriptor shows neither.
    o.hidden("typeprecision", precision);
    o.hidden("typescale", scale);
  }
  o.field("codepage", static_cast<int32_t>(codepage), "  col.codepage: %d\n");
  if (partKey) {
    o.field("partKeyNum", partKeyNum, "  col.partKeyNum: %d\n");
    o.show("ascOrDesc", (flags & 1) ? "A" : "D", "  col.ascOrDesc:  %c\n", (flags & 1) ? 'A' : 'D');
    o.show("nullsLast", (flags & 2) ? "Y" : "N", "  col.nullsLast:  %c\n", (flags & 2) ? 'Y' : 'N');
  }
  return rplTrace_.ret(0);
}

#define RPL_COLUMN_PRINTER(O) template int32_t printColSchema(QMsg&, O&, size_t, bool);
RPL_FOR_EACH_SINK(RPL_COLUMN_PRINTER)
RPL_COLUMN_PRINTER(SchemaNamesSink)

int32_t printColSchema(QMsg& m, size_t at, bool partKey) {
  TextSink o(m.out);
  return printColSchema(m, o, at, partKey);
}

// ---------------------------------------------------------------------------------------------
// qSubSchemaMsg
//
//   8 dbServerType  10 dbRelease[3]  16 capRelease[3]  22 subname (134)  156 sub_id
//   160 src_dbname (20)  180 src_owner (130)  310 src_name (130)  440 sendq_name (50)
//   490 reason_code  491 -  492 opts_mask  496 initiatorNode  498 newNode  500 sourceNode
//   502 targetNode  504 loadPhase  505 subType  506 search_cond_offset  508 nColsInKey
//   510 nCols  512 replddl (v2)  516 numActiveNodes, 518 activeNodes[16] (v4)
//   550 extension offset, 552 extension length (v8)  554 nPartKeys, 556 numPartRanges (v9)
//   558 schema_flag (v11)  560 reserved (swapped from v15)
//   then, at the version's place: nCols + nPartKeys + numPartRanges u16 offsets of the column
//   descriptors, the partitioning key descriptors and the partition range records.
//
// Partition range record (qPartRange): u16 fromPhysPart, toPhysPart, minLogicalPart,
// maxLogicalPart, numFromStr, numToStr, then numFromStr + numToStr u16 string lengths, then the
// strings' bytes; the limit key is the strings joined.

namespace {

inline constexpr ValueName kServerTypes[] = {
    {1, "QORV"},      {2, "QORV/6000"},  {3, "QORV/HPUX"},    {4, "QORV/NT"},     {5, "QORV/SUN"},
    {6, "QORV/LINUX"}, {7, "QORV/Windows"}, {8, "QORV/AIX64"}, {9, "QORACLE"},
};

inline constexpr ValueName kSchemaReasons[] = {
    {1, "CAPSTART"},       {2, "REINIT"},           {3, "ALTER_TABLE"},
    {4, "REPLICATE_LOAD"}, {5, "REPLICATE_TRUNCATE"}, {6, "SCHEMASUB"},
    {7, "ADD_REPL_KEY_COL"}, {8, "DROP_COLUMN"},    {9, "REPLICATE_LOADDUMMY"},
    {10, "REDEFINE_REPL_KEY"},
};

// Option bits of opts_mask.
enum : uint32_t {
  kOptP2p = 1, kOptAllChangedRows = 2, kOptBeforeValues = 4, kOptChangedColsOnly = 8,
  kOptLoadExternal = 16, kOptLoadInternal = 32, kOptPartitioned = 64,
};

std::string optionsText(uint32_t mask) {
  std::string s;
  s += (mask & kOptP2p) ? "P2P=YES - " : "P2P=NO - ";
  s += (mask & kOptAllChangedRows) ? "ALLCHANGEDROWS=YES - " : "ALLCHANGEDROWS=NO - ";
  s += (mask & kOptBeforeValues) ? "BEFOREVALS=YES - " : "BEFOREVALS=NO - ";
  s += (mask & kOptChangedColsOnly) ? "CHANGEDCOLSONLY=YES - " : "CHANGEDCOLSONLY=NO - ";
  if (mask & kOptLoadExternal) s += "HASLOADPHASE=EXTERNAL";
  else if (mask & kOptLoadInternal) s += "HASLOADPHASE=INTERNAL";
  else s += "HASLOADPHASE=NO ";
  if (mask & kOptPartitioned) s += " - IS_PARTITIONED=YES";
  return s;
}

constexpr size_t kMaxActiveNodes = 16;
constexpr const char* kSchemaStep = "qSubSchemaMsg::printMe";

// The schema's column-offset array: swaps its entries and each descriptor they point to (once,
// however many entries name it).
class ColumnArray {
 public:
  ColumnArray(QMsg& m, size_t at) : m_(m), at_(at) {}

  // Offset of the descriptor of entry i, swapping the entry and the descriptor on first use.
  size_t descriptor(Cursor& c, size_t i) {
    uint16_t off = c.fix16(at_ + 2 * i, "qSubSchemaMsg column offset");
    if (c && m_.swap() && fixed_.insert(off).second) fixColSchema(c, off);
    return off;
  }
  // Offset of the record of entry i (a partition range), swapping the entry.
  size_t record(Cursor& c, size_t i) { return c.fix16(at_ + 2 * i, "qSubSchemaMsg partition range offset"); }

 private:
  QMsg& m_;
  size_t at_;
  std::set<size_t> fixed_;
};

// qPartRange::printMe: swaps the range record at `at`, converts its joined limit key and
// prints its lines.
template <class O>
int32_t printPartRange(QMsg& m, O& o, size_t at) {
  static const char* const kFields[6] = {"qPartRange.fromPhysPart",   "qPartRange.toPhysPart",
                                         "qPartRange.minLogicalPart", "qPartRange.maxLogicalPart",
                                         "qPartRange.numFromStr",     "qPartRange.numToStr"};
  Cursor c(m.r);
  uint16_t f[6] = {};
  for (size_t i = 0; i < 6; ++i) f[i] = c.fix16(at + 2 * i, kFields[i]);
  const size_t strings = size_t{f[4]} + f[5];
  size_t keyLen = 0;
  for (size_t i = 0; i < strings && c; ++i) keyLen += c.fix16(at + 12 + 2 * i, "qPartRange string length");
  const uint8_t* key = c.bytes(at + 12 + 2 * strings, keyLen, "qPartRange limit key");
  ConvText text;
  if (c) c.take(convertText(m, key, keyLen, text, "qPartRange::printMe", "ConvMgr::cpcvl", "limitkey"));
  if (!c) return c.rc();
  o.field("fromPhysPart", f[0], "  fromPhysPart:  %d\n");
  o.field("toPhysPart", f[1], "  toPhysPart:  %d\n");
  o.field("minLogicalPart", f[2], "  minLogicalPart:  %d\n");
  o.field("maxLogicalPart", f[3], "  maxLogicalPart:  %d\n");
  o.field("numFromStr", f[4], "  numFromStr:  %d\n");
  o.field("numToStr", f[5], "  numToStr:  %d\n");
  o.field("limitKeyStr", text, "  limitKeyStr:  %.*s\n");
  return 0;
}

// A name field in its fixed room, converted (nothing after an earlier failure).
void nameAt(QMsg& m, Cursor& c, size_t at, size_t room, ConvText& out, const char* field, const char* label) {
  if (c) c.take(readName(m, at, room, out, field, kSchemaStep, "ConvMgr::cpcvl", label));
}

// A one-character field, converted.
void charAt(QMsg& m, Cursor& c, size_t at, ConvText& out, const char* field, const char* label) {
  const uint8_t* p = c.bytes(at, 1, field);
  if (c) c.take(convertText(m, p, 1, out, kSchemaStep, "ConvMgr::cpcvc", label));
}

}  // namespace

template <class O>
int32_t printSubSchemaMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 10);
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  // The fixed part before the column-offset array, as far as the version says it goes: swapped
  // into machine order and read in one pass. A message that lacks any of it prints nothing.
  const char* releases = "qSubSchemaMsg.dbServerType/dbRelease/capRelease";
  const uint16_t server = c.fix16(8, releases);
  uint16_t db[3] = {}, cap[3] = {};
  for (size_t i = 0; i < 3; ++i) db[i] = c.fix16(10 + 2 * i, releases);
  for (size_t i = 0; i < 3; ++i) cap[i] = c.fix16(16 + 2 * i, releases);
  const uint32_t subId = c.fix32(156, "qSubSchemaMsg.sub_id");
  const uint32_t opts = c.fix32(492, "qSubSchemaMsg.opts_mask");
  const uint8_t reason = c.u8(490, "qSubSchemaMsg.reason_code");
  uint16_t node[4] = {};  // initiator, new, source, target
  for (size_t i = 0; i < 4; ++i) node[i] = c.fix16(496 + 2 * i, "qSubSchemaMsg node numbers");
  const uint16_t searchAt = c.fix16(506, "qSubSchemaMsg.search_cond_offset");
  const uint16_t nColsInKey = c.fix16(508, "qSubSchemaMsg.nColsInKey");
  const uint16_t nCols = c.fix16(510, "qSubSchemaMsg.nCols");
  const uint32_t replddl = version >= 2 ? c.fix32(512, "qSubSchemaMsg.replddl") : 0;
  uint16_t active[1 + kMaxActiveNodes] = {};  // numActiveNodes, then the nodes
  if (version >= 4)
    for (size_t i = 0; i <= kMaxActiveNodes; ++i) active[i] = c.fix16(516 + 2 * i, "qSubSchemaMsg.activeNodes");
  const uint16_t extAt = version >= 8 ? c.fix16(550, "qSubSchemaMsg extension offset") : 0;
  const uint16_t extLen = version >= 8 ? c.fix16(552, "qSubSchemaMsg extension length") : 0;
  const uint16_t nPartKeys = version >= 9 ? c.fix16(554, "qSubSchemaMsg.nPartKeys") : 0;
  const uint16_t nRanges = version >= 9 ? c.fix16(556, "qSubSchemaMsg.numPartRanges") : 0;
  const uint8_t flag = version >= 11 ? c.u8(558, "qSubSchemaMsg.schema_flag") : 0;
  if (version >= 15) c.fix16(560, "qSubSchemaMsg.reserved");
  if (!c) return rplTrace_.ret(c.rc());

  int32_t rc = printHeader(m, o, kSchemaStep);
  if (rc != 0) return rplTrace_.ret(rc);

  // Texts first: a failed conversion ends the message before its body lines.
  const uint16_t initiator = node[0];
  ConvText subname, dbname, owner, name, sendq, search, subType, loadPhase;
  nameAt(m, c, 22, 134, subname, "qSubSchemaMsg.subname", "subname");
  nameAt(m, c, 160, 20, dbname, "qSubSchemaMsg.src_dbname", "src_dbname");
  nameAt(m, c, 180, 130, owner, "qSubSchemaMsg.src_owner", "src_owner");
  nameAt(m, c, 310, 130, name, "qSubSchemaMsg.src_name", "src_name");
  nameAt(m, c, 440, 50, sendq, "qSubSchemaMsg.sendq_name", "sendq_name");
  if (searchAt != 0)
    nameAt(m, c, searchAt, m.r.size() > searchAt ? m.r.size() - searchAt : 0, search, "qSubSchemaMsg.search_cond",
           "search condition");
  if (initiator != 0) {
    charAt(m, c, 505, subType, "qSubSchemaMsg.subType", "subType");
    charAt(m, c, 504, loadPhase, "qSubSchemaMsg.loadPhase", "loadPhase");
  }
  if (extAt != 0 && extLen != 0) {
    if (c) c.take(fixGenericTransInfo(m, extAt));
    if (c) c.take(printGenericTransInfo(m, o, extAt));
  }
  if (!c) return rplTrace_.ret(c.rc());

  char text[2][32];
  std::snprintf(text[0], sizeof text[0], "%d.%d.%d", db[0], db[1], db[2]);
  std::snprintf(text[1], sizeof text[1], "%d.%d.%d", cap[0], cap[1], cap[2]);
  o.field("dbServerType", nameOf(kServerTypes, server, "Unknown"), "schema.dbServerType: %s\n");
  o.field("dbRelease", text[0], "schema.dbRelease:    %s\n");
  o.field("capRelease", text[1], "schema.capRelease:   %s\n");
  o.field("subname", subname, "schema.subname:   %.*s\n");
  o.field("sub_id", static_cast<int32_t>(subId), "schema.sub_id:    %d\n");
  o.field("src_dbname", dbname, "schema.src_dbname:   %.*s\n");
  o.hidden("src_owner", owner);
  o.show("src_name", name, "schema.src_owner schema.src_name:  %.*s.%.*s\n", owner.size(), owner.data(),
         name.size(), name.data());
  o.field("sendq_name", sendq, "schema.sendq_name: %.*s\n");
  o.show("opts_mask", opts, "schema.opts_mask: %s\n", optionsText(opts).c_str());
  if (version >= 2) o.field("replddl", static_cast<int32_t>(replddl), "schema.replddl:    %d\n");
  o.field("search_cond_offset", searchAt, "schema.search_cond_offset: %d\n");
  if (initiator != 0) {
    o.field("initiatorNode", initiator, "schema.initiatorNode: %d\n");
    o.field("newNode", node[1], "schema.newNode: %d\n");
    o.field("sourceNode", node[2], "schema.sourceNode: %d\n");
    o.field("targetNode", node[3], "schema.targetNode: %d\n");
    o.field("loadPhase", loadPhase, "schema.loadPhase: %.*s\n");
    o.field("subType", subType, "schema.subType: %.*s\n");
  }
  o.field("nColsInKey", nColsInKey, "schema.nColsInKey: %d\n");
  o.field("nCols", nCols, "schema.nCols:     %d\n");
  if (version >= 4) {
    o.show("reason_code", reason, "schema.reason_code: REASON=%s\n", nameOf(kSchemaReasons, reason, "UNKNOWN"));
    o.field("numActiveNodes", active[0], "schema.numActiveNodes: %d\n");
    o.text("schema.activeNodes: ");
    o.beginList("activeNodes");
    for (size_t i = 0; i < active[0] && i < kMaxActiveNodes; ++i) o.field("node", active[1 + i], "  %d");
    o.endList();
    o.text("\n");
    if (version >= 11) {
      o.show("schema_flag", (flag & 1) ? "COLUMNAR" : "ROW", "schema.schema_flag: %s", (flag & 1) ? "COLUMNAR" : "ROW");
      o.text("isSrcColumnar=%s\n", (flag & 1) ? "Y" : "N");
    }
  }

  size_t arrayAt = schemaColumnArrayOffset(version);
  if (arrayAt == 0) return rplTrace_.ret(kRcBadSchemaVersion);
  ColumnArray columns(m, arrayAt);
  o.beginList("columns");
  for (size_t i = 0; i < nCols; ++i) {
    const size_t desc = columns.descriptor(c, i);
    o.beginItem();
    if (c) c.take(printColSchema(m, o, desc, false));
    if (!c) {
      reportFailure(kSchemaStep, "qColSchema::printMe", c.rc(), "Cannot print column schema info");
      return rplTrace_.ret(c.rc());
    }
    o.hidden("key", i < nColsInKey);
    o.endItem();
  }
  o.endList();

  if (nPartKeys != 0) {
    o.field("nPartKeys", nPartKeys, "schema.nPartKeys: %d\n");
    o.field("numPartRanges", nRanges, "schema.numPartRanges: %d\n");
    o.beginList("partKeys");
    for (size_t i = 0; i < nPartKeys; ++i) {
      const size_t desc = columns.descriptor(c, size_t{nCols} + i);
      o.beginItem();
      if (c) c.take(printColSchema(m, o, desc, true));
      if (!c) {
        reportFailure(kSchemaStep, "qColSchema::printMe", c.rc(), "Cannot print partitioning key column schema info");
        return rplTrace_.ret(c.rc());
      }
      o.endItem();
    }
    o.endList();
    o.beginList("partRanges");
    for (size_t i = 0; i < nRanges; ++i) {
      const size_t range = columns.record(c, size_t{nCols} + nPartKeys + i);
      o.beginItem();
      if (c) c.take(printPartRange(m, o, range));
      if (!c) {
        reportFailure(kSchemaStep, "qPartRange::printMe", c.rc(), "Cannot print partition schema info");
        return rplTrace_.ret(c.rc());
      }
      o.endItem();
    }
    o.endList();
  }

  if (searchAt != 0) o.field("search_cond", search, "schema.search_cond: %.*s\n");
  return rplTrace_.ret(0);
}

#define RPL_SCHEMA_PRINTER(O) template int32_t printSubSchemaMsg(QMsg&, O&);
RPL_FOR_EACH_SINK(RPL_SCHEMA_PRINTER)
// The schema's names alone, learnt on the way by the tools that select by subscription.
RPL_SCHEMA_PRINTER(SchemaNamesSink)
