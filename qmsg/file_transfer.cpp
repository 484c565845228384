// File-transfer messages (printers to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printXfPayloadMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printXfAdminMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printXfHeartBeatMsg(QMsg& m) { return qMsgHeader::printMe(m); }
