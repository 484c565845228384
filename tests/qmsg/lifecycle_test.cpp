// Subscription lifecycle messages: load done, deactivation, create and drop subscription and the
// peer-to-peer messages, from little-endian UTF-8 and big-endian EBCDIC senders.
#include <gtest/gtest.h>

#include <functional>

#include "qmsg/header.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_lifecycle.h"

namespace {

TEST(LoadDone, Version7PrintsOnlyItsSubId) {
  LoadDoneFields f;
  f.version = 7;
  f.subId = 0x01020304;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeLoadDoneMsg(f, o, c); },
                    header("RPLKX_LOADDONE_RCVD", 7), "  loaddone.sub_id: 16909060\n");
}

TEST(LoadDone, Version8PrintsTheTransactionInformationFirst) {
  LoadDoneFields f;
  f.subId = 0x01020304;
  f.trans.commitLsn = sampleLogPosition(0x50, 2);
  f.trans.commitMicros = 250;
  f.trans.uow = {0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc};
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeLoadDoneMsg(f, o, c); },
                    header("RPLKX_LOADDONE_RCVD", 8),
                    "    qGenericTransInfo.commit_LSN:    5051:5253:5455:5657:5859:5a5b:5c5d:5e5f (node 2)\n"
                    "    qGenericTransInfo.commit_time:   11-21-2025 10:20:00.000250 UTC\n"
                    "    qGenericTransInfo.commit_time:   11-21-2025 10:20:00.000250 LOCALTIME\n"
                    "    qGenericTransInfo.uow_id:        0000:0000:1234:5678:9abc\n"
                    "    qGenericTransInfo.auth_id:       KXADM\n"
                    "    qGenericTransInfo.auth_tkn:      LOADJOB\n"
                    "    qGenericTransInfo.plan_id:       KXPLAN\n"
                    "  loaddone.sub_id: 16909060\n");
  // The block's flags travel as a 16-bit word: bit 0 reaches the printer from either sender.
  f.trans.flags = 1;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeLoadDoneMsg(f, o, c); },
                    header("RPLKX_LOADDONE_RCVD", 8),
                    "    qGenericTransInfo:  NO Transaction context.\n  loaddone.sub_id: 16909060\n");
}

TEST(SubDeactivated, SwappedSubIdAndStateInfo) {
  SubDeactivatedFields f;
  f.subId = 0x01020304;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSubDeactivatedMsg(f, o, c); },
                    header("RPLKX_SUBDEACTIVATED", 1),
                    "  subname:   ORDERS0001\n  sub_id:    16909060\n  stateinfo: INACTIVE\n");
  f.stateinfo = "";  // no state produced: the field is zero
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeSubDeactivatedMsg(f, o, c); },
                    header("RPLKX_SUBDEACTIVATED", 1),
                    "  subname:   ORDERS0001\n  sub_id:    16909060\n  stateinfo: \n");
}

TEST(P2pSubDeactivated, PrintedAsStoredWhileType4IsSwapped) {
  P2pFields f;
  f.subId = 0x01020304;
  MsgWriter big = encodeP2pSubDeactivatedMsg(f, ByteOrder::Big, 1208);
  Decoded d = decode(big);
  EXPECT_EQ(d.rc, 0);
  // Neither the version nor the sub_id is swapped.
  EXPECT_EQ(d.out, banner(12) + header("RPLKX_P2P_SUBDEACTIVATED_MSG", 256) + "  sub_id:     67305985\n");
  Decoded little = decode(encodeP2pSubDeactivatedMsg(f, ByteOrder::Little, 1208));
  EXPECT_EQ(little.out, banner(12) + header("RPLKX_P2P_SUBDEACTIVATED_MSG", 1) + "  sub_id:     16909060\n");
}

CreateSubFields unusualCreateSub() {
  CreateSubFields f;
  f.subId = 0x01020304;
  f.targetType = 2;
  f.spillQ = "";
  f.initiatorNode = -2;
  f.sourceNode = 0x0102;
  f.targetNode = 3;
  f.loadType = 4;
  f.flags = 0x00000101;
  return f;
}

TEST(CreateSub, FullDefinitionWithZeroLengthSpillQ) {
  CreateSubFields f = unusualCreateSub();
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeCreateSubMsg(f, o, c); },
                    header("RPLKX_CREATESUB_MSG", 1),
                    " subName:  ORDERS0001\n"
                    " subId:  16909060\n"
                    " srcDbName:  SALESDB\n"
                    " srcOwner:  SALES\n"
                    " srcName:  ORDERS\n"
                    " targetType:  2\n"
                    " subType:  U\n"
                    " conflictRule:  K\n"
                    " conflictAction:  I\n"
                    " errorAction:  S\n"
                    " subOkSqlStates:  02000\n"
                    " subGroup:  SALESGRP\n"
                    " initiatorNode:  -2\n"
                    " sourceNode:  258\n"
                    " targetNode:  3\n"
                    " hasLoadPhase:  I\n"
                    " loadType:  4\n"
                    " modelQ:  KXRP.SPILL.MODELQ\n"
                    " schemaSubName:  SALES.SUBS\n"
                    " originated from:  CREATE TABLE DDL\n");
}

