// Row operations and column sets (printer to come).
#include "qmsg/families.h"

int32_t printTransRow(QMsg&, size_t, uint16_t) { return 0; }
