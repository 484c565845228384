// Subscription schema messages (type 1) and the column descriptor printer shared by every
// printer that shows a column.
#include "qmsg/schema.h"

#include "qmsg/families.h"
#include "qmsg/header.h"
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
  if ((coltype & ~1u) != kColDecimal) {
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

int32_t printSubSchemaMsg(QMsg& m) { return qMsgHeader::printMe(m); }
