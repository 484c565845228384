// Subscription lifecycle messages: load done (type 2), subscription deactivated (4), create
// (9) and drop (10) subscription, and the peer-to-peer protocol messages (80 to 86).
//
// Each printer prints the compact header lines, swaps its integers in place when the sender's
// byte order differs, converts its names and characters (stopping at the first failure, before
// any line of its own), then prints. Name counts are read in the sender's order where they are
// read and are never swapped in place.
#include <cinttypes>
#include <cstdio>

#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/trans.h"
#include "runtime/trace.h"

namespace {

constexpr const char* kCpcvc = "ConvMgr::cpcvc";



// A one-character field, converted on its own.
int32_t convertChar(QMsg& m, size_t at, ConvText& out, const char* field, const char* step,
                    const char* label) {
  const uint8_t* p = nullptr;
  int32_t rc = m.r.bytes(at, 1, p, field);
  if (rc != 0) return rc;
  return convertText(m, p, 1, out, step, kCpcvc, label);
}

// "%.*s" of a converted text.
void put(FILE* out, const char* format, const ConvText& t) { std::fprintf(out, format, t.size(), t.data()); }

// A one-character field as "%c" prints it: its byte (or the converted character's bytes).
void putChar(FILE* out, const char* label, const ConvText& t, const char* after = "\n") {
  std::fputs(label, out);
  std::fwrite(t.data(), 1, static_cast<size_t>(t.size()), out);
  std::fputs(after, out);
}

int32_t fixI32(QMsg& m, size_t at, int32_t& v, const char* field) {
  uint32_t u = 0;
  int32_t rc = m.r.fix32(at, u, field);
  v = static_cast<int32_t>(u);
  return rc;
}

int32_t fixI16(QMsg& m, size_t at, int16_t& v, const char* field) {
  uint16_t u = 0;
  int32_t rc = m.r.fix16(at, u, field);
  v = static_cast<int16_t>(u);
  return rc;
}

constexpr size_t kSubnameRoom = 134;

}  // namespace

// ---------------------------------------------------------------------------------------------
// qLoaddoneRcvdMsg (type 2)
//
//   0        8        12    14          24
//   +--------+--------+-----+-- .. ----+---------------------------------+
//   | header | sub_id | u16 |          | qGenericTransInfo (version 8 on)|
//   +--------+--------+-----+-- .. ----+---------------------------------+
//
// The u16 at 12 is swapped but not printed. In this message the block's word at 36 (its flags)
// is swapped as a 16-bit integer together with the rest.

int32_t printLoadDoneMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 330);
  const char* step = "qLoaddoneRcvdMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  constexpr size_t kTransInfoAt = 24;
  uint16_t version = 0;
  int32_t subId = 0;
  const uint8_t* block = nullptr;
  rc = m.version(version);
  if (rc == 0) rc = fixI32(m, 8, subId, "qLoaddoneRcvdMsg.sub_id");
  if (rc == 0) rc = m.r.bytes(12, 2, block, "qLoaddoneRcvdMsg.reserved");
  if (rc == 0 && version >= 8) {
    rc = m.r.fix16(12, "qLoaddoneRcvdMsg.reserved");
    if (rc == 0) rc = m.r.bytes(kTransInfoAt, kGenericTransInfoSize, block, "qLoaddoneRcvdMsg.transInfo");
    if (rc == 0) rc = fixGenericTransInfo(m, kTransInfoAt);
    if (rc == 0) rc = m.r.fix16(kTransInfoAt + 36, "qGenericTransInfo.flags");
    if (rc == 0) rc = printGenericTransInfo(m, kTransInfoAt);
  }
  if (rc != 0) return rplTrace_.ret(rc);
  std::fprintf(m.out, "  loaddone.sub_id: %d\n", subId);
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSubDeactivatedMsg (type 4)
//
//   0        8        12                146         154
//   +--------+--------+-----------------+-----------+
//   | header | sub_id | subname (134)   | stateinfo |
//   +--------+--------+-----------------+-----------+

