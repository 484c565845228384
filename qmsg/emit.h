// Line builder for the hot print lines: literal text, counted text and decimal integers are
// copied straight into the output stream's buffer where it has room (as putc_unlocked does;
// a line-buffered or unbuffered stream never shows room, so it takes the unlocked write),
// without the format parsing and stream locking of fprintf. What it writes is byte for byte
// what the printf forms named beside each call write, in the order of the calls, so it can be
// mixed freely with other writes to the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "qmsg/short_copy.h"

class Emit {
 public:
  explicit Emit(FILE* out) : out_(out) {}
  Emit(const Emit&) = delete;
  Emit& operator=(const Emit&) = delete;

  // A string constant.
  template <size_t N>
  Emit& lit(const char (&s)[N]) {
    return raw(s, N - 1);
  }
  // Bytes as they stand. Most pieces of a line are short: they are moved inline (copyShort).
  Emit& raw(const void* p, size_t n) {
    char* to = out_->_IO_write_ptr;
    if (static_cast<size_t>(out_->_IO_write_end - to) >= n) {
      copyShort(to, static_cast<const char*>(p), n);
      out_->_IO_write_ptr = to + n;
    } else {
      fwrite_unlocked(p, 1, n, out_);
    }
    return *this;
  }
  // "%s".
  Emit& str(const char* s) { return raw(s, std::strlen(s)); }
  // "%.*s": at most n characters, up to the first zero byte; a negative n is no limit.
  Emit& text(const char* p, int n) {
    // A short text without a zero byte, the usual value, is seen to be one in a few word
    // reads (or a byte loop under eight) instead of a call to strnlen.
    if (n >= 8 && n <= 32 && !hasZeroByte(p, static_cast<size_t>(n))) return raw(p, static_cast<size_t>(n));
    if (n >= 0 && n < 8) {
      size_t k = 0;
      while (k < static_cast<size_t>(n) && p[k] != '\0') ++k;
      return raw(p, k);
    }
    return raw(p, n < 0 ? std::strlen(p) : strnlen(p, static_cast<size_t>(n)));
  }
  // "%c".
  Emit& ch(char c) {
    putc_unlocked(c, out_);
    return *this;
  }
  // "%d", "%hd", "%hu", "%u", PRId64 and PRIu64 of the value as passed.
  Emit& num(int64_t v) {
    if (v < 0) {
      ch('-');
      return unum(0 - static_cast<uint64_t>(v));
    }
    return unum(static_cast<uint64_t>(v));
  }
  Emit& unum(uint64_t v) {
    char digits[20];
    size_t n = 0;
    do {
      digits[sizeof digits - ++n] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0);
    return raw(digits + sizeof digits - n, n);
  }
  // Whether n bytes (8 to 32) at p hold a zero byte: eight bytes at a time, the last eight
  // overlapping the ones before.
  static bool hasZeroByte(const char* p, size_t n) {
    constexpr uint64_t kLow = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
    uint64_t any = 0;
    for (size_t at = 0; at + 8 < n; at += 8) {
      uint64_t w;
      std::memcpy(&w, p + at, 8);
      any |= (w - kLow) & ~w & kHigh;
    }
    uint64_t w;
    std::memcpy(&w, p + n - 8, 8);
    any |= (w - kLow) & ~w & kHigh;
    return any != 0;
  }
  // Everything is in the stream already: nothing to hand over.
  void flush() {}

 private:
  FILE* out_;
};
