// LOB messages (printer to come: header lines only).
#include "qmsg/families.h"
#include "qmsg/header.h"

int32_t printLobMsg(QMsg& m, const LobColumn&) { return qMsgHeader::printMe(m); }
