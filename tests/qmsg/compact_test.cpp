// The decoder entry: banner, header lines, dispatch of known and unknown types, schema cache.
#include <gtest/gtest.h>

#include "qmsg/header.h"
#include "tests/qmsg/golden.h"

namespace {

std::vector<uint8_t> headerOnly(uint8_t type, uint8_t flag, uint16_t version, ByteOrder order,
                                size_t bodyBytes = 0) {
  MsgWriter w(order);
  w.header(type, flag, version);
  w.resize(8 + bodyBytes);
  return w.bytes();
}

TEST(Dispatch, UnknownTypeNamesItselfAndReturnsAllOnes) {
  for (uint8_t type : {0, 14, 15, 19, 63, 87, 127, 134, 255}) {
    auto msg = headerOnly(type, 0, 3, ByteOrder::Little);
    Decoded d = decodeAs(msg, ByteOrder::Little, 1208);
    EXPECT_EQ(d.rc, kRcUnknownType) << int(type);
    EXPECT_EQ(d.out, banner(8) + "Unknown msg types: " + std::to_string(type) +
                         " received in queue: TESTQ\n" + headerLines("Unknown", 3));
  }
}

TEST(Dispatch, DdlSubTypeZeroIsUnknownAlthoughTheHeaderNamesAddColumn) {
  auto msg = headerOnly(kTypeDdl, 0x80, 4, ByteOrder::Little);
  Decoded d = decodeAs(msg, ByteOrder::Little, 1208);
  EXPECT_EQ(d.rc, kRcUnknownType);
  EXPECT_EQ(d.out, banner(8) + "Unknown DDL msg type: 0 received in queue: TESTQ\n" +
                       headerLines("RPLKX_DDL_MSG", 4) + "  qMsgHeader.msgDDLType:    RPLKX_DDL_ADD_COLUMN\n");
}

TEST(Dispatch, EveryNamedTypeReachesItsPrinter) {
  int named = 0;
  for (int type = 0; type < 256; ++type) {
    const std::string name = compactTypeName(static_cast<uint8_t>(type));
    if (name == "Unknown") continue;
    ++named;
    for (ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
      auto msg = headerOnly(static_cast<uint8_t>(type), 0, 1, order, 1024);
      Decoded d = decodeAs(msg, order, 1208);
      EXPECT_EQ(d.out.find("Unknown msg types"), std::string::npos) << name << "\n" << d.out;
      if (type != kTypeDdl) {  // DDL sub-type 0 is unknown
        EXPECT_NE(d.rc, kRcUnknownType) << name;
      }
    }
  }
  EXPECT_EQ(named, 32);
}

TEST(Dispatch, BigEndianVersionIsSwappedBeforeUse) {
  auto msg = headerOnly(200, 0, 0x0102, ByteOrder::Big);
  Decoded d = decodeAs(msg, ByteOrder::Big, 1208);
  EXPECT_NE(d.out.find("  qMsgHeader.msgVersion: 258\n"), std::string::npos) << d.out;
  // Printed as stored when the message is already in machine order.
  Decoded raw = decodeAs(msg, ByteOrder::Little, 1208);
  EXPECT_NE(raw.out.find("  qMsgHeader.msgVersion: 513\n"), std::string::npos) << raw.out;
}

TEST(Dispatch, FamilyTextIsConvertedFromEbcdic) {
  MsgWriter w(ByteOrder::Big, 37);
  w.header(250, 0, 1);
  Decoded d = decode(w);
  EXPECT_NE(d.out.find("  qMsgHeader.msgFamily:  KXRP\n"), std::string::npos) << d.out;
}

TEST(Dispatch, ShortMessagesAreReportedNotReadPast) {
  auto msg = headerOnly(128, 0, 7, ByteOrder::Little);  // a transaction
  for (size_t n = 0; n < 8; ++n) {
    std::vector<uint8_t> cut(msg.begin(), msg.begin() + n);
    Decoded d = decodeAs(cut, ByteOrder::Little, 1208);
    EXPECT_EQ(d.rc, kRcShortRead) << n;
    EXPECT_NE(d.reports.find("543"), std::string::npos) << d.reports;
  }
}

std::vector<uint8_t> fakeSchema(uint32_t key, uint16_t version, uint8_t marker) {
  MsgWriter w(ByteOrder::Little);
  w.header(1, 0, version);  // a subscription schema
  w.u32(156, key);
  w.u8(22, marker);
  w.resize(600);
  return w.bytes();
}

TEST(SchemaCache, ReplacingKeepsThePlaceAndAppendsNewKeys) {
  releaseSchemaCache();
  ASSERT_EQ(cacheSchema(fakeSchema(1, 4, 'a').data(), 600, false), 0);
  ASSERT_EQ(cacheSchema(fakeSchema(2, 4, 'b').data(), 600, false), 0);
  ASSERT_EQ(cacheSchema(fakeSchema(1, 4, 'c').data(), 600, false), 0);
  ASSERT_EQ(schemaCacheSize(), 2u);
  EXPECT_EQ(schemaCacheKeyAt(0), 1u);
  EXPECT_EQ(schemaCacheKeyAt(1), 2u);
  EXPECT_EQ(findSchema(1)->msg[22], 'c');
  EXPECT_EQ(findSchema(3), nullptr);
  releaseSchemaCache();
  EXPECT_EQ(schemaCacheSize(), 0u);
}

TEST(SchemaCache, LobAgainstVersionFiveSchemaFailsThatMessageOnly) {
  releaseSchemaCache();
  ASSERT_EQ(cacheSchema(fakeSchema(7, 5, 'x').data(), 600, false), 0);
  MsgWriter lob(ByteOrder::Little);
  lob.header(129, 0, 7);  // a LOB message
  lob.u32(8, 7);
  lob.resize(40);
  Decoded d = decode(lob);
  EXPECT_EQ(d.rc, kRcBadSchemaVersion);
  EXPECT_NE(d.reports.find("unrecognized version number"), std::string::npos) << d.reports;
  // The run goes on: the next message decodes normally.
  Decoded next = decodeAs(headerOnly(99, 0, 1, ByteOrder::Little), ByteOrder::Little, 1208);
  EXPECT_EQ(next.rc, kRcUnknownType);
  releaseSchemaCache();
}

TEST(Forms, TimesAndPositions) {
  EXPECT_EQ(formatUtc(0, 5), "Un-initialized");
  EXPECT_EQ(formatUtc(86400 + 3661, 0), "01-02-1970 01:01:01.000000");
  EXPECT_EQ(formatUtc(86400, -1), "01-02-1970 00:00:00");
  const uint8_t pos[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 0xab};
  EXPECT_EQ(formatPos10(pos), "0001:0203:0405:0607:08ab");
  EXPECT_EQ(formatHexPairs(pos, 10, 50), "0001:0203:0405:0607:08ab");
  EXPECT_EQ(formatHexPairs(pos, 10, 20), "...buffer full\n");
  EXPECT_EQ(formatHexPairs(pos, 10, 16), "");
}

TEST(Forms, HexDumpRowsLineUp) {
  std::vector<uint8_t> bytes(25);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>('A' + i);
  Capture c;
  dumpHex(bytes.size(), bytes.data(), c.file());
  EXPECT_EQ(c.text(),
            " 00000000 41424344 45464748 494A4B4C 4D4E4F50 51525354  ABCDEFGHIJKLMNOPQRST\n"
            " 00000014 55565758 59                                   UVWXY\n");
}

}  // namespace
