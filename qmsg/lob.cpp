// LOB messages (type 129): one part of a large-object value sent after its transaction, named
// by the LOB reference of its row; the column comes from the schema cache.
#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/schema.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

// Two layouts by msgVersion:
//
//   offset  below 7            7 and above
//   8       u32 sub_id         u32 sub_id
//   12      u32 rowNum         u32 rowNum
//   16      u16 colNum         u16 colNum
//   20      u32 lobTotalDataLen u32 lobTotalDataLen
//   24      u32 lobDataPartLen u32 code page kind (1 DATABASE, 2 APPLICATION, other NOT SET)
//   28      data               u32 lobDataPartLen
//   32                         data
//
// The part length counts characters of the column's type: a DBCLOB part holds twice as many
// bytes. Flag byte: bit 0 last message of the transaction, bit 1 NULL value, bit 7 parallel
// send queues.

namespace {

enum : uint8_t { kLobFlagLast = 1, kLobFlagNull = 2, kLobFlagParallel = 128 };
enum : uint32_t { kLobCpDatabase = 1, kLobCpApplication = 2 };

constexpr const char* kLobStep = "qLobMsg::printMe";

template <class O>
void printLobFlagLines(O& o, uint8_t type, uint8_t flag) {
  o.hidden("msgFlag", flag);
  if (!(type & 0x81) || flag == 0) return;
  o.text("  qMsgHeader.msgFlag:\n");
  if ((type & 0x83) && (flag & kLobFlagLast)) o.text("    Last message in DB transaction.\n");
  if ((type & 0x81) && (flag & kLobFlagNull)) o.text("    LOB value is NULL.\n");
  if (flag & kLobFlagParallel) o.text("    Parallel send queues enabled.\n");
}

}  // namespace

template <class O>
int32_t printLobMsg(QMsg& m, O& o, const LobColumn& col) {
  RPL_TRACE(kCompPrinters, 27);
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  if (c) c.take(printHeaderLines(m, o, true));
  if (!c) {
    reportFailure(kLobStep, version < 7 ? "qMsgHeaderV6::printMe" : "qMsgHeader::printMe", c.rc(),
                  "Cannot print LOB message header");
    return rplTrace_.ret(c.rc());
  }
  const bool v7 = version >= 7;
  const uint8_t type = c.u8(4, "qLobMsg.msgtype");
  const uint8_t flag = c.u8(5, "qLobMsg.msgFlag");
  const uint32_t subId = c.fix32(8, "qLobMsg.sub_id");
  const uint32_t rowNum = c.fix32(12, "qLobMsg.rowNum");
  const uint16_t colNum = c.fix16(16, "qLobMsg.colNum");
  const uint32_t total = c.fix32(20, "qLobMsg.lobTotalDataLen");
  const uint32_t cpKind = v7 ? c.fix32(24, "qLobMsg.lobCodepage") : 0;
  const uint32_t partLen = c.fix32(v7 ? 28 : 24, "qLobMsg.lobDataPartLen");
  if (!c) return rplTrace_.ret(c.rc());

  printLobFlagLines(o, type, flag);
  o.field("sub_id", static_cast<int32_t>(subId), "  sub_id:          %d\n");
  o.text("  lobId:           [ rowNum = %d, colNum = %d ]", static_cast<int32_t>(rowNum), colNum);
  o.hidden("rowNum", static_cast<int32_t>(rowNum));
  o.hidden("colNum", colNum);
  if (v7) {
    const char* kind = cpKind == kLobCpDatabase ? "DATABASE" : cpKind == kLobCpApplication ? "APPLICATION" : "NOT SET";
    o.hidden("lob_codepage", kind);
    if (cpKind == kLobCpDatabase) o.text("\n  lob codepage:    DATABASE codepage\n");
    else if (cpKind == kLobCpApplication) o.text("\n  lob codepage:    APPLICATION codepage\n");
    else o.text("\n  lob codepage:   NOT SET\n");
  }
  o.field("lobTotalDataLen", static_cast<int32_t>(total), "  lobTotalDataLen: %d\n");
  o.field("lobDataPartLen", static_cast<int32_t>(partLen), "  lobDataPartLen:  %d\n");

  const uint16_t colType = col.type & ~1u;
  const bool isNull = (flag & kLobFlagNull) != 0;
  size_t dataLen = size_t{partLen} * (colType == kColDbclob ? 2 : 1);
  const uint8_t* data = isNull ? nullptr : c.bytes(v7 ? 32 : 28, dataLen, "qLobMsg data");
  if (!c) return rplTrace_.ret(c.rc());

  ConvText name, text;
  if (col.name != nullptr) name.borrow(col.name, col.nameLen);
  // The text converts the name only when there is data to print; JSON always (it is UTF-8).
  if ((O::kJson || (!isNull && dataLen > 0)) && col.name != nullptr)
    c.take(convertText(m, col.name, col.nameLen, name, kLobStep, "ConvMgr::cpcvl", "colname"));
  if (c && !isNull && dataLen > 0 && (colType == kColClob || colType == kColDbclob))
    c.take(convertText(m, data, dataLen, text, kLobStep, "ConvMgr::cpcvc", "CLOB or DBCLOB data", col.codePage));
  if (!c) return rplTrace_.ret(c.rc());
  if (col.name != nullptr)
    o.field("colname", name, "  colName:         %.*s\n");
  else
    o.show("colname", SqlNull{}, "  colName:         Unknown because schema info is not available.\n");
  if (isNull) {
    o.hidden("data", SqlNull{});
    return rplTrace_.ret(0);
  }

  if constexpr (O::kJson) {
    if (colType == kColClob || colType == kColDbclob) o.hidden("data", text);
    else o.hidden("data", HexBytes{data, dataLen});
    return rplTrace_.ret(0);
  } else {
    FILE* out = o.out();
    switch (colType) {
      case kColClob:
        std::fputs("\n****  CLOB data ****\n\n", out);
        std::fprintf(out, "%.*s\n\n", text.size(), text.data());
        break;
      case kColDbclob:
        std::fputs("\n****  DBCLOB data ****\n\n", out);
        dumpHex(static_cast<size_t>(text.size()), reinterpret_cast<const uint8_t*>(text.data()), out);
        break;
      case kColBlob:
        std::fputs("\n****  BLOB data ****\n\n", out);
        dumpHex(dataLen, data, out);
        break;
      default:
        std::fputs("\n**** WARNING: Column type info is not available ****\n"
                   "**** In case of DBCLOB only the first half of the data is printed out. ****\n", out);
        std::fputs("****  LOB data ****\n\n", out);
        dumpHex(dataLen, data, out);
        break;
    }
    return rplTrace_.ret(0);
  }
}

#define RPL_LOB_PRINTER(O) template int32_t printLobMsg(QMsg&, O&, const LobColumn&);
RPL_FOR_EACH_SINK(RPL_LOB_PRINTER)
