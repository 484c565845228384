// Subscription schema messages (type 1) and the column descriptor printer shared by every
// printer that shows a column.
#include "qmsg/schema.h"

#include <set>
#include <string>

#include "qmsg/compact.h"
#include "qmsg/families.h"
#include "qmsg/header.h"
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

int32_t fixColSchema(QMsg& m, size_t at) {
  int32_t rc = m.r.fix16(at, "qColSchema.coltype");
  if (rc == 0) rc = m.r.fix32(at + 4, "qColSchema.typelen");
  if (rc == 0) rc = m.r.fix32(at + 8, "qColSchema.codepage");
  return rc;
}

int32_t printColSchema(QMsg& m, size_t at, bool partKey) {
  RPL_TRACE(kCompPrinters, 11);
  uint16_t coltype = 0;
  uint8_t partKeyNum = 0, flags = 0, precision = 0, scale = 0;
  uint32_t typelen = 0, codepage = 0;
  int32_t rc = m.r.machine(at, coltype, "qColSchema.coltype");
  if (rc == 0) rc = m.r.u8(at + 2, partKeyNum, "qColSchema.partKeyNum");
  if (rc == 0) rc = m.r.u8(at + 3, flags, "qColSchema.flags");
  if (rc == 0) rc = m.r.machine(at + 4, typelen, "qColSchema.typelen");
  if (rc == 0) rc = m.r.u8(at + 4, precision, "qColSchema.typeprecision");
  if (rc == 0) rc = m.r.u8(at + 5, scale, "qColSchema.typescale");
  if (rc == 0) rc = m.r.machine(at + 8, codepage, "qColSchema.codepage");
  if (rc != 0) return rplTrace_.ret(rc);

  ConvText name;
  size_t room = m.r.size() > at + 12 ? m.r.size() - at - 12 : 0;
  rc = readName(m, at + 12, room, name, "qColSchema.colname", "qColSchema::printMe", "ConvMgr::cpcvl",
                "colname");
  if (rc != 0) return rplTrace_.ret(rc);

  std::fprintf(m.out, "  col.colname:  %.*s\n", name.size(), name.data());
  std::fprintf(m.out, "  col.coltype:  %d = %s\n", coltype, columnTypeName(coltype));
  // Code 504 carries a packed decimal too: its length word holds precision and scale.
  const uint16_t base = coltype & ~1u;
  if (base != kColDecimal && base != kColDecimal504) {
    std::fprintf(m.out, "  col.typelen:  %d\n", static_cast<int32_t>(typelen));
  } else if (!m.swap()) {
    // A swapped descriptor has its precision and scale bytes moved by the u32 swap.
    std::fprintf(m.out, "  col.typeprecision:  %d\n", precision);
    std::fprintf(m.out, "  col.typescale:  %d\n", scale);
  }
  std::fprintf(m.out, "  col.codepage: %d\n", static_cast<int32_t>(codepage));
  if (partKey) {
    std::fprintf(m.out, "  col.partKeyNum: %d\n", partKeyNum);
    std::fprintf(m.out, "  col.ascOrDesc:  %c\n", (flags & 1) ? 'A' : 'D');
    std::fprintf(m.out, "  col.nullsLast:  %c\n", (flags & 2) ? 'Y' : 'N');
  }
  return rplTrace_.ret(0);
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

// Swaps the fixed part of the message (everything before the column-offset array) that the
// version says is there.
int32_t fixSchemaFixedPart(QMsg& m, uint16_t version) {
  int32_t rc = 0;
  for (size_t at = 8; at <= 20 && rc == 0; at += 2) rc = m.r.fix16(at, "qSubSchemaMsg.dbServerType/dbRelease/capRelease");
  if (rc == 0) rc = m.r.fix32(156, "qSubSchemaMsg.sub_id");
  if (rc == 0) rc = m.r.fix32(492, "qSubSchemaMsg.opts_mask");
  for (size_t at : {496, 498, 500, 502}) if (rc == 0) rc = m.r.fix16(at, "qSubSchemaMsg node numbers");
  if (rc == 0) rc = m.r.fix16(506, "qSubSchemaMsg.search_cond_offset");
  if (rc == 0) rc = m.r.fix16(508, "qSubSchemaMsg.nColsInKey");
  if (rc == 0) rc = m.r.fix16(510, "qSubSchemaMsg.nCols");
  if (rc == 0 && version >= 2) rc = m.r.fix32(512, "qSubSchemaMsg.replddl");
  if (version >= 4)
    for (size_t at = 516; at <= 548 && rc == 0; at += 2) rc = m.r.fix16(at, "qSubSchemaMsg.activeNodes");
  if (rc == 0 && version >= 8) rc = m.r.fix16(550, "qSubSchemaMsg extension offset");
  if (rc == 0 && version >= 8) rc = m.r.fix16(552, "qSubSchemaMsg extension length");
  if (rc == 0 && version >= 9) rc = m.r.fix16(554, "qSubSchemaMsg.nPartKeys");
  if (rc == 0 && version >= 9) rc = m.r.fix16(556, "qSubSchemaMsg.numPartRanges");
  if (rc == 0 && version >= 11) rc = m.r.has(558, 1) ? 0 : m.r.shortRead(558, 1, "qSubSchemaMsg.schema_flag");
  if (rc == 0 && version >= 15) rc = m.r.fix16(560, "qSubSchemaMsg.reserved");
  return rc;
}

// The schema's column-offset array: swaps its `count` entries from index `first` and each
// descriptor they point to (once, however many entries name it) when they are not yet swapped.
class ColumnArray {
 public:
  ColumnArray(QMsg& m, size_t at) : m_(m), at_(at) {}

  // Offset of the descriptor of entry i, swapping the entry and the descriptor on first use.
  int32_t descriptor(size_t i, size_t& offset) {
    uint16_t off = 0;
    int32_t rc = m_.r.fix16(at_ + 2 * i, off, "qSubSchemaMsg column offset");
    if (rc == 0 && m_.swap() && fixed_.insert(off).second) rc = fixColSchema(m_, off);
    offset = off;
    return rc;
  }
  // Offset of the record of entry i (a partition range), swapping the entry.
  int32_t record(size_t i, size_t& offset) {
    uint16_t off = 0;
    int32_t rc = m_.r.fix16(at_ + 2 * i, off, "qSubSchemaMsg partition range offset");
    offset = off;
    return rc;
  }

 private:
  QMsg& m_;
  size_t at_;
  std::set<size_t> fixed_;
};

// qPartRange::printMe: swaps the range record at `at`, converts its joined limit key and
// prints its lines.
int32_t printPartRange(QMsg& m, size_t at) {
  uint16_t f[6] = {};
  static const char* const kFields[6] = {"qPartRange.fromPhysPart",   "qPartRange.toPhysPart",
                                         "qPartRange.minLogicalPart", "qPartRange.maxLogicalPart",
                                         "qPartRange.numFromStr",     "qPartRange.numToStr"};
  int32_t rc = 0;
  for (size_t i = 0; i < 6 && rc == 0; ++i) rc = m.r.fix16(at + 2 * i, f[i], kFields[i]);
  if (rc != 0) return rc;
  size_t strings = size_t{f[4]} + f[5];
  size_t keyLen = 0;
  for (size_t i = 0; i < strings && rc == 0; ++i) {
    uint16_t len = 0;
    rc = m.r.fix16(at + 12 + 2 * i, len, "qPartRange string length");
    keyLen += len;
  }
  const uint8_t* key = nullptr;
  if (rc == 0) rc = m.r.bytes(at + 12 + 2 * strings, keyLen, key, "qPartRange limit key");
  if (rc != 0) return rc;
  ConvText text;
  rc = convertText(m, key, keyLen, text, "qPartRange::printMe", "ConvMgr::cpcvl", "limitkey");
  if (rc != 0) return rc;
  std::fprintf(m.out, "  fromPhysPart:  %d\n", f[0]);
  std::fprintf(m.out, "  toPhysPart:  %d\n", f[1]);
  std::fprintf(m.out, "  minLogicalPart:  %d\n", f[2]);
  std::fprintf(m.out, "  maxLogicalPart:  %d\n", f[3]);
  std::fprintf(m.out, "  numFromStr:  %d\n", f[4]);
  std::fprintf(m.out, "  numToStr:  %d\n", f[5]);
  std::fprintf(m.out, "  limitKeyStr:  %.*s\n", text.size(), text.data());
  return 0;
}

}  // namespace

