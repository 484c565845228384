// The fast print paths print exactly what the plain printf forms print: hex dump rows, the
// line builder's numbers and counted text, DOUBLE values, and character fields converted in
// the converted-text object's own room or in an allocated buffer, against ICU's one-call
// conversion.
#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <cinttypes>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "qmsg/emit.h"
#include "qmsg/forms.h"
#include "qmsg/msg.h"
#include "qmsg/values.h"
#include "golden.h"
#include "tools/gen/encode_data.h"

namespace {

// The dump as the row format describes it, one printf at a time.
std::string plainDump(const std::vector<uint8_t>& b, size_t origin) {
  std::string s;
  char piece[32];
  for (size_t row = 0; row < b.size(); row += 20) {
    size_t n = b.size() - row < 20 ? b.size() - row : 20;
    std::snprintf(piece, sizeof piece, " %*.*lx ", 8, 8, static_cast<unsigned long>((origin + row) & 0xFFFFFFFFu));
    s += piece;
    for (size_t i = 0; i < 20; ++i) {
      if (i < n) {
        std::snprintf(piece, sizeof piece, "%2.2X", b[row + i]);
        s += piece;
      } else {
        s += "  ";
      }
      if (i % 4 == 3) s += ' ';
    }
    s += ' ';
    for (size_t i = 0; i < n; ++i) s += std::isprint(b[row + i]) ? static_cast<char>(b[row + i]) : '.';
    s += '\n';
  }
  return s;
}

std::string fastDump(const std::vector<uint8_t>& b, size_t origin) {
  Capture out;
  dumpHex(b.size(), b.data(), out.file(), true, origin);
  return out.text();
}

TEST(FastPaths, HexDumpMatchesPrintfForEveryShortLengthAndRandomBytes) {
  std::mt19937 rng(8);
  for (size_t len = 0; len <= 100; ++len) {
    std::vector<uint8_t> b(len);
    for (uint8_t& x : b) x = static_cast<uint8_t>(rng());
    ASSERT_EQ(fastDump(b, 0), plainDump(b, 0)) << "length " << len;
  }
  // Every byte value, and offsets whose low 32 bits wrap.
  std::vector<uint8_t> all(256 * 3);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(fastDump(all, 0), plainDump(all, 0));
  EXPECT_EQ(fastDump(all, 0xFFFFFF00u), plainDump(all, 0xFFFFFF00u));
  EXPECT_EQ(fastDump(all, 0x1234567890ull), plainDump(all, 0x1234567890ull));
  // Larger than the block the rows are gathered in.
  std::vector<uint8_t> big(200000 + 7);
  for (uint8_t& x : big) x = static_cast<uint8_t>(rng());
  EXPECT_EQ(fastDump(big, 0), plainDump(big, 0));
}

TEST(FastPaths, LineBuilderWritesWhatPrintfWrites) {
  const int64_t numbers[] = {0, 1, -1, 9, 10, -10, 32767, -32768, 65535, INT32_MAX, INT32_MIN,
                             INT64_MAX, INT64_MIN, 1000000007};
  for (int64_t v : numbers) {
    Capture out;
    {
      Emit e(out.file());
      e.num(v);
    }
    char s[32];
    std::snprintf(s, sizeof s, "%" PRId64, v);
    EXPECT_EQ(out.text(), s);
  }
  {
    Capture out;
    {
      Emit e(out.file());
      e.unum(UINT64_MAX);
    }
    EXPECT_EQ(out.text(), "18446744073709551615");
  }
  // "%.*s": the count, or the text up to a zero byte, whichever is first; a long text passes
  // the builder's room.
  const char withZero[] = {'a', 'b', '\0', 'c'};
  std::string longText(5000, 'x');
  Capture out;
  {
    Emit e(out.file());
    e.lit("[").text(withZero, 4).lit("|").text("hello", 3).lit("|").text("abc", -1).lit("|");
    e.text(longText.c_str(), 4000).ch(']');
  }
  char expect[6000];
  std::snprintf(expect, sizeof expect, "[%.*s|%.*s|%.*s|%.*s]", 4, withZero, 3, "hello", -1, "abc", 4000,
                longText.c_str());
  EXPECT_EQ(out.text(), expect);
}

std::string plainDouble(double v, bool single) {
  char s[64];
  std::snprintf(s, sizeof s, "%.*E", single ? 5 : 14, v);
  std::string t = s;
  size_t e = t.find('E');
  if (e != std::string::npos && t.size() - e == 5 && t[e + 2] == '0') t.erase(e + 2, 1);
  return t;
}

TEST(FastPaths, DoubleTextMatchesPrintf) {
  std::mt19937_64 rng(37);
  std::vector<double> values = {0.0, -0.0, 0.5, 0.25, 1.0, -1.0, 1e-300, 1e300, 5e-324, 1.5e-5,
                                123456789012345.0, 9.999999999999995, 0.1875, 2.5e99, 2.5e100,
                                std::numeric_limits<double>::max(), std::numeric_limits<double>::min(),
                                std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN()};
  for (int i = 0; i < 20000; ++i) {
    uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    values.push_back(d);
    values.push_back(static_cast<double>(static_cast<int64_t>(bits % 2000001) - 1000000) / 1000.0);
    // Decimals of 1 to 17 digits at any exponent: short ones take the padded shortest form.
    std::string text = std::to_string(rng() % 9 + 1);
    for (int k = static_cast<int>(rng() % 17); k > 0; --k) text += static_cast<char>('0' + rng() % 10);
    text += 'e';  // appended apart: GCC 12 sees a false overlap in "e" + to_string(...)
    text += std::to_string(static_cast<int>(rng() % 640) - 320);
    values.push_back(std::strtod(text.c_str(), nullptr));
  }
  for (double d : values) {
    ASSERT_EQ(doubleText(d, false), plainDouble(d, false)) << std::hexfloat << d;
    float f = static_cast<float>(d);
    ASSERT_EQ(doubleText(f, true), plainDouble(f, true)) << std::hexfloat << f;
  }
}

// ICU's one-call conversion between the two code pages' converters.
std::string icuConvert(const char* from, const char* to, const std::string& in) {
  std::vector<char> out(in.size() * 4 + 16);
  UErrorCode err = U_ZERO_ERROR;
  int32_t n = ucnv_convert(to, from, out.data(), static_cast<int32_t>(out.size()), in.data(),
                           static_cast<int32_t>(in.size()), &err);
  EXPECT_TRUE(U_SUCCESS(err)) << u_errorName(err);
  return std::string(out.data(), static_cast<size_t>(n));
}

TEST(FastPaths, ConvertedTextInOwnRoomOrAllocatedMatchesIcu) {
  ConvMgr::init();
  ConvMgr cm(6, "rplqmfmt:processQueue");
  encodingInfo enc = senderContext(ByteOrder::Big, 37, 1208);
  std::vector<uint8_t> none(8);
  QMsg m(none.data(), none.size(), stdout, &enc, &cm);
  std::mt19937 rng(1208);
  // Every length from empty to well past the object's own room, EBCDIC 37 to UTF-8 (one
  // to two bytes a character) and UTF-8 to UTF-16 and back.
  for (size_t len = 0; len <= 700; len += (len < 80 ? 1 : 37)) {
    std::string ebcdic(len, '\0');
    for (char& c : ebcdic) c = static_cast<char>(0x40 + rng() % 0xBF);
    ConvText text;
    ASSERT_EQ(convertText(m, reinterpret_cast<const uint8_t*>(ebcdic.data()), len, text, "step", "fn", "label", 37), 0);
    ASSERT_EQ(std::string(text.data(), static_cast<size_t>(text.size())), icuConvert("ibm-37_P100-1995", "UTF-8", ebcdic))
        << "length " << len;
  }
  encodingInfo toUtf16 = senderContext(ByteOrder::Little, 1208, 1200);
  QMsg m16(none.data(), none.size(), stdout, &toUtf16, &cm);
  const std::string samples[] = {"", "a", "r\xC3\xA9sum\xC3\xA9", std::string(120, 'z'),
                                 "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xF0\x9F\x98\x80 end"};
  for (const std::string& s : samples) {
    ConvText text;
    ASSERT_EQ(convertText(m16, reinterpret_cast<const uint8_t*>(s.data()), s.size(), text, "step", "fn", "label", 1208), 0);
    EXPECT_EQ(std::string(text.data(), static_cast<size_t>(text.size())), icuConvert("UTF-8", "UTF-16LE", s));
  }
}

// Descriptor lines are kept per schema copy and code pages: a schema that replaces another of
// the same subscription, and another output code page, print their own.
TEST(FastPaths, KeptDescriptorLinesFollowTheSchemaAndTheCodePages) {
  const ByteOrder le = ByteOrder::Little;
  SchemaMsgDef a;
  a.subId = 4242;
  a.nColsInKey = 1;
  a.columns = {{"KEY_A", 496, 4, 0}, {"NAME_A", 453, 5, 1208}};
  SchemaMsgDef b = a;
  b.columns = {{"KEY_B", 496, 4, 0}, {"NAME_B", 453, 5, 1208}};
  TransMsgDef tx;
  RowDef row;
  row.subId = 4242;
  row.keyAfter = std::vector<ColValue>{valInteger(7, le)};
  row.colsAfter = std::vector<ColValue>{valText("hello", 1208)};
  tx.rows = {row, row};

  ASSERT_EQ(decodeAs(encodeSchemaMsg(a, le, 1208), le, 1208).rc, 0);
  Decoded first = decodeAs(encodeTransMsg(tx, le, 1208), le, 1208);
  ASSERT_EQ(decodeAs(encodeSchemaMsg(b, le, 1208), le, 1208).rc, 0);
  Decoded second = decodeAs(encodeTransMsg(tx, le, 1208), le, 1208);
  Decoded wide = decodeAs(encodeTransMsg(tx, le, 1208), le, 1208, 1200);
  const std::string block =
      "colset.nCols:   1\n"
      "  col.colname:  KEY_B\n"
      "  col.coltype:  496 = INTEGER\n"
      "  col.typelen:  4\n"
      "  col.codepage: 0\n"
      "  col.VALUE:    7\n"
      "colset.nCols:   1\n"
      "  col.colname:  NAME_B\n"
      "  col.coltype:  453 = CHAR\n"
      "  col.typelen:  5\n"
      "  col.codepage: 1208\n"
      "  col.VALUE:    hello\n";
  EXPECT_EQ(first.rc, 0);
  EXPECT_EQ(second.rc, 0);
  EXPECT_NE(first.out.find("  col.colname:  KEY_A\n"), std::string::npos);
  EXPECT_EQ(second.out.find("_A\n"), std::string::npos);
  size_t at = second.out.find(block);
  ASSERT_NE(at, std::string::npos) << second.out;
  EXPECT_NE(second.out.find(block, at + 1), std::string::npos);  // both rows
  // UTF-16 names print up to their first zero byte, as "%.*s" does.
  EXPECT_NE(wide.out.find("  col.colname:  K\n  col.coltype:  496 = INTEGER\n"), std::string::npos);
  EXPECT_EQ(wide.out.find("  col.colname:  KEY_B\n"), std::string::npos);
}

}  // namespace

