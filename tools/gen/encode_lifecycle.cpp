// Encoders of the subscription lifecycle messages.
#include "tools/gen/encode_lifecycle.h"

#include <algorithm>

namespace {

// One character in the sender's code page.
void putChar(MsgWriter& w, size_t at, char c) {
  std::string text = w.encodeText(std::string(1, c));
  w.u8(at, text.empty() ? 0 : static_cast<uint8_t>(text[0]));
}

void putTransInfo(MsgWriter& w, size_t at, const LoadDoneTransInfo& t) {
  w.resize(at + 128);
  writeLogPosition(w, at, t.commitLsn);
  w.u32(at + 24, t.commitSeconds);
  w.u32(at + 28, t.commitMicros);
  w.u16(at + 36, t.flags);
  size_t n = std::min<size_t>(t.uow.size(), 12);
  w.u16(at + 38, static_cast<uint16_t>(n));
  w.raw(at + 40, t.uow.data(), n);
  w.name(at + 52, t.authId, 32);
  w.name(at + 84, t.authTkn, 32);
  w.name(at + 116, t.planId, 12);
}

}  // namespace

MsgWriter encodeLoadDoneMsg(const LoadDoneFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(2, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  w.u16(12, 0);
  if (f.version >= 8) putTransInfo(w, 24, f.trans);
  return w;
}

MsgWriter encodeSubDeactivatedMsg(const SubDeactivatedFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(4, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  w.name(12, f.subname, 134);
  w.resize(154);
  if (!f.stateinfo.empty()) w.fixedText(146, f.stateinfo, 8);
  return w;
}

MsgWriter encodeCreateSubMsg(const CreateSubFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(9, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  w.name(12, f.subName, 134);
  w.name(146, f.srcDbName, 20);
  w.name(166, f.srcOwner, 130);
  w.name(296, f.srcName, 130);
  w.u16(426, static_cast<uint16_t>(f.targetType));
  putChar(w, 428, f.subType);
  putChar(w, 429, f.conflictRule);
  putChar(w, 430, f.conflictAction);
  putChar(w, 431, f.errorAction);
  w.name(432, f.spillQ, 50);
  w.name(482, f.okSqlStates, 130);
  w.name(612, f.subGroup, 32);
  w.u16(644, static_cast<uint16_t>(f.initiatorNode));
  w.u16(646, static_cast<uint16_t>(f.sourceNode));
  w.u16(648, static_cast<uint16_t>(f.targetNode));
  w.u16(650, static_cast<uint16_t>(f.loadType));
  w.name(652, f.modelQ, 38);
  w.name(690, f.schemaSubName, 66);
  w.u32(756, f.flags);
  putChar(w, 760, f.hasLoadPhase);
  return w;
}

MsgWriter encodeDropSubMsg(const DropSubFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(10, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  w.name(12, f.subName, 134);
  w.name(146, f.schemaSubName, 66);
  w.name(212, f.subGroup, 32);
  w.u32(244, f.flags);
  w.u16(248, static_cast<uint16_t>(f.initiatorNode));
  w.u16(250, static_cast<uint16_t>(f.sourceNode));
  w.u16(252, static_cast<uint16_t>(f.targetNode));
  return w;
}

MsgWriter encodeP2pJoinUsMsg(const P2pJoinUsFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(80, 0, f.version);
  w.name(8, f.subname, 134);
  w.u16(142, static_cast<uint16_t>(f.sourceNode));
  w.u16(144, static_cast<uint16_t>(f.targetNode));
  putChar(w, 146, f.subType);
  putChar(w, 147, f.loadPhase);
  w.u64(148, f.groupMembers);
  if (f.version >= 2) w.u32(404, static_cast<uint32_t>(f.subId));
  return w;
}

MsgWriter encodeP2pSpoolingMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(81, 0, f.version);
  w.name(8, f.subname, 134);
  w.u16(142, static_cast<uint16_t>(f.newNode));
  return w;
}

MsgWriter encodeP2pLoadDoneMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(82, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  putChar(w, 12, f.role);
  return w;
}

MsgWriter encodeP2pCapStopMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(83, 0, f.version);
  w.name(8, f.subname, 134);
  return w;
}

MsgWriter encodeP2pSubStoppingMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(84, 0, f.version);
  w.name(8, f.subname, 134);
  return w;
}

MsgWriter encodeP2pReadyToStopMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(85, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  w.name(12, f.subname, 134);
  return w;
}

MsgWriter encodeP2pSubDeactivatedMsg(const P2pFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(86, 0, f.version);
  w.u32(8, static_cast<uint32_t>(f.subId));
  return w;
}

MsgWriter sampleCreateSubMsg(ByteOrder order, int32_t ccsid) {
  CreateSubFields f;
  f.subId = 12;
  f.subName = "ORDERS0001";
  f.srcOwner = "SALES";
  f.srcName = "ORDERS";
  f.subGroup = "SALESGRP";
  f.loadType = 1;
  f.hasLoadPhase = 'I';
  return encodeCreateSubMsg(f, order, ccsid);
}
