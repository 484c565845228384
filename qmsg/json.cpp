// JSON text of the rendering: strings made valid UTF-8 and escaped, hex runs, ISO-8601 times.
#include "qmsg/json.h"

#include "qmsg/forms.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <utility>

namespace {
size_t plainRun(const unsigned char* p, size_t n);
}  // namespace

void JsonOut::prefix(const char* key) {
  const bool comma = !first_;
  first_ = false;
  if (key == nullptr) {
    if (comma) s_ += ',';
    return;
  }
  // A key is most often plain ASCII: `,"key":` written in one piece.
  const size_t n = std::strlen(key);
  if (plainRun(reinterpret_cast<const unsigned char*>(key), n) == n) {
    const size_t at = s_.size();
    s_.resize(at + n + 3 + comma);
    char* d = s_.data() + at;
    if (comma) *d++ = ',';
    *d++ = '"';
    std::memcpy(d, key, n);
    d[n] = '"';
    d[n + 1] = ':';
    return;
  }
  if (comma) s_ += ',';
  quote(std::string_view(key, n));
  s_ += ':';
}

std::string JsonOut::keyText(const char* key) {
  JsonOut t;
  t.prefix(key);
  return std::move(t.s_);
}

void JsonOut::num(const char* key, int64_t v) {
  prefix(key);
  char b[24];
  auto [end, ec] = std::to_chars(b, b + sizeof b, v);
  s_.append(b, static_cast<size_t>(end - b));
}

void JsonOut::unum(const char* key, uint64_t v) {
  prefix(key);
  char b[24];
  auto [end, ec] = std::to_chars(b, b + sizeof b, v);
  s_.append(b, static_cast<size_t>(end - b));
}

void JsonOut::real(const char* key, double v) {
  prefix(key);
  if (!std::isfinite(v)) {
    s_ += "null";
    return;
  }
  char b[32];
  std::snprintf(b, sizeof b, "%.17g", v);
  s_ += b;
}

namespace {

// Length of the valid UTF-8 sequence at p (1 to 4), or 0 when the bytes there are not one.
size_t utf8Sequence(const unsigned char* p, size_t left) {
  unsigned char c = p[0];
  size_t n = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
  if (n == 0 || n > left) return 0;
  if (n == 1) return 1;
  uint32_t cp = c & (0x7F >> n);
  for (size_t i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

// True when one of the eight bytes of `w` needs more than a copy: a control character, a
// quote, a backslash or a byte of a multi-byte sequence.
inline bool specialByte(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  auto zeroByte = [](uint64_t x) { return (x - kOnes) & ~x & kHigh; };
  const uint64_t atLeast20 = (w & ~kHigh) + kOnes * (0x80 - 0x20);  // high bit: low 7 bits >= 0x20
  return (w & kHigh) != 0 || (atLeast20 & kHigh) != kHigh || zeroByte(w ^ (kOnes * '"')) != 0 ||
         zeroByte(w ^ (kOnes * '\\')) != 0;
}

// Bytes copied as they stand: printable ASCII but the quote and the backslash.
struct PlainBytes {
  bool byte[256] = {};
  constexpr PlainBytes() {
    for (int c = 0x20; c < 0x80; ++c) byte[c] = c != '"' && c != '\\';
  }
};
constexpr PlainBytes kPlain;

// Length of the plain ASCII run at p (nothing to escape or check), up to n.
size_t plainRun(const unsigned char* p, size_t n) {
  size_t run = 0;
  while (run + 8 <= n) {
    uint64_t w;
    std::memcpy(&w, p + run, 8);
    if (specialByte(w)) break;
    run += 8;
  }
  while (run < n && kPlain.byte[p[run]]) ++run;
  return run;
}

}  // namespace

void JsonOut::quote(std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  size_t n = text.size();
  size_t i = plainRun(p, n);
  if (i == n) {
    // Plain ASCII, the most common value: quoted in one piece.
    const size_t at = s_.size();
    s_.resize(at + n + 2);
    char* d = s_.data() + at;
    d[0] = '"';
    if (n > 0) std::memcpy(d + 1, text.data(), n);
    d[n + 1] = '"';
    return;
  }
  s_ += '"';
  s_.append(text.data(), i);
  while (i < n) {
    // Plain ASCII goes over in runs: most names and values are nothing else.
    const size_t run = i + plainRun(p + i, n - i);
    if (run > i) {
      s_.append(text.data() + i, run - i);
      i = run;
      continue;
    }
    unsigned char c = p[i];
    if (c == '"' || c == '\\') {
      s_ += '\\';
      s_ += static_cast<char>(c);
      ++i;
    } else if (c < 0x20) {
      switch (c) {
        case '\n': s_ += "\\n"; break;
        case '\r': s_ += "\\r"; break;
        case '\t': s_ += "\\t"; break;
        default:
          s_ += "\\u00";
          s_ += kHex[c >> 4];
          s_ += kHex[c & 15];
      }
      ++i;
    } else {
      size_t len = utf8Sequence(p + i, n - i);
      if (len == 0) {
        s_ += "\xEF\xBF\xBD";  // U+FFFD for a byte that is not UTF-8
        ++i;
      } else {
        s_.append(reinterpret_cast<const char*>(p + i), len);
        i += len;
      }
    }
  }
  s_ += '"';
}

void JsonOut::hex(const char* key, const uint8_t* p, size_t n) {
  prefix(key);
  s_ += '"';
  const size_t at = s_.size();
  s_.resize(at + 2 * n);
  hexRun(p, n, false, s_.data() + at);
  s_ += '"';
}

void JsonOut::utc(const char* key, uint32_t seconds, int32_t micros) {
  if (seconds == 0) {
    null(key);
    return;
  }
  std::time_t t = seconds;
  std::tm tm{};
  gmtime_r(&t, &tm);
  char b[48];
  if (micros >= 0 && micros < 1000000)
    std::snprintf(b, sizeof b, "\"%04d-%02d-%02dT%02d:%02d:%02d.%06dZ\"", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros);
  else
    std::snprintf(b, sizeof b, "\"%04d-%02d-%02dT%02d:%02d:%02dZ\"", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  raw(key, b);
}