int32_t printSubDeactivatedMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 331);
  const char* step = "qSubDeactivatedMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  int32_t subId = 0;
  ConvText subname, stateinfo;
  const uint8_t* state = nullptr;
  rc = fixI32(m, 8, subId, "qSubDeactivatedMsg.sub_id");
  if (rc == 0) rc = readNameInRoom(m, 12, kSubnameRoom, subname, "qSubDeactivatedMsg.subname", step, "subname");
  if (rc == 0) rc = m.r.bytes(146, 8, state, "qSubDeactivatedMsg.stateinfo");
  // No state was produced when the field starts with a zero byte: the text stays empty.
  if (rc == 0 && state[0] != 0) rc = convertText(m, state, 8, stateinfo, step, kCpcvc, "stateinfo");
  if (rc != 0) return rplTrace_.ret(rc);
  put(m.out, "  subname:   %.*s\n", subname);
  std::fprintf(m.out, "  sub_id:    %d\n", subId);
  put(m.out, "  stateinfo: %.*s\n", stateinfo);
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qCreateSubMsg (type 9)
//
//   0        8      12            146          166          296          426   428 429 430 431
//   +--------+------+-------------+------------+------------+------------+-----+---+---+---+---+
//   | header | subId| subName 134 | srcDbName  | srcOwner   | srcName    |tgtTy|sub|con|cAc|err|
//   +--------+------+-------------+------------+------------+------------+-----+---+---+---+---+
//   432        482           612        644  646  648  650  652      690           756   760
//   +----------+-------------+----------+----+----+----+----+--------+-------------+-----+---+
//   | spillQ 50| oksqlstates | subGroup |init|src |tgt |load| modelQ | schemaSubNam|flags|lph|
//   +----------+-------------+----------+----+----+----+----+--------+-------------+-----+---+
//
// flags bit 0: created by a CREATE TABLE statement rather than by a signal. spillQ is converted
// but not printed.

