// File-transfer messages: payload chunks in both layouts, acknowledgements and the heartbeat.
#include <gtest/gtest.h>

#include "qmsg/header.h"
#include "tests/qmsg/golden.h"
#include "tools/gen/encode_file_transfer.h"

namespace {

XfChunkFields chunk(const std::string& name, const std::string& data) {
  XfChunkFields c;
  c.subId = 12;
  c.controlMsgId = sampleXfMsgId(0xa0);
  c.fileName = name;
  c.data.assign(data.begin(), data.end());
  c.fileByteOffset = 4096;
  c.totalFileSize = 10000;
  return c;
}

// The lines of chunk(name, data) below version 12 (four-blank indentation), up to the file name.
std::string chunkLinesV11(size_t chunkSize, const std::string& name, size_t dataLen) {
  return "    xfChunk.chunkSize:        " + std::to_string(chunkSize) +
         "\n"
         "    xfChunk.subId:            12\n"
         "    xfChunk.controlMsgId:     a0b1c2d3e4f5061728394a5b6c7d8e9fb0c1d2e3f4051627\n"
         "    xfChunk.crtLRLsn:         2021:2223:2425:2627:2829:2a2b:2c2d:2e2f\n"
         "    xfChunk.uow_id_length:    10\n"
         "    xfChunk.uow_id:           0000:1234:5678:9abc:def0\n"
         "    xfChunk.totalFileSize:    10000\n"
         "    xfChunk.fileByteOffset:   4096\n"
         "    xfChunk.fileNameLen:      " + std::to_string(name.size()) + "\n" +
         "    xfChunk.dataLen:          " + std::to_string(dataLen) + "\n";
}

TEST(XfHeartBeat, UpperCaseIdAndNoSwap) {
  XfHeartBeatFields f;
  f.maxCoordMsgId = sampleXfMsgId(0x0a);
  f.maxCrtLRLsn = sampleLogPosition(0x30);
  f.xfSendRequestTmSeq = 3;
  f.maxXfSendRequestOrder = 5;
  const std::string id = "xfHeartBeatMsg.maxCoordMsgId:          0A1B2C3D4E5F708192A3B4C5D6E7F8091A2B3C4D5E6F8091\n";
  const std::string lsn = "xfHeartBeatMsg.maxCrtLRLsn:            3031:3233:3435:3637:3839:3a3b:3c3d:3e3f\n";
  Decoded l = decode(encodeXfHeartBeatMsg(f, ByteOrder::Little, 1208));
  EXPECT_EQ(l.rc, 0);
  EXPECT_EQ(l.out, banner(64) + headerLines("RPLKX_XF_HEARTBEAT_MSG", 12) + id + lsn +
                       "xfHeartBeatMsg.xfSendRequestTmSeq:     3\n"
                       "xfHeartBeatMsg.maxXfSendRequestOrder:  5\n");
  // A big-endian sender's numbers are printed as they travel; only the header version is turned.
  Decoded b = decode(encodeXfHeartBeatMsg(f, ByteOrder::Big, 37));
  EXPECT_EQ(b.rc, 0);
  EXPECT_EQ(b.out, banner(64) + headerLines("RPLKX_XF_HEARTBEAT_MSG", 12) + id + lsn +
                       "xfHeartBeatMsg.xfSendRequestTmSeq:     50331648\n"
                       "xfHeartBeatMsg.maxXfSendRequestOrder:  83886080\n");
}

TEST(XfPayload, VersionElevenStepsOverChunkSizes) {
  std::vector<XfChunkFields> chunks = {chunk("a.del", "ABCDEFGHIJKLMNOPQRSTUVWXY"), chunk("bb.del", ""),
                                       chunk("ccc.del", "xyz")};
  chunks[0].chunkSize = 96 + 5 + 25 + 6;  // padded: the next chunk starts after the padding
  MsgWriter w = encodeXfPayloadMsg(chunks, 11, ByteOrder::Little, 1208);
  Decoded d = decode(w);
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_EQ(d.out, banner(w.size()) + headerLines("RPLKX_XF_MSG", 11) +
                       "  xfPayloadMsg.numChunks:          3\n"
                       "\n***  Chunk 1  ***\n\n" +
                       chunkLinesV11(132, "a.del", 25) +
                       "    xfChunk.fileName:         a.del\n"
                       "    \n****  Chunk Data  ****\n\n"
                       " 00000000 41424344 45464748 494A4B4C 4D4E4F50 51525354  ABCDEFGHIJKLMNOPQRST\n"
                       " 00000014 55565758 59                                   UVWXY\n"
                       "\n***  Chunk 2  ***\n\n" +
                       chunkLinesV11(102, "bb.del", 0) +
                       "    xfChunk.fileName:         bb.del\n"
                       "\n***  Chunk 3  ***\n\n" +
                       chunkLinesV11(106, "ccc.del", 3) +
                       "    xfChunk.fileName:         ccc.del\n"
                       "    \n****  Chunk Data  ****\n\n"
                       " 00000000 78797A                                        xyz\n");
}

TEST(XfPayload, VersionTwelveFindsChunksThroughItsTable) {
  std::vector<XfChunkFields> chunks = {chunk("a.del", "AB"), chunk("bb.del", ""), chunk("ccc.del", "xyz")};
  for (XfChunkFields& c : chunks) c.chunkSize = 1;  // sizes are not used to find chunks here
  chunks[2].xfSendRequestTmSeq = 77;
  chunks[2].xfSendRequestOrder = 3;
  MsgWriter l = encodeXfPayloadMsg(chunks, 12, ByteOrder::Little, 1208);
  Decoded d = decode(l);
  EXPECT_EQ(d.rc, 0) << d.reports;
  std::string third = d.out.substr(d.out.find("\n***  Chunk 3  ***\n\n"));
  EXPECT_EQ(third,
            "\n***  Chunk 3  ***\n\n" + chunkLinesV11(1, "ccc.del", 3) +
                "    xfChunk.offset2FileName:      112\n"
                "    xfChunk.offset2Data:      119\n"
                "    xfChunk.xfSendRequestTmSeq:77\n"
                "    xfChunk.xfSendRequestOrder:3\n"
                "    xfChunk.fileName:         ccc.del\n"
                "    \n****  Chunk Data  ****\n\n"
                " 00000000 78797A                                        xyz\n");
  // A chunk of no data ends with its file-name line.
  EXPECT_NE(d.out.find("    xfChunk.fileName:         bb.del\n\n***  Chunk 3"), std::string::npos) << d.out;
}

TEST(XfPayload, NoChunksPrintsTheCountAlone) {
  for (uint16_t v : {11, 12}) {
    Decoded d = decode(encodeXfPayloadMsg({}, v, ByteOrder::Big, 37));
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, banner(12) + headerLines("RPLKX_XF_MSG", v) + "  xfPayloadMsg.numChunks:          0\n");
  }
}

