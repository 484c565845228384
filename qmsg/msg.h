// One compact message being printed: its bytes, the output stream and the conversion context.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "qmsg/reader.h"
#include "runtime/conv.h"

struct QMsg {
  QMsg(uint8_t* data, size_t size, FILE* out, encodingInfo* enc, ConvMgr* cm)
      : r(data, size, enc != nullptr && cm != nullptr && !(enc->flags & kEncMachineOrder)),
        out(out), enc(enc), cm(cm) {}

  MsgReader r;         // the whole message, header included
  FILE* out;           // where the printed lines go
  encodingInfo* enc;   // null: nothing is swapped or converted
  ConvMgr* cm;

  // True when the message's integers are in the other byte order and must be swapped.
  bool swap() const { return r.swapped(); }
  // True when text fields go through the conversion manager.
  bool converting() const { return enc != nullptr && cm != nullptr; }

  // The layout version (header bytes 6-7), swapped into machine order in place on first use,
  // so that every printer of the message sees the same value however often it asks.
  int32_t version(uint16_t& v) {
    if (!versionFixed_) {
      int32_t rc = r.fix16(6, version_, "qMsgHeader.msgVersion");
      if (rc != 0) return rc;
      versionFixed_ = true;
    }
    v = version_;
    return 0;
  }

 private:
  uint16_t version_ = 0;
  bool versionFixed_ = false;
};

// Text of a character field after conversion: either the message's own bytes or a buffer the
// conversion manager allocated, released with the object.
class ConvText {
 public:
  ConvText() = default;
  ConvText(const ConvText&) = delete;
  ConvText& operator=(const ConvText&) = delete;
  ~ConvText() { std::free(owned_); }

  const char* data() const { return data_; }
  int size() const { return size_; }

  void borrow(const uint8_t* p, size_t n) {
    reset();
    data_ = reinterpret_cast<const char*>(p);
    size_ = static_cast<int>(n);
  }
  void own(char* buffer, const char* p, int n) {
    reset();
    owned_ = buffer;
    data_ = p;
    size_ = n;
  }
  void reset() {
    std::free(owned_);
    owned_ = nullptr;
    data_ = "";
    size_ = 0;
  }

  // Room inside the object for a short converted text, so that names and most values are
  // converted without an allocation.
  static constexpr size_t kInlineRoom = 512;
  char* inlineRoom() { return inline_; }
  void useInline(int n) {
    reset();
    data_ = inline_;
    size_ = n;
  }

 private:
  char inline_[kInlineRoom];
  char* owned_ = nullptr;
  const char* data_ = "";
  int size_ = 0;
};

// Converts n bytes at p from `ccsid` (the message's CCSID when -1) to the output CCSID when
// the conversion check asks for it, else borrows the bytes as they stand. Without a
// conversion context nothing is converted. A failure is reported with `step` as the failed
// step, `function` ("ConvMgr::cpcvc" or "ConvMgr::cpcvl") and "Cannot convert <label>", and
// its code returned.
int32_t convertText(const QMsg& m, const uint8_t* p, size_t n, ConvText& out, const char* step,
                    const char* function, const char* label, int32_t ccsid = -1);

// Reads a name field (u16 count in the sender's order, then the characters inside `room`
// bytes) and converts it as convertText does.
int32_t readName(const QMsg& m, size_t at, size_t room, ConvText& out, const char* field,
                 const char* step, const char* function, const char* label);

// A name field in its fixed room (a count larger than the room is refused), read and converted
// with "ConvMgr::cpcvl"; an empty name is left as it is. Only the count and the characters must
// lie in the message: a message may end right after the last name's characters.
int32_t readNameInRoom(const QMsg& m, size_t at, size_t room, ConvText& out, const char* field,
                       const char* step, const char* label);
