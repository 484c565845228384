// Subscription schema messages (printer to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/schema.h"

int32_t printSubSchemaMsg(QMsg& m) { return qMsgHeader::printMe(m); }

int32_t fixColSchema(QMsg&, size_t) { return 0; }
int32_t printColSchema(QMsg&, size_t, bool) { return 0; }
