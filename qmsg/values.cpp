// Column values: one value printed by its SQL type code, as a database user reads it.
#include "qmsg/values.h"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "qmsg/emit.h"
#include "qmsg/forms.h"
#include "qmsg/json.h"
#include "qmsg/schema.h"
#include "runtime/catalog.h"
#include "runtime/trace.h"

// ---------------------------------------------------------------------------------------------
// Number forms.

namespace {

// Text gathered in a caller's buffer with the string operations the number forms use; the
// caller gives room for the longest form.
class CharOut {
 public:
  explicit CharOut(char* p) : p_(p) {}
  size_t size() const { return n_; }
  void clear() { n_ = 0; }
  CharOut& operator+=(char c) {
    p_[n_++] = c;
    return *this;
  }
  CharOut& operator+=(const char* s) { return append(s, std::strlen(s)); }
  CharOut& operator+=(const std::string& s) { return append(s.data(), s.size()); }
  CharOut& append(const char* s, size_t k) {
    std::memcpy(p_ + n_, s, k);
    n_ += k;
    return *this;
  }
  CharOut& append(size_t k, char c) {
    std::memset(p_ + n_, c, k);
    n_ += k;
    return *this;
  }

 private:
  char* p_;
  size_t n_ = 0;
};

template <class Out>
bool packedDecimalForm(const uint8_t* p, size_t n, unsigned scale, Out& out) {
  if (n == 0) return false;
  // The digits in a buffer of the value's own (short values need no allocation).
  char shortDigits[64];
  std::string longDigits;
  char* digits = shortDigits;
  if (2 * n > sizeof shortDigits) {
    longDigits.resize(2 * n);
    digits = longDigits.data();
  }
  size_t count = 0;
  for (size_t i = 0; i < n; ++i) {
    unsigned hi = p[i] >> 4, lo = p[i] & 15;
    if (hi > 9) return false;
    digits[count++] = static_cast<char>('0' + hi);
    if (i + 1 < n) {
      if (lo > 9) return false;
      digits[count++] = static_cast<char>('0' + lo);
    }
  }
  unsigned sign = p[n - 1] & 15;
  bool negative = sign == 0xB || sign == 0xD;
  // Whole part: the digits before the last `scale` ones, without leading zeros ("0" when
  // none are left); fraction: the last `scale` digits, zeros in front when there are fewer.
  const size_t wholeLen = count > scale ? count - scale : 0;
  size_t first = 0;
  while (first < wholeLen && digits[first] == '0') ++first;
  bool zero = true;
  for (size_t i = 0; i < count && zero; ++i) zero = digits[i] == '0';
  out.clear();
  if (negative && !zero) out += '-';
  if (first == wholeLen) out += '0';
  else out.append(digits + first, wholeLen - first);
  if (scale > 0) {
    out += '.';
    if (count < scale) out.append(scale - count, '0');
    out.append(digits + wholeLen, count - wholeLen);
  }
  return true;
}

}  // namespace

bool packedDecimalText(const uint8_t* p, size_t n, unsigned scale, std::string& out) {
  return packedDecimalForm(p, n, scale, out);
}

size_t packedDecimalChars(const uint8_t* p, size_t n, unsigned scale, char* out) {
  CharOut o(out);
  return packedDecimalForm(p, n, scale, o) ? o.size() : 0;
}

