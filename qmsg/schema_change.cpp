// Schema-change messages: a column added (type 5), a column added to the replication key
// (type 12), the DDL message of type 6 (alter column, drop column, generic DDL), the truncation
// of a table (type 17) and the redefinition of a replication key (type 18).
//
// Add column (qAddColumnMsg, type 5):
//   0        8        12        14   16        20         24                  154   155
//   +--------+--------+---------+----+---------+----------+-------------------+-----+-----+
//   | header | sub_id | colType | -- | typelen | codepage | colName (130)     | def | sub |
//   +--------+--------+---------+----+---------+----------+-------------------+-----+-----+
//   156                  1198                 1328                 1460   1462    1464
//   +--------------------+--------------------+--------------------+------+-------+------------+
//   | defaultVal (1042)  | beforeColName(130) | targetColName(132) | u16  | attrib| trans info |
//   +--------------------+--------------------+--------------------+------+-------+------------+
//   def: hasDefault (1: a default value follows); sub: charSubtype (one character).
//   typelen: for DECIMAL byte 18 is the precision and byte 19 the scale.
//   1460 and 1462 (colAttribFlags, from version 14) and the transaction information block
//   (from version 8) end the layout.
//
// Add replication-key column (qAddReplKeyColumnMsg, type 12): 8 sub_id, 12 colName (130).
//
// Drop column (type 6, DDL code 2):
//   0        8        12                   142       144    146    152
//   +--------+--------+--------------------+---------+------+------+------------+----------+
//   | header | sub_id | droppedColName(130)| sqlLen  | u16  | --   | trans info | SQL text |
//   +--------+--------+--------------------+---------+------+------+------------+----------+
//   The transaction information block is there from version 8; the SQL text (sqlLen bytes)
//   follows the fixed part. It is converted to prove it readable but never printed.
//
// Truncate table (qTruncateTableMsg, type 17): 8 subId.
//
// Redefine replication key (qRedefineReplKeyMsg, type 18):
//   8 sub_id, 12 u16 is_P2P, 14 u16 nCols, 16 nCols u16 offsets from the message start, each
//   of a key column's name field (u16 count, characters).
//
// Names are a 16-bit count in the sender's byte order followed by the characters in the
// sender's code page, inside the room shown. The alter-column (DDL 1) and generic DDL (DDL 16)
// bodies have no fixed layout of their own here: they are shown as a hex dump after the
// header lines, so that nothing of such a message is hidden.
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/sink.h"
#include "qmsg/schema.h"
#include "qmsg/trans.h"
#include "runtime/trace.h"

namespace {


// ---------------------------------------------------------------------------------------------
// Add column.

constexpr size_t kAddSubId = 8;
constexpr size_t kAddColType = 12;
constexpr size_t kAddTypeLen = 16;
constexpr size_t kAddPrecision = 18;
constexpr size_t kAddScale = 19;
constexpr size_t kAddCodepage = 20;
constexpr size_t kAddColName = 24, kAddColNameRoom = 130;
constexpr size_t kAddHasDefault = 154;
constexpr size_t kAddCharSubtype = 155;
constexpr size_t kAddDefault = 156, kAddDefaultRoom = 1042;
constexpr size_t kAddBefore = 1198, kAddBeforeRoom = 130;
constexpr size_t kAddTarget = 1328, kAddTargetRoom = 132;
constexpr size_t kAddReserved = 1460;
constexpr size_t kAddAttribFlags = 1462;
constexpr size_t kAddTransInfo = 1464;
constexpr size_t kAddTransFlags = kAddTransInfo + 36;

constexpr uint16_t kDecimal = 484;

// The fixed part of an add-column message of this version: the names end at 1460; version 8
// adds the two 16-bit words and the transaction information block.
size_t addColumnSize(uint16_t version) {
  return version >= 8 ? kAddTransInfo + kGenericTransInfoSize : kAddReserved;
}

// The whole fixed layout must be there before any field of it is swapped or printed.
int32_t needFixed(const QMsg& m, size_t size, const char* what) {
  return m.r.has(0, size) ? 0 : m.r.shortRead(0, size, what);
}

// A name whose signed count says whether it is there at all (0 or less: absent).
int32_t readOptionalName(const QMsg& m, size_t at, size_t room, ConvText& out, bool& present,
                         const char* field, const char* step, const char* label) {
  int16_t len = 0;
  int32_t rc = m.r.i16(at, len, field);
  present = rc == 0 && len > 0;
  if (rc != 0 || !present) return rc;
  return readName(m, at, room, out, field, step, "ConvMgr::cpcvl", label);
}

// The typelen word is one 32-bit number except for the packed decimal kinds, whose bytes
// (precision, scale) are kept as sent.
bool typeLenIsNumber(uint16_t colType) {
  uint16_t base = colType & ~1u;
  return base != 484 && base != 488 && base != 504;
}

int32_t fixAddColumn(QMsg& m, uint16_t version) {
  uint16_t colType = 0;
  int32_t rc = m.r.fix16(kAddColType, colType, "qAddColumnMsg.colType");
  if (rc == 0) rc = m.r.fix32(kAddSubId, "qAddColumnMsg.sub_id");
  if (rc == 0) rc = m.r.fix32(kAddCodepage, "qAddColumnMsg.codepage");
  if (rc == 0 && typeLenIsNumber(colType)) rc = m.r.fix32(kAddTypeLen, "qAddColumnMsg.typelen");
  if (rc == 0 && version >= 8) {
    rc = m.r.fix16(kAddReserved, "qAddColumnMsg.reserved");
    // The add-column message also turns the block's flag word (offset 1500) as 16 bits.
    if (rc == 0) rc = m.r.fix16(kAddTransFlags, "qAddColumnMsg.transInfoFlags");
    if (rc == 0) rc = fixGenericTransInfo(m, kAddTransInfo);
  }
  if (rc == 0 && version >= 14) rc = m.r.fix16(kAddAttribFlags, "qAddColumnMsg.colAttribFlags");
  return rc;
}

}  // namespace

