// Subscription lifecycle messages (printers to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printLoadDoneMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printSubDeactivatedMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printCreateSubMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printDropSubMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pJoinUsMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pSpoolingMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pLoadDoneMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pCapStopMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pSubStoppingMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pReadyToStopMsg(QMsg& m) { return qMsgHeader::printMe(m); }
int32_t printP2pSubDeactivatedMsg(QMsg& m) { return qMsgHeader::printMe(m); }