namespace {

// Three digits from one 10-bit densely packed declet.
void declet(unsigned d, char* three) {
  auto bit = [d](int i) { return (d >> i) & 1u; };
  unsigned abc = (d >> 7) & 7, def = (d >> 4) & 7, ghi = d & 7;
  unsigned d2, d1, d0;
  if (!bit(3)) {
    d2 = abc; d1 = def; d0 = ghi;
  } else {
    switch ((d >> 1) & 3) {
      case 0: d2 = abc; d1 = def; d0 = 8 + bit(0); break;
      case 1: d2 = abc; d1 = 8 + bit(4); d0 = (bit(6) << 2) | (bit(5) << 1) | bit(0); break;
      case 2: d2 = 8 + bit(7); d1 = def; d0 = (bit(9) << 2) | (bit(8) << 1) | bit(0); break;
      default:
        switch ((d >> 5) & 3) {
          case 0: d2 = 8 + bit(7); d1 = 8 + bit(4); d0 = (bit(9) << 2) | (bit(8) << 1) | bit(0); break;
          case 1: d2 = 8 + bit(7); d1 = (bit(9) << 2) | (bit(8) << 1) | bit(4); d0 = 8 + bit(0); break;
          case 2: d2 = abc; d1 = 8 + bit(4); d0 = 8 + bit(0); break;
          default: d2 = 8 + bit(7); d1 = 8 + bit(4); d0 = 8 + bit(0); break;
        }
    }
  }
  three[0] = static_cast<char>('0' + d2);
  three[1] = static_cast<char>('0' + d1);
  three[2] = static_cast<char>('0' + d0);
}

// A big-endian bit string of up to 16 bytes as one number, read once; bits [from, from +
// count) counted from its least significant end are then a shift and a mask.
class BitString {
 public:
  BitString(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) v_ = (v_ << 8) | p[i];
  }
  unsigned at(size_t from, unsigned count) const {
    return static_cast<unsigned>((v_ >> from) & ((1u << count) - 1));
  }

 private:
  unsigned __int128 v_ = 0;
};

}  // namespace

namespace {

template <class Out>
bool decfloatForm(const uint8_t* p, size_t n, Out& out) {
  if (n != 8 && n != 16) return false;
  const size_t bits = n * 8;
  const unsigned expCont = n == 8 ? 8 : 12;
  const int bias = n == 8 ? 398 : 6176;
  const size_t declets = n == 8 ? 5 : 11;

  bool negative = (p[0] & 0x80) != 0;
  const BitString b(p, n);
  unsigned comb = b.at(bits - 6, 5);
  out.clear();
  if (negative) out += '-';
  if ((comb & 0x1E) == 0x1E) {
    if (comb == 0x1E) out += "Infinity";
    else out += (p[0] & 0x02) ? "sNaN" : "NaN";
    return true;
  }
  unsigned expHigh, msd;
  if ((comb & 0x18) != 0x18) {
    expHigh = comb >> 3;
    msd = comb & 7;
  } else {
    expHigh = (comb >> 1) & 3;
    msd = 8 + (comb & 1);
  }
  int exponent = static_cast<int>((expHigh << expCont) | b.at(bits - 6 - expCont, expCont)) - bias;

  // The coefficient's digits (at most 34) in a buffer of its own: no strings built.
  char coef[40];
  size_t count = 0;
  coef[count++] = static_cast<char>('0' + msd);
  for (size_t i = declets; i-- > 0;) {
    declet(b.at(10 * i, 10), coef + count);
    count += 3;
  }
  size_t first = 0;
  while (first < count && coef[first] == '0') ++first;
  if (first == count) {
    out += "0";
    return true;
  }
  const char* digits = coef + first;
  size_t len = count - first;
  // The shortest exact form: trailing zeros go into the exponent.
  while (len > 1 && digits[len - 1] == '0') {
    --len;
    ++exponent;
  }
  // Plain notation or exponent notation, whichever is shorter (plain on a tie).
  const int ndig = static_cast<int>(len);
  const int adjusted = exponent + ndig - 1;
  const std::string expDigits = std::to_string(adjusted < 0 ? -adjusted : adjusted);
  const size_t sciLen = 1 + (len > 1 ? len : 0) + 2 + expDigits.size();
  const size_t plainLen = exponent >= 0 ? len + static_cast<size_t>(exponent)
                          : -exponent < ndig ? len + 1
                                          : 2 + static_cast<size_t>(-exponent - ndig) + len;
  if (sciLen < plainLen) {
    out += digits[0];
    if (len > 1) {
      out += '.';
      out.append(digits + 1, len - 1);
    }
    out += adjusted < 0 ? "E-" : "E+";
    out += expDigits;
  } else if (exponent >= 0) {
    out.append(digits, len);
    out.append(static_cast<size_t>(exponent), '0');
  } else if (-exponent < ndig) {
    out.append(digits, static_cast<size_t>(ndig + exponent));
    out += '.';
    out.append(digits + ndig + exponent, static_cast<size_t>(-exponent));
  } else {
    out += "0.";
    out.append(static_cast<size_t>(-exponent - ndig), '0');
    out.append(digits, len);
  }
  return true;
}

}  // namespace

