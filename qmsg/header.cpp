// The common compact header: its print form and the transaction flag lines.
#include "qmsg/header.h"

#include "qmsg/compact.h"
#include "qmsg/scan.h"
#include "qmsg/schema.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

template <class O>
int32_t printHeaderLines(QMsg& m, O& o, bool ddlLine) {
  Cursor c(m.r);
  const uint8_t* family = c.bytes(0, 4, "qMsgHeader.msgFamily");
  const uint8_t type = c.u8(4, "qMsgHeader.msgtype");
  const uint8_t flag = c.u8(5, "qMsgHeader.msgFlag");
  uint16_t version = 0;
  c.take(m.version(version));
  ConvText text;
  if (c) c.take(convertText(m, family, 4, text, "qMsgHeader::printMe", "ConvMgr::cpcvc", "msgFamily"));
  if (!c) return c.rc();
  o.field("msgFamily", text, "  qMsgHeader.msgFamily:  %.*s\n");
  o.field("msgtype", compactTypeName(type), "  qMsgHeader.msgtype:    %s\n");
  o.hidden("msgtype_code", type);
  o.field("msgVersion", static_cast<int32_t>(version), "  qMsgHeader.msgVersion: %d\n");
  if (ddlLine && type == kTypeDdl)
    o.field("msgDDLType", nameOf(kDdlTypes, flag & 127, "Unknown"), "  qMsgHeader.msgDDLType:    %s\n");
  return 0;
}

template <class O>
int32_t printHeader(QMsg& m, O& o, const char* step) {
  RPL_TRACE(kCompPrinters, 1);
  int32_t rc = printHeaderLines(m, o, true);
  if (rc != 0) reportFailure(step, "qMsgHeader::printMe", rc, "Cannot print message header");
  return rplTrace_.ret(rc);
}

#define RPL_HEADER_PRINTERS(O)                              \
  template int32_t printHeaderLines(QMsg&, O&, bool); \
  template int32_t printHeader(QMsg&, O&, const char*);
RPL_FOR_EACH_SINK(RPL_HEADER_PRINTERS)
// The light pass of selection and counting reads the header's fields too.
template int32_t printHeaderLines(QMsg&, ScanSink&, bool);
// So does the pass that learns a subscription schema's names.
template int32_t printHeader(QMsg&, SchemaNamesSink&, const char*);

int32_t qMsgHeader::printLines(QMsg& m, bool ddlLine) {
  TextSink o(m.out);
  return printHeaderLines(m, o, ddlLine);
}

int32_t qMsgHeader::printMe(QMsg& m) {
  RPL_TRACE(kCompPrinters, 1);
  return rplTrace_.ret(printLines(m, true));
}

int32_t qMsgHeader::printFor(QMsg& m, const char* step) {
  int32_t rc = printMe(m);
  if (rc != 0) reportFailure(step, "qMsgHeader::printMe", rc, "Cannot print message header");
  return rc;
}

void qMsgHeader::printFlagLines(QMsg& m) {
  Cursor c(m.r);
  const uint8_t type = c.u8(4, "qMsgHeader.msgtype");
  const uint8_t flag = c.u8(5, "qMsgHeader.msgFlag");
  if (!c) return;
  if (!(type & 0x81) || flag == 0) return;
  std::fputs("  qMsgHeader.msgFlag:", m.out);
  if ((type & 0x83) && (flag & 1)) std::fputs("    Last message in DB transaction.\n", m.out);
  if (type >= 128 && (flag & 2)) {
    std::fputs("  qMsgHeader.isMultiSubTrans(): ", m.out);
    std::fputs("    TRUE: contains multiple sub-transactions.\n", m.out);
  }
  if (flag & 128) std::fputs("    Parallel send queues enabled.\n", m.out);
}