namespace {

// The packed-decimal text as the digits-string form builds it.
std::string plainPacked(const std::vector<uint8_t>& p, unsigned scale) {
  std::string digits;
  for (size_t i = 0; i < p.size(); ++i) {
    digits += static_cast<char>('0' + (p[i] >> 4));
    if (i + 1 < p.size()) digits += static_cast<char>('0' + (p[i] & 15));
  }
  bool negative = (p.back() & 15) == 0xB || (p.back() & 15) == 0xD;
  if (digits.size() < scale) digits.insert(0, scale - digits.size(), '0');
  std::string whole = digits.substr(0, digits.size() - scale);
  std::string fraction = digits.substr(digits.size() - scale);
  size_t first = whole.find_first_not_of('0');
  whole = first == std::string::npos ? "0" : whole.substr(first);
  bool zero = digits.find_first_not_of('0') == std::string::npos;
  return std::string(negative && !zero ? "-" : "") + whole + (scale > 0 ? "." + fraction : "");
}

TEST(FastPaths, PackedDecimalMatchesTheDigitStringForm) {
  std::mt19937 rng(484);
  for (size_t n = 1; n <= 40; ++n) {
    for (unsigned scale = 0; scale <= 2 * n + 3; ++scale) {
      for (int k = 0; k < 4; ++k) {
        std::vector<uint8_t> p(n);
        for (uint8_t& b : p) b = static_cast<uint8_t>((rng() % (k == 0 ? 1 : 10)) << 4 | rng() % (k == 0 ? 1 : 10));
        p.back() = static_cast<uint8_t>((p.back() & 0xF0) | (k % 2 ? 0xD : 0xC));
        std::string text;
        ASSERT_TRUE(packedDecimalText(p.data(), n, scale, text));
        ASSERT_EQ(text, plainPacked(p, scale)) << "n " << n << " scale " << scale;
      }
    }
  }
  std::string text;
  const uint8_t bad[] = {0xA1, 0x2C};
  EXPECT_FALSE(packedDecimalText(bad, 2, 0, text));
}

}  // namespace