bool decfloatText(const uint8_t* p, size_t n, std::string& out) { return decfloatForm(p, n, out); }

size_t decfloatChars(const uint8_t* p, size_t n, char* out) {
  if (n != 8 && n != 16) return 0;
  // Recently printed values are kept by their bytes, as the DOUBLE forms are: a column often
  // repeats a value, and unpacking the declets is the dearest step of its print.
  struct Memo {
    uint8_t bytes[16];
    uint8_t n = 0;  // 0: unused
    uint8_t length = 0;
    char text[kDecfloatRoom];
  };
  thread_local Memo memos[64];
  uint64_t hi = 0, lo = 0;
  std::memcpy(&hi, p, 8);
  if (n == 16) std::memcpy(&lo, p + 8, 8);
  Memo& memo = memos[(((hi ^ (lo * 0x9E3779B97F4A7C15ull)) + n) * 0x9E3779B97F4A7C15ull) >> 58];
  if (memo.n == n && std::memcmp(memo.bytes, p, n) == 0) {
    std::memcpy(out, memo.text, memo.length);
    return memo.length;
  }
  CharOut o(out);
  decfloatForm(p, n, o);
  memo.n = static_cast<uint8_t>(n);
  std::memcpy(memo.bytes, p, n);
  memo.length = static_cast<uint8_t>(o.size());
  std::memcpy(memo.text, out, o.size());
  return o.size();
}

namespace {

// The texts of recently converted REAL and DOUBLE values, kept by their bits: a column often
// repeats a value, and the exact conversion is the dearest step of its line or member.
// Direct-mapped; each rendering keeps its own, one per thread.
template <size_t Room>
class RealTextMemo {
 public:
  // The text of v, made by convert(v, single, room) (which returns its length) when not kept.
  template <class Convert>
  std::string_view text(double v, bool single, Convert convert) {
    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof bits);
    Slot& slot = slots_[((bits ^ single) * 0x9E3779B97F4A7C15ull) >> 58];
    if (!slot.used || slot.bits != bits || slot.single != single) {
      slot.length = static_cast<uint8_t>(convert(v, single, slot.text));
      slot.bits = bits;
      slot.single = single;
      slot.used = true;
    }
    return std::string_view(slot.text, slot.length);
  }

 private:
  struct Slot {
    uint64_t bits = 0;
    bool single = false;
    bool used = false;
    uint8_t length = 0;
    char text[Room];
  };
  Slot slots_[64];
};

}  // namespace

std::string_view doubleView(double v, bool single) {
  thread_local RealTextMemo<kDoubleTextRoom> memo;
  return memo.text(v, single, doubleCharsExact);
}

size_t doubleChars(double v, bool single, char* s) {
  const std::string_view text = doubleView(v, single);
  std::memcpy(s, text.data(), text.size());
  s[text.size()] = '\0';
  return text.size();
}

size_t doubleCharsExact(double v, bool single, char* s) {
  const int precision = single ? 5 : 14;
  size_t n;
  if (std::isfinite(v)) {
    // The shortest-path conversion of the standard library rounds exactly as printf does;
    // only the exponent letter differs.
    std::to_chars_result r = std::to_chars(s, s + kDoubleTextRoom - 1, v, std::chars_format::scientific, precision);
    n = static_cast<size_t>(r.ptr - s);
    for (size_t i = n; i-- > 0;)
      if (s[i] == 'e') {
        s[i] = 'E';
        break;
      }
  } else {
    n = static_cast<size_t>(std::snprintf(s, kDoubleTextRoom, "%.*E", precision, v));
  }
  s[n] = '\0';
  const char* e = static_cast<const char*>(std::memchr(s, 'E', n));
  // "E+" or "E-" then the digits: keep two exponent digits where three were written.
  if (e != nullptr && s + n - e == 5 && e[2] == '0') {
    size_t at = static_cast<size_t>(e - s) + 2;
    std::memmove(s + at, s + at + 1, n - at);
    --n;
  }
  return n;
}

