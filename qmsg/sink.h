// The field sink every printer writes through: typed fields with their keys, plain text lines
// and scopes for repeated parts. One printer pass feeds either rendering:
//  - TextSink writes each field with its exact printf form into the output stream (the fixed
//    text of the operator's tool), and ignores keys and scopes;
//  - JsonSink writes each field as a key and a typed value into a JsonOut, and ignores the
//    plain text lines.
// The sink is a template parameter of the printers, so the text path has no virtual calls:
// `o.field("sub_id", subId, "  sub_id:    %d\n")` is the fprintf it replaces.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

#include "qmsg/forms.h"
#include "qmsg/json.h"
#include "qmsg/msg.h"

// A UTC time: "%s" of formatUtc in the text; ISO-8601 (or null when never set) in JSON.
struct UtcTime {
  uint32_t seconds;
  int32_t micros;
};

// Bytes shown as hex in JSON; the text prints them in its own form.
struct HexBytes {
  const uint8_t* p;
  size_t n;
};

// SQL NULL: null in JSON.
struct SqlNull {};

class TextSink {
 public:
  static constexpr bool kJson = false;
  explicit TextSink(FILE* out) : out_(out) {}
  FILE* out() const { return out_; }

  // A line (or part of one) of the text alone.
  void text(const char* s) { std::fputs(s, out_); }
  template <typename... A>
  void text(const char* format, A... a) {
    std::fprintf(out_, format, a...);
  }
  // A field printed with `format`, which takes the value as its one argument.
  template <typename T>
  void field(const char* key, const T& v, const char* format) {
    if constexpr (std::is_same_v<T, ConvText>) std::fprintf(out_, format, v.size(), v.data());
    else if constexpr (std::is_same_v<T, std::string>) std::fprintf(out_, format, v.c_str());
    else if constexpr (std::is_same_v<T, UtcTime>) std::fprintf(out_, format, formatUtc(v.seconds, v.micros).c_str());
    else std::fprintf(out_, format, v);
  }
  // A field whose text takes other arguments than its value (a name, a note after it).
  // The formats are the printers' own literals, passed through; a format without arguments
  // still goes through fprintf so that "%%" prints as it always has.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  template <typename V, typename... A>
  void show(const char* key, const V& v, const char* format, A... a) {
    std::fprintf(out_, format, a...);
  }
#pragma GCC diagnostic pop
  // A converted character field as "%c" prints it: the label, its bytes (a zero byte
  // included), the line end.
  void chars(const char* key, const ConvText& t, const char* label, const char* after = "\n") {
    std::fputs(label, out_);
    std::fwrite(t.data(), 1, static_cast<size_t>(t.size()), out_);
    std::fputs(after, out_);
  }
  // A field only the JSON carries (the text shows it in another form or not at all).
  template <typename V>
  void hidden(const char*, const V&) {}
  // Scopes of repeated parts: a list, its items, nested objects.
  void beginList(const char*) {}
  void endList() {}
  void beginItem() {}
  void endItem() {}
  void beginGroup(const char*) {}
  void endGroup() {}

 private:
  FILE* out_;
};

class JsonSink {
 public:
  static constexpr bool kJson = true;
  explicit JsonSink(JsonOut& j) : j_(j) {}
  JsonOut& json() { return j_; }
  FILE* out() const { return nullptr; }

  // The members are inlined where the printers call them, so that the length of a constant
  // key is counted when compiled.
  template <typename... A>
  void text(const char*, A...) {}
  template <typename T>
  [[gnu::always_inline]] void field(const char* key, const T& v, const char*) {
    put(key, v);
  }
  template <typename V, typename... A>
  [[gnu::always_inline]] void show(const char* key, const V& v, const char*, A...) {
    put(key, v);
  }
  template <typename V>
  [[gnu::always_inline]] void hidden(const char* key, const V& v) {
    put(key, v);
  }
  [[gnu::always_inline]] void chars(const char* key, const ConvText& t, const char*, const char* = "\n") {
    put(key, t);
  }
  [[gnu::always_inline]] void beginList(const char* key) { j_.beginArray(key); }
  void endList() { j_.endArray(); }
  void beginItem() { j_.beginObject(); }
  void endItem() { j_.endObject(); }
  [[gnu::always_inline]] void beginGroup(const char* key) { j_.beginObject(key); }
  void endGroup() { j_.endObject(); }

