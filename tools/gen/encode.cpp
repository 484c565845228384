// Byte-order and code-page aware writes for the compact-message encoder.
#include "tools/gen/encode.h"

#include <unicode/ucnv.h>

#include <cstring>

namespace {

template <typename T>
void put(std::vector<uint8_t>& buf, size_t at, T v, ByteOrder order) {
  if (buf.size() < at + sizeof(T)) buf.resize(at + sizeof(T), 0);
  for (size_t i = 0; i < sizeof(T); ++i) {
    size_t shift = order == ByteOrder::Little ? i : sizeof(T) - 1 - i;
    buf[at + i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * shift));
  }
}

}  // namespace

void MsgWriter::u8(size_t at, uint8_t v) { put(buf_, at, v, order_); }
void MsgWriter::u16(size_t at, uint16_t v) { put(buf_, at, v, order_); }
void MsgWriter::u32(size_t at, uint32_t v) { put(buf_, at, v, order_); }
void MsgWriter::u64(size_t at, uint64_t v) { put(buf_, at, v, order_); }

void MsgWriter::raw(size_t at, const void* p, size_t n) {
  resize(at + n);
  if (n > 0) std::memcpy(buf_.data() + at, p, n);
}

size_t MsgWriter::append(const void* p, size_t n) {
  size_t at = buf_.size();
  raw(at, p, n);
  return at;
}

std::string MsgWriter::encodeText(std::string_view utf8) const { return encodeText(utf8, ccsid_); }

std::string MsgWriter::encodeText(std::string_view utf8, int32_t ccsid) {
  if (ccsid == 1208 || ccsid == 0 || utf8.empty()) return std::string(utf8);
  UErrorCode err = U_ZERO_ERROR;
  UConverter* cnv = ucnv_openCCSID(ccsid, UCNV_IBM, &err);
  if (U_FAILURE(err)) return std::string(utf8);
  UConverter* from = ucnv_open("UTF-8", &err);
  std::string out(utf8.size() * 4 + 16, '\0');
  char* target = out.data();
  const char* source = utf8.data();
  ucnv_convertEx(cnv, from, &target, out.data() + out.size(), &source, utf8.data() + utf8.size(),
                 nullptr, nullptr, nullptr, nullptr, true, true, &err);
  out.resize(U_SUCCESS(err) ? static_cast<size_t>(target - out.data()) : 0);
  ucnv_close(from);
  ucnv_close(cnv);
  return out;
}

void MsgWriter::name(size_t at, std::string_view utf8, size_t room) {
  std::string text = encodeText(utf8);
  size_t max = room >= 2 ? room - 2 : 0;
  if (text.size() > max) text.resize(max);
  u16(at, static_cast<uint16_t>(text.size()));
  raw(at + 2, text);
  resize(at + room);
}

void MsgWriter::fixedText(size_t at, std::string_view utf8, size_t width) {
  std::string text = encodeText(utf8);
  std::string blank = encodeText(" ");
  while (text.size() < width) text += blank.empty() ? std::string(" ") : blank;
  text.resize(width);
  raw(at, text);
}

void MsgWriter::header(uint8_t type, uint8_t flag, uint16_t version, std::string_view family) {
  std::string f = encodeText(family);
  f.resize(4, ' ');
  raw(0, f);
  u8(4, type);
  u8(5, flag);
  u16(6, version);
}