std::string doubleText(double v, bool single) {
  char s[kDoubleTextRoom];
  size_t n = doubleChars(v, single, s);
  return std::string(s, n);
}

// ---------------------------------------------------------------------------------------------
// The value printer.

namespace {

// Integer of `n` bytes in the sender's order; short data is reported as the runtime's integer
// reads report it.
template <typename T>
int32_t readInt(const QMsg& m, const uint8_t* p, size_t len, T& v, const char* read, const char* step,
                const char* function) {
  if (len < sizeof(T)) {
    reportShortRead(sizeof(T), read);
    reportFailure(step, function, kRcShortRead);
    return kRcShortRead;
  }
  MsgReader r(const_cast<uint8_t*>(p), len, m.swap());
  if constexpr (sizeof(T) == 2) return r.i16(0, v, read);
  else if constexpr (sizeof(T) == 4) return r.i32(0, v, read);
  else return r.i64(0, v, read);
}

// Converts text from the column's code page and writes it as it stands ("%.*s").
template <class V>
int32_t printText(QMsg& m, V& v, const uint8_t* p, size_t n, int32_t codePage, const char* step,
                  const char* function, const char* label) {
  // Bytes that need no conversion (the output's own code page, or no conversion context) are
  // written from the message as convertText would lend them.
  if (!m.converting() ||
      ConvMgr::ckcpcv(codePage == -1 ? m.enc->msgCcsid : codePage, m.enc->outCcsid, m.enc->flags) !=
          kRcConvNeeded) {
    v.text(reinterpret_cast<const char*>(p), static_cast<int>(n));
    return 0;
  }
  ConvText text;
  int32_t rc = convertText(m, p, n, text, step, function, label, codePage);
  if (rc == 0) v.text(text.data(), text.size());
  return rc;
}

// A u16 count (sender's order) then `unit`-byte characters: the length-prefixed values.
int32_t prefixed(const QMsg& m, const uint8_t* p, size_t len, size_t unit, size_t& n, const char* field) {
  MsgReader r(const_cast<uint8_t*>(p), len, m.swap());
  uint16_t count = 0;
  int32_t rc = r.u16(0, count, field);
  if (rc != 0) return rc;
  n = size_t{count} * unit;
  if (n > len - 2) return r.tooLong(0, n, len - 2, field);
  return 0;
}

// "%02X" per byte, in runs of a stack buffer.
void printHexDigits(Emit& e, const uint8_t* p, size_t n) {
  char run[512];
  for (size_t at = 0; at < n; at += sizeof run / 2) {
    const size_t k = n - at < sizeof run / 2 ? n - at : sizeof run / 2;
    e.raw(run, hexRun(p + at, k, true, run));
  }
}

// The text form of a value, gathered in the line builder.
struct TextValue {
  Emit& e;
  void null() { e.lit("NULL"); }
  void integer(int64_t v) { e.num(v); }  // "%hd", "%d", PRId64
  void real(double d, bool single) {
    const std::string_view text = doubleView(d, single);
    e.raw(text.data(), text.size());
  }
  void digits(const char* p, size_t n) { e.raw(p, n); }  // "%s": digits, no zero byte
  void text(const char* p, int n) { e.text(p, n); }
  void boolean(bool b) { e.str(b ? "TRUE" : "FALSE"); }
  void hex(const uint8_t* p, size_t n) { printHexDigits(e, p, n); }
};

template <class V>
int32_t columnValue(QMsg& m, V& out, const ColumnInfo& col, const uint8_t* p, size_t len, const char* step);

}  // namespace

int32_t printColumnValue(QMsg& m, const ColumnInfo& col, const uint8_t* p, size_t len, const char* step) {
  Emit e(m.out);
  return printColumnValue(m, e, col, p, len, step);
}

