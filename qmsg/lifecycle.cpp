// Subscription lifecycle messages: load done (type 2), subscription deactivated (4), create
// (9) and drop (10) subscription, and the peer-to-peer protocol messages (80 to 86).
//
// The dispatch prints the compact header lines (the capture-stop message prints its own form);
// each printer swaps its integers in place when the sender's byte order differs, converts its
// names and characters (stopping at the first failure, before any line of its own), then writes
// its fields through the sink. Name counts are read in the sender's order where they are
// read and are never swapped in place.
#include <cinttypes>
#include <cstdio>

#include "qmsg/families.h"
#include "qmsg/header.h"
#include "qmsg/sink.h"
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

template <class O>
int32_t printLoadDoneMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 330);
  int32_t rc = 0;
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
    if (rc == 0) rc = printGenericTransInfo(m, o, kTransInfoAt);
  }
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("sub_id", subId, "  loaddone.sub_id: %d\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qSubDeactivatedMsg (type 4)
//
//   0        8        12                146         154
//   +--------+--------+-----------------+-----------+
//   | header | sub_id | subname (134)   | stateinfo |
//   +--------+--------+-----------------+-----------+

template <class O>
int32_t printSubDeactivatedMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 331);
  const char* step = "qSubDeactivatedMsg::printMe";
  int32_t rc = 0;
  int32_t subId = 0;
  ConvText subname, stateinfo;
  const uint8_t* state = nullptr;
  rc = fixI32(m, 8, subId, "qSubDeactivatedMsg.sub_id");
  if (rc == 0) rc = readNameInRoom(m, 12, kSubnameRoom, subname, "qSubDeactivatedMsg.subname", step, "subname");
  if (rc == 0) rc = m.r.bytes(146, 8, state, "qSubDeactivatedMsg.stateinfo");
  // No state was produced when the field starts with a zero byte: the text stays empty.
  if (rc == 0 && state[0] != 0) rc = convertText(m, state, 8, stateinfo, step, kCpcvc, "stateinfo");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("subname", subname, "  subname:   %.*s\n");
  o.field("sub_id", subId, "  sub_id:    %d\n");
  o.field("stateinfo", stateinfo, "  stateinfo: %.*s\n");
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

template <class O>
int32_t printCreateSubMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 332);
  const char* step = "qCreateSubMsg::printMe";
  int32_t rc = 0;

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

  o.field("subName", subName, " subName:  %.*s\n");
  o.field("subId", subId, " subId:  %d\n");
  o.field("srcDbName", srcDbName, " srcDbName:  %.*s\n");
  o.field("srcOwner", srcOwner, " srcOwner:  %.*s\n");
  o.field("srcName", srcName, " srcName:  %.*s\n");
  o.field("targetType", targetType, " targetType:  %d\n");
  o.chars("subType", subType, " subType:  ");
  o.chars("conflictRule", conflictRule, " conflictRule:  ");
  o.chars("conflictAction", conflictAction, " conflictAction:  ");
  o.chars("errorAction", errorAction, " errorAction:  ");
  o.field("subOkSqlStates", okSqlStates, " subOkSqlStates:  %.*s\n");
  o.field("subGroup", subGroup, " subGroup:  %.*s\n");
  o.field("initiatorNode", initiator, " initiatorNode:  %d\n");
  o.field("sourceNode", source, " sourceNode:  %d\n");
  o.field("targetNode", target, " targetNode:  %d\n");
  o.chars("hasLoadPhase", hasLoadPhase, " hasLoadPhase:  ");
  o.field("loadType", loadType, " loadType:  %d\n");
  o.field("modelQ", modelQ, " modelQ:  %.*s\n");
  o.field("schemaSubName", schemaSubName, " schemaSubName:  %.*s\n");
  o.field("originated_from", (flags & 1) ? "CREATE TABLE DDL" : "SIGNAL", " originated from:  %s\n");
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

template <class O>
int32_t printDropSubMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 333);
  const char* step = "qDropSubMsg::printMe";
  int32_t rc = 0;

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

  o.field("subName", subName, " subName:        %.*s\n");
  o.field("subId", subId, " subId:          %d\n");
  o.field("schemaSubName", schemaSubName, " schemaSubName:  %.*s\n");
  o.field("subGroup", subGroup, " subGroup:       %.*s\n");
  o.field("initiatorNode", initiator, " initiatorNode:  %d\n");
  o.field("sourceNode", source, " sourceNode:     %d\n");
  o.field("targetNode", target, " targetNode:     %d\n");
  o.field("flags", flags, " flags:          %u\n");
  o.field("originated_from", (flags & 1) ? "DROP TABLE DDL" : "SIGNAL", " originated from:  %s\n");
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