namespace {

std::string convertThrough(ConvMgr& cm, encodingInfo& enc, const std::string& in, int32_t ccsid) {
  std::vector<uint8_t> none(8);
  QMsg m(none.data(), none.size(), stdout, &enc, &cm);
  ConvText text;
  EXPECT_EQ(convertText(m, reinterpret_cast<const uint8_t*>(in.data()), in.size(), text, "step", "fn", "label", ccsid), 0);
  return std::string(text.data(), static_cast<size_t>(text.size()));
}

// Single-byte code pages and UTF-16 reach UTF-8 without ICU where ICU would give the same
// bytes: every byte value, unmappable bytes, surrogate pairs, lone surrogates and odd lengths
// all come out as ICU's own conversion gives them.
TEST(FastPaths, DirectConversionsToUtf8MatchIcu) {
  ConvMgr::init();
  ConvMgr cm(6, "rplqmfmt:processQueue");
  std::mt19937 rng(1200);
  for (int32_t ccsid : {37, 420, 1252, 850}) {
    UErrorCode err = U_ZERO_ERROR;
    UConverter* c = ucnv_openCCSID(ccsid, UCNV_IBM, &err);
    ASSERT_TRUE(U_SUCCESS(err));
    const std::string icuName = ucnv_getName(c, &err);
    ucnv_close(c);
    encodingInfo enc = senderContext(ByteOrder::Big, ccsid, 1208);
    std::string every;
    for (int b = 0; b < 256; ++b) every += static_cast<char>(b);
    EXPECT_EQ(convertThrough(cm, enc, every, ccsid), icuConvert(icuName.c_str(), "UTF-8", every)) << ccsid;
    for (int k = 0; k < 50; ++k) {
      std::string in(rng() % 600, '\0');
      for (char& c : in) c = static_cast<char>(k % 2 ? rng() : 0x40 + rng() % 0x80);
      ASSERT_EQ(convertThrough(cm, enc, in, ccsid), icuConvert(icuName.c_str(), "UTF-8", in)) << ccsid;
    }
  }
  for (ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
    encodingInfo enc = senderContext(order, 1200, 1208);
    const char* icuName = order == ByteOrder::Little ? "UTF-16LE" : "UTF-16BE";
    for (int k = 0; k < 400; ++k) {
      std::u16string units(rng() % 40, u'\0');
      for (char16_t& u : units) {
        switch (rng() % 6) {
          case 0: u = static_cast<char16_t>(0xD800 + rng() % 0x400); break;  // lead
          case 1: u = static_cast<char16_t>(0xDC00 + rng() % 0x400); break;  // trail
          case 2: u = static_cast<char16_t>(rng() % 0x80); break;
          default: u = static_cast<char16_t>(rng() % 0x10000); break;
        }
      }
      std::string in;
      for (char16_t u : units) {
        char hi = static_cast<char>(u >> 8), lo = static_cast<char>(u & 0xFF);
        in += order == ByteOrder::Little ? std::string{lo, hi} : std::string{hi, lo};
      }
      if (k % 10 == 9) in += 'x';  // an odd length
      ASSERT_EQ(convertThrough(cm, enc, in, 1200), icuConvert(icuName, "UTF-8", in)) << k;
    }
  }
}

}  // namespace

