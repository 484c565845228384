// Transaction messages: the transaction header (type 128), the streamed transaction header
// (type 130), the batched transaction header a row may carry, and the generic transaction
// information block of the schema and control messages.
#include <cinttypes>
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/row.h"
#include "qmsg/trans.h"
#include "runtime/trace.h"

namespace {

// Prints "<label>%.*s\n" for a counted text once converted, when it holds anything.
int32_t printIdentity(QMsg& m, size_t at, size_t room, const char* field, const char* step,
                      const char* label, const char* format) {
  ConvText text;
  int32_t rc = readName(m, at, room, text, field, step, "ConvMgr::cpcvl", label);
  if (rc != 0) return rc;
  if (text.size() > 0) std::fprintf(m.out, format, text.size(), text.data());
  return 0;
}

// Unit-of-work bytes whose count was read already: the hex-pair form in `area` characters.
int32_t formatUow(const MsgReader& r, size_t at, uint16_t len, size_t room, size_t area,
                  std::string& out, const char* field) {
  if (len > room) return r.tooLong(at, len, room, field);
  const uint8_t* p = nullptr;
  int32_t rc = r.bytes(at, len, p, field);
  if (rc == 0) out = formatHexPairs(p, len, area);
  return rc;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// qGenericTransInfo
//
//   0                    24        28       32     36    38      40         52        84      116   128
//   +--------------------+---------+--------+------+-----+-------+----------+---------+-------+-----+
//   | log position record| seconds | micros | u32  |flags| uowLen| uow (12) | auth_id | tkn   | plan|
//   +--------------------+---------+--------+------+-----+-------+----------+---------+-------+-----+

int32_t fixGenericTransInfo(QMsg& m, size_t at) {
  int32_t rc = fixLsnRecord(m.r, at, "qGenericTransInfo.commit_LSN");
  if (rc == 0) rc = m.r.fix32(at + 24, "qGenericTransInfo.commit_time");
  if (rc == 0) rc = m.r.fix32(at + 28, "qGenericTransInfo.commit_time microseconds");
  if (rc == 0) rc = m.r.fix32(at + 32, "qGenericTransInfo.reserved");
  if (rc == 0) rc = m.r.fix16(at + 38, "qGenericTransInfo.uow_id length");
  return rc;
}

int32_t printGenericTransInfo(QMsg& m, size_t at) {
  RPL_TRACE(kCompPrinters, 40);
  uint8_t flags = 0;
  int32_t rc = m.r.u8(at + 36, flags, "qGenericTransInfo.flags");
  if (rc != 0) return rplTrace_.ret(rc);
  if (flags & 1) {
    std::fputs("    qGenericTransInfo:  NO Transaction context.\n", m.out);
    return 0;
  }
  std::string lsn, uow;
  uint32_t seconds = 0, micros = 0;
  uint16_t uowLen = 0;
  rc = formatLsnRecord(m.r, at, true, lsn, "qGenericTransInfo.commit_LSN");
  if (rc == 0) rc = m.r.machine(at + 24, seconds, "qGenericTransInfo.commit_time");
  if (rc == 0) rc = m.r.machine(at + 28, micros, "qGenericTransInfo.commit_time microseconds");
  if (rc == 0) rc = m.r.machine(at + 38, uowLen, "qGenericTransInfo.uow_id length");
  if (rc == 0) rc = formatUow(m.r, at + 40, uowLen, 12, kUowArea, uow, "qGenericTransInfo.uow_id");
  if (rc != 0) return rplTrace_.ret(rc);

  std::fprintf(m.out, "    qGenericTransInfo.commit_LSN:    %s\n", lsn.c_str());
  std::fprintf(m.out, "    qGenericTransInfo.commit_time:   %s UTC\n",
               formatUtc(seconds, static_cast<int32_t>(micros)).c_str());
  std::fprintf(m.out, "    qGenericTransInfo.commit_time:   %s LOCALTIME\n",
               formatLocal(seconds, static_cast<int32_t>(micros)).c_str());
  std::fprintf(m.out, "    qGenericTransInfo.uow_id:        %s\n", uow.c_str());
  const char* step = "qGenericTransInfo::printMe";
  rc = printIdentity(m, at + 52, 32, "qGenericTransInfo.auth_id", step, "auth_id",
                     "    qGenericTransInfo.auth_id:       %.*s\n");
  if (rc == 0)
    rc = printIdentity(m, at + 84, 32, "qGenericTransInfo.auth_tkn", step, "auth_tkn",
                       "    qGenericTransInfo.auth_tkn:      %.*s\n");
  if (rc == 0)
    rc = printIdentity(m, at + 116, 12, "qGenericTransInfo.plan_id", step, "plan_id",
                       "    qGenericTransInfo.plan_id:       %.*s\n");
  return rplTrace_.ret(rc);
}

int32_t printTransMsgHeader(QMsg& m, bool) { return qMsgHeader::printMe(m); }
int32_t printStreamedTransMsgHeader(QMsg& m, bool) { return qMsgHeader::printMe(m); }
