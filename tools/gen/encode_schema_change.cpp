// Encoders of the schema-change messages, field by field at their fixed offsets.
#include "tools/gen/encode_schema_change.h"

#include <algorithm>

namespace {

constexpr size_t kTransInfoSize = 128;

void writeSubId(MsgWriter& w, int32_t subId) { w.u32(8, static_cast<uint32_t>(subId)); }

}  // namespace

void writeDdlTransInfo(MsgWriter& w, size_t at, const DdlTransInfo& t) {
  w.resize(at + kTransInfoSize);
  writeLogPosition(w, at, t.commitLsn);
  w.u32(at + 24, t.commitSeconds);
  w.u32(at + 28, t.commitMicros);
  w.u8(at + 36, t.flags);
  size_t n = std::min<size_t>(t.uow.size(), 12);
  w.u16(at + 38, static_cast<uint16_t>(n));
  w.raw(at + 40, t.uow.data(), n);
  w.name(at + 52, t.authId, 32);
  w.name(at + 84, t.authToken, 32);
  w.name(at + 116, t.planId, 12);
}

MsgWriter encodeAddColumnMsg(const AddColumnFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(5, 0, f.version);
  w.resize(f.version >= 8 ? 1464 + kTransInfoSize : 1460);
  writeSubId(w, f.subId);
  w.u16(12, f.colType);
  if ((f.colType & ~1u) == 484) {
    w.u8(18, f.precision);
    w.u8(19, f.scale);
  } else {
    w.u32(16, static_cast<uint32_t>(f.typeLen));
  }
  w.u32(20, static_cast<uint32_t>(f.codepage));
  w.name(24, f.colName, 130);
  w.u8(154, f.hasDefault);
  std::string subtype = w.encodeText(f.charSubtype);
  w.raw(155, subtype.data(), std::min<size_t>(subtype.size(), 1));
  w.name(156, f.defaultVal, 1042);
  w.name(1198, f.beforeColName, 130);
  w.name(1328, f.targetColName, 132);
  if (f.version >= 8) writeDdlTransInfo(w, 1464, f.trans);
  if (f.version >= 14) w.u16(1462, f.colAttribFlags);
  return w;
}

MsgWriter encodeAddReplKeyColMsg(const AddReplKeyColFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(12, 0, f.version);
  writeSubId(w, f.subId);
  w.name(12, f.colName, 130);
  return w;
}

MsgWriter encodeDropColumnMsg(const DropColumnFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(6, f.ddlCode, f.version);
  w.resize(152);
  writeSubId(w, f.subId);
  w.name(12, f.droppedColName, 130);
  std::string sql = w.encodeText(f.sqlText);
  w.u16(142, static_cast<uint16_t>(sql.size()));
  if (f.version >= 8) writeDdlTransInfo(w, 152, f.trans);
  w.append(sql.data(), sql.size());
  return w;
}

MsgWriter encodeDdlMsg(uint8_t ddlCode, uint16_t version, const std::vector<uint8_t>& body,
                       ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(6, ddlCode, version);
  w.append(body.data(), body.size());
  return w;
}

MsgWriter encodeTruncateTableMsg(int32_t subId, uint16_t version, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(17, 0, version);
  writeSubId(w, subId);
  return w;
}

MsgWriter encodeRedefineReplKeyMsg(const RedefineReplKeyFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(18, 0, f.version);
  writeSubId(w, f.subId);
  w.u16(12, f.isP2p);
  w.u16(14, static_cast<uint16_t>(f.colNames.size()));
  size_t at = 16 + 2 * f.colNames.size();
  w.resize(at);
  for (size_t i = 0; i < f.colNames.size(); ++i) {
    std::string text = w.encodeText(f.colNames[i]);
    w.u16(16 + 2 * i, static_cast<uint16_t>(at));
    w.name(at, f.colNames[i], 2 + text.size());
    at += 2 + text.size();
  }
  return w;
}

MsgWriter sampleAddColumnMsg(ByteOrder order, int32_t ccsid) {
  AddColumnFields f;
  f.subId = 12;
  f.colName = "DELIVERY_NOTE";
  f.colType = 449;
  f.typeLen = 64;
  f.codepage = 1208;
  f.hasDefault = 1;
  f.defaultVal = "'none'";
  f.beforeColName = "STATUS";
  f.colAttribFlags = 0;
  return encodeAddColumnMsg(f, order, ccsid);
}