TEST(XfPayload, BigEndianChunkIsSwappedButTheCountTravelsAsStored) {
  XfChunkFields c = chunk("ORDERS.del", "");
  c.totalFileSize = 0x0100000000000000ull;  // printed as stored: 1 on this machine
  c.fileByteOffset = 0;
  MsgWriter w = encodeXfPayloadMsg({c}, 11, ByteOrder::Big, 37);
  Decoded d = decode(w);
  EXPECT_EQ(d.rc, kRcShortRead);
  std::string expected = chunkLinesV11(106, "ORDERS.del", 0);
  expected.replace(expected.find("totalFileSize:    10000"), 23, "totalFileSize:    1");
  expected.replace(expected.find("fileByteOffset:   4096"), 22, "fileByteOffset:   0");
  EXPECT_EQ(d.out, banner(w.size()) + headerLines("RPLKX_XF_MSG", 11) +
                       "  xfPayloadMsg.numChunks:          16777216\n"
                       "\n***  Chunk 1  ***\n\n" + expected +
                       "    xfChunk.fileName:         ORDERS.del\n"
                       "\n***  Chunk 2  ***\n\n");
  EXPECT_NE(d.reports.find("Cannot print xfChunk"), std::string::npos) << d.reports;
  EXPECT_NE(d.reports.find("cannot print xfPayloadMsg class"), std::string::npos) << d.reports;
}

TEST(XfPayload, ChunkOfSizeZeroEndsTheWalk) {
  std::vector<XfChunkFields> chunks = {chunk("a", ""), chunk("b", "")};
  chunks[0].chunkSize = 0;
  Decoded d = decode(encodeXfPayloadMsg(chunks, 11, ByteOrder::Little, 1208));
  EXPECT_EQ(d.rc, kRcShortRead);
  EXPECT_NE(d.reports.find("has size 0"), std::string::npos) << d.reports;
  EXPECT_EQ(d.out.find("Chunk 2"), std::string::npos);
}

