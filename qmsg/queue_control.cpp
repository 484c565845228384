// Queue control messages (printers to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printHeartbeatMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printRequestSyncOnQueueMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printSyncResponseMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printSequenceTimeResetMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printFuncLevelMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printAdminQMsg(QMsg& m) { return qMsgHeader::printMe(m); }
