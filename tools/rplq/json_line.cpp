// One message as one JSON line (see json_line.h).
#include "tools/rplq/json_line.h"

#include <unicode/ucnv.h>

#include <cstring>
#include <ctime>

#include "driver/printers.h"
#include "qmsg/json.h"
#include "tools/rplq/options.h"

namespace rplq {

namespace {

constexpr int32_t kCcsidUtf8 = 1208;

bool formatIs(const KXMD& md, const char* name) { return std::memcmp(md.Format, name, 8) == 0; }

// The put time as isoTime writes it ("YYYY-MM-DDTHH:MM:SS.uuuuuuZ"), put together in place:
// it is written for every message.
void putTime(JsonOut& o, Micros at) {
  const time_t seconds = static_cast<time_t>(at >= 0 ? at / 1000000 : (at - 999999) / 1000000);
  const int64_t micros = at - int64_t(seconds) * 1000000;
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  const int year = tm.tm_year + 1900;
  if (year < 0 || year > 9999 || micros < 0 || micros > 999999) {
    o.str("put_time", isoTime(at));
    return;
  }
  char text[32];
  char* d = text;
  auto put = [&d](int64_t v, int count, char after) {
    for (int k = count; k-- > 0;) {
      d[k] = static_cast<char>('0' + v % 10);
      v /= 10;
    }
    d += count;
    *d++ = after;
  };
  put(year, 4, '-');
  put(tm.tm_mon + 1, 2, '-');
  put(tm.tm_mday, 2, 'T');
  put(tm.tm_hour, 2, ':');
  put(tm.tm_min, 2, ':');
  put(tm.tm_sec, 2, '.');
  put(micros, 6, 'Z');
  o.str("put_time", std::string_view(text, static_cast<size_t>(d - text)));
}

void descriptor(JsonOut& o, const KXMD& md, int64_t position, size_t length) {
  o.beginObject("kxmd");
  o.num("position", position);
  o.hex("msgid", md.MsgId, sizeof md.MsgId);
  o.hex("correlid", md.CorrelId, sizeof md.CorrelId);
  Micros at = 0;
  if (putTimeOf(md, at))
    putTime(o, at);
  else
    o.null("put_time");
  // The format name without its padding, as the queue manager's text (UTF-8) stands.
  size_t format = sizeof md.Format;
  while (format > 0 && (md.Format[format - 1] == ' ' || md.Format[format - 1] == '\0')) --format;
  o.str("format", std::string_view(md.Format, format));
  o.num("ccsid", md.CodedCharSetId);
  o.num("encoding", md.Encoding);
  o.unum("length", length);
  o.endObject();
}

// The header folders of a KXHRF2 message as strings; `body` is where the document begins.
// False when the folders run past the message (what was read is kept).
bool rfh2Folders(JsonOut& o, const KXMD& md, const uint8_t* data, size_t length, size_t& body) {
  const bool little = littleEndianEncoding(md.Encoding);
  auto u32 = [&](size_t at, uint32_t& v) {
    if (at + 4 > length) return false;
    const uint8_t* p = data + at;
    v = little ? uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24
               : uint32_t(p[3]) | uint32_t(p[2]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[0]) << 24;
    return true;
  };
  body = length;
  uint32_t strucLength = 0;
  o.beginArray("folders");
  if (!u32(kRfh2StrucLengthAt, strucLength) || strucLength > length) {
    o.endArray();
    return false;
  }
  body = strucLength;
  size_t at = kRfh2FoldersAt;
  while (at < strucLength) {
    uint32_t nameValueLength = 0;
    if (!u32(at, nameValueLength) || at + 4 + nameValueLength > strucLength) {
      o.endArray();
      return false;
    }
    const uint8_t* text = data + at + 4;
    size_t n = nameValueLength;
    while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == 0)) --n;
    o.str(nullptr, textToUtf8(text, n, md.CodedCharSetId));
    at += 4 + nameValueLength;
  }
  o.endArray();
  return true;
}

}  // namespace

std::string textToUtf8(const uint8_t* data, size_t length, int32_t ccsid) {
  const char* p = reinterpret_cast<const char*>(data);
  if (ccsid == 0 || ccsid == kCcsidUtf8 || length == 0) return std::string(p, length);
  UErrorCode status = U_ZERO_ERROR;
  UConverter* from = ucnv_openCCSID(ccsid, UCNV_IBM, &status);
  if (U_FAILURE(status)) return std::string(p, length);  // the rendering marks invalid UTF-8
  std::string out(length * 3 + 4, '\0');
  status = U_ZERO_ERROR;
  int32_t n = ucnv_toAlgorithmic(UCNV_UTF8, from, out.data(), static_cast<int32_t>(out.size()), p,
                                 static_cast<int32_t>(length), &status);
  ucnv_close(from);
  if (U_FAILURE(status)) return std::string(p, length);
  out.resize(static_cast<size_t>(n));
  return out;
}

int32_t messageJson(const KXMD& md, uint8_t* data, size_t length, int64_t position, ConvMgr& cm,
                    JsonOut& o) {
  o.clear();
  o.beginObject();
  descriptor(o, md, position, length);
  int32_t rc = 0;
  if (formatIs(md, KXFMT_COMPACT) && length > 0) {
    encodingInfo enc;
    enc.setup(md.CodedCharSetId);
    enc.outCcsid = kCcsidUtf8;
    enc.flags = littleEndianEncoding(md.Encoding) ? kEncMachineOrder : 0;
    // The compact message's members join the descriptor's object.
    rc = renderCompactJsonMembers(data, length, enc, cm, o);
    o.endLine();
    return rc;
  }
  if (formatIs(md, KXFMT_STRING) && length > 0 && data[0] == '<') {
    o.str("xml", textToUtf8(data, length, md.CodedCharSetId));
  } else if (formatIs(md, KXFMT_STRING)) {
    o.str("text", textToUtf8(data, length, md.CodedCharSetId));
  } else if (formatIs(md, KXFMT_RFH2)) {
    size_t body = 0;
    bool whole = rfh2Folders(o, md, data, length, body);
    if (!whole) {
      o.beginObject("error");
      o.str("text", "the header folders run past the end of the message");
      o.endObject();
    } else {
      o.str("xml", textToUtf8(data + body, length - body, md.CodedCharSetId));
    }
  } else {
    o.hex("hex", data, length);
  }
  o.endLine();
  return rc;
}

}  // namespace rplq
