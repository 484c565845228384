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
#include <string>
#include <string_view>

#include "runtime/conv.h"

// Version of the JSON layout, written as "format" first in every object.
inline constexpr int kJsonFormatVersion = 1;

// Builds JSON text: objects, arrays, keys and typed values, with the commas in their places.
// Containers left open by a failure are closed by closeAll(), so the text stays valid.
class JsonOut {
 public:
  const std::string& str() const { return s_; }
  void clear() {
    s_.clear();
    depth_ = 0;
    first_ = true;
  }

  void beginObject(const char* key = nullptr) { open(key, '{'); }
  void endObject() { close('}'); }
  void beginArray(const char* key = nullptr) { open(key, '['); }
  void endArray() { close(']'); }
  // Closes every container still open (objects and arrays in their order).
  void closeAll() {
    while (depth_ > 0) close(stack_[depth_ - 1] == '{' ? '}' : ']');
  }
  size_t depth() const { return depth_; }
  // True when the innermost open container is an object (members need keys).
  bool inObject() const { return depth_ > 0 && stack_[depth_ - 1] == '{'; }

  void num(const char* key, int64_t v);
  void unum(const char* key, uint64_t v);
  void real(const char* key, double v);
  void boolean(const char* key, bool v) { prefix(key); s_ += v ? "true" : "false"; }
  void null(const char* key) { prefix(key); s_ += "null"; }
  // A string of UTF-8 bytes (a byte that is not part of valid UTF-8 becomes U+FFFD).
  void str(const char* key, std::string_view utf8) { prefix(key); quote(utf8); }
  // Bytes as a string of lower-case hex pairs.
  void hex(const char* key, const uint8_t* p, size_t n);
  // A time in seconds since 1970 and microseconds (negative: none) as ISO-8601 UTC, or null
  // when the seconds are 0 (a time that was never set).
  void utc(const char* key, uint32_t seconds, int32_t micros);
  // A JSON fragment as it stands (a complete value).
  void raw(const char* key, std::string_view json) { prefix(key); s_.append(json); }
  // What a member's key is written as (`"key":`), for keys used over and over: memberKey
  // writes it kept, and the value follows with a null key.
  static std::string keyText(const char* key);
  void memberKey(std::string_view text) {
    prefix(nullptr);
    s_.append(text);
    first_ = true;
  }

  // Ends the line of one message: closes what is open and adds the newline.
  void endLine() {
    closeAll();
    s_ += '\n';
    first_ = true;
  }

 private:
  void prefix(const char* key);
  void quote(std::string_view utf8);
  void open(const char* key, char c) {
    prefix(key);
    s_ += c;
    if (depth_ < sizeof stack_) stack_[depth_] = c;
    ++depth_;
    first_ = true;
  }
  void close(char c) {
    if (depth_ == 0) return;
    --depth_;
    s_ += c;
    first_ = false;
  }

  std::string s_;
  char stack_[64] = {};
  size_t depth_ = 0;
  bool first_ = true;
};

// Renders one compact message as one JSON object and a newline appended to `out`. Returns 0,
// a printer's result code (the object then ends with its "error" member) or kRcUnknownType.
int32_t renderCompactJson(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm, JsonOut& out);
