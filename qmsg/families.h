// Entry points of the message families, called by the dispatch in compact.cpp. Each family's
// source holds its layout, its swap and its printer, and returns 0 or a result code. Printers
// that take a sink write their fields through it (qmsg/sink.h) after the header lines the
// dispatch prints; the others print their header lines first, straight to the stream.
#pragma once

#include <cstdint>

#include "qmsg/msg.h"

// Column of a LOB message as found in the schema cache (type 0 and no name when unknown).
struct LobColumn {
  uint16_t type = 0;
  const uint8_t* name = nullptr;  // in the schema's code page, `nameLen` bytes
  uint16_t nameLen = 0;
  int32_t codePage = 0;
};

// Schema, transactions, rows, LOBs, statement chunks (the data path).
template <class O> int32_t printSubSchemaMsg(QMsg& m, O& o);     // type 1
int32_t printTransMsgHeader(QMsg& m, bool noPosTime);             // type 128 header
int32_t printStreamedTransMsgHeader(QMsg& m, bool noPosTime);     // type 130 header
template <class O> int32_t printTransMsgHeader(QMsg& m, O& o, bool noPosTime);
template <class O> int32_t printStreamedTransMsgHeader(QMsg& m, O& o, bool noPosTime);
// One row at `at` (its u32 length first), for a message of layout version `version`.
int32_t printTransRow(QMsg& m, size_t at, uint16_t version);
template <class O> int32_t printTransRow(QMsg& m, O& o, size_t at, uint16_t version);
template <class O> int32_t printLobMsg(QMsg& m, O& o, const LobColumn& col);  // type 129

// Restart.
template <class O> int32_t printRestartMsg(QMsg& m, O& o);  // 32 (no header lines)

// Subscription lifecycle (bodies after the header lines, written through the sink `o`; 83
// prints its own header form, 83 and 86 are handed over as stored).
template <class O> int32_t printLoadDoneMsg(QMsg& m, O& o);          // 2
template <class O> int32_t printSubDeactivatedMsg(QMsg& m, O& o);    // 4
template <class O> int32_t printCreateSubMsg(QMsg& m, O& o);         // 9
template <class O> int32_t printDropSubMsg(QMsg& m, O& o);           // 10
template <class O> int32_t printP2pJoinUsMsg(QMsg& m, O& o);         // 80
template <class O> int32_t printP2pSpoolingMsg(QMsg& m, O& o);       // 81
template <class O> int32_t printP2pLoadDoneMsg(QMsg& m, O& o);       // 82
template <class O> int32_t printP2pCapStopMsg(QMsg& m, O& o);        // 83
template <class O> int32_t printP2pSubStoppingMsg(QMsg& m, O& o);    // 84
template <class O> int32_t printP2pReadyToStopMsg(QMsg& m, O& o);    // 85
template <class O> int32_t printP2pSubDeactivatedMsg(QMsg& m, O& o); // 86

// Schema changes (each prints its header lines after its swap, through the sink `o`).
template <class O> int32_t printAddColumnMsg(QMsg& m, O& o);        // 5
template <class O> int32_t printAddReplKeyColMsg(QMsg& m, O& o);    // 12
template <class O> int32_t printAlterColumnMsg(QMsg& m, O& o);      // 6, DDL 1
template <class O> int32_t printDropColumnMsg(QMsg& m, O& o);       // 6, DDL 2
template <class O> int32_t printGenericDdlMsg(QMsg& m, O& o);       // 6, DDL 16
template <class O> int32_t printTruncateTableMsg(QMsg& m, O& o);    // 17
template <class O> int32_t printRedefineReplKeyMsg(QMsg& m, O& o);  // 18

// Queue control (bodies after the header lines, written through the sink `o`).
template <class O> int32_t printHeartbeatMsg(QMsg& m, O& o);          // 3
template <class O> int32_t printRequestSyncOnQueueMsg(QMsg& m, O& o); // 7
template <class O> int32_t printSyncResponseMsg(QMsg& m, O& o);       // 8
template <class O> int32_t printSequenceTimeResetMsg(QMsg& m, O& o);  // 11
template <class O> int32_t printFuncLevelMsg(QMsg& m, O& o);          // 13
template <class O> int32_t printAdminQMsg(QMsg& m, O& o);             // 64

// File transfer.
template <class O> int32_t printXfPayloadMsg(QMsg& m, O& o);    // 131
template <class O> int32_t printXfAdminMsg(QMsg& m, O& o);      // 132
template <class O> int32_t printXfHeartBeatMsg(QMsg& m, O& o);  // 133
