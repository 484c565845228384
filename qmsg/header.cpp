// The common compact header: its print form and the transaction flag lines.
#include "qmsg/header.h"

#include "runtime/trace.h"

int32_t qMsgHeader::printLines(QMsg& m, bool ddlLine) {
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
  std::fprintf(m.out, "  qMsgHeader.msgFamily:  %.*s\n", text.size(), text.data());
  std::fprintf(m.out, "  qMsgHeader.msgtype:    %s\n", nameOf(kMsgTypes, type, "Unknown"));
  std::fprintf(m.out, "  qMsgHeader.msgVersion: %d\n", version);
  if (ddlLine && type == kTypeDdl)
    std::fprintf(m.out, "  qMsgHeader.msgDDLType:    %s\n", nameOf(kDdlTypes, flag & 127, "Unknown"));
  return 0;
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
