// Encoders of the queue control messages.
#include "tools/gen/encode_queue_control.h"

MsgWriter encodeHeartbeatMsg(const HeartbeatFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(3, 0, f.version);
  w.name(8, f.sendq, 52);
  w.u32(60, f.lastLogSeconds);
  w.u32(64, f.lastLogMicros);
  if (f.version >= 8) {
    w.u32(68, static_cast<uint32_t>(f.hbIntervalMillisec));
    writeLogPosition(w, 72, f.lastLogCmtLsn);
    w.u32(96, static_cast<uint32_t>(f.kxcmtIntervalMillisec));
  }
  return w;
}

MsgWriter encodeSyncRequestMsg(const SyncRequestFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(7, 0, f.version);
  w.name(8, f.sendQueue, 50);
  w.u8(58, f.reason);
  w.u32(60, f.publishedSeconds);
  w.u32(64, f.publishedMicros);
  writeLogPosition(w, 72, f.lastCommitSeq);
  return w;
}

MsgWriter encodeSyncResponseMsg(const SyncResponseFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(8, 0, f.version);
  w.name(8, f.sendQueue, 50);
  w.u8(58, f.responseCode);
  return w;
}

MsgWriter encodeSeqTimeResetMsg(const SeqTimeResetFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(11, 0, f.version);
  w.u8(8, f.flags);
  w.u8(9, f.currentIndex);
  w.u8(10, f.maximumIndex);
  w.u32(12, f.sequenceSeconds);
  return w;
}

MsgWriter encodeFuncLevelMsg(const FuncLevelFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(13, 0, f.version);
  w.name(8, f.sendQueue, 50);
  w.name(58, f.recvQueue, 50);
  w.name(108, f.qmap, 130);
  w.u8(238, f.reason);
  w.u8(239, f.flags);
  w.u32(240, f.publishedSeconds);
  w.u32(244, f.publishedMicros);
  w.u16(248, static_cast<uint16_t>(f.currentMajor));
  w.u16(250, static_cast<uint16_t>(f.currentMinor));
  w.u16(252, static_cast<uint16_t>(f.queueMajor));
  w.u16(254, static_cast<uint16_t>(f.queueMinor));
  writeLogPosition(w, 256, f.lastCommitLsn);
  writeLogPosition(w, 280, f.restartLsn);
  return w;
}

MsgWriter encodeSendqStartMsg(uint16_t version, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(16, 0, version);
  return w;
}

MsgWriter encodeAdminQMsg(const AdminQFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(64, 0, f.version);
  w.resize(458);
  // The action codes travel in 16-bit words.
  w.u16(192, f.actionTaken);
  w.u16(194, f.actionToTake);
  if (f.version == 1) {
    w.name(8, f.sendq, 50);
    w.name(58, f.subname, 134);
    w.u16(196, static_cast<uint16_t>(f.msgNum));
    w.name(198, f.msgTokens, 258);
    std::string text = w.encodeText(f.serviceText);
    w.u16(456, static_cast<uint16_t>(text.size()));
    w.raw(458, text);
  } else {
    w.u32(60, static_cast<uint32_t>(f.subId));
  }
  return w;
}

MsgWriter sampleHeartbeatMsg(ByteOrder order, int32_t ccsid) {
  HeartbeatFields f;
  f.lastLogMicros = 431250;
  f.lastLogCmtLsn = sampleLogPosition(0x40);
  return encodeHeartbeatMsg(f, order, ccsid);
}