template <class O>
int32_t printAddColumnMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 150);
  static const char* const kStep = "qAddColumnMsg::printMe";
  uint16_t version = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = needFixed(m, addColumnSize(version), "qAddColumnMsg");
  if (rc == 0) rc = fixAddColumn(m, version);
  if (rc == 0) rc = printHeader(m, o, kStep);
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t subId = 0, typeLen = 0, codepage = 0;
  uint16_t colType = 0;
  uint8_t precision = 0, scale = 0, hasDefault = 0, charSubtype = 0;
  rc = m.r.machine(kAddSubId, subId, "qAddColumnMsg.sub_id");
  if (rc == 0) rc = m.r.machine(kAddColType, colType, "qAddColumnMsg.colType");
  if (rc == 0) rc = m.r.machine(kAddTypeLen, typeLen, "qAddColumnMsg.typelen");
  if (rc == 0) rc = m.r.u8(kAddPrecision, precision, "qAddColumnMsg.typeprecision");
  if (rc == 0) rc = m.r.u8(kAddScale, scale, "qAddColumnMsg.typescale");
  if (rc == 0) rc = m.r.machine(kAddCodepage, codepage, "qAddColumnMsg.codepage");
  if (rc == 0) rc = m.r.u8(kAddHasDefault, hasDefault, "qAddColumnMsg.hasDefault");
  if (rc == 0) rc = m.r.u8(kAddCharSubtype, charSubtype, "qAddColumnMsg.charSubtype");
  if (rc != 0) return rplTrace_.ret(rc);

  // Every text is converted before the first line, so that a failure leaves no half message.
  ConvText colName, subtype, defaultVal, before, target;
  bool hasBefore = false, hasTarget = false;
  rc = readName(m, kAddColName, kAddColNameRoom, colName, "qAddColumnMsg.colName", kStep,
                "ConvMgr::cpcvl", "sourceColName");
  if (rc == 0 && version >= 9) {
    const uint8_t* c = nullptr;
    rc = m.r.bytes(kAddCharSubtype, 1, c, "qAddColumnMsg.charSubtype");
    if (rc == 0) rc = convertText(m, c, 1, subtype, kStep, "ConvMgr::cpcvc", "charSubtype");
  }
  if (rc == 0 && hasDefault == 1)
    rc = readName(m, kAddDefault, kAddDefaultRoom, defaultVal, "qAddColumnMsg.defaultVal", kStep,
                  "ConvMgr::cpcvl", "defaultVal");
  if (rc == 0)
    rc = readOptionalName(m, kAddBefore, kAddBeforeRoom, before, hasBefore,
                          "qAddColumnMsg.beforeColName", kStep, "beforeColName");
  if (rc == 0)
    rc = readOptionalName(m, kAddTarget, kAddTargetRoom, target, hasTarget,
                          "qAddColumnMsg.targetColName", kStep, "targetColName");
  if (rc == 0 && version >= 8) rc = printGenericTransInfo(m, o, kAddTransInfo);
  if (rc != 0) return rplTrace_.ret(rc);

  if (version >= 9 && subtype.size() > 0) charSubtype = static_cast<uint8_t>(subtype.data()[0]);
  o.field("sub_id", subId, "  sub_id:      %d\n");
  o.field("colName", colName, "  colName:     %.*s\n");
  o.show("colType", static_cast<int16_t>(colType), "  colType:     %d = %s\n", static_cast<int16_t>(colType),
         columnTypeName(colType));
  o.hidden("colTypeName", columnTypeName(colType));
  if (colType == kDecimal || colType == kDecimal + 1) {
    o.field("typeprecision", precision, "  typeprecision:  %d\n");
    o.field("typescale", scale, "  typescale:    %d\n");
  } else {
    o.field("typelen", typeLen, "  col.typelen: %d\n");
  }
  o.field("codepage", codepage, "  codepage:    %d\n");
  o.field("hasDefault", hasDefault, "  hasDefault:  %d\n");
  // VARCHAR and CHAR, nullable or not.
  if ((colType & ~5u) == 448)
    o.show("charSubtype", std::string(1, static_cast<char>(charSubtype)), "  charSubtype:  %c\n", charSubtype);
  if (hasDefault == 1) o.field("default", defaultVal, "  default:  %.*s\n");
  if (hasBefore) o.field("beforeColName", before, "  beforeColName:     %.*s\n");
  if (hasTarget) o.field("targetColName", target, "  targetColName:     %.*s\n");
  if (version >= 14) {
    uint16_t attrib = 0;
    rc = m.r.machine(kAddAttribFlags, attrib, "qAddColumnMsg.colAttribFlags");
    if (rc != 0) return rplTrace_.ret(rc);
    o.field("colAttribFlags", attrib, "  colAttribFlags: %d\n");
  }
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Add replication-key column.