template <class O>
int32_t printP2pJoinUsMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 334);
  const char* step = "p2pJoinUsMsg::printMe";
  int32_t rc = 0;
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

  o.field("subname", subname, "  subname:     %.*s\n");
  // The line shows where the member set lies in the buffer, not the members themselves; the
  // value therefore changes from run to run.
  o.text("  groupMembers:  %016" PRIx64 "\n", static_cast<uint64_t>(reinterpret_cast<uintptr_t>(members)));
  o.field("sourceNode", source, "  sourceNode:  %d\n");
  o.field("targetNode", target, "  targetNode:  %d\n");
  o.chars("loadPhase", loadPhase, "  loadPhase:   ");
  o.chars("subType", subType, "  subType:     ");
  if (version >= 2) o.field("sub_id", subId, "  sub_id:      %d\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pSpoolingMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 335);
  const char* step = "p2pSpoolingMsg::printMe";
  int32_t rc = 0;
  int16_t newNode = 0;
  ConvText subname;
  rc = fixI16(m, 142, newNode, "p2pSpoolingMsg.newNode");
  if (rc == 0) rc = readNameInRoom(m, 8, kSubnameRoom, subname, "p2pSpoolingMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("subname", subname, "  subname:    %.*s\n");
  o.field("newNode", newNode, "  newNode:    %d\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pLoadDoneMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 336);
  const char* step = "p2pLoadDoneMsg::printMe";
  int32_t rc = 0;
  int32_t subId = 0;
  ConvText role;
  rc = fixI32(m, 8, subId, "p2pLoadDoneMsg.sub_id");
  if (rc == 0) rc = convertChar(m, 12, role, "p2pLoadDoneMsg.role", step, "role");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("sub_id", subId, "  sub_id:     %d\n");
  o.chars("role", role, "  role:       ");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pCapStopMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 337);
  // Printed as stored (the dispatch hands it over without conversion context): its own header
  // form with the family unconverted and the version as it stands, and the name's bytes as
  // they are.
  int32_t rc = printHeaderLines(m, o, false);
  if (rc != 0) {
    reportFailure("p2pCapStopMsg::printMe", "qMsgHeader::printMe", rc, "Cannot print message header");
    return rplTrace_.ret(rc);
  }
  const uint8_t* name = nullptr;
  uint16_t len = 0;
  rc = m.r.name(8, kSubnameRoom, name, len, "p2pCapStopMsg.subname");
  if (rc != 0) return rplTrace_.ret(rc);
  o.show("subname", std::string_view(reinterpret_cast<const char*>(name), len), "  subname:    %.*s\n",
         static_cast<int>(len), reinterpret_cast<const char*>(name));
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pSubStoppingMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 338);
  const char* step = "p2pSubStoppingMsg::printMe";
  int32_t rc = 0;
  ConvText subname;
  rc = readNameInRoom(m, 8, kSubnameRoom, subname, "p2pSubStoppingMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("subname", subname, "  subname:    %.*s\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pReadyToStopMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 339);
  const char* step = "p2pReadytostopMsg::printMe";
  int32_t rc = 0;
  int32_t subId = 0;
  ConvText subname;
  rc = fixI32(m, 8, subId, "p2pReadytostopMsg.sub_id");
  if (rc == 0) rc = readNameInRoom(m, 12, kSubnameRoom, subname, "p2pReadytostopMsg.subname", step, "subname");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("subname", subname, "  subname:    %.*s\n");
  o.field("sub_id", subId, "  sub_id:     %d\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pSubDeactivatedMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 340);
  // The capture side sends it without conversion context: the dispatch hands it over as stored.
  int32_t subId = 0;
  int32_t rc = m.r.i32(8, subId, "p2pSubDeactivatedMsg.sub_id");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("sub_id", subId, "  sub_id:     %d\n");
  return rplTrace_.ret(0);
}

#define RPL_LIFECYCLE_PRINTERS(O)                        \
  template int32_t printLoadDoneMsg(QMsg&, O&);          \
  template int32_t printSubDeactivatedMsg(QMsg&, O&);    \
  template int32_t printCreateSubMsg(QMsg&, O&);         \
  template int32_t printDropSubMsg(QMsg&, O&);           \
  template int32_t printP2pJoinUsMsg(QMsg&, O&);         \
  template int32_t printP2pSpoolingMsg(QMsg&, O&);       \
  template int32_t printP2pLoadDoneMsg(QMsg&, O&);       \
  template int32_t printP2pCapStopMsg(QMsg&, O&);        \
  template int32_t printP2pSubStoppingMsg(QMsg&, O&);    \
  template int32_t printP2pReadyToStopMsg(QMsg&, O&);    \
  template int32_t printP2pSubDeactivatedMsg(QMsg&, O&);
RPL_LIFECYCLE_PRINTERS(TextSink)
RPL_LIFECYCLE_PRINTERS(JsonSink)
