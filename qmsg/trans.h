// Transaction information blocks: the generic block shared with the schema and control
// messages, and the batched transaction header a row may carry.
//
// qGenericTransInfo, offsets from its start:
//   0 log position record (u8 flags, u16 node at 4, u16 length at 6, bytes from 8)
//   24 u32 commit seconds   28 u32 microseconds   32 u32   36 u8 flags (bit 0: no transaction
//   context)   38 u16 unit-of-work length, bytes from 40   52 auth_id (32)   84 auth_tkn (32)
//   116 plan_id (12)
#pragma once

#include <cstdint>

#include "qmsg/msg.h"

inline constexpr size_t kGenericTransInfoSize = 128;

// Swaps the block's integers in place (u16 at 4, 6, 38; u32 at 24, 28, 32) when due.
// Offset of the first row of a transaction message (type 128) of layout `version`.
size_t firstTransRow(uint16_t version);
int32_t fixGenericTransInfo(QMsg& m, size_t at);
// Prints the block's lines ("    qGenericTransInfo...."); the block must be in machine order.
int32_t printGenericTransInfo(QMsg& m, size_t at);
// The same through a field sink: a "transInfo" group in JSON (null without transaction context).
template <class O>
int32_t printGenericTransInfo(QMsg& m, O& o, size_t at);

// qBatchedTransHeader, offsets from its start:
//   0 u16 length   2 u16 position length, bytes from 4 (16)   20 u32 commit seconds
//   24 u32 microseconds   28 u32 source local commit seconds   32 u16 unit-of-work length,
//   bytes from 34 (16)   50 auth_id (32)   82 auth_tkn (32)   114 plan_id (12)
// It is read in the sender's order where it is printed and never swapped in place.
inline constexpr size_t kBatchedTransHeaderSize = 126;
template <class O>
int32_t printBatchedTransHeader(QMsg& m, O& o, size_t at);