 private:
  [[gnu::always_inline]] JsonKey k(JsonKey key) const { return j_.inObject() ? key : JsonKey(); }
  template <typename T>
  [[gnu::always_inline]] void put(JsonKey key, const T& v) {
    if constexpr (std::is_same_v<T, ConvText>) j_.str(k(key), std::string_view(v.data(), static_cast<size_t>(v.size())));
    else if constexpr (std::is_same_v<T, std::string>) j_.str(k(key), v);
    else if constexpr (std::is_same_v<T, std::string_view>) j_.str(k(key), v);
    else if constexpr (std::is_convertible_v<T, const char*>) j_.str(k(key), v);
    else if constexpr (std::is_same_v<T, UtcTime>) j_.utc(k(key), v.seconds, v.micros);
    else if constexpr (std::is_same_v<T, HexBytes>) j_.hex(k(key), v.p, v.n);
    else if constexpr (std::is_same_v<T, SqlNull>) j_.null(k(key));
    else if constexpr (std::is_same_v<T, bool>) j_.boolean(k(key), v);
    else if constexpr (std::is_floating_point_v<T>) j_.real(k(key), static_cast<double>(v));
    else if constexpr (std::is_signed_v<T>) j_.num(k(key), static_cast<int64_t>(v));
    else j_.unum(k(key), static_cast<uint64_t>(v));
  }

  JsonOut& j_;
};

// The base of the light passes' sinks: nothing is rendered, and each field of the message's own
// level (not of its lists, items and groups) goes to `Keeper::keepTop(key, value)` with the key
// and typed value the JSON rendering would write, so a pass keeps the few fields it needs.
//
//   class NamesSink : public TopFieldSink<NamesSink> {
//     friend TopFieldSink<NamesSink>;
//     template <typename T> void keepTop(const char* key, const T& v);
//   };
template <class Keeper>
class TopFieldSink {
 public:
  static constexpr bool kJson = true;
  FILE* out() const { return nullptr; }

  template <typename... A>
  void text(const char*, A...) {}
  template <typename T>
  void field(const char* key, const T& v, const char*) {
    pass(key, v);
  }
  template <typename V, typename... A>
  void show(const char* key, const V& v, const char*, A...) {
    pass(key, v);
  }
  template <typename V>
  void hidden(const char* key, const V& v) {
    pass(key, v);
  }
  void chars(const char*, const ConvText&, const char*, const char* = "\n") {}
  void beginList(const char*) { ++depth_; }
  void endList() { --depth_; }
  void beginItem() { ++depth_; }
  void endItem() { --depth_; }
  void beginGroup(const char*) { ++depth_; }
  void endGroup() { --depth_; }

 private:
  template <typename T>
  void pass(const char* key, const T& v) {
    if (depth_ == 0 && key != nullptr) static_cast<Keeper*>(this)->keepTop(key, v);
  }

  int depth_ = 0;
};

// Every sink the printers are instantiated for. Each family's source instantiates its printers
// with RPL_FOR_EACH_SINK(its instantiation macro), and compact.cpp instantiates decodeCompact
// (the dispatch by message type) the same way. A further rendering is a class with the members
// of TextSink (kJson, text, field, show, hidden, chars and the scopes), defined in a header
// included above this line and named here once. Where kJson is false the few printers that dump
// bytes in hex (LOB data, file-transfer chunks, DDL bodies) write the dump to out(), which may be
// a stream that discards it. (row.cpp, trans.cpp and values.cpp list their instantiations by
// hand: a new sink is added there too.)
#define RPL_FOR_EACH_SINK(X) X(TextSink) X(JsonSink)