namespace {

// What the general value printer writes for a value, and what the column's form writes (with
// whether it took the value).
struct BothPrints {
  ValueForm form;
  bool taken;
  std::string general, direct;
};
BothPrints printBothWays(ConvMgr& cm, ByteOrder order, int32_t msgCcsid, int32_t outCcsid, const ColumnInfo& col,
                         const std::vector<uint8_t>& value) {
  encodingInfo enc = senderContext(order, msgCcsid, outCcsid);
  std::vector<uint8_t> none(8);
  Capture general, direct;
  QMsg m(none.data(), none.size(), general.file(), &enc, &cm);
  BothPrints b;
  b.form = valueForm(m, col);
  const uint8_t* p = value.empty() ? nullptr : value.data();
  printColumnValue(m, col, p, value.size(), "step");
  {
    Emit e(direct.file());
    b.taken = b.form != ValueForm::General &&
              printValueAsForm(e, b.form, m.swap(), (enc.flags & kEncLowByteFirst) != 0, p, value.size());
  }
  b.general = general.text();
  b.direct = direct.text();
  return b;
}

std::vector<uint8_t> bytesOf(std::initializer_list<int> b) {
  std::vector<uint8_t> v;
  for (int x : b) v.push_back(static_cast<uint8_t>(x));
  return v;
}

// A value printed by its column's form is what the general printer prints; a value the form
// cannot take (empty, short, a count past the value, UTF-16 that is not well formed) is left
// to the general printer, which prints NULL or reports it.
TEST(FastPaths, ValueFormsPrintWhatTheGeneralPrinterPrints) {
  ConvMgr::init();
  ConvMgr cm(6, "rplqmfmt:processQueue");
  const ByteOrder le = ByteOrder::Little, be = ByteOrder::Big;
  struct Row {
    uint16_t type;
    int32_t codePage;
    ByteOrder order;
    int32_t msgCcsid, outCcsid;
    std::vector<uint8_t> value;
    ValueForm form;
    bool taken;
  };
  const Row rows[] = {
      {501, 0, le, 1208, 1208, bytesOf({0xFE, 0xFF}), ValueForm::Int16, true},
      {500, 0, be, 1208, 1208, bytesOf({0x80, 0x00, 0x99}), ValueForm::Int16, true},
      {500, 0, be, 1208, 1208, bytesOf({0x80}), ValueForm::Int16, false},
      {497, 0, be, 37, 1208, bytesOf({0xFF, 0xFF, 0xFF, 0xFE}), ValueForm::Int32, true},
      {496, 0, le, 1208, 1208, bytesOf({1, 2, 3}), ValueForm::Int32, false},
      {493, 0, le, 1208, 1208, bytesOf({0, 0, 0, 0, 0, 0, 0, 0x80}), ValueForm::Int64, true},
      {492, 0, be, 1208, 1208, bytesOf({0, 0, 0, 0, 0, 0, 1, 0}), ValueForm::Int64, true},
      {492, 0, be, 1208, 1208, {}, ValueForm::Int64, false},
      {481, 0, le, 1208, 1208, bytesOf({0, 0, 0x80, 0x3E}), ValueForm::Real, true},
      {480, 0, be, 1208, 1208, bytesOf({0x3F, 0xE0, 0, 0, 0, 0, 0, 0}), ValueForm::Real, true},
      {480, 0, be, 1208, 1208, bytesOf({0x7F, 0xF0, 0, 0, 0, 0, 0, 0}), ValueForm::Real, true},
      {480, 0, le, 1208, 1208, bytesOf({1, 2, 3, 4, 5, 6}), ValueForm::Real, false},
      {385, 1208, le, 1208, 1208, bytesOf({'2', '0', '2', '5', '-', '1', '1', '-', '2', '1'}), ValueForm::Text, true},
      {453, 0, be, 37, 1208, bytesOf({'a', 0, 'b'}), ValueForm::Text, true},  // up to the zero byte
      {453, 37, be, 37, 1208, bytesOf({0xC1, 0xC2}), ValueForm::General, false},
      {449, 1208, le, 1208, 1208, bytesOf({3, 0, 'a', 'b', 'c', 'd'}), ValueForm::VarText, true},
      {448, 1208, be, 1208, 1208, bytesOf({0, 3, 'a', 'b', 'c'}), ValueForm::VarText, true},
      {448, 1208, be, 1208, 1208, bytesOf({0, 4, 'a', 'b', 'c'}), ValueForm::VarText, false},
      {448, 1208, be, 1208, 1208, bytesOf({0}), ValueForm::VarText, false},
      {449, 1208, le, 1208, 1200, bytesOf({1, 0, 'a'}), ValueForm::General, false},
      {2437, 0, le, 1208, 1208, bytesOf({1}), ValueForm::Boolean, true},
      {2436, 0, be, 1208, 1208, bytesOf({0}), ValueForm::Boolean, true},
      {469, 1200, le, 1208, 1208, bytesOf({0x21, 0xFF, 0x11, 0xFF, 0x41}), ValueForm::Graphic, true},
      {468, 1200, be, 1208, 1208, bytesOf({0x6C, 0x34, 0xD8, 0x3D, 0xDE, 0x00}), ValueForm::Graphic, true},
      {468, 1200, be, 1208, 1208, bytesOf({0xD8, 0x3D, 0x00, 0x41}), ValueForm::Graphic, false},  // lone lead
      {468, 1200, le, 1208, 1200, bytesOf({0x41, 0x00}), ValueForm::General, false},  // as it stands
      {465, 1200, le, 1208, 1208, bytesOf({2, 0, 0x71, 0x67, 0xAC, 0x4E}), ValueForm::VarGraphic, true},
      {464, 13488, be, 37, 1208, bytesOf({0, 1, 0x00, 0xE9, 0xFF}), ValueForm::VarGraphic, true},
      {464, 1200, be, 1208, 1208, bytesOf({0, 3, 0x00, 0xE9}), ValueForm::VarGraphic, false},
      {484, 0, be, 1208, 1208, bytesOf({0x12, 0x3C}), ValueForm::General, false},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const Row& row = rows[i];
    ColumnInfo col;
    col.type = row.type;
    col.codePage = row.codePage;
    BothPrints b = printBothWays(cm, row.order, row.msgCcsid, row.outCcsid, col, row.value);
    EXPECT_EQ(b.form, row.form) << "row " << i;
    EXPECT_EQ(b.taken, row.taken) << "row " << i;
    if (b.taken) EXPECT_EQ(b.direct, b.general) << "row " << i;
    else EXPECT_EQ(b.direct, "") << "row " << i;
  }
  // Random values of every form from both byte orders: whatever a form takes, it prints as
  // the general printer does.
  std::mt19937 rng(449);
  const std::pair<uint16_t, int32_t> columns[] = {{500, 0},    {496, 0},    {492, 0},   {480, 0}, {452, 1208},
                                                  {448, 1208}, {2436, 0},   {468, 1200}, {464, 1200}};
  int taken = 0;
  for (int k = 0; k < 4000; ++k) {
    const auto [type, codePage] = columns[rng() % std::size(columns)];
    std::vector<uint8_t> value(rng() % 14);
    for (uint8_t& x : value) x = static_cast<uint8_t>(rng() % 4 == 0 ? 0 : rng());
    if (value.size() >= 2 && rng() % 2) value[rng() % 2] = static_cast<uint8_t>(rng() % 6);  // a fitting count
    ColumnInfo col;
    col.type = type;
    col.codePage = codePage;
    BothPrints b = printBothWays(cm, k % 2 ? le : be, 1208, 1208, col, value);
    ASSERT_NE(b.form, ValueForm::General) << type;
    if (!b.taken) continue;
    ++taken;
    ASSERT_EQ(b.direct, b.general) << "type " << type << " case " << k;
  }
  EXPECT_GT(taken, 2000);
}

}  // namespace
