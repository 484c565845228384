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

// A name field in its room, converted (nothing after an earlier failure).
void nameAt(QMsg& m, Cursor& c, size_t at, size_t room, ConvText& out, const char* field, const char* step,
            const char* label) {
  if (c) c.take(readName(m, at, room, out, field, step, "ConvMgr::cpcvl", label));
}

// A name whose signed count says whether it is there at all (0 or less: absent).
bool optionalNameAt(QMsg& m, Cursor& c, size_t at, size_t room, ConvText& out, const char* field,
                    const char* step, const char* label) {
  const bool present = c.i16(at, field) > 0;
  if (present) nameAt(m, c, at, room, out, field, step, label);
  return present;
}

// The typelen word is one 32-bit number except for the packed decimal kinds, whose bytes
// (precision, scale) are kept as sent.
bool typeLenIsNumber(uint16_t colType) {
  uint16_t base = colType & ~1u;
  return base != 484 && base != 488 && base != 504;
}

}  // namespace

// The integers are swapped and read in wire order before the header lines, the names read and
// converted after them; only the fields printed must be present, so a message of a version
// without the transaction information block may end right after its last name's characters.
template <class O>
int32_t printAddColumnMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 150);
  static const char* const kStep = "qAddColumnMsg::printMe";
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const int32_t subId = static_cast<int32_t>(c.fix32(kAddSubId, "qAddColumnMsg.sub_id"));
  const uint16_t colType = c.fix16(kAddColType, "qAddColumnMsg.colType");
  const int32_t typeLen = static_cast<int32_t>(typeLenIsNumber(colType) ? c.fix32(kAddTypeLen, "qAddColumnMsg.typelen")
                                                                        : c.machine<uint32_t>(kAddTypeLen, "qAddColumnMsg.typelen"));
  const uint8_t precision = c.u8(kAddPrecision, "qAddColumnMsg.typeprecision");
  const uint8_t scale = c.u8(kAddScale, "qAddColumnMsg.typescale");
  const int32_t codepage = static_cast<int32_t>(c.fix32(kAddCodepage, "qAddColumnMsg.codepage"));
  const uint8_t hasDefault = c.u8(kAddHasDefault, "qAddColumnMsg.hasDefault");
  uint8_t charSubtype = c.u8(kAddCharSubtype, "qAddColumnMsg.charSubtype");
  uint16_t attrib = 0;
  if (version >= 8) {
    c.fix16(kAddReserved, "qAddColumnMsg.reserved");
    if (version >= 14) attrib = c.fix16(kAddAttribFlags, "qAddColumnMsg.colAttribFlags");
    // The add-column message also turns the block's flag word (offset 1500) as 16 bits.
    c.fix16(kAddTransFlags, "qAddColumnMsg.transInfoFlags");
    if (c) c.take(fixGenericTransInfo(m, kAddTransInfo));
  }
  if (c) c.take(printHeader(m, o, kStep));
  if (!c) return rplTrace_.ret(c.rc());

  // Every text is converted before the first line, so that a failure leaves no half message.
  ConvText colName, subtype, defaultVal, before, target;
  nameAt(m, c, kAddColName, kAddColNameRoom, colName, "qAddColumnMsg.colName", kStep, "sourceColName");
  if (version >= 9) {
    const uint8_t* p = c.bytes(kAddCharSubtype, 1, "qAddColumnMsg.charSubtype");
    if (c) c.take(convertText(m, p, 1, subtype, kStep, "ConvMgr::cpcvc", "charSubtype"));
  }
  if (hasDefault == 1)
    nameAt(m, c, kAddDefault, kAddDefaultRoom, defaultVal, "qAddColumnMsg.defaultVal", kStep, "defaultVal");
  const bool hasBefore =
      optionalNameAt(m, c, kAddBefore, kAddBeforeRoom, before, "qAddColumnMsg.beforeColName", kStep, "beforeColName");
  const bool hasTarget =
      optionalNameAt(m, c, kAddTarget, kAddTargetRoom, target, "qAddColumnMsg.targetColName", kStep, "targetColName");
  if (c && version >= 8) c.take(printGenericTransInfo(m, o, kAddTransInfo));
  if (!c) return rplTrace_.ret(c.rc());

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
  if (version >= 14) o.field("colAttribFlags", attrib, "  colAttribFlags: %d\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Add replication-key column.

namespace {
constexpr size_t kKeyColSubId = 8;
constexpr size_t kKeyColName = 12, kKeyColNameRoom = 130;
}  // namespace

// The message may end right after the name's characters.
template <class O>
int32_t printAddReplKeyColMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 151);
  static const char* const kStep = "qAddReplKeyColumnMsg::printMe";
  Cursor c(m.r);
  const int32_t subId = static_cast<int32_t>(c.fix32(kKeyColSubId, "qAddReplKeyColumnMsg.sub_id"));
  if (c) c.take(printHeader(m, o, kStep));
  ConvText colName;
  nameAt(m, c, kKeyColName, kKeyColNameRoom, colName, "qAddReplKeyColumnMsg.colName", kStep, "sourceColName");
  if (!c) return rplTrace_.ret(c.rc());
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