int32_t printCreateSubMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 332);
  const char* step = "qCreateSubMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t subId = 0;
  int16_t targetType = 0, initiator = 0, source = 0, target = 0, loadType = 0;
  uint32_t flags = 0;
  rc = fixI32(m, 8, subId, "qCreateSubMsg.subId");
  if (rc == 0) rc = fixI16(m, 426, targetType, "qCreateSubMsg.targetType");
  if (rc == 0) rc = fixI16(m, 644, initiator, "qCreateSubMsg.initiatorNode");
  if (rc == 0) rc = fixI16(m, 646, source, "qCreateSubMsg.sourceNode");
  if (rc == 0) rc = fixI16(m, 648, target, "qCreateSubMsg.targetNode");
  if (rc == 0) rc = fixI16(m, 650, loadType, "qCreateSubMsg.loadType");
  if (rc == 0) rc = m.r.fix32(756, flags, "qCreateSubMsg.flags");
  if (rc != 0) return rplTrace_.ret(rc);

  ConvText subName, srcDbName, srcOwner, srcName, subType, conflictRule, conflictAction,
      errorAction, spillQ, okSqlStates, subGroup, hasLoadPhase, modelQ, schemaSubName;
  rc = readNameInRoom(m, 12, 134, subName, "qCreateSubMsg.subName", step, "subname");
  if (rc == 0) rc = readNameInRoom(m, 146, 20, srcDbName, "qCreateSubMsg.srcDbName", step, "srcDbName");
  if (rc == 0) rc = readNameInRoom(m, 166, 130, srcOwner, "qCreateSubMsg.srcOwner", step, "srcOwner");
  if (rc == 0) rc = readNameInRoom(m, 296, 130, srcName, "qCreateSubMsg.srcName", step, "srcName");
  if (rc == 0) rc = convertChar(m, 428, subType, "qCreateSubMsg.subType", step, "subType");
  if (rc == 0) rc = convertChar(m, 429, conflictRule, "qCreateSubMsg.conflictRule", step, "conflictRule");
  if (rc == 0)
    rc = convertChar(m, 430, conflictAction, "qCreateSubMsg.conflictAction", step, "conflictAction");
  if (rc == 0) rc = convertChar(m, 431, errorAction, "qCreateSubMsg.errorAction", step, "errorAction");
  if (rc == 0) rc = readNameInRoom(m, 432, 50, spillQ, "qCreateSubMsg.spillQ", step, "spillQ");
  if (rc == 0)
    rc = readNameInRoom(m, 482, 130, okSqlStates, "qCreateSubMsg.oksqlstates", step, "oksqlstates");
  if (rc == 0) rc = readNameInRoom(m, 612, 32, subGroup, "qCreateSubMsg.subGroup", step, "subGroup");
  if (rc == 0) rc = convertChar(m, 760, hasLoadPhase, "qCreateSubMsg.hasLoadPhase", step, "hasLoadPhase");
  if (rc == 0) rc = readNameInRoom(m, 652, 38, modelQ, "qCreateSubMsg.modelQ", step, "modelQ");
  if (rc == 0)
    rc = readNameInRoom(m, 690, 66, schemaSubName, "qCreateSubMsg.schemaSubName", step, "schema subname");
  if (rc != 0) return rplTrace_.ret(rc);

  FILE* out = m.out;
  put(out, " subName:  %.*s\n", subName);
  std::fprintf(out, " subId:  %d\n", subId);
  put(out, " srcDbName:  %.*s\n", srcDbName);
  put(out, " srcOwner:  %.*s\n", srcOwner);
  put(out, " srcName:  %.*s\n", srcName);
  std::fprintf(out, " targetType:  %d\n", targetType);
  putChar(out, " subType:  ", subType);
  putChar(out, " conflictRule:  ", conflictRule);
  putChar(out, " conflictAction:  ", conflictAction);
  putChar(out, " errorAction:  ", errorAction);
  put(out, " subOkSqlStates:  %.*s\n", okSqlStates);
  put(out, " subGroup:  %.*s\n", subGroup);
  std::fprintf(out, " initiatorNode:  %d\n", initiator);
  std::fprintf(out, " sourceNode:  %d\n", source);
  std::fprintf(out, " targetNode:  %d\n", target);
  putChar(out, " hasLoadPhase:  ", hasLoadPhase);
  std::fprintf(out, " loadType:  %d\n", loadType);
  put(out, " modelQ:  %.*s\n", modelQ);
  put(out, " schemaSubName:  %.*s\n", schemaSubName);
  std::fprintf(out, " originated from:  %s\n", (flags & 1) ? "CREATE TABLE DDL" : "SIGNAL");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qDropSubMsg (type 10)
//
//   0        8      12            146                212           244     248  250  252  254
//   +--------+------+-------------+------------------+-------------+-------+----+----+----+
//   | header | subId| subName 134 | schemaSubName 66 | subGroup 32 | flags |init|src |tgt |
//   +--------+------+-------------+------------------+-------------+-------+----+----+----+
//
// flags bit 0: dropped by a DROP TABLE statement rather than by a signal.

