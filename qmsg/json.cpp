// JSON text of the rendering: strings made valid UTF-8 and escaped, hex runs, ISO-8601 times.
#include "qmsg/json.h"

#include "qmsg/forms.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <new>

void JsonOut::grow(size_t k) {
  // Doubled, so that a line of any length is built in a few steps and the room is kept.
  size_t want = cap_ < 4096 ? 4096 : cap_ * 2;
  while (want - n_ < k) want *= 2;
  char* bigger = static_cast<char*>(std::realloc(buf_, want));
  if (bigger == nullptr) throw std::bad_alloc();
  buf_ = bigger;
  cap_ = want;
}

std::string JsonOut::keyText(const char* key) {
  JsonOut t;
  t.prefix(key);
  return std::string(t.str());
}

void JsonOut::int64Text(int64_t v) {
  char* d = room(20);
  n_ += static_cast<size_t>(std::to_chars(d, d + 20, v).ptr - d);
}

void JsonOut::uint64Text(uint64_t v) {
  char* d = room(20);
  n_ += static_cast<size_t>(std::to_chars(d, d + 20, v).ptr - d);
}

void JsonOut::real(JsonKey key, double v) {
  prefix(key);
  if (!std::isfinite(v)) {
    put("null", 4);
    return;
  }
  char b[32];
  const int k = std::snprintf(b, sizeof b, "%.17g", v);
  put(b, static_cast<size_t>(k));
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

// Bytes copied as they stand: printable ASCII but the quote and the backslash.
struct PlainBytes {
  bool byte[256] = {};
  constexpr PlainBytes() {
    for (int c = 0x20; c < 0x80; ++c) byte[c] = c != '"' && c != '\\';
  }
};
constexpr PlainBytes kPlain;

// Copies the plain ASCII run at p (nothing to escape or check), up to n bytes, to d and
// returns its length: eight bytes at a time, checked and moved together.
inline size_t copyPlainRun(const unsigned char* p, size_t n, char* d) {
  size_t run = 0;
  while (run + 8 <= n) {
    uint64_t w;
    std::memcpy(&w, p + run, 8);
    if (jsonSpecialByte(w)) break;
    std::memcpy(d + run, &w, 8);
    run += 8;
  }
  if (run < n && n >= 8 && run + 8 > n) {
    // The last bytes as one word that overlaps the ones copied before it.
    uint64_t w;
    std::memcpy(&w, p + n - 8, 8);
    if (!jsonSpecialByte(w)) {
      std::memcpy(d + n - 8, &w, 8);
      return n;
    }
  }
  while (run < n && kPlain.byte[p[run]]) {
    d[run] = static_cast<char>(p[run]);
    ++run;
  }
  return run;
}

}  // namespace

void JsonOut::quote(std::string_view text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  // Room for the plain case, the most common value: quoted and copied in one pass.
  char* d = room(n + 2);
  *d++ = '"';
  const size_t i = copyPlainRun(p, n, d);
  if (i == n) {
    d[n] = '"';
    n_ += n + 2;
    return;
  }
  n_ += 1 + i;
  quoteSpecial(p, n, i);
}

// The rest of a string from its first byte that is not plain ASCII, written at the end of
// the text.
void JsonOut::quoteSpecial(const unsigned char* p, size_t n, size_t i) {
  static const char kHex[] = "0123456789abcdef";
  // Each byte takes at most six ("\u00XX"), and the closing quote one.
  char* d = room((n - i) * 6 + 1);
  char* const start = d;
  while (i < n) {
    // Plain ASCII goes over in runs: most names and values are nothing else.
    const size_t run = copyPlainRun(p + i, n - i, d);
    if (run > 0) {
      i += run;
      d += run;
      continue;
    }
    unsigned char c = p[i];
    if (c == '"' || c == '\\') {
      *d++ = '\\';
      *d++ = static_cast<char>(c);
      ++i;
    } else if (c < 0x20) {
      *d++ = '\\';
      switch (c) {
        case '\n': *d++ = 'n'; break;
        case '\r': *d++ = 'r'; break;
        case '\t': *d++ = 't'; break;
        default:
          *d++ = 'u';
          *d++ = '0';
          *d++ = '0';
          *d++ = kHex[c >> 4];
          *d++ = kHex[c & 15];
      }
      ++i;
    } else {
      size_t len = utf8Sequence(p + i, n - i);
      if (len == 0) {
        // U+FFFD for a byte that is not UTF-8
        *d++ = '\xEF';
        *d++ = '\xBF';
        *d++ = '\xBD';
        ++i;
      } else {
        std::memcpy(d, p + i, len);
        d += len;
        i += len;
      }
    }
  }
  *d++ = '"';
  n_ += static_cast<size_t>(d - start);
}

void JsonOut::hex(JsonKey key, const uint8_t* p, size_t n) {
  prefix(key);
  char* d = room(2 * n + 2);
  *d++ = '"';
  d += hexRun(p, n, false, d);
  *d++ = '"';
  n_ = static_cast<size_t>(d - buf_);
}

void JsonOut::utc(JsonKey key, uint32_t seconds, int32_t micros) {
  if (seconds == 0) {
    null(key);
    return;
  }
  prefix(key);
  std::time_t t = seconds;
  std::tm tm{};
  gmtime_r(&t, &tm);
  // "YYYY-MM-DDTHH:MM:SS.uuuuuuZ" in quotes; the year of a 32-bit time has four digits.
  char* const start = room(32);
  char* d = start;
  auto digits = [&d](unsigned v, int count) {
    for (int k = count; k-- > 0;) {
      d[k] = static_cast<char>('0' + v % 10);
      v /= 10;
    }
    d += count;
  };
  *d++ = '"';
  digits(static_cast<unsigned>(tm.tm_year + 1900), 4);
  *d++ = '-';
  digits(static_cast<unsigned>(tm.tm_mon + 1), 2);
  *d++ = '-';
  digits(static_cast<unsigned>(tm.tm_mday), 2);
  *d++ = 'T';
  digits(static_cast<unsigned>(tm.tm_hour), 2);
  *d++ = ':';
  digits(static_cast<unsigned>(tm.tm_min), 2);
  *d++ = ':';
  digits(static_cast<unsigned>(tm.tm_sec), 2);
  if (micros >= 0 && micros < 1000000) {
    *d++ = '.';
    digits(static_cast<unsigned>(micros), 6);
  }
  *d++ = 'Z';
  *d++ = '"';
  n_ += static_cast<size_t>(d - start);
}