// The truncation of a table (type 17): its subscription number alone.
constexpr size_t kTruncSubId = 8;

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

// Only the dropped column's name and the transaction information block (from version 8) are
// printed, so only they must be present: the SQL text's length, the word after it and the SQL
// text are read where the message holds them (the text converted to prove it readable), and a
// message of an earlier version may end right after the name's characters.
template <class O>
int32_t printDropColumnMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 154);
  static const char* const kStep = "qDropColumnMsg::printMe";
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const size_t fixedSize = dropColumnSize(version);
  const int32_t subId = static_cast<int32_t>(c.fix32(kDropSubId, "qDropColumnMsg.sub_id"));
  int16_t sqlLen = 0;
  if (m.r.has(kDropSqlLen, 2)) sqlLen = static_cast<int16_t>(c.fix16(kDropSqlLen, "qDropColumnMsg.sqlTextLen"));
  if (m.r.has(kDropReserved, 2)) c.fix16(kDropReserved, "qDropColumnMsg.reserved");
  if (c && version >= 8) c.take(fixGenericTransInfo(m, kDropTransInfo));
  if (c) c.take(printHeader(m, o, kStep));

  ConvText colName, sqlText;
  nameAt(m, c, kDropColName, kDropColNameRoom, colName, "qDropColumnMsg.droppedColName", kStep, "droppedColName");
  if (sqlLen > 0 && m.r.has(fixedSize, static_cast<size_t>(sqlLen))) {
    const uint8_t* sql = c.bytes(fixedSize, static_cast<size_t>(sqlLen), "qDropColumnMsg.sqlText");
    if (c) c.take(convertText(m, sql, static_cast<size_t>(sqlLen), sqlText, kStep, "ConvMgr::cpcvl", "sql text"));
  }
  if (c && version >= 8) c.take(printGenericTransInfo(m, o, kDropTransInfo));
  if (!c) return rplTrace_.ret(c.rc());
  o.field("sub_id", subId, "  sub_id:      %d\n");
  o.field("dropped_column_name", colName, "  dropped column name:     %.*s\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Truncate table.

template <class O>
int32_t printTruncateTableMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 155);
  Cursor c(m.r);
  const int32_t subId = static_cast<int32_t>(c.fix32(kTruncSubId, "qTruncateTableMsg.subId"));
  if (c) c.take(printHeader(m, o, "qTruncateTableMsg::printMe"));
  if (!c) return rplTrace_.ret(c.rc());
  o.field("subId", subId, "  truncateTable.subId: %d\n");
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
  static const char* const kStep = "qRedefineReplKeyMsg::printMe";
  Cursor c(m.r);
  const int32_t subId = static_cast<int32_t>(c.fix32(kRedefSubId, "qRedefineReplKeyMsg.sub_id"));
  const uint16_t isP2p = c.fix16(kRedefIsP2p, "qRedefineReplKeyMsg.is_P2P");
  const uint16_t nCols = c.fix16(kRedefNCols, "qRedefineReplKeyMsg.nCols");
  for (size_t i = 0; c && i < nCols; ++i) c.fix16(kRedefOffsets + 2 * i, "qRedefineReplKeyMsg.colOffset");
  if (c) c.take(printHeader(m, o, kStep));
  if (!c) return rplTrace_.ret(c.rc());

  o.field("sub_id", subId, "  sub_id:      %d\n");
  o.field("is_P2P", isP2p, "  is_P2P:      %d\n");
  o.field("nCols", nCols, "  nCols:       %d\n");
  o.beginList("colNames");
  for (size_t i = 0; i < nCols; ++i) {
    const uint16_t at = c.machine<uint16_t>(kRedefOffsets + 2 * i, "qRedefineReplKeyMsg.colOffset");
    // A key column's name has no fixed room: it may take what is left of the message.
    const size_t room = at <= m.r.size() ? m.r.size() - at : 0;
    ConvText colName;
    nameAt(m, c, at, room, colName, "qRedefineReplKeyMsg.colName", kStep, "colName");
    if (!c) return rplTrace_.ret(c.rc());
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
RPL_FOR_EACH_SINK(RPL_SCHEMA_CHANGE_PRINTERS)