int32_t printColumnValue(QMsg& m, Emit& e, const ColumnInfo& col, const uint8_t* p, size_t len,
                         const char* step) {
  TextValue v{e};
  return columnValue(m, v, col, p, len, step);
}

int32_t jsonColumnValue(QMsg& m, JsonValue& v, const ColumnInfo& col, const uint8_t* p, size_t len,
                        const char* step) {
  return columnValue(m, v, col, p, len, step);
}

namespace {

template <class V>
int32_t columnValue(QMsg& m, V& out, const ColumnInfo& col, const uint8_t* p, size_t len, const char* step) {
  RPL_TRACE(kCompPrinters, kFnColumnValue);
  if (len == 0 || p == nullptr) {
    out.null();
    return 0;
  }
  const int32_t cp = col.codePage;
  int32_t rc = 0;
  switch (col.type & ~1u) {
    case kColSmallint: {
      int16_t v = 0;
      rc = readInt(m, p, len, v, "getPtr(sizeof(short))", step, "ConvMgr::readShortPtr");
      if (rc == 0) out.integer(v);  // "%hd"
      break;
    }
    case kColInteger: {
      int32_t v = 0;
      rc = readInt(m, p, len, v, "getPtr4(sizeof(int))", step, "ConvMgr::readIntPtr");
      if (rc == 0) out.integer(v);  // "%d"
      break;
    }
    case kColBigint: {
      int64_t v = 0;
      rc = readInt(m, p, len, v, "getPtr8(sizeof(UINT64))", step, "ConvMgr::readIntPtr");
      if (rc == 0) out.integer(v);  // PRId64
      break;
    }
    case kColDouble: {
      if (len == 4) {
        int32_t bits = 0;
        rc = readInt(m, p, len, bits, "getPtr4(sizeof(float))", step, "ConvMgr::readIntPtr");
        float f = 0;
        std::memcpy(&f, &bits, 4);
        if (rc == 0) out.real(f, true);
      } else {
        int64_t bits = 0;
        rc = readInt(m, p, len, bits, "getPtr8(sizeof(double))", step, "ConvMgr::readIntPtr");
        double d = 0;
        std::memcpy(&d, &bits, 8);
        if (rc == 0) out.real(d, false);
      }
      break;
    }
    case kColDecimal:
    case kColDecimal504: {
      size_t n = col.precision > 0 ? size_t{col.precision} / 2 + 1 : len;
      // The form in a buffer on the stack when it has room for the longest one.
      char chars[kPackedDecimalRoom];
      std::string text;
      size_t k = 0;
      if (n > len) {
        reportShortRead(n, "packed decimal value");
        rc = kRcShortRead;
      } else if (2 * n + col.scale + 4 <= sizeof chars ? (k = packedDecimalChars(p, n, col.scale, chars)) == 0
                                                        : !packedDecimalText(p, n, col.scale, text)) {
        reportFailure(step, "packed decimal", kRcShortRead, "Cannot convert DECIMAL data");
        rc = kRcShortRead;
      } else if (k > 0) {
        out.digits(chars, k);
      } else {
        out.digits(text.data(), text.size());
      }
      break;
    }
    case kColDecfloat: {
      // Stored in the sender's byte order: turned most significant byte first.
      uint8_t be[16];
      char text[kDecfloatRoom];
      constexpr bool kMachineLittle = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
      bool senderLittle = kMachineLittle != m.swap();
      if (len == 8 || len == 16) {
        for (size_t i = 0; i < len; ++i) be[i] = senderLittle ? p[len - 1 - i] : p[i];
        out.digits(text, decfloatChars(be, len, text));
      } else {
        reportShortRead(len < 8 ? 8 : 16, "DECFLOAT value");
        rc = kRcShortRead;
      }
      break;
    }
    case kColDate:
    case kColTime:
    case kColTimestamp:
    case kColTimestampTz:
    case kColCString:
      rc = printText(m, out, p, len, cp, step, "ConvMgr::cpcvc", "DATE, TIME, TIMESTAMP or CSTR");
      break;
    case kColChar:
    case kColClob:
    case kColXml:
      rc = printText(m, out, p, len, cp, step, "ConvMgr::cpcvc", "CHAR data");
      break;
    case kColVarchar:
    case kColLongVarchar: {
      size_t n = 0;
      rc = prefixed(m, p, len, 1, n, "VARCHAR value length");
      if (rc == 0) rc = printText(m, out, p + 2, n, cp, step, "ConvMgr::cpcvl", "LONG or VARCHAR data");
      break;
    }
    case kColGraphic:
    case kColDbclob:
      rc = printText(m, out, p, len & ~size_t{1}, cp, step, "ConvMgr::cpcvc", "GRAPHIC data");
      break;
    case kColVargraphic:
    case kColLongVargraphic: {
      size_t n = 0;
      rc = prefixed(m, p, len, 2, n, "VARGRAPHIC value length");
      if (rc == 0) rc = printText(m, out, p + 2, n, cp, step, "ConvMgr::cpcvl", "LONGGRAPH or VARGRAPH data");
      break;
    }
    case kColBoolean:
      out.boolean(p[0] != 0);
      break;
    case kColVarbinary: {
      size_t n = 0;
      rc = prefixed(m, p, len, 1, n, "VARBINARY value length");
      if (rc == 0) out.hex(p + 2, n);
      break;
    }
    default:  // BINARY, BLOB and codes without a print form of their own
      out.hex(p, len);
      break;
  }
  return rplTrace_.ret(rc);
}

}  // namespace

