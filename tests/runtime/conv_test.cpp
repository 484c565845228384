// Conversion manager: composition table, copy-or-convert check, the converter cache, shift
// bytes of mixed EBCDIC, output forms and the failure codes.
#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "report_capture.h"
#include "runtime/conv.h"

namespace {

struct Converted {
  int32_t rc;
  std::string bytes;
};

ConvMgr& mgr() {
  static ConvMgr m(6, "rplqmfmt:processQueue");
  return m;
}

// Converts into a buffer the manager allocates and returns the counted bytes.
Converted convert(int32_t from, const std::string& in, int32_t to, int32_t encoding = 1,
                  bool graphic = false) {
  const char* s = in.data();
  char* t = nullptr;
  int32_t n = -1;
  int32_t rc = mgr().lookupAddConv(from, &s, s + in.size(), to, &t, nullptr, encoding, graphic,
                                   false, &n);
  Converted c{rc, {}};
  if (rc == 0) {
    EXPECT_EQ(s, in.data() + in.size());
    c.bytes.assign(t, static_cast<size_t>(n));
    EXPECT_EQ(t[n], '\0');  // the terminating zero unit follows the data
  }
  std::free(t);
  return c;
}

class StopCallbacks {
 public:
  StopCallbacks() { ConvMgr::setStopOnSubstitution(true); }
  ~StopCallbacks() { ConvMgr::setStopOnSubstitution(false); }
};

TEST(Composition, TellingRows) {
  struct Row { int32_t ccsid, sbcs, dbcs, rc; const char* name; };
  for (const Row& r : {Row{37, 37, 1200, 0, "ibm-37_P100-1995"},
                       Row{1047, 1047, 1200, 0, "ibm-1047_P100-1995"},
                       Row{1208, 1208, 1200, 0, "UTF-8"},
                       Row{65535, 0, 1200, kRcPureDbcs, "unknown"},
                       Row{300, 0, 300, kRcPureDbcs, "unknown"},
                       Row{13488, 0, 13488, kRcPureDbcs, "unknown"},
                       Row{834, 0, 933, kRcPureDbcs, "unknown"},
                       Row{4396, 0, 300, kRcPureDbcs, "unknown"},
                       Row{930, 1390, 1390, 0, "unknown"},
                       Row{942, 942, 301, 0, "unknown"},
                       Row{954, 954, 13488, 0, "unknown"},
                       Row{1392, 5488, 5488, 0, "unknown"},
                       Row{1140, 37, 37, 0, "unknown"},
                       Row{1252, 5348, 1200, 0, "unknown"},
                       Row{5347, 1251, 1251, 0, "unknown"},
                       Row{5348, 5348, 5348, 0, "unknown"},
                       Row{17248, 864, 864, 0, "unknown"},
                       Row{4711, 4711, 4711, 0, "unknown"}}) {
    CcsidComposition c = composeCcsid(r.ccsid);
    EXPECT_EQ(c.sbcs, r.sbcs) << r.ccsid;
    EXPECT_EQ(c.dbcs, r.dbcs) << r.ccsid;
    EXPECT_EQ(c.rc, r.rc) << r.ccsid;
    EXPECT_STREQ(c.name, r.name) << r.ccsid;
  }
  encodingInfo e;
  e.flags = kEncMachineOrder;
  EXPECT_EQ(e.setup(939), 0);
  EXPECT_EQ(e.msgCcsid, 939);
  EXPECT_EQ(e.sbcsCcsid, 1399);
  EXPECT_EQ(e.dbcsCcsid, 1399);
  EXPECT_EQ(e.setup(1390), 0);
  EXPECT_EQ(e.dbcsCcsid, 300);
  EXPECT_EQ(e.setup(1380), kRcPureDbcs);
  EXPECT_EQ(e.sbcsCcsid, 0);
  EXPECT_EQ(e.dbcsCcsid, 1380);
  EXPECT_EQ(e.encoding(), kEncLowByteFirst);
  e.flags = 0;
  EXPECT_EQ(e.encoding(), 0);
}

TEST(Conversion, CheckCopiesOrConverts) {
  EXPECT_EQ(ConvMgr::ckcpcv(0, 1208, 1), 0);       // CCSID unknown: never converted
  EXPECT_EQ(ConvMgr::ckcpcv(0, 0, 0), 0);
  EXPECT_EQ(ConvMgr::ckcpcv(37, 1208, 1), kRcConvNeeded);
  EXPECT_EQ(ConvMgr::ckcpcv(1208, 1208, 0), 0);    // same CCSID, not UTF-16: copied
  EXPECT_EQ(ConvMgr::ckcpcv(37, 37, 0), 0);
  EXPECT_EQ(ConvMgr::ckcpcv(1200, 1200, 1), 0);    // UTF-16 already low byte first
  EXPECT_EQ(ConvMgr::ckcpcv(1200, 1200, 0), kRcConvNeeded);
  EXPECT_EQ(ConvMgr::ckcpcv(13488, 13488, 0), kRcConvNeeded);
}

TEST(Conversion, SameCopiedFieldNeverOpensIcu) {
  ConvMgr::init();
  int32_t before = ConvMgr::openCount();
  char buf[16] = {};
  ConvOutBuf out{buf, 0, sizeof buf};
  EXPECT_EQ(mgr().cpcvb(1047, 1047, "\xC1\xC2", 2, out, 0), 0);
  EXPECT_EQ(mgr().cpcvb(0, 1208, "\xFF", 1, out, 0), 0);
  EXPECT_EQ(out.used, 3u);
  EXPECT_EQ(std::string(buf, 3), "\xC1\xC2\xFF");
  EXPECT_EQ(ConvMgr::openCount(), before);
}

TEST(Conversion, SameCcsidTwiceOpensIcuOnce) {
  ConvMgr::init();
  int32_t rc = -1;
  int32_t before = ConvMgr::openCount();
  UConverter* a = mgr().getConverter(1148, 0, rc);
  ASSERT_EQ(rc, 0);
  UConverter* b = mgr().getConverter(1148, 0, rc);
  ASSERT_EQ(rc, 0);
  EXPECT_NE(a, b);  // each caller has its own copy
  EXPECT_EQ(ConvMgr::openCount(), before + 1);
  ucnv_close(a);
  ucnv_close(b);
  EXPECT_EQ(convert(1148, "\xC1", 1208).bytes, "A");
  EXPECT_EQ(convert(1148, "\xC2", 1208).bytes, "B");
  EXPECT_EQ(ConvMgr::openCount(), before + 2);  // 1208 opened once for both
}

TEST(Conversion, BigEndianUtf16IsTurnedRoundEvenToItsOwnCcsid) {
  std::string be("\0A\0B\x30\x42", 6);
  Converted c = convert(1200, be, 1200, 0);
  ASSERT_EQ(c.rc, 0);
  EXPECT_EQ(c.bytes, std::string("A\0B\0\x42\x30", 6));
  Converted le = convert(13488, std::string("A\0", 2), 1208, 1);
  EXPECT_EQ(le.bytes, "A");
}

TEST(Conversion, Ebcdic37RoundTripsThroughUtf8) {
  const std::string utf8 = "Hello, Gr\xC3\xBC\xC3\x9F" "e";
  Converted e = convert(1208, utf8, 37);
  ASSERT_EQ(e.rc, 0);
  EXPECT_EQ(e.bytes, "\xC8\x85\x93\x93\x96\x6B\x40\xC7\x99\xDC\x59\x85");
  Converted back = convert(37, e.bytes, 1208);
  ASSERT_EQ(back.rc, 0);
  EXPECT_EQ(back.bytes, utf8);
  // Every single byte of 37 survives the trip.
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  Converted u = convert(37, all, 1208);
  ASSERT_EQ(u.rc, 0);
  EXPECT_EQ(convert(1208, u.bytes, 37).bytes, all);
}

TEST(Conversion, MixedEbcdicGetsShiftBytes) {
  const std::string utf8 = "AB\xE6\x97\xA5\xE6\x9C\xAC" "C";  // "AB" + two kanji + "C"
  const std::string mixed = "\xC1\xC2\x0E\x45\x62\x45\x66\x0F\xC3";
  for (int32_t ccsid : {930, 939}) {
    Converted m = convert(1208, utf8, ccsid);
    ASSERT_EQ(m.rc, 0) << ccsid;
    EXPECT_EQ(m.bytes, mixed) << ccsid;
    EXPECT_EQ(convert(ccsid, mixed, 1208).bytes, utf8) << ccsid;
  }
  // GRAPHIC data tagged with the mixed CCSID carries no shift bytes of its own.
  Converted g = convert(939, "\x45\x62\x45\x66", 1208, 1, true);
  ASSERT_EQ(g.rc, 0);
  EXPECT_EQ(g.bytes, "\xE6\x97\xA5\xE6\x9C\xAC");
  // The double-byte component (300, through its table) reads the same data directly.
  EXPECT_EQ(convert(300, "\x45\x62\x45\x66", 1208, 1, true).bytes, "\xE6\x97\xA5\xE6\x9C\xAC");
}

TEST(Conversion, KoreanRunWithoutShiftInIsRepaired) {
  StopCallbacks stop;
  // "AB" + one Hangul syllable, then the field ends inside the double-byte run.
  Converted cut = convert(933, "\xC1\xC2\x0E\x88\x61", 1208);
  ASSERT_EQ(cut.rc, 0);
  EXPECT_EQ(cut.bytes, "AB\xEA\xB0\x80");
  EXPECT_EQ(convert(933, "\xC1\xC2\x0E\x88\x61\x0F\xC3", 1208).bytes, "AB\xEA\xB0\x80" "C");
}

TEST(Conversion, PureDoubleByteTargetIsBlankPadded) {
  Converted c = convert(1208, "AB", 834);
  ASSERT_EQ(c.rc, 0);
  EXPECT_EQ(c.bytes, "\xC1\xC2\x20");
}

TEST(Conversion, LengthPrefixedAndTerminated) {
  const char in[] = "\xC1\xC2\xC3";
  char buf[16];
  std::memset(buf, 0x55, sizeof buf);
  const char* s = in;
  char* t = buf;
  int32_t n = -1;
  ASSERT_EQ(mgr().lookupAddConv(37, &s, in + 3, 1208, &t, buf + sizeof buf, 1, false, true, &n), 0);
  uint16_t len;
  std::memcpy(&len, buf, 2);
  EXPECT_EQ(len, 3);
  EXPECT_EQ(std::string(buf + 2, 4), std::string("ABC\0", 4));
  EXPECT_EQ(t, buf + 5);  // the caller's pointer is advanced past prefix and data
  EXPECT_EQ(s, in + 3);

  // Graphic data has a 4-byte length word; UTF-16 output ends with a 2-byte zero unit.
  std::memset(buf, 0x55, sizeof buf);
  s = "\x45\x62";
  t = buf;
  ASSERT_EQ(mgr().lookupAddConv(16684, &s, s + 2, 1200, &t, buf + sizeof buf, 1, true, true, &n), 0);
  uint32_t len4;
  std::memcpy(&len4, buf, 4);
  EXPECT_EQ(len4, 2u);
  EXPECT_EQ(std::string(buf + 4, 4), std::string("\xE5\x65\0\0", 4));

  // Exactly enough room: no terminator is written past the end.
  std::memset(buf, 0x55, sizeof buf);
  s = in;
  t = buf;
  ASSERT_EQ(mgr().lookupAddConv(37, &s, in + 3, 1208, &t, buf + 3, 1, false, false, &n), 0);
  EXPECT_EQ(n, 3);
  EXPECT_EQ(buf[3], 0x55);
}

TEST(Conversion, SmallTargetGives5003) {
  char buf[3];
  const char* in = "Hello";
  const char* s = in;
  char* t = buf;
  int32_t n = 0;
  EXPECT_EQ(mgr().lookupAddConv(1208, &s, in + 5, 37, &t, buf + sizeof buf, 1, false, false, &n),
            kRcConvOverflow);
  // The converters were reset: the next conversion starts clean.
  EXPECT_EQ(convert(1208, "Hi", 37).bytes, "\xC8\x89");
  // The growing buffer of cpcvb reports the same as full.
  char small[8];
  ConvOutBuf out{small, 0, sizeof small};
  EXPECT_EQ(mgr().cpcvb(37, 1208, "\xC1\xC2\xC3\xC4\xC5\xC6\xC7", 7, out, 1), kRcOutputFull);
  EXPECT_EQ(mgr().cpcvb(1208, 1200, "\xE6\x97\xA5\xE6\x9C\xAC", 6, out, 1), 0);
  EXPECT_EQ(out.used, 4u);
  EXPECT_EQ(out.free, 4u);
  // Room for the source and two bytes, but not for the six bytes it becomes.
  char six[5];
  ConvOutBuf tight{six, 0, sizeof six};
  EXPECT_EQ(mgr().cpcvb(37, 1200, "\xC1\xC2\xC3", 3, tight, 1), kRcOutputFull);
  EXPECT_EQ(tight.used, 0u);
}

TEST(Conversion, UnmappableInputUnderStopCallbacksGives5001) {
  ReportCapture reports;
  // Substitution by default.
  EXPECT_EQ(convert(1208, "\xE6\x97\xA5", 37).bytes, "\x3F");
  EXPECT_EQ(convert(1208, "a\xFF" "b", 37).rc, 0);
  {
    StopCallbacks stop;
    EXPECT_EQ(convert(1208, "\xE6\x97\xA5", 37).rc, kRcConvFailed);  // no mapping in 37
    EXPECT_EQ(convert(1208, "a\xFF" "b", 37).rc, kRcConvFailed);     // not UTF-8
    EXPECT_EQ(convert(1208, "ab", 37).bytes, "\x81\x82");             // reset after failure
    char buf[32];
    ConvOutBuf out{buf, 0, sizeof buf};
    EXPECT_EQ(mgr().cpcvb(1208, 37, "\xFF", 1, out, 1), kRcConvFailed);
  }
  std::string r = reports.text();
  EXPECT_NE(r.find("RPL0589E \"ConvMgr::cpcvb\" : \"ConvMgr::cpcv\" : The step failed with "
                   "return code \"5001\"."),
            std::string::npos) << r;
  EXPECT_NE(r.find("RPL8999D do conversion"), std::string::npos) << r;
}

TEST(Conversion, Arabic864FallsBackSilently) {
  ReportCapture reports;
  int32_t rc = -1;
  const char* name = mgr().getName(864, rc);
  ASSERT_EQ(rc, 0);
  ASSERT_NE(name, nullptr);
  EXPECT_NE(std::strstr(name, "864"), nullptr) << name;
  EXPECT_EQ(convert(864, "\x41", 1208).bytes, "A");
  EXPECT_EQ(reports.text(), "");
}

TEST(Conversion, UnknownCcsidGives5000) {
  int32_t rc = 0;
  EXPECT_EQ(mgr().getConverter(4711, 0, rc), nullptr);
  EXPECT_EQ(rc, kRcConvOpen);
  EXPECT_EQ(mgr().getName(4711, rc), nullptr);
  EXPECT_EQ(rc, kRcConvOpen);
  EXPECT_EQ(convert(4711, "x", 1208).rc, kRcConvOpen);
}

TEST(Conversion, IntegersByEncoding) {
  const unsigned char b[] = {0x12, 0x34, 0x56, 0x78};
  EXPECT_EQ(ConvMgr::readShortPtr(b, 0), 0x1234);
  EXPECT_EQ(ConvMgr::readShortPtr(b, 1), 0x3412);
  EXPECT_EQ(ConvMgr::readIntPtr(b, 0), 0x12345678);
  EXPECT_EQ(ConvMgr::readIntPtr(b, 1), 0x78563412);
  const unsigned char neg[] = {0xFF, 0xFE, 0xFF, 0xFF};
  EXPECT_EQ(ConvMgr::readShortPtr(neg, 0), -2);
  EXPECT_EQ(ConvMgr::readIntPtr(neg, 1), -257);
}

TEST(Conversion, CleanupEmptiesTheListAndConvertersReopen) {
  EXPECT_EQ(convert(1208, "A", 500).bytes, "\xC1");
  FILE* f = tmpfile();
  ConvMgr::dumpList(f);
  ConvMgr::cleanup();
  ConvMgr::dumpList(f);
  rewind(f);
  char text[2048] = {};
  size_t n = fread(text, 1, sizeof text - 1, f);
  fclose(f);
  std::string dump(text, n);
  EXPECT_EQ(dump.rfind("List:\n", 0), 0u) << dump;
  EXPECT_NE(dump.find("CCSID 500"), std::string::npos) << dump;
  EXPECT_EQ(dump.substr(dump.size() - 27), "No converters in the list.\n");
  int32_t before = ConvMgr::openCount();
  EXPECT_EQ(convert(1208, "A", 500).bytes, "\xC1");
  EXPECT_EQ(ConvMgr::openCount(), before + 2);
}

}  // namespace