TEST(CreateSub, ConversionFailureStopsBeforeItsLines) {
  CreateSubFields f;
  f.srcOwner = "SALES";
  MsgWriter w = encodeCreateSubMsg(f, ByteOrder::Little, 1208);
  w.raw(168, "\xff\xfe", 2);  // not UTF-8
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(w, 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_EQ(d.out, banner(w.size()) + header("RPLKX_CREATESUB_MSG", 1));
  EXPECT_NE(d.reports.find("Cannot convert srcOwner"), std::string::npos) << d.reports;
  EXPECT_NE(d.reports.find("cannot print qCreateSubMsg class"), std::string::npos) << d.reports;
}

TEST(DropSub, FlagsTwoIsASignal) {
  DropSubFields f;
  f.subId = 0x01020304;
  f.flags = 2;
  f.initiatorNode = 0x0102;
  f.targetNode = -1;
  const std::string body =
      " subName:        ORDERS0001\n"
      " subId:          16909060\n"
      " schemaSubName:  SALES.SUBS\n"
      " subGroup:       SALESGRP\n"
      " initiatorNode:  258\n"
      " sourceNode:     1\n"
      " targetNode:     -1\n";
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeDropSubMsg(f, o, c); },
                    header("RPLKX_DROPSUB_MSG", 1),
                    body + " flags:          2\n originated from:  SIGNAL\n");
  f.flags = 3;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeDropSubMsg(f, o, c); },
                    header("RPLKX_DROPSUB_MSG", 1),
                    body + " flags:          3\n originated from:  DROP TABLE DDL\n");
}

// The group-members line shows a buffer address, different on every run: check its form and
// replace the digits.
std::string maskMembers(std::string out) {
  const std::string label = "  groupMembers:  ";
  size_t at = out.find(label);
  if (at == std::string::npos) return out;
  at += label.size();
  for (size_t i = 0; i < 16; ++i)
    if (at + i >= out.size() || !std::isxdigit(static_cast<unsigned char>(out[at + i]))) return out;
  return out.replace(at, 16, "@");
}

TEST(P2pJoinUs, Version2HasSubIdVersion1DoesNot) {
  P2pJoinUsFields f;
  f.sourceNode = 0x0102;
  f.subId = 0x01020304;
  const std::string body =
      "  subname:     ORDERS0001\n"
      "  groupMembers:  @\n"
      "  sourceNode:  258\n"
      "  targetNode:  3\n"
      "  loadPhase:   I\n"
      "  subType:     P\n";
  for (auto [order, ccsid] : {std::pair{ByteOrder::Little, 1208}, std::pair{ByteOrder::Big, 37}}) {
    MsgWriter w2 = encodeP2pJoinUsMsg(f, order, ccsid);
    EXPECT_EQ(maskMembers(decode(w2).out),
              banner(408) + header("RPLKX_P2P_JOINUS_MSG", 2) + body + "  sub_id:      16909060\n");
    P2pJoinUsFields v1 = f;
    v1.version = 1;
    MsgWriter w1 = encodeP2pJoinUsMsg(v1, order, ccsid);
    EXPECT_EQ(maskMembers(decode(w1).out), banner(156) + header("RPLKX_P2P_JOINUS_MSG", 1) + body);
  }
}

TEST(P2p, SpoolingLoadDoneStoppingReadyToStop) {
  P2pFields f;
  f.newNode = 0x0102;
  f.subId = 0x01020304;
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeP2pSpoolingMsg(f, o, c); },
                    header("RPLKX_P2P_SPOOLING_MSG", 1), "  subname:    ORDERS0001\n  newNode:    258\n");
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeP2pLoadDoneMsg(f, o, c); },
                    header("RPLKX_P2P_LOADDONE_MSG", 1), "  sub_id:     16909060\n  role:       S\n");
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeP2pSubStoppingMsg(f, o, c); },
                    header("RPLKX_P2P_SUBSTOPPING_MSG", 1), "  subname:    ORDERS0001\n");
  expectBothSenders([&](ByteOrder o, int32_t c) { return encodeP2pReadyToStopMsg(f, o, c); },
                    header("RPLKX_P2P_READYTOSTOP_MSG", 1), "  subname:    ORDERS0001\n  sub_id:     16909060\n");
}