namespace {
constexpr size_t kKeyColSubId = 8;
constexpr size_t kKeyColName = 12, kKeyColNameRoom = 130;
}  // namespace

template <class O>
int32_t printAddReplKeyColMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 151);
  int32_t rc = needFixed(m, kKeyColName + kKeyColNameRoom, "qAddReplKeyColumnMsg");
  if (rc == 0) rc = m.r.fix32(kKeyColSubId, "qAddReplKeyColumnMsg.sub_id");
  if (rc == 0) rc = printHeader(m, o, "qAddReplKeyColumnMsg::printMe");
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t subId = 0;
  ConvText colName;
  rc = m.r.machine(kKeyColSubId, subId, "qAddReplKeyColumnMsg.sub_id");
  if (rc == 0)
    rc = readName(m, kKeyColName, kKeyColNameRoom, colName, "qAddReplKeyColumnMsg.colName",
                  "qAddReplKeyColumnMsg::printMe", "ConvMgr::cpcvl", "sourceColName");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("sub_id", subId, "  sub_id:      %d\n");
  o.field("colName", colName, "  colName:     %.*s\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Type 6: alter column and generic DDL (header lines and the body as a hex dump), drop column.

namespace {

template <class O>
int32_t printDdlBodyDump(QMsg& m, O& o, const char* step) {
  int32_t rc = printHeader(m, o, step);
  if (rc != 0) return rc;
  if constexpr (O::kJson) {
    o.hidden("body", HexBytes{m.r.data() + kHeaderSize, m.r.size() - kHeaderSize});
  } else {
    // Offsets in the dump are those of the message, so that they can be told apart from the header.
    dumpHex(m.r.size() - kHeaderSize, m.r.data() + kHeaderSize, o.out(), true, kHeaderSize);
  }
  return 0;
}


constexpr size_t kDropSubId = 8;
constexpr size_t kDropColName = 12, kDropColNameRoom = 130;
constexpr size_t kDropSqlLen = 142;
constexpr size_t kDropReserved = 144;
constexpr size_t kDropTransInfo = 152;

// Where the fixed part ends and the SQL text begins.
size_t dropColumnSize(uint16_t version) {
  return version >= 8 ? kDropTransInfo + kGenericTransInfoSize : kDropTransInfo;
}

}  // namespace

template <class O>
int32_t printAlterColumnMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 152);
  return rplTrace_.ret(printDdlBodyDump(m, o, "qAlterColDDLMsg::printMe"));
}

template <class O>
int32_t printGenericDdlMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 153);
  return rplTrace_.ret(printDdlBodyDump(m, o, "qGenericDDLMsg::printMe"));
}

