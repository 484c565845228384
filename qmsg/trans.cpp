// Transaction messages (printers to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/trans.h"

int32_t printTransMsgHeader(QMsg& m, bool) { return qMsgHeader::printMe(m); }
int32_t printStreamedTransMsgHeader(QMsg& m, bool) { return qMsgHeader::printMe(m); }

int32_t fixGenericTransInfo(QMsg&, size_t) { return 0; }
int32_t printGenericTransInfo(QMsg&, size_t) { return 0; }
