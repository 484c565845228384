// Transaction information blocks shared with the control messages.
//
// qGenericTransInfo, offsets from its start:
//   0 log position record (u8 flags, u16 node at 4, u16 length at 6, bytes from 8)
//   24 u32 commit seconds   28 u32 microseconds   32 u32   36 u8 flags (bit 0: no transaction
//   context)   38 u16 unit-of-work length, bytes from 40   52 auth_id (32)   84 auth_tkn (32)
//   116 plan_id
#pragma once

#include <cstdint>

#include "qmsg/msg.h"

// Swaps the block's integers in place (u16 at 4, 6, 36, 38; u32 at 24, 28, 32) when due.
int32_t fixGenericTransInfo(QMsg& m, size_t at);
// Prints the block's lines ("    qGenericTransInfo...."); the block must be in machine order.
int32_t printGenericTransInfo(QMsg& m, size_t at);
