// Row operations, column sets and statement chunks: the entries shared by the transaction
// headers, the spilled row and the row printer.
#pragma once

#include <cstdint>

#include "qmsg/msg.h"

// The name of a row operation as the row printer gives it ("INSERT", "KEY UPDATE", ...).
const char* rowOperationName(uint8_t operation);
// Offset of the first column set from the row start for a message of layout `version`.
size_t rowColumnSetsOffset(uint16_t version);

// Swaps the structural integers of the row at `at` in place: the row length, sub_id and
// partition number, and of each present column set its length, column count and entries.
// Values, long offsets and LOB references stay in the sender's order (their readers swap
// them as they read). Rows of transaction messages (types 128 and 130) are swapped by their
// header printer before anything walks them; the one row of a spilled-row message (type 33)
// is swapped by the row printer itself. A row that cannot be walked is left as far as it
// could be swapped, without a report: the row printer reports it when it gets there.
void fixTransRow(MsgReader& r, size_t at, uint16_t version);
// Swaps `count` rows from `at` (each advancing by its length rounded up to 4).
void fixTransRows(MsgReader& r, size_t at, int64_t count, uint16_t version);

// qStmtChunk::printMe: the statement chunk at `at` (a row of operation 160).
template <class O>
int32_t printStmtChunk(QMsg& m, O& o, size_t at);
