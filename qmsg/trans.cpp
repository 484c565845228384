// Transaction messages: the transaction header (type 128), the streamed transaction header
// (type 130), the batched transaction header a row may carry, and the generic transaction
// information block of the schema and control messages.
#include <cinttypes>
#include <string>

#include "qmsg/emit.h"
#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/header.h"
#include "qmsg/row.h"
#include "qmsg/scan.h"
#include "qmsg/schema.h"
#include "qmsg/sink.h"
#include "qmsg/trans.h"
#include "runtime/trace.h"

namespace {

// Prints "<label>%.*s\n" for a counted text once converted, when it holds anything.
template <class O>
int32_t printIdentity(QMsg& m, O& o, size_t at, size_t room, const char* field, const char* step,
                      const char* label, const char* format) {
  ConvText text;
  int32_t rc = readName(m, at, room, text, field, step, "ConvMgr::cpcvl", label);
  if (rc != 0) return rc;
  if (text.size() > 0) o.field(label, text, format);
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

template <class O>
int32_t printGenericTransInfo(QMsg& m, O& o, size_t at) {
  RPL_TRACE(kCompPrinters, 40);
  uint8_t flags = 0;
  int32_t rc = m.r.u8(at + 36, flags, "qGenericTransInfo.flags");
  if (rc != 0) return rplTrace_.ret(rc);
  if (flags & 1) {
    o.show("transInfo", SqlNull{}, "    qGenericTransInfo:  NO Transaction context.\n");
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

  const int32_t us = static_cast<int32_t>(micros);
  o.beginGroup("transInfo");
  o.field("commit_LSN", lsn, "    qGenericTransInfo.commit_LSN:    %s\n");
  o.show("commit_time", UtcTime{seconds, us}, "    qGenericTransInfo.commit_time:   %s UTC\n", formatUtc(seconds, us).c_str());
  o.text("    qGenericTransInfo.commit_time:   %s LOCALTIME\n", formatLocal(seconds, us).c_str());
  const uint8_t* uowBytes = nullptr;
  m.r.bytes(at + 40, uowLen, uowBytes, "qGenericTransInfo.uow_id");
  o.show("uow_id", HexBytes{uowBytes, uowLen}, "    qGenericTransInfo.uow_id:        %s\n", uow.c_str());
  const char* step = "qGenericTransInfo::printMe";
  rc = printIdentity(m, o, at + 52, 32, "qGenericTransInfo.auth_id", step, "auth_id",
                     "    qGenericTransInfo.auth_id:       %.*s\n");
  if (rc == 0)
    rc = printIdentity(m, o, at + 84, 32, "qGenericTransInfo.auth_tkn", step, "auth_tkn",
                       "    qGenericTransInfo.auth_tkn:      %.*s\n");
  if (rc == 0)
    rc = printIdentity(m, o, at + 116, 12, "qGenericTransInfo.plan_id", step, "plan_id",
                       "    qGenericTransInfo.plan_id:       %.*s\n");
  if (rc == 0) o.endGroup();
  return rplTrace_.ret(rc);
}

template int32_t printGenericTransInfo(QMsg&, TextSink&, size_t);
template int32_t printGenericTransInfo(QMsg&, JsonSink&, size_t);
template int32_t printGenericTransInfo(QMsg&, SchemaNamesSink&, size_t);

int32_t printGenericTransInfo(QMsg& m, size_t at) {
  TextSink o(m.out);
  return printGenericTransInfo(m, o, at);
}

// ---------------------------------------------------------------------------------------------
// qTransMsgHeader (type 128)
//
//   8 segment_num  10 commit_LSN (10 bytes, below v6)  20 commit_time  24 micros  28 nRows
//   32 auth_id (32, v2)  64 auth_tkn (32)  96 plan_id (10)  106 uow_id (10)  116 rows (v2-5)
//   118 uow_id length (v8)  120 commit_LSN record (24, v6)  144 source local time (v7)
//   148 numPartitionNo (v7)  152 rows (v7)

namespace {

constexpr const char* kTransStep = "qTransMsgHeader::printMe";
constexpr const char* kStreamedStep = "qStreamedTransMsgHeader::printMe";

template <class O>
int32_t headerLines(QMsg& m, O& o, const char* step) {
  int32_t rc = printHeaderLines(m, o, true);
  if (rc != 0) reportFailure(step, "qMsgHeader::printMe", rc, "Cannot print message header");
  return rc;
}

// The flag lines in the text; the flag byte itself in JSON.
template <class O>
void flagLines(QMsg& m, O& o) {
  if constexpr (O::kJson) {
    uint8_t flag = 0;
    if (m.r.u8(5, flag, "qMsgHeader.msgFlag") == 0) o.hidden("msgFlag", flag);
  } else {
    qMsgHeader::printFlagLines(m);
  }
}

int32_t fixTransMsgHeader(QMsg& m, uint16_t version) {
  int32_t rc = m.r.fix16(8, "qTransMsgHeader.segment_num");
  if (rc == 0) rc = m.r.fix32(20, "qTransMsgHeader.commit_time");
  if (rc == 0) rc = m.r.fix32(24, "qTransMsgHeader.commit_time microseconds");
  if (rc == 0) rc = m.r.fix32(28, "qTransMsgHeader.nRows");
  if (rc == 0 && version >= 6) rc = fixLsnRecord(m.r, 120, "qTransMsgHeader.commit_LSN");
  if (rc == 0 && version >= 7) rc = m.r.fix32(144, "qTransMsgHeader source local commit time");
  if (rc == 0 && version >= 8) rc = m.r.fix16(118, "qTransMsgHeader.uow_id length");
  return rc;
}

}  // namespace

size_t firstTransRow(uint16_t version) {
  return version < 2 ? 32 : version <= 5 ? 116 : version == 6 ? 144 : 152;
}

template <class O>
int32_t printTransMsgHeader(QMsg& m, O& o, bool noPosTime) {
  RPL_TRACE(kCompPrinters, 20);
  uint16_t version = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = headerLines(m, o, kTransStep);
  if (rc != 0) return rplTrace_.ret(rc);

  int32_t nRows = 0;
  if (m.swap()) {
    rc = fixTransMsgHeader(m, version);
    if (rc != 0) return rplTrace_.ret(rc);
    m.r.machine(28, nRows, "qTransMsgHeader.nRows");
    fixTransRows(m.r, firstTransRow(version), nRows, version);
  }
  flagLines(m, o);

  uint16_t segment = 0, numPartitionNo = 0;
  uint32_t seconds = 0, micros = 0, sourceLocal = 0;
  rc = m.r.machine(8, segment, "qTransMsgHeader.segment_num");
  if (rc == 0) rc = m.r.machine(20, seconds, "qTransMsgHeader.commit_time");
  if (rc == 0) rc = m.r.machine(24, micros, "qTransMsgHeader.commit_time microseconds");
  if (rc == 0) rc = m.r.machine(28, nRows, "qTransMsgHeader.nRows");
  if (rc == 0 && version >= 7) rc = m.r.machine(144, sourceLocal, "qTransMsgHeader source local commit time");
  // The partition count is printed as the sender stored it.
  if (rc == 0 && version >= 7) rc = m.r.machine(148, numPartitionNo, "qTransMsgHeader.numPartitionNo");
  std::string lsn;
  if (rc == 0 && !noPosTime) {
    if (version < 6) {
      const uint8_t* p = nullptr;
      rc = m.r.bytes(10, 10, p, "qTransMsgHeader.commit_LSN");
      if (rc == 0) lsn = formatPos10(p);
    } else {
      rc = formatLsnRecord(m.r, 120, true, lsn, "qTransMsgHeader.commit_LSN");
    }
  }
  if (rc != 0) return rplTrace_.ret(rc);

  if constexpr (O::kJson) {
    o.hidden("segment_num", segment);
    if (!noPosTime) {
      o.hidden("commit_LSN", lsn);
      o.hidden("commit_time", UtcTime{seconds, static_cast<int32_t>(micros)});
      if (version >= 7 && sourceLocal != 0) o.hidden("source_local_commit_time", UtcTime{sourceLocal, static_cast<int32_t>(micros)});
    }
    o.hidden("nRows", nRows);
    o.hidden("numPartitionNo", numPartitionNo);
    if (version < 2) return rplTrace_.ret(0);
    ConvText authId, authTkn, planId;
    Cursor c(m.r);
    c.take(readName(m, 32, 32, authId, "qTransMsgHeader.auth_id", kTransStep, "ConvMgr::cpcvl", "auth_id"));
    if (c) c.take(readName(m, 64, 32, authTkn, "qTransMsgHeader.auth_tkn", kTransStep, "ConvMgr::cpcvl", "auth_tkn"));
    if (c) c.take(readName(m, 96, 10, planId, "qTransMsgHeader.plan_id", kTransStep, "ConvMgr::cpcvl", "plan_id"));
    uint16_t uowLen = version >= 8 ? c.machine<uint16_t>(118, "qTransMsgHeader.uow_id length") : 10;
    const uint8_t* uow = nullptr;
    if (c && uowLen > 10) c.take(m.r.tooLong(106, uowLen, 10, "qTransMsgHeader.uow_id"));
    uow = c.bytes(106, uowLen, "qTransMsgHeader.uow_id");
    if (!c) return rplTrace_.ret(c.rc());
    o.hidden("auth_id", authId);
    o.hidden("auth_tkn", authTkn);
    o.hidden("plan_id", planId);
    o.hidden("uow_id", HexBytes{uow, uowLen});
    return rplTrace_.ret(0);
  }
  Emit e(m.out);
  static const char kHex[] = "0123456789abcdef";
  // "%.4x" of the 16-bit segment number: always four digits.
  e.lit("qTransMsgHeader.segment_num: ").ch(kHex[segment >> 12]).ch(kHex[(segment >> 8) & 15]);
  e.ch(kHex[(segment >> 4) & 15]).ch(kHex[segment & 15]).ch('\n');
  if (!noPosTime) {
    int32_t us = static_cast<int32_t>(micros);
    e.lit("qTransMsgHeader.commit_LSN:     ").str(lsn.c_str()).ch('\n');
    e.lit("qTransMsgHeader.commit_time:    ").str(formatUtc(seconds, us).c_str()).lit(" UTC\n");
    if (version >= 7 && sourceLocal != 0)
      e.lit("qTransMsgHeader.commit_time:    ").str(formatUtc(sourceLocal, us).c_str()).lit(" LOCALTIME (source)\n");
    else
      e.lit("qTransMsgHeader.commit_time:    ").str(formatLocal(seconds, us).c_str()).lit(" LOCALTIME\n");
  }
  e.lit("qTransMsgHeader.nRows:          ").num(nRows).ch('\n');
  e.lit("qTransMsgHeader.numPartitionNo: ").num(numPartitionNo).ch('\n');
  if (version < 2) return rplTrace_.ret(0);

  ConvText authId, authTkn, planId;
  rc = readName(m, 32, 32, authId, "qTransMsgHeader.auth_id", kTransStep, "ConvMgr::cpcvl", "auth_id");
  if (rc == 0) rc = readName(m, 64, 32, authTkn, "qTransMsgHeader.auth_tkn", kTransStep, "ConvMgr::cpcvl", "auth_tkn");
  if (rc == 0) rc = readName(m, 96, 10, planId, "qTransMsgHeader.plan_id", kTransStep, "ConvMgr::cpcvl", "plan_id");
  if (rc != 0) return rplTrace_.ret(rc);
  e.lit("qTransMsgHeader.auth_id:       ").text(authId.data(), authId.size()).ch('\n');
  e.lit("qTransMsgHeader.auth_tkn:      ").text(authTkn.data(), authTkn.size()).ch('\n');
  e.lit("qTransMsgHeader.plan_id:       ").text(planId.data(), planId.size()).ch('\n');

  uint16_t uowLen = 10;
  if (version >= 8) rc = m.r.machine(118, uowLen, "qTransMsgHeader.uow_id length");
  std::string uow;
  if (rc == 0) rc = formatUow(m.r, 106, uowLen, 10, kUowAreaTransHeader, uow, "qTransMsgHeader.uow_id");
  if (rc != 0) return rplTrace_.ret(rc);
  e.lit("qTransMsgHeader.uow_id:        ").str(uow.c_str()).ch('\n');
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qStreamedTransMsgHeader (type 130)
//
//   8 transMsgType  9 flags  10 segment_num  12 uowID length  14 uowID (18)  32 LSN record (24)
//   56 trans_time  60 micros  64 reserved  68 auth_id (32)  100 auth_tkn (32)  132 plan_id (12)
//   144 numSingleRowOps  148 numStmtChunkFiles  152 numTotalRowOps  156 numPartitionNo
//   160 rows and statement chunks (numSingleRowOps + numStmtChunkFiles)
//
// segment_num and numPartitionNo are printed as the sender stored them.

namespace {

inline constexpr ValueName kStreamedTransTypes[] = {
    {2, "RPLKX_STREAMED_TRANS_BEGIN"},
    {4, "RPLKX_STREAMED_TRANS_CONTINUE"},
    {8, "RPLKX_STREAMED_TRANS_ABORT"},
    {16, "RPLKX_STREAMED_TRANS_COMMIT"},
};

inline constexpr ValueName kStreamedTransFlags[] = {
    {1, ":IN DOUBT:"},
    {2, ":FORCED ABORT:"},
};

constexpr size_t kFirstStreamedRow = 160;

int32_t fixStreamedTransMsgHeader(QMsg& m) {
  int32_t rc = 0;
  for (size_t at : {56, 60, 64, 144, 148, 152})
    if (rc == 0) rc = m.r.fix32(at, "qStreamedTransMsgHeader counts and times");
  if (rc == 0) rc = m.r.fix16(12, "qStreamedTransMsgHeader.uowID length");
  if (rc == 0) rc = fixLsnRecord(m.r, 32, "qStreamedTransMsgHeader.LSN");
  return rc;
}

}  // namespace

template <class O>
int32_t printStreamedTransMsgHeader(QMsg& m, O& o, bool noPosTime) {
  RPL_TRACE(kCompPrinters, 21);
  uint16_t version = 0;
  int32_t rc = m.version(version);
  if (rc == 0) rc = headerLines(m, o, kStreamedStep);
  if (rc != 0) return rplTrace_.ret(rc);
  uint32_t single = 0, chunks = 0, total = 0, seconds = 0, micros = 0;
  if (m.swap()) {
    rc = fixStreamedTransMsgHeader(m);
    if (rc != 0) return rplTrace_.ret(rc);
    m.r.machine(144, single, "qStreamedTransMsgHeader.numSingleRowOps");
    m.r.machine(148, chunks, "qStreamedTransMsgHeader.numStmtChunkFiles");
    fixTransRows(m.r, kFirstStreamedRow, int64_t{single} + chunks, version);
  }
  flagLines(m, o);

  uint8_t type = 0, flags = 0;
  uint16_t segment = 0, uowLen = 0, numPartitionNo = 0;
  rc = m.r.u8(8, type, "qStreamedTransMsgHeader.transMsgType");
  if (rc == 0) rc = m.r.u8(9, flags, "qStreamedTransMsgHeader.flags");
  if (rc == 0) rc = m.r.machine(10, segment, "qStreamedTransMsgHeader.segment_num");
  if (rc == 0) rc = m.r.machine(12, uowLen, "qStreamedTransMsgHeader.uowID length");
  if (rc == 0) rc = m.r.machine(56, seconds, "qStreamedTransMsgHeader.trans_time");
  if (rc == 0) rc = m.r.machine(60, micros, "qStreamedTransMsgHeader.trans_time microseconds");
  if (rc == 0) rc = m.r.machine(144, single, "qStreamedTransMsgHeader.numSingleRowOps");
  if (rc == 0) rc = m.r.machine(148, chunks, "qStreamedTransMsgHeader.numStmtChunkFiles");
  if (rc == 0) rc = m.r.machine(152, total, "qStreamedTransMsgHeader.numTotalRowOps");
  if (rc == 0) rc = m.r.machine(156, numPartitionNo, "qStreamedTransMsgHeader.numPartitionNo");
  std::string lsn, uow;
  if (rc == 0 && !noPosTime && version >= 6) rc = formatLsnRecord(m.r, 32, true, lsn, "qStreamedTransMsgHeader.LSN");
  if (rc == 0) rc = formatUow(m.r, 14, uowLen, 18, kUowAreaTransHeader, uow, "qStreamedTransMsgHeader.uowID");
  if (rc != 0) return rplTrace_.ret(rc);

  const uint8_t* uowBytes = nullptr;
  m.r.bytes(14, uowLen, uowBytes, "qStreamedTransMsgHeader.uowID");
  o.field("transMsgType", nameOf(kStreamedTransTypes, type, "Unknown"), "qStreamedTransMsgHeader.transMsgType:          %s\n");
  o.field("flags", joinFlags(kStreamedTransFlags, flags), "qStreamedTransMsgHeader.flags:                 %s\n");
  o.field("segment_num", segment, "qStreamedTransMsgHeader.segment_num:           %hu\n");
  if (!noPosTime) {
    int32_t us = static_cast<int32_t>(micros);
    o.field("LSN", lsn, "qStreamedTransMsgHeader.LSN:                   %s\n");
    o.show("trans_time", UtcTime{seconds, us}, "qStreamedTransMsgHeader.trans_time:            %s UTC\n", formatUtc(seconds, us).c_str());
    o.text("qStreamedTransMsgHeader.trans_time:            %s LOCALTIME\n", formatLocal(seconds, us).c_str());
  }
  o.field("numTotalRowOps", total, "qStreamedTransMsgHeader.numTotalRowOps:        %u\n");
  o.field("numSingleRowOps", single, "qStreamedTransMsgHeader.numSingleRowOps:       %u\n");
  o.field("numStmtChunkFiles", chunks, "qStreamedTransMsgHeader.numStmtChunkFiles:     %u\n");

  ConvText authId, authTkn, planId;
  rc = readName(m, 68, 32, authId, "qStreamedTransMsgHeader.auth_id", kStreamedStep, "ConvMgr::cpcvl", "auth_id");
  if (rc == 0) rc = readName(m, 100, 32, authTkn, "qStreamedTransMsgHeader.auth_tkn", kStreamedStep, "ConvMgr::cpcvl", "auth_tkn");
  if (rc == 0) rc = readName(m, 132, 12, planId, "qStreamedTransMsgHeader.plan_id", kStreamedStep, "ConvMgr::cpcvl", "plan_id");
  if (rc != 0) return rplTrace_.ret(rc);
  o.field("auth_id", authId, "qStreamedTransMsgHeader.auth_id:               %.*s\n");
  o.field("auth_tkn", authTkn, "qStreamedTransMsgHeader.auth_tkn:              %.*s\n");
  o.field("plan_id", planId, "qStreamedTransMsgHeader.plan_id:               %.*s\n");
  o.show("uowID", HexBytes{uowBytes, uowLen}, "qStreamedTransMsgHeader.uowID:                 %s\n", uow.c_str());
  o.field("numPartitionNo", numPartitionNo, "qStreamedTransMsgHeader.numPartitionNo:        %hu\n");
  return rplTrace_.ret(0);
}

// ---------------------------------------------------------------------------------------------
// qBatchedTransHeader (inside a row, after its last column set), read in the sender's order.
//
//   0 length  2 position length  4 position (16)  20 commit seconds  24 micros
//   28 source local seconds  32 uow length  34 uow (16)  50 auth_id (32)  82 auth_tkn (32)
//   114 plan_id (12)  126
//
// The identity texts are present when the header's length reaches them.

template <class O>
int32_t printBatchedTransHeader(QMsg& m, O& o, size_t at) {
  RPL_TRACE(kCompPrinters, 22);
  uint16_t length = 0, posLen = 0, uowLen = 0;
  uint32_t seconds = 0, micros = 0, local = 0;
  const uint8_t* pos = nullptr;
  std::string uow;
  int32_t rc = m.r.u16(at, length, "qBatchedTransHeader.length");
  if (rc == 0) rc = m.r.u16(at + 2, posLen, "qBatchedTransHeader.commit_LSN length");
  if (rc == 0) rc = m.r.bytes(at + 4, 16, pos, "qBatchedTransHeader.commit_LSN");
  if (rc == 0) rc = m.r.u32(at + 20, seconds, "qBatchedTransHeader.commit_time");
  if (rc == 0) rc = m.r.u32(at + 24, micros, "qBatchedTransHeader.commit_time microseconds");
  if (rc == 0) rc = m.r.u32(at + 28, local, "qBatchedTransHeader source local commit time");
  if (rc == 0) rc = m.r.u16(at + 32, uowLen, "qBatchedTransHeader.uow_id length");
  if (rc == 0) rc = formatUow(m.r, at + 34, uowLen, 16, kUowArea, uow, "qBatchedTransHeader.uow_id");
  if (rc != 0) return rplTrace_.ret(rc);

  size_t n = posLen > 16 ? 16 : posLen < 2 ? 2 : posLen;
  int32_t us = static_cast<int32_t>(micros);
  const uint8_t* uowBytes = nullptr;
  m.r.bytes(at + 34, uowLen, uowBytes, "qBatchedTransHeader.uow_id");
  o.beginGroup("batchedTransHeader");
  o.field("length", length, "--> qBatchedTransHeader.length:        %d\n");
  o.show("commit_LSN", formatLsnBytes(pos, n), "    qBatchedTransHeader.commit_LSN:    %s\n", formatLsnBytes(pos, n).c_str());
  o.show("commit_time", UtcTime{seconds, us}, "    qBatchedTransHeader.commit_time:   %s UTC\n", formatUtc(seconds, us).c_str());
  o.show("source_local_commit_time", UtcTime{local, us}, "    qBatchedTransHeader.commit_time:   %s LOCALTIME\n",
         formatUtc(local, us).c_str());
  o.show("uow_id", HexBytes{uowBytes, uowLen}, "    qBatchedTransHeader.uow_id:        %s\n", uow.c_str());

  const char* step = "qBatchedTransHeader::printMe";
  struct Identity { size_t at, room; const char* field; const char* label; const char* format; };
  static const Identity kIdentities[] = {
      {50, 32, "qBatchedTransHeader.auth_id", "auth_id", "    qBatchedTransHeader.auth_id:       %.*s\n"},
      {82, 32, "qBatchedTransHeader.auth_tkn", "auth_tkn", "    qBatchedTransHeader.auth_tkn:      %.*s\n"},
      {114, 12, "qBatchedTransHeader.plan_id", "plan_id", "    qBatchedTransHeader.plan_id:       %.*s\n"},
  };
  for (const Identity& id : kIdentities) {
    if (length < id.at + 2) break;
    rc = printIdentity(m, o, at + id.at, id.room, id.field, step, id.label, id.format);
    if (rc != 0) break;
  }
  if (rc == 0) o.endGroup();
  return rplTrace_.ret(rc);
}

template int32_t printBatchedTransHeader(QMsg&, TextSink&, size_t);
template int32_t printBatchedTransHeader(QMsg&, JsonSink&, size_t);

template int32_t printTransMsgHeader(QMsg&, TextSink&, bool);
template int32_t printTransMsgHeader(QMsg&, JsonSink&, bool);
template int32_t printStreamedTransMsgHeader(QMsg&, TextSink&, bool);
template int32_t printStreamedTransMsgHeader(QMsg&, JsonSink&, bool);
template int32_t printTransMsgHeader(QMsg&, ScanSink&, bool);
template int32_t printStreamedTransMsgHeader(QMsg&, ScanSink&, bool);

int32_t printTransMsgHeader(QMsg& m, bool noPosTime) {
  TextSink o(m.out);
  return printTransMsgHeader(m, o, noPosTime);
}

int32_t printStreamedTransMsgHeader(QMsg& m, bool noPosTime) {
  TextSink o(m.out);
  return printStreamedTransMsgHeader(m, o, noPosTime);
}
