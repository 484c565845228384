// Column values: the print form of one value by its SQL type code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "qmsg/emit.h"
#include "qmsg/json.h"
#include "qmsg/msg.h"

// What the value printer needs to know about a column.
struct ColumnInfo {
  uint16_t type = 0;       // SQL type code as stored (bit 0: nullable, ignored here)
  int32_t codePage = 0;    // code page of the value's characters
  uint8_t precision = 0;   // DECIMAL only
  uint8_t scale = 0;       // DECIMAL only
};

// Prints one value (no line end) by the column's type: "NULL" when there is no data. Character
// values are converted from the column's code page to the output encoding; integers are read in
// the sender's byte order. Failures are reported with `step` and returned.
int32_t printColumnValue(QMsg& m, const ColumnInfo& col, const uint8_t* p, size_t len, const char* step);
// The same, gathered in the caller's line builder.
class Emit;
int32_t printColumnValue(QMsg& m, Emit& e, const ColumnInfo& col, const uint8_t* p, size_t len,
                         const char* step);

// The value printer's function number in traces.
inline constexpr int kFnColumnValue = 31;

// How a column's values are printed, chosen once for a cached schema's column and the
// message's code pages: the commonest types are printed straight from the set, anything else
// (and any value those cannot take as it stands) by printColumnValue.
enum class ValueForm : uint8_t {
  General,
  Int16,    // SMALLINT
  Int32,    // INTEGER
  Int64,    // BIGINT
  Real,     // DOUBLE: 4 bytes single precision, else 8
  Text,     // DATE, TIME, TIMESTAMP (with time zone), CSTR, CHAR needing no conversion
  VarText,  // VARCHAR, LONG VARCHAR needing no conversion: a u16 count, then the characters
  Boolean,
  Graphic,     // GRAPHIC from UTF-16 to UTF-8 output: the characters of an even length
  VarGraphic,  // VARGRAPHIC, LONG VARGRAPHIC from UTF-16 to UTF-8: a u16 count of characters
};
ValueForm valueForm(const QMsg& m, const ColumnInfo& col);

// Prints a value of `form` (not General) of `len` bytes at p, integers in the sender's order
// (`swap`: not the machine's), UTF-16 low byte first when `lowFirst`, exactly as
// printColumnValue prints it, and returns true; false, with nothing written, when the value is
// empty (NULL) or not well formed for its form: the general printer prints or reports it then.
inline bool printValueAsForm(Emit& e, ValueForm form, bool swap, bool lowFirst, const uint8_t* p, size_t len);

// The JSON form of a value under `key` (or as an array element when key is null): NULL as
// null, integers and DOUBLE as numbers, DECIMAL and DECFLOAT as strings of their digits (no
// precision is lost), text converted to UTF-8, BOOLEAN as true/false, binary as hex.
struct JsonValue {
  JsonOut& j;
  JsonKey key;
  std::string_view keyText = {};  // the key as JsonOut::keyText writes it, when it is kept
  void null() { j.null(member()); }
  void integer(int64_t v) { j.num(member(), v); }
  void real(double d, bool single);
  // DECIMAL and DECFLOAT as a string of their digits
  void digits(const char* p, size_t n) { j.str(member(), std::string_view(p, n)); }
  void text(const char* p, int n) { j.str(member(), std::string_view(p, static_cast<size_t>(n))); }
  void boolean(bool b) { j.boolean(member(), b); }
  void hex(const uint8_t* p, size_t n) { j.hex(member(), p, n); }
  // Starts the member: the kept key text written, or the key handed on.
  JsonKey member() {
    if (keyText.empty()) return key;
    j.memberKey(keyText);
    return {};
  }
};
int32_t jsonColumnValue(QMsg& m, JsonValue& v, const ColumnInfo& col, const uint8_t* p, size_t len,
                        const char* step);
// The JSON number of a finite REAL (`single`) or DOUBLE into `s`, "%.9g" or "%.17g" as printf
// writes them; returns the length (no zero byte).
inline constexpr size_t kJsonRealRoom = 32;
size_t jsonRealChars(double d, bool single, char* s);

// Packed decimal (two digits a byte, sign in the last half-byte: 0xB or 0xD negative) as
// digits with the point at `scale`: no leading zeros but one before the point, "-" only when
// the value is not zero and negative. False when a digit half-byte is not 0-9.
bool packedDecimalText(const uint8_t* p, size_t n, unsigned scale, std::string& out);
// The same into `out`, which has room for 2 * n + scale + 4 characters; returns the length,
// 0 when a digit half-byte is not 0-9.
size_t packedDecimalChars(const uint8_t* p, size_t n, unsigned scale, char* out);
// Room for the form of any packed decimal of a declared precision (at most 255 digits, scale
// at most 255).
inline constexpr size_t kPackedDecimalRoom = 2 * 128 + 255 + 4;

