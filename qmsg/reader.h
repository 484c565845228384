// Bounded reads of message bytes: every field is checked and read in one call.
//
// A reader covers (pointer, length) of one message or of one record inside it. Reads take an
// offset from the reader's start and the field's name; a read that would pass the end issues
// message 543 naming the field and returns kRcShortRead, and the caller passes the code up.
//
// Integers are read in two ways:
//  - u16/u32/u64: in the sender's byte order, the buffer left as it is (name lengths, values);
//  - fix16/fix32/fix64: put into the machine's order in place, then read. A message printer
//    swaps the fields that later code reads straight from the buffer (versions, counts, the
//    cached schema) so that every reader after it sees machine order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/catalog.h"

// The last field that could not be read on this thread (null field when none since the last
// clear), kept for renderings that name it in their output.
struct ReadFailure {
  const char* field = nullptr;
  uintptr_t at = 0;     // address where the read began (its offset from the message start follows)
  uintptr_t start = 0;  // the reader's own bytes: inside the message, or a cached copy (a schema)
};
ReadFailure& lastReadFailure();

class MsgReader {
 public:
  MsgReader() = default;
  MsgReader(uint8_t* data, size_t size, bool swap) : data_(data), size_(size), swap_(swap) {}

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  // True when the sender's byte order differs from the machine's.
  bool swapped() const { return swap_; }
  bool has(size_t at, size_t n) const { return at <= size_ && n <= size_ - at; }

  // A reader over n bytes at `at` (same byte order), or an error when they are not all there.
  int32_t sub(size_t at, size_t n, MsgReader& out, const char* field) const {
    if (!has(at, n)) return shortRead(at, n, field);
    out = MsgReader(data_ + at, n, swap_);
    return 0;
  }
  // A reader from `at` to the end.
  MsgReader from(size_t at) const {
    return at <= size_ ? MsgReader(data_ + at, size_ - at, swap_) : MsgReader(data_ + size_, 0, swap_);
  }

  int32_t u8(size_t at, uint8_t& v, const char* field) const {
    if (!has(at, 1)) return shortRead(at, 1, field);
    v = data_[at];
    return 0;
  }
  int32_t u16(size_t at, uint16_t& v, const char* field) const { return get(at, v, field); }
  int32_t u32(size_t at, uint32_t& v, const char* field) const { return get(at, v, field); }
  int32_t u64(size_t at, uint64_t& v, const char* field) const { return get(at, v, field); }
  int32_t i16(size_t at, int16_t& v, const char* field) const { return get(at, v, field); }
  int32_t i32(size_t at, int32_t& v, const char* field) const { return get(at, v, field); }
  int32_t i64(size_t at, int64_t& v, const char* field) const { return get(at, v, field); }

  // Reads in the machine's order (a field an earlier printer already swapped in place).
  template <typename T>
  int32_t machine(size_t at, T& v, const char* field) const {
    if (!has(at, sizeof(T))) return shortRead(at, sizeof(T), field);
    std::memcpy(&v, data_ + at, sizeof(T));
    return 0;
  }

  // Swaps the field into the machine's order in place (when the sender's order differs), then reads it.
  int32_t fix16(size_t at, uint16_t& v, const char* field) { return fix(at, v, field); }
  int32_t fix32(size_t at, uint32_t& v, const char* field) { return fix(at, v, field); }
  int32_t fix64(size_t at, uint64_t& v, const char* field) { return fix(at, v, field); }
  int32_t fix16(size_t at, const char* field) { uint16_t v = 0; return fix(at, v, field); }
  int32_t fix32(size_t at, const char* field) { uint32_t v = 0; return fix(at, v, field); }
  int32_t fix64(size_t at, const char* field) { uint64_t v = 0; return fix(at, v, field); }

  // n bytes at `at`.
  int32_t bytes(size_t at, size_t n, const uint8_t*& p, const char* field) const {
    if (!has(at, n)) return shortRead(at, n, field);
    p = data_ + at;
    return 0;
  }

  // A name field: a u16 byte count in the sender's order at `at`, then the characters, all
  // inside `room` bytes (the field's fixed width, length word included). A count larger than
  // its room or than what is left of the message is refused.
  int32_t name(size_t at, size_t room, const uint8_t*& p, uint16_t& len, const char* field) const {
    int32_t rc = u16(at, len, field);
    if (rc != 0) return rc;
    size_t avail = room >= 2 ? room - 2 : 0;
    if (len > avail) return tooLong(at, len, avail, field);
    return bytes(at + 2, len, p, field);
  }

