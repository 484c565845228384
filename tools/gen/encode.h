// The compact-message encoder of the traffic generator: writes message bytes at fixed offsets
// in either byte order, with text in any code page. Each family adds its builders in its own
// encode_<family>.cpp beside this one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class ByteOrder { Little, Big };

// Descriptor Encoding value for a sender of this byte order (546 little-endian, 273 big-endian).
constexpr int32_t descriptorEncoding(ByteOrder o) { return o == ByteOrder::Little ? 546 : 273; }

class MsgWriter {
 public:
  // `ccsid` is the sender's code page: text given in UTF-8 is converted to it (1208 leaves it).
  explicit MsgWriter(ByteOrder order = ByteOrder::Little, int32_t ccsid = 1208)
      : order_(order), ccsid_(ccsid) {}

  ByteOrder order() const { return order_; }
  int32_t ccsid() const { return ccsid_; }
  std::vector<uint8_t>& bytes() { return buf_; }
  const std::vector<uint8_t>& bytes() const { return buf_; }
  size_t size() const { return buf_.size(); }
  // Grows the message with zero bytes to at least n bytes.
  void resize(size_t n) { if (buf_.size() < n) buf_.resize(n, 0); }

  // Integers at fixed offsets, in the writer's byte order (the message grows as needed).
  void u8(size_t at, uint8_t v);
  void u16(size_t at, uint16_t v);
  void u32(size_t at, uint32_t v);
  void u64(size_t at, uint64_t v);
  void raw(size_t at, const void* p, size_t n);
  void raw(size_t at, std::string_view bytes) { raw(at, bytes.data(), bytes.size()); }

  // UTF-8 text converted to the sender's code page.
  std::string encodeText(std::string_view utf8) const;
  // Text converted to another code page (for values of columns with their own code page).
  static std::string encodeText(std::string_view utf8, int32_t ccsid);
  // A name field: u16 byte count then the converted characters, inside `room` bytes (count
  // included); text longer than the room is cut.
  void name(size_t at, std::string_view utf8, size_t room);
  // Converted characters without a count, padded with the code page's blanks to `width`.
  void fixedText(size_t at, std::string_view utf8, size_t width);

  // The common 8-byte header: family (converted), type, flag or DDL sub-type, version.
  void header(uint8_t type, uint8_t flag, uint16_t version, std::string_view family = "KXRP");

  // Appends at the end and returns the offset written at.
  size_t append(const void* p, size_t n);
  size_t appendU16(uint16_t v) { size_t at = buf_.size(); u16(at, v); return at; }
  size_t appendU32(uint32_t v) { size_t at = buf_.size(); u32(at, v); return at; }
  // Pads the end with zeros to a multiple of `n`.
  void alignTo(size_t n) { resize((buf_.size() + n - 1) / n * n); }

 private:
  ByteOrder order_;
  int32_t ccsid_;
  std::vector<uint8_t> buf_;
};