template <class O>
int32_t printDropColumnMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 154);
  static const char* const kStep = "qDropColumnMsg::printMe";
  uint16_t version = 0;
  int32_t rc = m.version(version);
  size_t fixedSize = dropColumnSize(version);
  if (rc == 0) rc = needFixed(m, fixedSize, "qDropColumnMsg");
  if (rc == 0) rc = m.r.fix32(kDropSubId, "qDropColumnMsg.sub_id");
  if (rc == 0) rc = m.r.fix16(kDropSqlLen, "qDropColumnMsg.sqlTextLen");
  if (rc == 0) rc = m.r.fix16(kDropReserved, "qDropColumnMsg.reserved");
  if (rc == 0 && version >= 8) rc = fixGenericTransInfo(m, kDropTransInfo);
  if (rc == 0) rc = printHeader(m, o, kStep);
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t subId = 0;
  int16_t sqlLen = 0;
  ConvText colName, sqlText;
  rc = m.r.machine(kDropSubId, subId, "qDropColumnMsg.sub_id");
  if (rc == 0) rc = m.r.machine(kDropSqlLen, sqlLen, "qDropColumnMsg.sqlTextLen");
  if (rc == 0)
    rc = readName(m, kDropColName, kDropColNameRoom, colName, "qDropColumnMsg.droppedColName", kStep,
                  "ConvMgr::cpcvl", "droppedColName");
  if (rc == 0 && sqlLen > 0) {
    const uint8_t* sql = nullptr;
    rc = m.r.bytes(fixedSize, static_cast<size_t>(sqlLen), sql, "qDropColumnMsg.sqlText");
    if (rc == 0) rc = convertText(m, sql, static_cast<size_t>(sqlLen), sqlText, kStep, "ConvMgr::cpcvl", "sql text");
  }
  if (rc == 0 && version >= 8) rc = printGenericTransInfo(m, o, kDropTransInfo);
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("sub_id", subId, "  sub_id:      %d\n");
  o.field("dropped_column_name", colName, "  dropped column name:     %.*s\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Truncate table.

template <class O>
int32_t printTruncateTableMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 155);
  constexpr size_t kSubId = 8;
  uint32_t subId = 0;
  int32_t rc = m.r.fix32(kSubId, subId, "qTruncateTableMsg.subId");
  if (rc == 0) rc = printHeader(m, o, "qTruncateTableMsg::printMe");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("subId", static_cast<int32_t>(subId), "  truncateTable.subId: %d\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Redefine replication key.

namespace {
constexpr size_t kRedefSubId = 8;
constexpr size_t kRedefIsP2p = 12;
constexpr size_t kRedefNCols = 14;
constexpr size_t kRedefOffsets = 16;
}  // namespace

template <class O>
int32_t printRedefineReplKeyMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 156);
  uint32_t subId = 0;
  uint16_t isP2p = 0, nCols = 0;
  int32_t rc = m.r.fix32(kRedefSubId, subId, "qRedefineReplKeyMsg.sub_id");
  if (rc == 0) rc = m.r.fix16(kRedefIsP2p, isP2p, "qRedefineReplKeyMsg.is_P2P");
  if (rc == 0) rc = m.r.fix16(kRedefNCols, nCols, "qRedefineReplKeyMsg.nCols");
  for (size_t i = 0; rc == 0 && i < nCols; ++i)
    rc = m.r.fix16(kRedefOffsets + 2 * i, "qRedefineReplKeyMsg.colOffset");
  if (rc == 0) rc = printHeader(m, o, "qRedefineReplKeyMsg::printMe");
  if (rc != 0) return rplTrace_.ret(rc);

  o.field("sub_id", static_cast<int32_t>(subId), "  sub_id:      %d\n");
  o.field("is_P2P", isP2p, "  is_P2P:      %d\n");
  o.field("nCols", nCols, "  nCols:       %d\n");
  o.beginList("colNames");
  for (size_t i = 0; i < nCols; ++i) {
    uint16_t at = 0;
    rc = m.r.machine(kRedefOffsets + 2 * i, at, "qRedefineReplKeyMsg.colOffset");
    if (rc != 0) return rplTrace_.ret(rc);
    // A key column's name has no fixed room: it may take what is left of the message.
    size_t room = at <= m.r.size() ? m.r.size() - at : 0;
    ConvText colName;
    rc = readName(m, at, room, colName, "qRedefineReplKeyMsg.colName", "qRedefineReplKeyMsg::printMe",
                  "ConvMgr::cpcvl", "colName");
    if (rc != 0) return rplTrace_.ret(rc);
    o.field("colName", colName, "  colName:     %.*s\n");
  }
  o.endList();
  return rplTrace_.ret(0);
}

#define RPL_SCHEMA_CHANGE_PRINTERS(O)                   \
  template int32_t printAddColumnMsg(QMsg&, O&);        \
  template int32_t printAddReplKeyColMsg(QMsg&, O&);    \
  template int32_t printAlterColumnMsg(QMsg&, O&);      \
  template int32_t printDropColumnMsg(QMsg&, O&);       \
  template int32_t printGenericDdlMsg(QMsg&, O&);       \
  template int32_t printTruncateTableMsg(QMsg&, O&);    \
  template int32_t printRedefineReplKeyMsg(QMsg&, O&);
RPL_SCHEMA_CHANGE_PRINTERS(TextSink)
RPL_SCHEMA_CHANGE_PRINTERS(JsonSink)
