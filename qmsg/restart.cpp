// Restart messages (printer to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printRestartMsg(QMsg& m) { return qMsgHeader::printMe(m); }
