// JSON rendering of compact messages: one object per message, written as one line.
//
// Use from outside the decoder:
//
//   ConvMgr::init();                       // once per process
//   ConvMgr cm(6, "rplq:render");          // converters, kept across messages
//   encodingInfo enc;                      // the sender's context from the message descriptor
//   enc.setup(descriptorCcsid);
//   enc.flags = senderIsMachineOrder ? kEncMachineOrder : 0;
//   JsonOut out;
//   int32_t rc = renderCompactJson(data, length, enc, cm, out);
//   fwrite(out.str().data(), 1, out.str().size(), stdout);   // "{...}\n", valid even when rc != 0
//   out.clear();
//
// The message buffer is read-write: integers are swapped into machine order in place, as the
// text printers do, so render a message once (or from a fresh copy). Text fields are converted
// to UTF-8 whatever enc.outCcsid says. Schema messages are kept in the same schema cache the
// text printers use, so rows and LOBs that follow are keyed by column name. A field that
// cannot be read ends the object with "error": {"field": ..., "offset": ...} and returns the
// printer's result code; the bounded-read report is issued as on the text path.
// docs/json.md describes the members of every message type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "qmsg/short_copy.h"
#include "runtime/conv.h"

// Version of the JSON layout, written as "format" first in every object.
inline constexpr int kJsonFormatVersion = 1;

// True when one of the eight bytes of `w` needs more than a copy into a JSON string: a control
// character, a quote, a backslash or a byte of a multi-byte sequence. Each test is exact for
// "some byte is": a borrow only runs on from a byte that already is one.
inline bool jsonSpecialByte(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  const uint64_t quote = w ^ (kOnes * '"'), backslash = w ^ (kOnes * '\\');
  const uint64_t below20 = (w - kOnes * 0x20) & ~w;
  return ((below20 | ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash) | w) & kHigh) != 0;
}

// A member's key: its bytes and their count, null for an array element. Built from a string
// constant where the call is inlined, its length is counted when compiled.
struct JsonKey {
  const char* p = nullptr;
  size_t n = 0;
  constexpr JsonKey() = default;
  constexpr JsonKey(std::nullptr_t) {}
  constexpr JsonKey(const char* s) : p(s), n(s != nullptr ? std::char_traits<char>::length(s) : 0) {}
  constexpr JsonKey(std::string_view s) : p(s.data()), n(s.size()) {}
};

// Builds JSON text: objects, arrays, keys and typed values, with the commas in their places.
// Containers left open by a failure are closed by closeAll(), so the text stays valid.
//
// The text is gathered in one buffer of its own that keeps its room from line to line: every
// piece is written where it goes, with no zero-filled growth and no text built on the side.
class JsonOut {
 public:
  JsonOut() = default;
  JsonOut(const JsonOut&) = delete;
  JsonOut& operator=(const JsonOut&) = delete;
  JsonOut(JsonOut&& o) noexcept { swap(o); }
  JsonOut& operator=(JsonOut&& o) noexcept {
    swap(o);
    return *this;
  }
  ~JsonOut() { std::free(buf_); }
  void swap(JsonOut& o) noexcept {
    std::swap(buf_, o.buf_);
    std::swap(n_, o.n_);
    std::swap(cap_, o.cap_);
    std::swap(stack_, o.stack_);
    std::swap(depth_, o.depth_);
    std::swap(first_, o.first_);
  }

  // The text written so far (valid until the next write).
  std::string_view str() const { return {buf_, n_}; }
  void clear() {
    n_ = 0;
    depth_ = 0;
    first_ = true;
  }

  void beginObject(JsonKey key = {}) { open(key, '{'); }
  void endObject() { close('}'); }
  void beginArray(JsonKey key = {}) { open(key, '['); }
  void endArray() { close(']'); }
  // Closes every container still open (objects and arrays in their order).
  void closeAll() {
    while (depth_ > 0) close(stack_[depth_ - 1] == '{' ? '}' : ']');
  }
  size_t depth() const { return depth_; }
  // True when the innermost open container is an object (members need keys).
  bool inObject() const { return depth_ > 0 && stack_[depth_ - 1] == '{'; }

