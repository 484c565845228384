// Descriptor print ("-kxmd", "-msghdr") and the KXHRF2 header-folder walk.
#include "driver/printers.h"

#include <cstdlib>
#include <cstring>

#include "qmsg/reader.h"
#include "runtime/catalog.h"
#include "runtime/trace.h"

namespace {

constexpr int kFnDescriptor = 20;
constexpr int kFnRfh2 = 21;

void printId(FILE* out, const char* label, const KXBYTE* id) {
  char line[96];
  static const char kHex[] = "0123456789abcdef";
  size_t n = static_cast<size_t>(std::snprintf(line, sizeof line, "%s", label));
  for (int i = 0; i < KX_MSG_ID_LENGTH; ++i) {
    line[n++] = kHex[id[i] >> 4];
    line[n++] = kHex[id[i] & 15];
  }
  std::fwrite(line, 1, n, out);
}

}  // namespace

bool littleEndianEncoding(int32_t encoding) {
  return encoding == KXENC_LITTLE_ENDIAN || (encoding & KXENC_INTEGER_MASK) == KXENC_INTEGER_REVERSED;
}

void printDescriptor(const KXMD& md, FILE* out, int32_t counter, bool headerOnly) {
  RPL_TRACE(kCompDriver, kFnDescriptor);
  std::fprintf(out, "\n\n**** Descriptor for message number: %d\n", counter + 1);
  if (headerOnly) {
    printId(out, "    MsgId           ", md.MsgId);
    printId(out, "\n    CorrelId        ", md.CorrelId);
    std::fputc('\n', out);
    return;
  }
  std::fprintf(out, "    StrucId         %.4s \n", md.StrucId);
  printId(out, "    MsgId           ", md.MsgId);
  printId(out, "\n    CorrelId        ", md.CorrelId);
  std::fputs("\n\n", out);
  std::fprintf(out,
               "    Version         %d \n"
               "    Report          %d \n"
               "    MsgType         %d \n"
               "    Expiry          %d \n"
               "    Feedback        %d \n"
               "    Encoding        %d \n"
               "    CodedCharSetId  %d \n"
               "    Format          %.8s \n"
               "    Priority        %d \n"
               "    Persistence     %d \n"
               "\n",
               md.Version, md.Report, md.MsgType, md.Expiry, md.Feedback, md.Encoding,
               md.CodedCharSetId, md.Format, md.Priority, md.Persistence);
}

int32_t processRFH2(const uint8_t* data, size_t length, const encodingInfo& enc, ConvMgr& cm,
                    FILE* out, size_t* bodyOffset) {
  RPL_TRACE(kCompDriver, kFnRfh2);
  // Read only: the reader's in-place swaps are not used here.
  MsgReader r(const_cast<uint8_t*>(data), length, (enc.flags & kEncMachineOrder) == 0);
  uint32_t strucLength = 0;
  int32_t rc = r.u32(kRfh2StrucLengthAt, strucLength, "KXHRF2 StrucLength");
  if (rc != 0) return rplTrace_.ret(rc);
  if (strucLength > length) return rplTrace_.ret(r.shortRead(0, strucLength, "KXHRF2 StrucLength"));
  *bodyOffset = strucLength;
  if (strucLength <= kRfh2FoldersAt) return rplTrace_.ret(0);

  const int32_t src = enc.msgCcsid;
  const int32_t tgt = enc.outCcsid;
  const bool convert = ConvMgr::ckcpcv(src, tgt, enc.flags) == kRcConvNeeded;
  uint64_t at = kRfh2FoldersAt;
  int32_t folder = 0;
  while (at < strucLength) {
    ++folder;
    uint32_t nameValueLength = 0;
    rc = r.u32(static_cast<size_t>(at), nameValueLength, "KXHRF2 NameValueLength");
    if (rc != 0) return rplTrace_.ret(rc);
    const size_t textAt = static_cast<size_t>(at) + 4;
    const size_t left = length - textAt;  // u32 above proved textAt <= length
    const int16_t declared = static_cast<int16_t>(nameValueLength & 0xFFFF);
    size_t textLen;
    if (declared < 0) {
      // Measured to the first zero byte, never past the data.
      const void* zero = std::memchr(data + textAt, 0, left);
      textLen = zero != nullptr ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - (data + textAt)) : left;
    } else {
      textLen = static_cast<size_t>(declared);
      if (textLen > left) return rplTrace_.ret(r.shortRead(textAt, textLen, "KXHRF2 NameValueData"));
    }
    const char* text = reinterpret_cast<const char*>(data + textAt);
    char* converted = nullptr;
    if (convert) {
      const char* s = text;
      int32_t produced = 0;
      rc = cm.lookupAddConv(src, &s, text + textLen, tgt, &converted, nullptr, enc.encoding(),
                            false, false, &produced);
      if (rc != 0) {
        std::free(converted);
        reportFailure("ConvMgr::cpcvc", "ConvMgr::cpcv", rc, "do conversion");
        reportFailuref("rplqmfmt:processRFH2", "ConvMgr::cpcvc", rc, "Cannot convert NameValueData(%d)", folder);
        return rplTrace_.ret(rc);
      }
      text = converted;
      textLen = static_cast<size_t>(produced);
    }
    // The folder's name: the three characters after the text's first one ("<mcd>..." gives mcd).
    const int nameLen = textLen > 1 ? static_cast<int>(textLen - 1 < 3 ? textLen - 1 : 3) : 0;
    std::fprintf(out, "    %.*s Folder : %.*s\n", nameLen, textLen > 1 ? text + 1 : "",
                 static_cast<int>(textLen), text);
    std::free(converted);
    at = textAt + static_cast<uint64_t>(nameValueLength);
  }
  return rplTrace_.ret(0);
}
