// Conversion of character fields for the printers.
#include "qmsg/msg.h"

int32_t convertText(const QMsg& m, const uint8_t* p, size_t n, ConvText& out, const char* step,
                    const char* function, const char* label, int32_t ccsid) {
  if (!m.converting()) {
    out.borrow(p, n);
    return 0;
  }
  int32_t src = ccsid == -1 ? m.enc->msgCcsid : ccsid;
  if (ConvMgr::ckcpcv(src, m.enc->outCcsid, m.enc->flags) != kRcConvNeeded) {
    out.borrow(p, n);
    return 0;
  }
  const char* s = reinterpret_cast<const char*>(p);
  int32_t produced = 0;
  // UTF-16 to UTF-8, the commonest conversion of GRAPHIC values, needs no converter at all.
  size_t direct = 0;
  if ((src == kCcsidUtf16 || src == kCcsidUtf16Alt) && m.enc->outCcsid == kCcsidUtf8 &&
      n / 2 * 3 <= ConvText::kInlineRoom &&
      ConvMgr::utf16ToUtf8(s, n, (m.enc->flags & kEncLowByteFirst) != 0, out.inlineRoom(),
                           ConvText::kInlineRoom, direct)) {
    out.useInline(static_cast<int>(direct));
    return 0;
  }
  // A short text goes into the object's own room when even the widest output (four bytes
  // for each character and the converter's margin, blank padding of a pure double-byte
  // target, the zero) fits; anything longer into a buffer the manager allocates.
  if ((n + 12) * 4 + n / 2 * 3 + 4 <= ConvText::kInlineRoom) {
    char* room = out.inlineRoom();
    char* t = room;
    int32_t rc = m.cm->lookupAddConv(src, &s, s + n, m.enc->outCcsid, &t, room + ConvText::kInlineRoom,
                                     m.enc->flags, false, false, &produced);
    if (rc == 0) {
      out.useInline(produced);
      return 0;
    }
    if (rc != kRcConvOverflow) {
      reportFailuref(step, function, rc, "Cannot convert %s", label);
      return rc;
    }
    s = reinterpret_cast<const char*>(p);  // too long after all: the allocating way below
  }
  char* target = nullptr;
  int32_t rc = m.cm->lookupAddConv(src, &s, s + n, m.enc->outCcsid, &target, nullptr,
                                   m.enc->flags, false, false, &produced);
  if (rc != 0) {
    std::free(target);
    reportFailuref(step, function, rc, "Cannot convert %s", label);
    return rc;
  }
  out.own(target, target, produced);
  return 0;
}

int32_t readName(const QMsg& m, size_t at, size_t room, ConvText& out, const char* field,
                 const char* step, const char* function, const char* label) {
  const uint8_t* p = nullptr;
  uint16_t len = 0;
  int32_t rc = m.r.name(at, room, p, len, field);
  if (rc != 0) return rc;
  return convertText(m, p, len, out, step, function, label);
}

int32_t readNameInRoom(const QMsg& m, size_t at, size_t room, ConvText& out, const char* field,
                       const char* step, const char* label) {
  const uint8_t* p = nullptr;
  uint16_t len = 0;
  // Only the count and the characters need be present: the room after them may be cut off
  // when the name ends the message.
  int32_t rc = m.r.name(at, room, p, len, field);
  if (rc != 0) return rc;
  if (len == 0) {
    out.borrow(p, 0);
    return 0;
  }
  return convertText(m, p, len, out, step, "ConvMgr::cpcvl", label);
}