// IEEE 754 decimal64 (n 8) or decimal128 (n 16) in densely packed decimal encoding, its bytes
// given most significant first, in its shortest exact decimal form: "Infinity", "NaN", "sNaN"
// (signed when negative), else the digits in plain or exponent notation, whichever is
// shorter (plain on a tie). False for any other length.
bool decfloatText(const uint8_t* p, size_t n, std::string& out);
// The same into `out` (kDecfloatRoom characters); returns the length, 0 for another length.
inline constexpr size_t kDecfloatRoom = 64;
size_t decfloatChars(const uint8_t* p, size_t n, char* out);

// DOUBLE: "%.5E" for a 4-byte single-precision value, "%.14E" for a double; an exponent
// written with three digits loses a leading zero.
std::string doubleText(double v, bool single);
// The same into `s` (kDoubleTextRoom bytes, zero-terminated); returns the length.
inline constexpr size_t kDoubleTextRoom = 48;
// Recently printed values are kept by their bits, per thread, and copied from there.
size_t doubleChars(double v, bool single, char* s);
// The kept text itself, valid until the next call on the thread.
std::string_view doubleView(double v, bool single);
// The same, always converted.
size_t doubleCharsExact(double v, bool single, char* s);

namespace valueform_detail {
template <typename T>
inline T load(const uint8_t* p, bool swap) {
  T v;
  std::memcpy(&v, p, sizeof v);
  if (!swap) return v;
  if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
  else if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
  else return static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
}
}  // namespace valueform_detail

// UTF-16 characters as UTF-8 when they are well formed and short enough to be converted
// without ICU (as convertText converts them).
inline bool printUtf16AsUtf8(Emit& e, const uint8_t* p, size_t n, bool lowFirst) {
  constexpr size_t kRoom = ConvText::kInlineRoom;
  char s[kRoom];
  size_t produced = 0;
  if (n / 2 * 3 > kRoom || !ConvMgr::utf16ToUtf8(reinterpret_cast<const char*>(p), n, lowFirst, s, kRoom, produced))
    return false;
  e.text(s, static_cast<int>(produced));
  return true;
}

inline bool printValueAsForm(Emit& e, ValueForm form, bool swap, bool lowFirst, const uint8_t* p, size_t len) {
  using valueform_detail::load;
  if (len == 0) return false;
  switch (form) {
    case ValueForm::Int16:
      if (len < 2) return false;
      e.num(load<int16_t>(p, swap));
      return true;
    case ValueForm::Int32:
      if (len < 4) return false;
      e.num(load<int32_t>(p, swap));
      return true;
    case ValueForm::Int64:
      if (len < 8) return false;
      e.num(load<int64_t>(p, swap));
      return true;
    case ValueForm::Real: {
      std::string_view text;
      if (len == 4) {
        const uint32_t bits = load<uint32_t>(p, swap);
        float f;
        std::memcpy(&f, &bits, 4);
        text = doubleView(f, true);
      } else if (len >= 8) {
        const uint64_t bits = load<uint64_t>(p, swap);
        double d;
        std::memcpy(&d, &bits, 8);
        text = doubleView(d, false);
      } else {
        return false;
      }
      e.raw(text.data(), text.size());
      return true;
    }
    case ValueForm::Text:
      e.text(reinterpret_cast<const char*>(p), static_cast<int>(len));
      return true;
    case ValueForm::VarText: {
      if (len < 2) return false;
      const uint16_t n = load<uint16_t>(p, swap);
      if (n > len - 2) return false;
      e.text(reinterpret_cast<const char*>(p + 2), n);
      return true;
    }
    case ValueForm::Boolean:
      if (p[0] != 0) e.lit("TRUE");
      else e.lit("FALSE");
      return true;
    case ValueForm::Graphic:
      return printUtf16AsUtf8(e, p, len & ~size_t{1}, lowFirst);
    case ValueForm::VarGraphic: {
      if (len < 2) return false;
      const size_t n = size_t{load<uint16_t>(p, swap)} * 2;
      if (n > len - 2) return false;
      return printUtf16AsUtf8(e, p + 2, n, lowFirst);
    }
    case ValueForm::General:
      break;
  }
  return false;
}
