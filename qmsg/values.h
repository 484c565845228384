// Column values: the print form of one value by its SQL type code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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
// The same, always converted.
size_t doubleCharsExact(double v, bool single, char* s);
