// Schema-change messages (printers to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printAddColumnMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printAddReplKeyColMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printAlterColumnMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printDropColumnMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printGenericDdlMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printTruncateTableMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printRedefineReplKeyMsg(QMsg& m) { return qMsgHeader::printMe(m); }