ValueForm valueForm(const QMsg& m, const ColumnInfo& col) {
  // Characters are printed as they stand when printText would not convert them.
  const int32_t src = m.converting() ? (col.codePage == -1 ? m.enc->msgCcsid : col.codePage) : 0;
  const bool asIs = !m.converting() || ConvMgr::ckcpcv(src, m.enc->outCcsid, m.enc->flags) != kRcConvNeeded;
  // UTF-16 to UTF-8 output: convertText's own conversion without ICU.
  const bool utf16 = !asIs && (src == kCcsidUtf16 || src == kCcsidUtf16Alt) && m.enc->outCcsid == kCcsidUtf8;
  switch (col.type & ~1u) {
    case kColSmallint: return ValueForm::Int16;
    case kColInteger: return ValueForm::Int32;
    case kColBigint: return ValueForm::Int64;
    case kColDouble: return ValueForm::Real;
    case kColDate:
    case kColTime:
    case kColTimestamp:
    case kColTimestampTz:
    case kColCString:
    case kColChar: return asIs ? ValueForm::Text : ValueForm::General;
    case kColVarchar:
    case kColLongVarchar: return asIs ? ValueForm::VarText : ValueForm::General;
    case kColBoolean: return ValueForm::Boolean;
    case kColGraphic: return utf16 ? ValueForm::Graphic : ValueForm::General;
    case kColVargraphic:
    case kColLongVargraphic: return utf16 ? ValueForm::VarGraphic : ValueForm::General;
    default: return ValueForm::General;
  }
}

void JsonValue::real(double d, bool single) {
  // Enough digits to read back as the same value ("%.9g" for a REAL, "%.17g" for a DOUBLE),
  // as a JSON number; infinities and NaN have none and are null.
  if (!std::isfinite(d)) {
    j.null(member());
    return;
  }
  char s[kJsonRealRoom];
  j.raw(member(), std::string_view(s, jsonRealChars(d, single, s)));
}

size_t jsonRealChars(double d, bool single, char* s) {
  thread_local RealTextMemo<kJsonRealRoom> memo;
  const std::string_view text = memo.text(d, single, [](double v, bool real, char* to) {
    // The standard library's conversion at a given precision rounds and lays out as printf does.
    const std::to_chars_result r = std::to_chars(to, to + kJsonRealRoom, v, std::chars_format::general, real ? 9 : 17);
    return static_cast<size_t>(r.ptr - to);
  });
  std::memcpy(s, text.data(), text.size());
  return text.size();
}

