// Subscription schema messages (printer to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printSubSchemaMsg(QMsg& m) { return qMsgHeader::printMe(m); }