int32_t printDropSubMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 333);
  const char* step = "qDropSubMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t subId = 0;
  uint32_t flags = 0;
  int16_t initiator = 0, source = 0, target = 0;
  rc = fixI32(m, 8, subId, "qDropSubMsg.subId");
  if (rc == 0) rc = m.r.fix32(244, flags, "qDropSubMsg.flags");
  if (rc == 0) rc = fixI16(m, 248, initiator, "qDropSubMsg.initiatorNode");
  if (rc == 0) rc = fixI16(m, 250, source, "qDropSubMsg.sourceNode");
  if (rc == 0) rc = fixI16(m, 252, target, "qDropSubMsg.targetNode");
  ConvText subName, schemaSubName, subGroup;
  if (rc == 0) rc = readNameInRoom(m, 12, 134, subName, "qDropSubMsg.subName", step, "subname");
  if (rc == 0)
    rc = readNameInRoom(m, 146, 66, schemaSubName, "qDropSubMsg.schemaSubName", step, "schemaSubName");
  if (rc == 0) rc = readNameInRoom(m, 212, 32, subGroup, "qDropSubMsg.subGroup", step, "subGroup");
  if (rc != 0) return rplTrace_.ret(rc);

  FILE* out = m.out;
  put(out, " subName:        %.*s\n", subName);
  std::fprintf(out, " subId:          %d\n", subId);
  put(out, " schemaSubName:  %.*s\n", schemaSubName);
  put(out, " subGroup:       %.*s\n", subGroup);
  std::fprintf(out, " initiatorNode:  %d\n", initiator);
  std::fprintf(out, " sourceNode:     %d\n", source);
  std::fprintf(out, " targetNode:     %d\n", target);
  std::fprintf(out, " flags:          %u\n", flags);
  std::fprintf(out, " originated from:  %s\n", (flags & 1) ? "DROP TABLE DDL" : "SIGNAL");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// Peer-to-peer protocol messages
//
// p2pJoinUsMsg (80):       8 subname (134)  142 sourceNode  144 targetNode  146 subType (char)
//                          147 loadPhase (char)  148 groupMembers (8)  404 sub_id (version 2 on)
// p2pSpoolingMsg (81):     8 subname (134)  142 newNode
// p2pLoadDoneMsg (82):     8 sub_id  12 role (char)
// p2pCapStopMsg (83):      8 subname        (never swapped or converted)
// p2pSubStoppingMsg (84):  8 subname
// p2pReadytostopMsg (85):  8 sub_id  12 subname (134)
// p2pSubDeactivatedMsg (86): 8 sub_id       (never swapped or converted)

int32_t printP2pJoinUsMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 334);
  const char* step = "p2pJoinUsMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  uint16_t version = 0;
  int16_t source = 0, target = 0;
  int32_t subId = 0;
  const uint8_t* members = nullptr;
  rc = m.version(version);
  if (rc == 0) rc = fixI16(m, 142, source, "p2pJoinUsMsg.sourceNode");
  if (rc == 0) rc = fixI16(m, 144, target, "p2pJoinUsMsg.targetNode");
  if (rc == 0) rc = m.r.bytes(148, 8, members, "p2pJoinUsMsg.groupMembers");
  if (rc == 0 && version >= 2) rc = fixI32(m, 404, subId, "p2pJoinUsMsg.sub_id");
  ConvText subname, subType, loadPhase;
  if (rc == 0) rc = readNameInRoom(m, 8, kSubnameRoom, subname, "p2pJoinUsMsg.subname", step, "subname");
  if (rc == 0) rc = convertChar(m, 146, subType, "p2pJoinUsMsg.subType", step, "subType");
  if (rc == 0) rc = convertChar(m, 147, loadPhase, "p2pJoinUsMsg.loadPhase", step, "loadPhase");
  if (rc != 0) return rplTrace_.ret(rc);

  FILE* out = m.out;
  put(out, "  subname:     %.*s\n", subname);
  // The line shows where the member set lies in the buffer, not the members themselves; the
  // value therefore changes from run to run.
  std::fprintf(out, "  groupMembers:  %016" PRIx64 "\n",
               static_cast<uint64_t>(reinterpret_cast<uintptr_t>(members)));
  std::fprintf(out, "  sourceNode:  %d\n", source);
  std::fprintf(out, "  targetNode:  %d\n", target);
  putChar(out, "  loadPhase:   ", loadPhase);
  putChar(out, "  subType:     ", subType);
  if (version >= 2) std::fprintf(out, "  sub_id:      %d\n", subId);
  return rplTrace_.ret(0);
}

