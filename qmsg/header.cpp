// The common compact header: its print form and the transaction flag lines.
#include "qmsg/header.h"

#include "qmsg/compact.h"
#include "qmsg/scan.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

template <class O>
int32_t printHeaderLines(QMsg& m, O& o, bool ddlLine) {
  const uint8_t* family = nullptr;
  uint8_t type = 0, flag = 0;
  uint16_t version = 0;
  int32_t rc = m.r.bytes(0, 4, family, "qMsgHeader.msgFamily");
  if (rc == 0) rc = m.r.u8(4, type, "qMsgHeader.msgtype");
  if (rc == 0) rc = m.r.u8(5, flag, "qMsgHeader.msgFlag");
  if (rc == 0) rc = m.version(version);
  if (rc != 0) return rc;

  ConvText text;
  rc = convertText(m, family, 4, text, "qMsgHeader::printMe", "ConvMgr::cpcvc", "msgFamily");
  if (rc != 0) return rc;
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

template int32_t printHeaderLines(QMsg&, TextSink&, bool);
template int32_t printHeaderLines(QMsg&, JsonSink&, bool);
template int32_t printHeaderLines(QMsg&, ScanSink&, bool);
template int32_t printHeader(QMsg&, TextSink&, const char*);
template int32_t printHeader(QMsg&, JsonSink&, const char*);

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
  uint8_t type = 0, flag = 0;
  if (m.r.u8(4, type, "qMsgHeader.msgtype") != 0 || m.r.u8(5, flag, "qMsgHeader.msgFlag") != 0) return;
  if (!(type & 0x81) || flag == 0) return;
  std::fputs("  qMsgHeader.msgFlag:", m.out);
  if ((type & 0x83) && (flag & 1)) std::fputs("    Last message in DB transaction.\n", m.out);
  if (type >= 128 && (flag & 2)) {
    std::fputs("  qMsgHeader.isMultiSubTrans(): ", m.out);
    std::fputs("    TRUE: contains multiple sub-transactions.\n", m.out);
  }
  if (flag & 128) std::fputs("    Parallel send queues enabled.\n", m.out);
}