  void num(JsonKey key, int64_t v) {
    prefix(key);
    int64Text(v);
  }
  void unum(JsonKey key, uint64_t v) {
    prefix(key);
    uint64Text(v);
  }
  void real(JsonKey key, double v);
  void boolean(JsonKey key, bool v) {
    prefix(key);
    if (v) put("true", 4);
    else put("false", 5);
  }
  void null(JsonKey key) {
    prefix(key);
    put("null", 4);
  }
  // A string of UTF-8 bytes (a byte that is not part of valid UTF-8 becomes U+FFFD).
  void str(JsonKey key, std::string_view utf8) {
    prefix(key);
    quote(utf8);
  }
  // Bytes as a string of lower-case hex pairs.
  void hex(JsonKey key, const uint8_t* p, size_t n);
  // A time in seconds since 1970 and microseconds (negative: none) as ISO-8601 UTC, or null
  // when the seconds are 0 (a time that was never set).
  void utc(JsonKey key, uint32_t seconds, int32_t micros);
  // A JSON fragment as it stands (a complete value).
  void raw(JsonKey key, std::string_view json) {
    prefix(key);
    put(json.data(), json.size());
  }
  // What a member's key is written as (`"key":`), for keys used over and over: memberKey
  // writes it kept, and the value follows with a null key.
  static std::string keyText(const char* key);
  void memberKey(std::string_view text) {
    if (!first_) put(',');
    put(text.data(), text.size());
    first_ = true;
  }

  // Ends the line of one message: closes what is open and adds the newline.
  void endLine() {
    closeAll();
    put('\n');
    first_ = true;
  }

 private:
  // Room for k more bytes at the end of the text.
  char* room(size_t k) {
    if (cap_ - n_ < k) grow(k);
    return buf_ + n_;
  }
  void grow(size_t k);
  void put(char c) {
    *room(1) = c;
    ++n_;
  }
  void put(const char* s, size_t k) {
    copyShort(room(k), s, k);
    n_ += k;
  }
  // The comma before a member or element, and the member's key.
  void prefix(JsonKey key) {
    const bool comma = !first_;
    first_ = false;
    if (key.p == nullptr) {
      if (comma) put(',');
      return;
    }
    char* d = room(key.n + 4);
    *d = ',';
    d += comma;
    if (plainKey(key.p, key.n)) {
      // The usual key, plain ASCII: `,"key":` written in one piece.
      *d++ = '"';
      copyShort(d, key.p, key.n);
      d[key.n] = '"';
      d[key.n + 1] = ':';
      n_ = static_cast<size_t>(d + key.n + 2 - buf_);
      return;
    }
    n_ += comma;
    quote(std::string_view(key.p, key.n));
    put(':');
  }
  // Whether a key's bytes go into the text as they stand: printable ASCII but '"' and '\',
  // eight bytes at a time where there are eight.
  static bool plainKey(const char* p, size_t n) {
    size_t i = 0;
    if (n >= 8) {
      for (; i + 8 <= n; i += 8)
        if (jsonSpecialByte(load8(p + i))) return false;
      return !jsonSpecialByte(load8(p + n - 8));
    }
    for (; i < n; ++i) {
      const unsigned char c = static_cast<unsigned char>(p[i]);
      if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') return false;
    }
    return true;
  }
  static uint64_t load8(const char* p) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
  }
  void int64Text(int64_t v);
  void uint64Text(uint64_t v);
  void quote(std::string_view utf8);
  void quoteSpecial(const unsigned char* p, size_t n, size_t i);
  void open(JsonKey key, char c) {
    prefix(key);
    put(c);
    if (depth_ < sizeof stack_) stack_[depth_] = c;
    ++depth_;
    first_ = true;
  }
  void close(char c) {
    if (depth_ == 0) return;
    --depth_;
    put(c);
    first_ = false;
  }

  char* buf_ = nullptr;
  size_t n_ = 0;
  size_t cap_ = 0;
  char stack_[64] = {};
  size_t depth_ = 0;
  bool first_ = true;
};

// Renders one compact message as one JSON object and a newline appended to `out`. Returns 0,
// a printer's result code (the object then ends with its "error" member) or kRcUnknownType.
int32_t renderCompactJson(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm, JsonOut& out);
// The same members written into the object open in `out`, which stays open (no newline).
int32_t renderCompactJsonMembers(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm,
                                 JsonOut& out);
