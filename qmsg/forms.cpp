// Print forms of log positions, units of work, timestamps and hex dumps.
#include "qmsg/forms.h"

#include <cstring>
#include <ctime>

std::string formatPos10(const uint8_t* p) {
  char s[32];
  std::snprintf(s, sizeof s, "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", p[0], p[1], p[2],
                p[3], p[4], p[5], p[6], p[7], p[8], p[9]);
  return s;
}

namespace {

// Two hex digits per byte value, upper case (the bytes) and lower case (the row offset, the
// hex-pair positions).
struct HexPairs {
  char upper[256][2];
  char lower[256][2];
  char shown[256];  // the character column: printable ASCII as itself, anything else "."
  constexpr HexPairs() : upper{}, lower{}, shown{} {
    const char* u = "0123456789ABCDEF";
    const char* l = "0123456789abcdef";
    for (int i = 0; i < 256; ++i) {
      upper[i][0] = u[i >> 4];
      upper[i][1] = u[i & 15];
      lower[i][0] = l[i >> 4];
      lower[i][1] = l[i & 15];
      shown[i] = (i >= 0x20 && i < 0x7f) ? static_cast<char>(i) : '.';
    }
  }
};
constexpr HexPairs kPairs;

}  // namespace

size_t hexPairChars(const uint8_t* p, size_t len, char* s) {
  size_t n = 0;
  for (size_t i = 0; i < len; i += 2) {
    if (i > 0) s[n++] = ':';
    std::memcpy(s + n, kPairs.lower[p[i]], 2);
    n += 2;
    if (i + 1 < len) {
      std::memcpy(s + n, kPairs.lower[p[i + 1]], 2);
      n += 2;
    }
  }
  return n;
}

size_t hexRun(const uint8_t* p, size_t n, bool upper, char* s) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = digits[p[i] >> 4];
    s[2 * i + 1] = digits[p[i] & 15];
  }
  return 2 * n;
}

std::string hexRunText(const uint8_t* p, size_t n, bool upper) {
  std::string s(2 * n, '\0');
  hexRun(p, n, upper, s.data());
  return s;
}

std::string formatHexPairs(const uint8_t* p, size_t len, size_t area) {
  std::string s(len / 2 * 5 + 2, '\0');
  s.resize(hexPairChars(p, len, s.data()));
  if (s.size() + 1 > area) return area > 16 ? "...buffer full\n" : "";
  return s;
}

std::string formatLsnBytes(const uint8_t* p, size_t len) {
  return formatHexPairs(p, len, kLsnArea);
}

int32_t fixLsnRecord(MsgReader& r, size_t at, const char* field) {
  int32_t rc = r.fix16(at + 4, field);
  if (rc == 0) rc = r.fix16(at + 6, field);
  return rc;
}

int32_t formatLsnRecord(const MsgReader& r, size_t at, bool withNode, std::string& out,
                        const char* field) {
  uint8_t flags = 0;
  uint16_t node = 0;
  int16_t len = 0;
  const uint8_t* bytes = nullptr;
  int32_t rc = r.u8(at, flags, field);
  if (rc == 0) rc = r.machine(at + 4, node, field);
  if (rc == 0) rc = r.machine(at + 6, len, field);
  if (rc == 0) rc = r.bytes(at + 8, 16, bytes, field);
  if (rc != 0) return rc;
  size_t n = len < 0 ? 0 : (len > 16 ? 16 : static_cast<size_t>(len));
  out = formatLsnBytes(bytes, n < 2 ? 2 : n);
  if (withNode && (flags & 1)) {
    char s[24];
    std::snprintf(s, sizeof s, " (node %d)", node);
    out += s;
  }
  return 0;
}

