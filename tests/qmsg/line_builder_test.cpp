// The line builder writes exactly the bytes it is given, in order, whatever room the stream's
// buffer has left: pieces of every short length copied inline or through the library, across
// the end of small and large buffers, mixed with the stream's own writes.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <limits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qmsg/emit.h"
#include "qmsg/values.h"

namespace {

// A file stream with a buffer of `room` bytes; what was written is read back after a flush.
class BufferedFile {
 public:
  explicit BufferedFile(size_t room) : buffer_(room), f_(std::tmpfile()) {
    std::setvbuf(f_, buffer_.data(), _IOFBF, buffer_.size());
  }
  ~BufferedFile() { std::fclose(f_); }
  FILE* file() { return f_; }
  std::string text() {
    std::fflush(f_);
    std::string s;
    std::rewind(f_);
    char piece[4096];
    size_t n;
    while ((n = std::fread(piece, 1, sizeof piece, f_)) > 0) s.append(piece, n);
    return s;
  }

 private:
  std::vector<char> buffer_;
  FILE* f_;
};

struct BufferCase {
  size_t room;
};

class LineBuilderBuffers : public testing::TestWithParam<BufferCase> {};

TEST_P(LineBuilderBuffers, PiecesOfEveryShortLengthArriveInOrder) {
  BufferedFile out(GetParam().room);
  std::mt19937 rng(15);
  std::string expect;
  std::string source(320, '\0');
  {
    Emit e(out.file());
    // Every length from 0 to 300 (past the longest piece moved in blocks) at every seventh
    // start in the source, zero bytes included, so that each piece ends at a different place
    // in the buffer.
    for (size_t len = 0; len <= 300; ++len) {
      for (char& c : source) c = static_cast<char>(rng());
      for (size_t at = 0; at + len <= source.size(); at += 7) {
        e.raw(source.data() + at, len);
        expect.append(source, at, len);
        if (at % 3 == 0) {
          std::fputs("|", out.file());  // the stream's own write between pieces
          expect += '|';
        }
      }
    }
    e.lit("end").ch('\n');
    expect += "end\n";
  }
  EXPECT_EQ(out.text(), expect);
}

TEST_P(LineBuilderBuffers, NumbersAndCountedTextMatchPrintf) {
  const int64_t numbers[] = {0,         1,         -1,        7,         -7,         9,
                             10,        -10,       99,        100,       12345678,   -12345678,
                             123456789, 32767,     -32768,    65535,     INT32_MAX,  INT32_MIN,
                             UINT32_MAX, INT64_MAX, INT64_MIN, 999999999999999999, -1000000000000000000};
  BufferedFile out(GetParam().room);
  std::string expect;
  char s[64];
  {
    Emit e(out.file());
    for (int64_t v : numbers) {
      e.lit("v=").num(v).ch(';');
      std::snprintf(s, sizeof s, "v=%" PRId64 ";", v);
      expect += s;
      e.unum(static_cast<uint64_t>(v)).ch(' ');
      std::snprintf(s, sizeof s, "%" PRIu64 " ", static_cast<uint64_t>(v));
      expect += s;
    }
    const std::string withZero("abcdefghi\0k", 11);
    const int counts[] = {-1, 0, 1, 4, 8, 9, 10, 11};
    for (int n : counts) {
      e.text(withZero.data(), n).ch('/');
      std::snprintf(s, sizeof s, "%.*s/", n, withZero.data());
      expect += s;
    }
  }
  EXPECT_EQ(out.text(), expect);
}

// "%.*s" stops at the first zero byte: a zero at every place of texts of 1 to 40 bytes, bytes
// with the high bit set beside it, and none at all.
TEST_P(LineBuilderBuffers, CountedTextStopsAtAZeroByteWhereverItIs) {
  BufferedFile out(GetParam().room);
  std::string expect;
  std::vector<char> s(48);
  char piece[64];
  {
    Emit e(out.file());
    for (int n = 1; n <= 40; ++n) {
      for (int zero = -1; zero < n; ++zero) {
        for (int i = 0; i < 48; ++i) s[i] = static_cast<char>(i % 3 == 0 ? 0x80 + i : 'a' + i % 26);
        if (zero >= 0) s[zero] = '\0';
        e.text(s.data(), n).ch('/');
        std::snprintf(piece, sizeof piece, "%.*s/", n, s.data());
        expect += piece;
      }
    }
  }
  EXPECT_EQ(out.text(), expect);
}

// DOUBLE values where the rounding of the printed digits is closest to a coin toss or carries
// into the exponent, against printf: exact ties of the digit after the last printed one, its
// neighbours a unit in the last place away, powers of ten and the values just under them, the
// ends of the range, in double (%.14E) and single (%.5E) precision.
std::string printfDouble(double v, bool single) {
  char s[64];
  std::snprintf(s, sizeof s, "%.*E", single ? 5 : 14, v);
  return s;
}

TEST(DoubleForms, RoundingTiesCarriesAndRangeEndsMatchPrintf) {
  std::vector<double> doubles;
  std::vector<float> singles;
  auto around = [](double v, std::vector<double>& out) {
    out.push_back(v);
    out.push_back(std::nextafter(v, 0.0));
    out.push_back(std::nextafter(v, HUGE_VAL));
    out.push_back(-v);
  };
  // Sixteen-digit integers ending in 5 are exact doubles and exact ties at fifteen digits.
  for (int64_t base : {100000000000000LL, 123456789012345LL, 999999999999999LL, 500000000000000LL,
                       314159265358979LL, 900719925474099LL})
    around(static_cast<double>(base * 10 + 5), doubles);
  // Seven-digit integers ending in 5 are exact singles and ties at six digits.
  for (int base : {100000, 123456, 999999, 500000, 838860})
    for (float f : {static_cast<float>(base * 10 + 5), -static_cast<float>(base * 10 + 5)}) singles.push_back(f);
  for (int k = -323; k <= 308; ++k) {
    const double p = std::strtod(("1e" + std::to_string(k)).c_str(), nullptr);
    around(p, doubles);
    around(std::strtod(("9.999999999999995e" + std::to_string(k)).c_str(), nullptr), doubles);
    around(std::strtod(("1.000000000000005e" + std::to_string(k)).c_str(), nullptr), doubles);
    if (k >= -45 && k <= 38) {
      singles.push_back(std::strtof(("1e" + std::to_string(k)).c_str(), nullptr));
      singles.push_back(std::strtof(("9.999995e" + std::to_string(k)).c_str(), nullptr));
      singles.push_back(std::strtof(("1.000005e" + std::to_string(k)).c_str(), nullptr));
    }
  }
  around(std::numeric_limits<double>::max(), doubles);
  around(std::numeric_limits<double>::min(), doubles);
  around(std::numeric_limits<double>::denorm_min(), doubles);
  doubles.push_back(0.0);
  doubles.push_back(-0.0);
  for (float f : {std::numeric_limits<float>::max(), std::numeric_limits<float>::min(),
                  std::numeric_limits<float>::denorm_min(), 0.0f, -0.0f, 0.1f, 1.0f / 3})
    singles.push_back(f);
  for (double d : doubles) ASSERT_EQ(doubleText(d, false), printfDouble(d, false)) << std::hexfloat << d;
  for (float f : singles) ASSERT_EQ(doubleText(f, true), printfDouble(f, true)) << std::hexfloat << f;
}

// Recently printed values are kept by their bits: the same bits printed again, in the other
// precision, or after values that take the same place, still print as printf does.
TEST(DoubleForms, KeptValuesPrintAsPrintfInEitherPrecisionAndAfterOthers) {
  std::mt19937_64 rng(21);
  std::vector<double> values = {0.5, 0.25, -0.0, 0.0, 1e-310, 1.0 / 3, 2.5e100};
  for (int i = 0; i < 500; ++i) values.push_back(static_cast<double>(static_cast<float>(static_cast<int64_t>(rng() % 200001) - 100000) / 64));
  for (int i = 0; i < 500; ++i) {
    uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    if (std::isfinite(d)) values.push_back(d);
  }
  for (int round = 0; round < 3; ++round) {
    for (double d : values) {
      ASSERT_EQ(doubleText(d, false), printfDouble(d, false)) << std::hexfloat << d << " round " << round;
      const float f = static_cast<float>(d);
      ASSERT_EQ(doubleText(f, true), printfDouble(f, true)) << std::hexfloat << f << " round " << round;
      ASSERT_EQ(doubleText(f, false), printfDouble(f, false)) << std::hexfloat << f << " round " << round;
    }
  }
}

// DECIMAL and DECFLOAT forms written into a buffer are the string forms: random packed values
// of every length and scale (bad digits included) and random decimal64 and decimal128 bits.
TEST(NumberForms, BufferFormsAreTheStringForms) {
  std::mt19937_64 rng(5);
  std::vector<char> room(kPackedDecimalRoom);
  for (int i = 0; i < 20000; ++i) {
    const size_t n = 1 + rng() % 40;
    const unsigned scale = static_cast<unsigned>(rng() % (i % 2 ? 90 : 12));
    std::vector<uint8_t> p(n);
    for (uint8_t& b : p) b = static_cast<uint8_t>(i % 7 ? (rng() % 10) << 4 | rng() % 10 : rng());
    p[n - 1] = static_cast<uint8_t>((p[n - 1] & 0xF0) | (rng() % 2 ? 0xD : 0xC));
    std::string text;
    const bool ok = packedDecimalText(p.data(), n, scale, text);
    const size_t k = packedDecimalChars(p.data(), n, scale, room.data());
    ASSERT_EQ(k > 0, ok);
    if (ok) {
      ASSERT_EQ(std::string(room.data(), k), text);
    }
  }
  // DECFLOAT texts are kept by their bytes: the same bytes asked again, and the 8-byte value
  // that begins a 16-byte one, each get their own text.
  char d[kDecfloatRoom];
  for (int i = 0; i < 20000; ++i) {
    uint8_t be[16];
    for (uint8_t& b : be) b = static_cast<uint8_t>(rng());
    for (size_t n : {8u, 16u, 8u, 16u}) {
      std::string text;
      ASSERT_TRUE(decfloatText(be, n, text));
      ASSERT_EQ(std::string(d, decfloatChars(be, n, d)), text);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rooms, LineBuilderBuffers,
                         testing::Values(BufferCase{1}, BufferCase{5}, BufferCase{16}, BufferCase{17},
                                         BufferCase{100}, BufferCase{1 << 16}),
                         [](const testing::TestParamInfo<BufferCase>& i) {
                           return "room" + std::to_string(i.param.room);
                         });

}  // namespace