TEST(P2pCapStop, NeitherConvertedNorSwapped) {
  P2pFields f;
  Decoded d = decode(encodeP2pCapStopMsg(f, ByteOrder::Little, 1208));
  EXPECT_EQ(d.out, banner(142) + header("RPLKX_P2P_CAPSTOP_MSG", 1) + "  subname:    ORDERS0001\n");
  // An EBCDIC sender's family and name come out in EBCDIC.
  Decoded e = decode(encodeP2pCapStopMsg(f, ByteOrder::Little, 37));
  EXPECT_NE(e.out.find("  qMsgHeader.msgFamily:  \xd2\xe7\xd9\xd7\n"), std::string::npos) << e.out;
  EXPECT_NE(e.out.find("  subname:    \xd6\xd9\xc4\xc5\xd9\xe2\xf0\xf0\xf0\xf1\n"), std::string::npos);
}

// A message whose last field is a name may end right after its characters: such a cut prints
// what the whole message prints; any other cut is reported.
TEST(Lifecycle, EveryCutIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {.name = "load done", .encode = [](ByteOrder o, int32_t c) { return encodeLoadDoneMsg(LoadDoneFields{}, o, c); }, .cutsOnly = true},
      {.name = "load done, version 7",
       .encode = [](ByteOrder o, int32_t c) {
         LoadDoneFields v7;
         v7.version = 7;
         return encodeLoadDoneMsg(v7, o, c);
       },
       .cutsOnly = true},
      {.name = "subscription deactivated",
       .encode = [](ByteOrder o, int32_t c) { return encodeSubDeactivatedMsg(SubDeactivatedFields{}, o, c); },
       .cutsOnly = true},
      {.name = "create subscription", .encode = [](ByteOrder o, int32_t c) { return encodeCreateSubMsg(CreateSubFields{}, o, c); }, .cutsOnly = true},
      {.name = "drop subscription", .encode = [](ByteOrder o, int32_t c) { return encodeDropSubMsg(DropSubFields{}, o, c); }, .cutsOnly = true},
      {.name = "join us", .encode = [](ByteOrder o, int32_t c) { return encodeP2pJoinUsMsg(P2pJoinUsFields{}, o, c); }, .cutsOnly = true},
      {.name = "join us, version 1",
       .encode = [](ByteOrder o, int32_t c) {
         P2pJoinUsFields j1;
         j1.version = 1;
         return encodeP2pJoinUsMsg(j1, o, c);
       },
       .cutsOnly = true},
      {.name = "spooling", .encode = [](ByteOrder o, int32_t c) { return encodeP2pSpoolingMsg(P2pFields{}, o, c); }, .cutsOnly = true},
      {.name = "peer load done", .encode = [](ByteOrder o, int32_t c) { return encodeP2pLoadDoneMsg(P2pFields{}, o, c); }, .cutsOnly = true},
      {.name = "capture stop",
       .encode = [](ByteOrder o, int32_t c) { return encodeP2pCapStopMsg(P2pFields{}, o, c); },
       .cutsOnly = true,
       .littleEndianOnly = true},
      {.name = "subscription stopping", .encode = [](ByteOrder o, int32_t c) { return encodeP2pSubStoppingMsg(P2pFields{}, o, c); }, .cutsOnly = true},
      {.name = "ready to stop", .encode = [](ByteOrder o, int32_t c) { return encodeP2pReadyToStopMsg(P2pFields{}, o, c); }, .cutsOnly = true},
      {.name = "peer subscription deactivated",
       .encode = [](ByteOrder o, int32_t c) { return encodeP2pSubDeactivatedMsg(P2pFields{}, o, c); },
       .cutsOnly = true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

TEST(CreateSub, DemoSamplePrintsTheSameFromEitherSender) {
  Decoded little = decode(sampleCreateSubMsg(ByteOrder::Little, 1208));
  Decoded big = decode(sampleCreateSubMsg(ByteOrder::Big, 37));
  EXPECT_EQ(little.rc, 0);
  EXPECT_EQ(little.reports + big.reports, "");
  EXPECT_EQ(little.out, big.out);
}

}  // namespace

TEST(Lifecycle, MessageEndingRightAfterItsLastNameIsPrinted) {
  for (auto [order, ccsid] : {std::pair{ByteOrder::Little, 1208}, std::pair{ByteOrder::Big, 37}}) {
    MsgWriter w = encodeP2pSubStoppingMsg(P2pFields{}, order, ccsid);
    Decoded whole = decode(w);
    // The subname's count at 8, then its characters: nothing of its room after them is sent.
    const size_t end = 8 + 2 + P2pFields{}.subname.size();
    std::vector<uint8_t> cut(w.bytes().begin(), w.bytes().begin() + static_cast<std::ptrdiff_t>(end));
    Decoded d = decodeAs(cut, order, ccsid);
    EXPECT_EQ(d.rc, 0) << d.reports;
    EXPECT_EQ(d.reports, "");
    EXPECT_EQ(d.out.substr(d.out.find("\n\n", 2)), whole.out.substr(whole.out.find("\n\n", 2)));
    cut.pop_back();
    EXPECT_EQ(decodeAs(cut, order, ccsid).rc, kRcShortRead) << "one character short";
  }
}