TEST(XfPayload, UnconvertibleFileNameEndsTheChunkBeforeItsLines) {
  ConvMgr::setStopOnSubstitution(true);
  Decoded d = decode(encodeXfPayloadMsg({chunk("bad\xFF", "")}, 12, ByteOrder::Little, 1208), 819);
  ConvMgr::setStopOnSubstitution(false);
  EXPECT_NE(d.rc, 0);
  EXPECT_TRUE(d.out.ends_with("\n***  Chunk 1  ***\n\n")) << d.out;
  size_t conv = d.reports.find("Cannot convert file name");
  size_t chunkText = d.reports.find("Cannot print xfChunk");
  size_t classText = d.reports.find("cannot print xfPayloadMsg class");
  EXPECT_NE(conv, std::string::npos) << d.reports;
  EXPECT_LT(conv, chunkText);
  EXPECT_LT(chunkText, classText);
}

TEST(XfAdmin, ResponsesInBothLayouts) {
  std::vector<XfResponseFields> responses(2);
  responses[0].code = 0;
  responses[0].fileInfo = chunk("a.del", "");
  responses[1].code = 4;
  responses[1].fileInfo = chunk("bb.del", "");
  for (uint16_t v : {11, 12}) {
    MsgWriter w = encodeXfAdminMsg(responses, v, ByteOrder::Little, 1208);
    Decoded d = decode(w);
    EXPECT_EQ(d.rc, 0) << d.reports;
    size_t fixed = v >= 12 ? 112 : 96;
    std::string v12 = [&](size_t nameLen) {
      return v < 12 ? std::string()
                    : "    xfChunk.offset2FileName:      112\n    xfChunk.offset2Data:      " +
                          std::to_string(112 + nameLen) +
                          "\n    xfChunk.xfSendRequestTmSeq:1\n    xfChunk.xfSendRequestOrder:1\n";
    }(6);
    EXPECT_NE(d.out.find("  xfAdminMsg.numResponses:          2\n"), std::string::npos);
    std::string second = d.out.substr(d.out.find("\n***  Response 2  ***\n\n"));
    EXPECT_EQ(second, "\n***  Response 2  ***\n\n"
                      "    xfAdminResponse.size:             " + std::to_string(8 + fixed + 6) +
                          "\n"
                          "    xfAdminResponse.code:             4\n"
                          "    xfAdminResponse - fileInfo    \n" +
                          chunkLinesV11(fixed + 6, "bb.del", 0) + v12 + "    xfChunk.fileName:         bb.del\n");
  }
}

std::vector<XfChunkFields> twoChunks() { return {chunk("a.del", "ABC"), chunk("bb.del", "DE")}; }

template <uint16_t kVersion>
MsgWriter twoChunkPayload(ByteOrder o, int32_t c) {
  return encodeXfPayloadMsg(twoChunks(), kVersion, o, c);
}

template <uint16_t kVersion>
MsgWriter twoResponses(ByteOrder o, int32_t c) {
  std::vector<XfResponseFields> responses(2);
  responses[0].fileInfo = twoChunks()[0];
  responses[1].fileInfo = twoChunks()[1];
  return encodeXfAdminMsg(responses, kVersion, o, c);
}

// The chunk and response counts are read as they travel, so a big-endian sender's list is
// walked past its end (reported); the cuts are taken from the little-endian sender.
TEST(FileTransfer, EveryCutIsReportedNeverReadPast) {
  const GoldenCase kCases[] = {
      {.name = "payload of two chunks, version 11", .encode = twoChunkPayload<11>, .cutsOnly = true, .littleEndianOnly = true},
      {.name = "payload of two chunks, version 12", .encode = twoChunkPayload<12>, .cutsOnly = true, .littleEndianOnly = true},
      {.name = "acknowledgement of two files, version 11", .encode = twoResponses<11>, .cutsOnly = true, .littleEndianOnly = true},
      {.name = "acknowledgement of two files, version 12", .encode = twoResponses<12>, .cutsOnly = true, .littleEndianOnly = true},
      {.name = "heartbeat", .encode = [](ByteOrder o, int32_t c) { return encodeXfHeartBeatMsg({}, o, c); }, .cutsOnly = true},
  };
  for (const GoldenCase& c : kCases) expectGolden(c);
}

TEST(FileTransfer, DemoSampleDecodes) {
  Decoded d = decode(sampleXfPayloadMsg(ByteOrder::Little, 1208));
  EXPECT_EQ(d.rc, 0) << d.reports;
  EXPECT_NE(d.out.find("\n***  Chunk 2  ***\n"), std::string::npos) << d.out;
}

}  // namespace
