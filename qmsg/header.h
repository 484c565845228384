// The common compact header (the message types themselves are rows of the dispatch table).
//
//   0        4      5               6          8
//   +--------+------+---------------+----------+---- body, by type
//   | family | type | flag/DDL type |  version |
//   +--------+------+---------------+----------+
//
// family: 4 characters in the message's code page; flag: bit 0 last message of the source
// transaction, bit 1 several sub-transactions, bit 7 parallel send queues; for type 6 the low
// 7 bits are the DDL sub-type. version: u16 layout version of the body.
#pragma once

#include <cstdint>

#include "qmsg/msg.h"
#include "qmsg/names.h"

inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kMsgDescriptorSize = 364;  // counted into the size line



// The type codes a printer tests itself; the list of every type, its name and its printer is
// the dispatch table in compact.cpp.
inline constexpr uint8_t kTypeSchema = 1;
inline constexpr uint8_t kTypeDdl = 6;
inline constexpr uint8_t kTypeSpillRow = 33;
inline constexpr uint8_t kTypeTransMsg = 128;
inline constexpr uint8_t kTypeStreamedTransMsg = 130;

enum : uint8_t { kDdlAddColumn = 0, kDdlAlterColumn = 1, kDdlDropColumn = 2, kDdlGeneric = 16 };

// DDL sub-types of type 6 (header byte 5, low 7 bits) and their names.
inline constexpr ValueName kDdlTypes[] = {
    {kDdlAddColumn, "RPLKX_DDL_ADD_COLUMN"},
    {kDdlAlterColumn, "RPLKX_DDL_ALTER_COLUMN"},
    {kDdlDropColumn, "RPLKX_DDL_DROP_COLUMN"},
    {kDdlGeneric, "RPLKX_DDL_GENERIC"},
};

class TextSink;
class JsonSink;

// The family, type and version lines (and for type 6 the DDL line when `ddlLine`) written
// through the sink `o`; swaps the version into machine order first and converts the family.
template <class O>
int32_t printHeaderLines(QMsg& m, O& o, bool ddlLine);
// The header of the printer `step`: a failure is reported as "Cannot print message header".
template <class O>
int32_t printHeader(QMsg& m, O& o, const char* step);

struct qMsgHeader {
  // Prints "  qMsgHeader.msgFamily:  ", "  qMsgHeader.msgtype:    ", "  qMsgHeader.msgVersion: "
  // and for type 6 "  qMsgHeader.msgDDLType:    ". Swaps the version into machine order first
  // and converts the family text; a failed conversion is reported as "Cannot convert msgFamily"
  // and the caller reports "Cannot print message header".
  static int32_t printMe(QMsg& m);
  // printMe for the printer `step`: a failure is reported as "Cannot print message header".
  static int32_t printFor(QMsg& m, const char* step);
  // The family, type and version lines alone (no DDL line, no failure report); used by
  // printers that print the header in their own form.
  static int32_t printLines(QMsg& m, bool ddlLine);
  // The flag lines of the transaction printers ("  qMsgHeader.msgFlag:" and what follows).
  static void printFlagLines(QMsg& m);
};