  // Reports a field that cannot be read: message 543 with the size wanted and the read's name.
  int32_t shortRead(size_t at, size_t n, const char* field) const;
  // Reports a name whose count passes its room.
  int32_t tooLong(size_t at, size_t len, size_t room, const char* field) const;

 private:
  // Keeps the field as this thread's last failure.
  void fail(size_t at, const char* field) const;

  template <typename T>
  static T bswap(T v) {
    if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
    else if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
    else return static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
  }
  template <typename T>
  int32_t get(size_t at, T& v, const char* field) const {
    if (!has(at, sizeof(T))) return shortRead(at, sizeof(T), field);
    std::memcpy(&v, data_ + at, sizeof(T));
    if (swap_) v = bswap(v);
    return 0;
  }
  template <typename T>
  int32_t fix(size_t at, T& v, const char* field) {
    int32_t rc = get(at, v, field);
    if (rc == 0 && swap_) std::memcpy(data_ + at, &v, sizeof(T));
    return rc;
  }

  uint8_t* data_ = nullptr;
  size_t size_ = 0;
  bool swap_ = false;
};

// A cursor over a reader that keeps its first failure: after a read fails (and is reported)
// every later read yields zero without a further report, so a printer reads its fields in
// wire order and checks once: `uint32_t s = c.fix32(60, "qX.seconds"); ... if (!c) return c.rc();`.
// `fix*` swaps the field into machine order in place in the same call as the read, so the swap
// list and the read list of a message are one list.
class Cursor {
 public:
  explicit Cursor(MsgReader& r) : r_(r) {}
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  explicit operator bool() const { return rc_ == 0; }
  int32_t rc() const { return rc_; }
  MsgReader& reader() { return r_; }
  // Takes the result of a read made elsewhere (a conversion, a sub-reader), keeping the first.
  bool take(int32_t rc) {
    if (rc_ == 0) rc_ = rc;
    return rc_ == 0;
  }

  uint8_t u8(size_t at, const char* field) { return read(&MsgReader::u8, at, field); }
  uint16_t u16(size_t at, const char* field) { return read(&MsgReader::u16, at, field); }
  uint32_t u32(size_t at, const char* field) { return read(&MsgReader::u32, at, field); }
  uint64_t u64(size_t at, const char* field) { return read(&MsgReader::u64, at, field); }
  int16_t i16(size_t at, const char* field) { return read(&MsgReader::i16, at, field); }
  int32_t i32(size_t at, const char* field) { return read(&MsgReader::i32, at, field); }
  int64_t i64(size_t at, const char* field) { return read(&MsgReader::i64, at, field); }
  template <typename T>
  T machine(size_t at, const char* field) {
    T v{};
    if (rc_ == 0) rc_ = r_.machine(at, v, field);
    return rc_ == 0 ? v : T{};
  }
  uint16_t fix16(size_t at, const char* field) { return fixed(&MsgReader::fix16, at, field); }
  uint32_t fix32(size_t at, const char* field) { return fixed(&MsgReader::fix32, at, field); }
  uint64_t fix64(size_t at, const char* field) { return fixed(&MsgReader::fix64, at, field); }
  const uint8_t* bytes(size_t at, size_t n, const char* field) {
    const uint8_t* p = nullptr;
    if (rc_ == 0) rc_ = r_.bytes(at, n, p, field);
    return rc_ == 0 ? p : nullptr;
  }
  // A name field (MsgReader::name): its characters, and their count in `len` (0 after a failure).
  const uint8_t* name(size_t at, size_t room, uint16_t& len, const char* field) {
    const uint8_t* p = nullptr;
    if (rc_ == 0) rc_ = r_.name(at, room, p, len, field);
    if (rc_ != 0) len = 0;
    return rc_ == 0 ? p : nullptr;
  }

 private:
  template <typename T>
  T read(int32_t (MsgReader::*get)(size_t, T&, const char*) const, size_t at, const char* field) {
    T v{};
    if (rc_ == 0) rc_ = (r_.*get)(at, v, field);
    return rc_ == 0 ? v : T{};
  }
  template <typename T>
  T fixed(int32_t (MsgReader::*get)(size_t, T&, const char*), size_t at, const char* field) {
    T v{};
    if (rc_ == 0) rc_ = (r_.*get)(at, v, field);
    return rc_ == 0 ? v : T{};
  }

  MsgReader& r_;
  int32_t rc_ = 0;
};