int32_t printSubSchemaMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 10);
  uint16_t version = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = fixSchemaFixedPart(m, version);
  if (rc != 0) return rplTrace_.ret(rc);

  rc = qMsgHeader::printLines(m, true);
  if (rc != 0) {
    reportFailure(kSchemaStep, "qMsgHeader::printMe", rc, "Cannot print message header");
    return rplTrace_.ret(rc);
  }

  uint16_t server = 0, db[3] = {}, cap[3] = {}, initiator = 0, newNode = 0, sourceNode = 0,
           targetNode = 0, searchAt = 0, nColsInKey = 0, nCols = 0;
  uint32_t subId = 0, opts = 0, replddl = 0;
  uint8_t reason = 0;
  m.r.machine(8, server, "qSubSchemaMsg.dbServerType");
  for (size_t i = 0; i < 3; ++i) {
    m.r.machine(10 + 2 * i, db[i], "qSubSchemaMsg.dbRelease");
    m.r.machine(16 + 2 * i, cap[i], "qSubSchemaMsg.capRelease");
  }
  m.r.machine(156, subId, "qSubSchemaMsg.sub_id");
  m.r.u8(490, reason, "qSubSchemaMsg.reason_code");
  m.r.machine(492, opts, "qSubSchemaMsg.opts_mask");
  m.r.machine(496, initiator, "qSubSchemaMsg.initiatorNode");
  m.r.machine(498, newNode, "qSubSchemaMsg.newNode");
  m.r.machine(500, sourceNode, "qSubSchemaMsg.sourceNode");
  m.r.machine(502, targetNode, "qSubSchemaMsg.targetNode");
  m.r.machine(506, searchAt, "qSubSchemaMsg.search_cond_offset");
  m.r.machine(508, nColsInKey, "qSubSchemaMsg.nColsInKey");
  m.r.machine(510, nCols, "qSubSchemaMsg.nCols");
  if (version >= 2) m.r.machine(512, replddl, "qSubSchemaMsg.replddl");

  // Texts first: a failed conversion ends the message before its body lines.
  ConvText subname, dbname, owner, name, sendq, search, subType, loadPhase;
  rc = readName(m, 22, 134, subname, "qSubSchemaMsg.subname", kSchemaStep, "ConvMgr::cpcvl", "subname");
  if (rc == 0) rc = readName(m, 160, 20, dbname, "qSubSchemaMsg.src_dbname", kSchemaStep, "ConvMgr::cpcvl", "src_dbname");
  if (rc == 0) rc = readName(m, 180, 130, owner, "qSubSchemaMsg.src_owner", kSchemaStep, "ConvMgr::cpcvl", "src_owner");
  if (rc == 0) rc = readName(m, 310, 130, name, "qSubSchemaMsg.src_name", kSchemaStep, "ConvMgr::cpcvl", "src_name");
  if (rc == 0) rc = readName(m, 440, 50, sendq, "qSubSchemaMsg.sendq_name", kSchemaStep, "ConvMgr::cpcvl", "sendq_name");
  if (rc == 0 && searchAt != 0) {
    size_t room = m.r.size() > searchAt ? m.r.size() - searchAt : 0;
    rc = readName(m, searchAt, room, search, "qSubSchemaMsg.search_cond", kSchemaStep, "ConvMgr::cpcvl",
                  "search condition");
  }
  if (rc == 0 && initiator != 0) {
    const uint8_t* p = nullptr;
    rc = m.r.bytes(505, 1, p, "qSubSchemaMsg.subType");
    if (rc == 0) rc = convertText(m, p, 1, subType, kSchemaStep, "ConvMgr::cpcvc", "subType");
    if (rc == 0) rc = m.r.bytes(504, 1, p, "qSubSchemaMsg.loadPhase");
    if (rc == 0) rc = convertText(m, p, 1, loadPhase, kSchemaStep, "ConvMgr::cpcvc", "loadPhase");
  }
  if (rc != 0) return rplTrace_.ret(rc);

  if (version >= 8) {
    uint16_t extAt = 0, extLen = 0;
    m.r.machine(550, extAt, "qSubSchemaMsg extension offset");
    m.r.machine(552, extLen, "qSubSchemaMsg extension length");
    if (extAt != 0 && extLen != 0) {
      rc = fixGenericTransInfo(m, extAt);
      if (rc == 0) rc = printGenericTransInfo(m, extAt);
      if (rc != 0) return rplTrace_.ret(rc);
    }
  }

  char text[64];
  FILE* out = m.out;
  std::fprintf(out, "schema.dbServerType: %s\n", nameOf(kServerTypes, server, "Unknown"));
  std::snprintf(text, sizeof text, "%d.%d.%d", db[0], db[1], db[2]);
  std::fprintf(out, "schema.dbRelease:    %s\n", text);
  std::snprintf(text, sizeof text, "%d.%d.%d", cap[0], cap[1], cap[2]);
  std::fprintf(out, "schema.capRelease:   %s\n", text);
  std::fprintf(out, "schema.subname:   %.*s\n", subname.size(), subname.data());
  std::fprintf(out, "schema.sub_id:    %d\n", static_cast<int32_t>(subId));
  std::fprintf(out, "schema.src_dbname:   %.*s\n", dbname.size(), dbname.data());
  std::fprintf(out, "schema.src_owner schema.src_name:  %.*s.%.*s\n", owner.size(), owner.data(),
               name.size(), name.data());
  std::fprintf(out, "schema.sendq_name: %.*s\n", sendq.size(), sendq.data());
  std::fprintf(out, "schema.opts_mask: %s\n", optionsText(opts).c_str());
  if (version >= 2) std::fprintf(out, "schema.replddl:    %d\n", static_cast<int32_t>(replddl));
  std::fprintf(out, "schema.search_cond_offset: %d\n", searchAt);
  if (initiator != 0) {
    std::fprintf(out, "schema.initiatorNode: %d\n", initiator);
    std::fprintf(out, "schema.newNode: %d\n", newNode);
    std::fprintf(out, "schema.sourceNode: %d\n", sourceNode);
    std::fprintf(out, "schema.targetNode: %d\n", targetNode);
    std::fprintf(out, "schema.loadPhase: %.*s\n", loadPhase.size(), loadPhase.data());
    std::fprintf(out, "schema.subType: %.*s\n", subType.size(), subType.data());
  }
  std::fprintf(out, "schema.nColsInKey: %d\n", nColsInKey);
  std::fprintf(out, "schema.nCols:     %d\n", nCols);
  if (version >= 4) {
    uint16_t active = 0;
    m.r.machine(516, active, "qSubSchemaMsg.numActiveNodes");
    std::fprintf(out, "schema.reason_code: REASON=%s\n", nameOf(kSchemaReasons, reason, "UNKNOWN"));
    std::fprintf(out, "schema.numActiveNodes: %d\n", active);
    std::fputs("schema.activeNodes: ", out);
    for (size_t i = 0; i < active && i < kMaxActiveNodes; ++i) {
      uint16_t node = 0;
      m.r.machine(518 + 2 * i, node, "qSubSchemaMsg.activeNodes");
      std::fprintf(out, "  %d", node);
    }
    std::fputc('\n', out);
    if (version >= 11) {
      uint8_t flag = 0;
      m.r.u8(558, flag, "qSubSchemaMsg.schema_flag");
      std::fprintf(out, "schema.schema_flag: %s", (flag & 1) ? "COLUMNAR" : "ROW");
      std::fprintf(out, "isSrcColumnar=%s\n", (flag & 1) ? "Y" : "N");
    }
  }

  size_t arrayAt = schemaColumnArrayOffset(version);
  if (arrayAt == 0) return rplTrace_.ret(kRcBadSchemaVersion);
  ColumnArray columns(m, arrayAt);
  for (size_t i = 0; i < nCols; ++i) {
    size_t desc = 0;
    rc = columns.descriptor(i, desc);
    if (rc == 0) rc = printColSchema(m, desc, false);
    if (rc != 0) {
      reportFailure(kSchemaStep, "qColSchema::printMe", rc, "Cannot print column schema info");
      return rplTrace_.ret(rc);
    }
  }

  uint16_t nPartKeys = 0, nRanges = 0;
  if (version >= 9) {
    m.r.machine(554, nPartKeys, "qSubSchemaMsg.nPartKeys");
    m.r.machine(556, nRanges, "qSubSchemaMsg.numPartRanges");
  }
  if (nPartKeys != 0) {
    std::fprintf(out, "schema.nPartKeys: %d\n", nPartKeys);
    std::fprintf(out, "schema.numPartRanges: %d\n", nRanges);
    for (size_t i = 0; i < nPartKeys; ++i) {
      size_t desc = 0;
      rc = columns.descriptor(size_t{nCols} + i, desc);
      if (rc == 0) rc = printColSchema(m, desc, true);
      if (rc != 0) {
        reportFailure(kSchemaStep, "qColSchema::printMe", rc, "Cannot print partitioning key column schema info");
        return rplTrace_.ret(rc);
      }
    }
    for (size_t i = 0; i < nRanges; ++i) {
      size_t range = 0;
      rc = columns.record(size_t{nCols} + nPartKeys + i, range);
      if (rc == 0) rc = printPartRange(m, range);
      if (rc != 0) {
        reportFailure(kSchemaStep, "qPartRange::printMe", rc, "Cannot print partition schema info");
        return rplTrace_.ret(rc);
      }
    }
  }

  if (searchAt != 0) std::fprintf(out, "schema.search_cond: %.*s\n", search.size(), search.data());
  return rplTrace_.ret(0);
}