// "%0<width>d" of a value that is not negative and has at most `width` digits.
static char* digits(char* q, int v, int width) {
  for (int i = width; i-- > 0;) {
    q[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  return q + width;
}

static std::string formatTime(const std::tm& t, int32_t micros, bool fraction) {
  const int year = t.tm_year + 1900;
  const bool plain = t.tm_mon >= 0 && t.tm_mon < 12 && t.tm_mday >= 0 && t.tm_mday < 100 && year >= 0 &&
                     year < 10000 && t.tm_hour >= 0 && t.tm_hour < 100 && t.tm_min >= 0 && t.tm_min < 100 &&
                     t.tm_sec >= 0 && t.tm_sec < 100 && (!fraction || (micros >= 0 && micros < 1000000));
  char s[64];
  if (plain) {
    // The common case written digit by digit: "MM-DD-YYYY hh:mm:ss[.uuuuuu]".
    char* q = digits(s, t.tm_mon + 1, 2);
    *q++ = '-';
    q = digits(q, t.tm_mday, 2);
    *q++ = '-';
    q = digits(q, year, 4);
    *q++ = ' ';
    q = digits(q, t.tm_hour, 2);
    *q++ = ':';
    q = digits(q, t.tm_min, 2);
    *q++ = ':';
    q = digits(q, t.tm_sec, 2);
    if (fraction) {
      *q++ = '.';
      q = digits(q, micros, 6);
    }
    return std::string(s, static_cast<size_t>(q - s));
  }
  if (fraction)
    std::snprintf(s, sizeof s, "%02d-%02d-%04d %02d:%02d:%02d.%.6d", t.tm_mon + 1, t.tm_mday,
                  year, t.tm_hour, t.tm_min, t.tm_sec, micros);
  else
    std::snprintf(s, sizeof s, "%02d-%02d-%04d %02d:%02d:%02d", t.tm_mon + 1, t.tm_mday,
                  year, t.tm_hour, t.tm_min, t.tm_sec);
  return s;
}

std::string formatUtc(uint32_t seconds, int32_t micros) {
  if (seconds == 0) return "Un-initialized";
  std::time_t t = seconds;
  std::tm tm{};
  gmtime_r(&t, &tm);
  return formatTime(tm, micros, micros >= 0);
}

std::string formatLocal(uint32_t seconds, int32_t micros) {
  if (seconds == 0) return "Un-initialized";
  std::time_t t = seconds;
  std::tm tm{};
  localtime_r(&t, &tm);
  return formatTime(tm, micros, micros >= 1);
}

size_t hexRow(char* q, const uint8_t* bytes, size_t n, bool showAddress, size_t offset) {
  constexpr size_t kRow = 20;
  char* start = q;
  if (showAddress) {
    // " %8.8lx ": the low 32 bits of the offset, eight lowercase digits.
    const uint32_t a = static_cast<uint32_t>(offset & 0xFFFFFFFFu);
    *q++ = ' ';
    std::memcpy(q, kPairs.lower[a >> 24], 2);
    std::memcpy(q + 2, kPairs.lower[(a >> 16) & 0xFF], 2);
    std::memcpy(q + 4, kPairs.lower[(a >> 8) & 0xFF], 2);
    std::memcpy(q + 6, kPairs.lower[a & 0xFF], 2);
    q += 8;
    *q++ = ' ';
  }
  if (n == kRow) {
    for (size_t g = 0; g < kRow; g += 4) {
      std::memcpy(q, kPairs.upper[bytes[g]], 2);
      std::memcpy(q + 2, kPairs.upper[bytes[g + 1]], 2);
      std::memcpy(q + 4, kPairs.upper[bytes[g + 2]], 2);
      std::memcpy(q + 6, kPairs.upper[bytes[g + 3]], 2);
      q[8] = ' ';
      q += 9;
    }
  } else {
    // A short last row: two blanks for each missing byte, the group blanks all the same.
    for (size_t i = 0; i < kRow; ++i) {
      if (i < n) {
        std::memcpy(q, kPairs.upper[bytes[i]], 2);
      } else {
        q[0] = ' ';
        q[1] = ' ';
      }
      q += 2;
      if (i % 4 == 3) *q++ = ' ';
    }
  }
  *q++ = ' ';
  for (size_t i = 0; i < n; ++i) q[i] = kPairs.shown[bytes[i]];
  q += n;
  *q++ = '\n';
  return static_cast<size_t>(q - start);
}

void dumpHex(size_t length, const uint8_t* bytes, FILE* out, bool showAddress, size_t origin) {
  constexpr size_t kRow = 20;
  // Rows are gathered in a block and written together; a row is at most kHexRowMax bytes.
  constexpr size_t kBlock = 64 * 1024;
  char block[kBlock];
  size_t used = 0;
  for (size_t row = 0; row < length; row += kRow) {
    size_t n = length - row < kRow ? length - row : kRow;
    if (kBlock - used < kHexRowMax) {
      fwrite_unlocked(block, 1, used, out);
      used = 0;
    }
    used += hexRow(block + used, bytes + row, n, showAddress, origin + row);
  }
  if (used > 0) fwrite_unlocked(block, 1, used, out);
}

std::string formatLocalStamp(uint32_t seconds) {
  std::time_t t = seconds;
  std::tm tm{};
  char s[20] = "";
  if (localtime_r(&t, &tm) != nullptr) std::strftime(s, sizeof s, "%Y-%m-%d-%H.%M.%S", &tm);
  return s;
}

std::string formatLocalStampMicros(uint32_t seconds, uint32_t micros) {
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06u", micros > 999999 ? 999999u : micros);
  return formatLocalStamp(seconds) + fraction;
}