int32_t printP2pSpoolingMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 335);
  const char* step = "p2pSpoolingMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  int16_t newNode = 0;
  ConvText subname;
  rc = fixI16(m, 142, newNode, "p2pSpoolingMsg.newNode");
  if (rc == 0) rc = readNameInRoom(m, 8, kSubnameRoom, subname, "p2pSpoolingMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  put(m.out, "  subname:    %.*s\n", subname);
  std::fprintf(m.out, "  newNode:    %d\n", newNode);
  return rplTrace_.ret(0);
}

int32_t printP2pLoadDoneMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 336);
  const char* step = "p2pLoadDoneMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  int32_t subId = 0;
  ConvText role;
  rc = fixI32(m, 8, subId, "p2pLoadDoneMsg.sub_id");
  if (rc == 0) rc = convertChar(m, 12, role, "p2pLoadDoneMsg.role", step, "role");
  if (rc != 0) return rplTrace_.ret(rc);
  std::fprintf(m.out, "  sub_id:     %d\n", subId);
  putChar(m.out, "  role:       ", role);
  return rplTrace_.ret(0);
}

int32_t printP2pCapStopMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 337);
  // Printed as stored: its own header form with the family unconverted and the version as it
  // stands, and the name's bytes as they are.
  QMsg raw(m.r.data(), m.r.size(), m.out, nullptr, nullptr);
  int32_t rc = qMsgHeader::printLines(raw, false);
  if (rc != 0) {
    reportFailure("p2pCapStopMsg::printMe", "qMsgHeader::printMe", rc, "Cannot print message header");
    return rplTrace_.ret(rc);
  }
  const uint8_t* name = nullptr;
  uint16_t len = 0;
  rc = raw.r.bytes(8, kSubnameRoom, name, "p2pCapStopMsg.subname");
  if (rc == 0) rc = raw.r.name(8, kSubnameRoom, name, len, "p2pCapStopMsg.subname");
  if (rc != 0) return rplTrace_.ret(rc);
  std::fprintf(m.out, "  subname:    %.*s\n", static_cast<int>(len), reinterpret_cast<const char*>(name));
  return rplTrace_.ret(0);
}

int32_t printP2pSubStoppingMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 338);
  const char* step = "p2pSubStoppingMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  ConvText subname;
  rc = readNameInRoom(m, 8, kSubnameRoom, subname, "p2pSubStoppingMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  put(m.out, "  subname:    %.*s\n", subname);
  return rplTrace_.ret(0);
}

int32_t printP2pReadyToStopMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 339);
  const char* step = "p2pReadytostopMsg::printMe";
  int32_t rc = qMsgHeader::printFor(m, step);
  if (rc != 0) return rplTrace_.ret(rc);
  int32_t subId = 0;
  ConvText subname;
  rc = fixI32(m, 8, subId, "p2pReadytostopMsg.sub_id");
  if (rc == 0) rc = readNameInRoom(m, 12, kSubnameRoom, subname, "p2pReadytostopMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  put(m.out, "  subname:    %.*s\n", subname);
  std::fprintf(m.out, "  sub_id:     %d\n", subId);
  return rplTrace_.ret(0);
}

int32_t printP2pSubDeactivatedMsg(QMsg& m) {
  RPL_TRACE(kCompPrinters, 340);
  // The capture side sends it without conversion context: read as stored.
  QMsg raw(m.r.data(), m.r.size(), m.out, nullptr, nullptr);
  int32_t rc = qMsgHeader::printFor(raw, "p2pSubDeactivatedMsg::printMe");
  if (rc != 0) return rplTrace_.ret(rc);
  int32_t subId = 0;
  rc = raw.r.i32(8, subId, "p2pSubDeactivatedMsg.sub_id");
  if (rc != 0) return rplTrace_.ret(rc);
  std::fprintf(m.out, "  sub_id:     %d\n", subId);
  return rplTrace_.ret(0);
}
