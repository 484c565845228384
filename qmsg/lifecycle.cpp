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



// A one-character field, converted on its own (nothing after an earlier failure).
void charAt(QMsg& m, Cursor& c, size_t at, ConvText& out, const char* field, const char* step, const char* label) {
  const uint8_t* p = c.bytes(at, 1, field);
  if (c) c.take(convertText(m, p, 1, out, step, kCpcvc, label));
}

// A name in its fixed room, converted (nothing after an earlier failure).
void nameAt(QMsg& m, Cursor& c, size_t at, size_t room, ConvText& out, const char* field, const char* step,
            const char* label) {
  if (c) c.take(readNameInRoom(m, at, room, out, field, step, label));
}

int32_t fixI32(Cursor& c, size_t at, const char* field) { return static_cast<int32_t>(c.fix32(at, field)); }
int16_t fixI16(Cursor& c, size_t at, const char* field) { return static_cast<int16_t>(c.fix16(at, field)); }

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
  constexpr size_t kTransInfoAt = 24;
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const int32_t subId = fixI32(c, 8, "qLoaddoneRcvdMsg.sub_id");
  c.bytes(12, 2, "qLoaddoneRcvdMsg.reserved");
  if (version >= 8) {
    c.fix16(12, "qLoaddoneRcvdMsg.reserved");
    c.bytes(kTransInfoAt, kGenericTransInfoSize, "qLoaddoneRcvdMsg.transInfo");
    if (c) c.take(fixGenericTransInfo(m, kTransInfoAt));
    c.fix16(kTransInfoAt + 36, "qGenericTransInfo.flags");
    if (c) c.take(printGenericTransInfo(m, o, kTransInfoAt));
  }
  if (!c) return rplTrace_.ret(c.rc());
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
  Cursor c(m.r);
  const int32_t subId = fixI32(c, 8, "qSubDeactivatedMsg.sub_id");
  ConvText subname, stateinfo;
  nameAt(m, c, 12, kSubnameRoom, subname, "qSubDeactivatedMsg.subname", step, "subname");
  const uint8_t* state = c.bytes(146, 8, "qSubDeactivatedMsg.stateinfo");
  // No state was produced when the field starts with a zero byte: the text stays empty.
  if (c && state[0] != 0) c.take(convertText(m, state, 8, stateinfo, step, kCpcvc, "stateinfo"));
  if (!c) return rplTrace_.ret(c.rc());
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
  Cursor c(m.r);
  const int32_t subId = fixI32(c, 8, "qCreateSubMsg.subId");
  const int16_t targetType = fixI16(c, 426, "qCreateSubMsg.targetType");
  const int16_t initiator = fixI16(c, 644, "qCreateSubMsg.initiatorNode");
  const int16_t source = fixI16(c, 646, "qCreateSubMsg.sourceNode");
  const int16_t target = fixI16(c, 648, "qCreateSubMsg.targetNode");
  const int16_t loadType = fixI16(c, 650, "qCreateSubMsg.loadType");
  const uint32_t flags = c.fix32(756, "qCreateSubMsg.flags");

  ConvText subName, srcDbName, srcOwner, srcName, subType, conflictRule, conflictAction,
      errorAction, spillQ, okSqlStates, subGroup, hasLoadPhase, modelQ, schemaSubName;
  nameAt(m, c, 12, 134, subName, "qCreateSubMsg.subName", step, "subname");
  nameAt(m, c, 146, 20, srcDbName, "qCreateSubMsg.srcDbName", step, "srcDbName");
  nameAt(m, c, 166, 130, srcOwner, "qCreateSubMsg.srcOwner", step, "srcOwner");
  nameAt(m, c, 296, 130, srcName, "qCreateSubMsg.srcName", step, "srcName");
  charAt(m, c, 428, subType, "qCreateSubMsg.subType", step, "subType");
  charAt(m, c, 429, conflictRule, "qCreateSubMsg.conflictRule", step, "conflictRule");
  charAt(m, c, 430, conflictAction, "qCreateSubMsg.conflictAction", step, "conflictAction");
  charAt(m, c, 431, errorAction, "qCreateSubMsg.errorAction", step, "errorAction");
  nameAt(m, c, 432, 50, spillQ, "qCreateSubMsg.spillQ", step, "spillQ");
  nameAt(m, c, 482, 130, okSqlStates, "qCreateSubMsg.oksqlstates", step, "oksqlstates");
  nameAt(m, c, 612, 32, subGroup, "qCreateSubMsg.subGroup", step, "subGroup");
  charAt(m, c, 760, hasLoadPhase, "qCreateSubMsg.hasLoadPhase", step, "hasLoadPhase");
  nameAt(m, c, 652, 38, modelQ, "qCreateSubMsg.modelQ", step, "modelQ");
  nameAt(m, c, 690, 66, schemaSubName, "qCreateSubMsg.schemaSubName", step, "schema subname");
  if (!c) return rplTrace_.ret(c.rc());

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
  Cursor c(m.r);
  const int32_t subId = fixI32(c, 8, "qDropSubMsg.subId");
  const uint32_t flags = c.fix32(244, "qDropSubMsg.flags");
  const int16_t initiator = fixI16(c, 248, "qDropSubMsg.initiatorNode");
  const int16_t source = fixI16(c, 250, "qDropSubMsg.sourceNode");
  const int16_t target = fixI16(c, 252, "qDropSubMsg.targetNode");
  ConvText subName, schemaSubName, subGroup;
  nameAt(m, c, 12, 134, subName, "qDropSubMsg.subName", step, "subname");
  nameAt(m, c, 146, 66, schemaSubName, "qDropSubMsg.schemaSubName", step, "schemaSubName");
  nameAt(m, c, 212, 32, subGroup, "qDropSubMsg.subGroup", step, "subGroup");
  if (!c) return rplTrace_.ret(c.rc());

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
  Cursor c(m.r);
  uint16_t version = 0;
  c.take(m.version(version));
  const int16_t source = fixI16(c, 142, "p2pJoinUsMsg.sourceNode");
  const int16_t target = fixI16(c, 144, "p2pJoinUsMsg.targetNode");
  const uint8_t* members = c.bytes(148, 8, "p2pJoinUsMsg.groupMembers");
  const int32_t subId = version >= 2 ? fixI32(c, 404, "p2pJoinUsMsg.sub_id") : 0;
  ConvText subname, subType, loadPhase;
  nameAt(m, c, 8, kSubnameRoom, subname, "p2pJoinUsMsg.subname", step, "subname");
  charAt(m, c, 146, subType, "p2pJoinUsMsg.subType", step, "subType");
  charAt(m, c, 147, loadPhase, "p2pJoinUsMsg.loadPhase", step, "loadPhase");
  if (!c) return rplTrace_.ret(c.rc());

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
  Cursor c(m.r);
  const int16_t newNode = fixI16(c, 142, "p2pSpoolingMsg.newNode");
  ConvText subname;
  nameAt(m, c, 8, kSubnameRoom, subname, "p2pSpoolingMsg.subname", "p2pSpoolingMsg::printMe", "subname");
  if (!c) return rplTrace_.ret(c.rc());
  o.field("subname", subname, "  subname:    %.*s\n");
  o.field("newNode", newNode, "  newNode:    %d\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pLoadDoneMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 336);
  Cursor c(m.r);
  const int32_t subId = fixI32(c, 8, "p2pLoadDoneMsg.sub_id");
  ConvText role;
  charAt(m, c, 12, role, "p2pLoadDoneMsg.role", "p2pLoadDoneMsg::printMe", "role");
  if (!c) return rplTrace_.ret(c.rc());
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
  // The name's characters as they stand.
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
  Cursor c(m.r);
  ConvText subname;
  nameAt(m, c, 8, kSubnameRoom, subname, "p2pSubStoppingMsg.subname", "p2pSubStoppingMsg::printMe", "subname");
  if (!c) return rplTrace_.ret(c.rc());
  o.field("subname", subname, "  subname:    %.*s\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pReadyToStopMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 339);
  Cursor c(m.r);
  const int32_t subId = fixI32(c, 8, "p2pReadytostopMsg.sub_id");
  ConvText subname;
  nameAt(m, c, 12, kSubnameRoom, subname, "p2pReadytostopMsg.subname", "p2pReadytostopMsg::printMe", "subname");
  if (!c) return rplTrace_.ret(c.rc());
  o.field("subname", subname, "  subname:    %.*s\n");
  o.field("sub_id", subId, "  sub_id:     %d\n");
  return rplTrace_.ret(0);
}

template <class O>
int32_t printP2pSubDeactivatedMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 340);
  // The capture side sends it without conversion context: the dispatch hands it over as stored.
  Cursor c(m.r);
  const int32_t subId = c.i32(8, "p2pSubDeactivatedMsg.sub_id");
  if (!c) return rplTrace_.ret(c.rc());
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
RPL_FOR_EACH_SINK(RPL_LIFECYCLE_PRINTERS)
