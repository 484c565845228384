// Encoders of the data-path compact messages: schemas, transactions, rows, values, spilled
// rows, LOB messages and statement chunks.
#include "tools/gen/encode_data.h"

#include <unicode/ustring.h>

#include <cstring>

namespace {

// A counted text: u16 byte count then the characters in `ccsid`, written at `at`; returns the
// bytes written.
size_t counted(MsgWriter& w, size_t at, const std::string& utf8) {
  std::string text = w.encodeText(utf8);
  w.u16(at, static_cast<uint16_t>(text.size()));
  w.raw(at + 2, text);
  return 2 + text.size();
}

template <typename T>
Bytes ordered(T v, ByteOrder order) {
  Bytes b(sizeof(T));
  uint64_t u = 0;
  std::memcpy(&u, &v, sizeof(T));
  for (size_t i = 0; i < sizeof(T); ++i) {
    size_t shift = order == ByteOrder::Little ? i : sizeof(T) - 1 - i;
    b[i] = static_cast<uint8_t>(u >> (8 * shift));
  }
  return b;
}

ColValue data(Bytes b) {
  ColValue v;
  v.data = std::move(b);
  return v;
}

size_t roundUp4(size_t n) { return (n + 3) & ~size_t{3}; }

}  // namespace

void writeLsn(MsgWriter& w, size_t at, const LsnDef& lsn) {
  w.resize(at + 24);
  w.u8(at, lsn.flags);
  w.u16(at + 4, lsn.node);
  size_t n = lsn.bytes.size() > 16 ? 16 : lsn.bytes.size();
  w.u16(at + 6, static_cast<uint16_t>(n));
  w.raw(at + 8, lsn.bytes.data(), n);
}

void writeGenericTransInfo(MsgWriter& w, size_t at, const GenericTransInfoDef& info) {
  w.resize(at + kGenericTransInfoBytes);
  writeLsn(w, at, info.lsn);
  w.u32(at + 24, info.seconds);
  w.u32(at + 28, info.micros);
  w.u8(at + 36, info.noContext ? 1 : 0);
  size_t n = info.uow.size() > 12 ? 12 : info.uow.size();
  w.u16(at + 38, static_cast<uint16_t>(n));
  w.raw(at + 40, info.uow.data(), n);
  w.name(at + 52, info.authId, 32);
  w.name(at + 84, info.authTkn, 32);
  w.name(at + 116, info.planId, 12);
}

// ---------------------------------------------------------------------------------------------
// Schema.

size_t schemaArrayAt(uint16_t version) {
  switch (version) {
    case 1: return 512;
    case 2: case 3: return 516;
    case 4: case 5: case 6: case 7: return 550;
    case 8: return 554;
    case 9: case 10: return 558;
    default: return 562;
  }
}

namespace {

size_t writeColumn(MsgWriter& w, const ColumnDef& c) {
  w.alignTo(4);
  size_t at = w.size();
  w.u16(at, c.type);
  w.u8(at + 2, c.partKeyNum);
  w.u8(at + 3, c.partFlags);
  uint16_t base = c.type & ~1u;
  if (base == 484 || base == 504) {
    // Precision and scale are bytes, whatever the byte order.
    uint8_t ps[4] = {c.precision, c.scale, 0, 0};
    w.raw(at + 4, ps, 4);
  } else {
    w.u32(at + 4, c.typelen);
  }
  w.u32(at + 8, static_cast<uint32_t>(c.codePage));
  counted(w, at + 12, c.name);
  return at;
}

}  // namespace

Bytes encodeSchemaMsg(const SchemaMsgDef& d, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(1, d.flag, d.version);
  w.u16(8, d.serverType);
  for (size_t i = 0; i < 3; ++i) {
    w.u16(10 + 2 * i, d.dbRelease[i]);
    w.u16(16 + 2 * i, d.capRelease[i]);
  }
  w.name(22, d.subname, 134);
  w.u32(156, d.subId);
  w.name(160, d.srcDbname, 20);
  w.name(180, d.srcOwner, 130);
  w.name(310, d.srcName, 130);
  w.name(440, d.sendqName, 50);
  w.u8(490, d.reason);
  w.u32(492, d.opts);
  w.u16(496, d.initiatorNode);
  w.u16(498, d.newNode);
  w.u16(500, d.sourceNode);
  w.u16(502, d.targetNode);
  w.fixedText(504, std::string(1, d.loadPhase), 1);
  w.fixedText(505, std::string(1, d.subType), 1);
  w.u16(508, d.nColsInKey);
  w.u16(510, static_cast<uint16_t>(d.columns.size()));
  if (d.version >= 2) w.u32(512, d.replddl);
  if (d.version >= 4) {
    w.u16(516, static_cast<uint16_t>(d.activeNodes.size()));
    for (size_t i = 0; i < d.activeNodes.size() && i < 16; ++i) w.u16(518 + 2 * i, d.activeNodes[i]);
    w.resize(550);
  }
  if (d.version >= 9) {
    w.u16(554, static_cast<uint16_t>(d.partKeys.size()));
    w.u16(556, static_cast<uint16_t>(d.ranges.size()));
  }
  if (d.version >= 11) w.u8(558, d.schemaFlag);

  const size_t arrayAt = schemaArrayAt(d.version);
  const size_t entries = d.columns.size() + d.partKeys.size() + d.ranges.size();
  w.resize(arrayAt + 2 * entries);
  size_t index = 0;
  for (const ColumnDef& c : d.columns) w.u16(arrayAt + 2 * index++, static_cast<uint16_t>(writeColumn(w, c)));
  for (const ColumnDef& c : d.partKeys) w.u16(arrayAt + 2 * index++, static_cast<uint16_t>(writeColumn(w, c)));
  for (const PartRangeDef& r : d.ranges) {
    w.alignTo(4);
    size_t at = w.size();
    w.u16(arrayAt + 2 * index++, static_cast<uint16_t>(at));
    w.u16(at, r.fromPhysPart);
    w.u16(at + 2, r.toPhysPart);
    w.u16(at + 4, r.minLogicalPart);
    w.u16(at + 6, r.maxLogicalPart);
    w.u16(at + 8, static_cast<uint16_t>(r.fromStrs.size()));
    w.u16(at + 10, static_cast<uint16_t>(r.toStrs.size()));
    std::vector<std::string> strs;
    for (const std::string& s : r.fromStrs) strs.push_back(w.encodeText(s));
    for (const std::string& s : r.toStrs) strs.push_back(w.encodeText(s));
    size_t pos = at + 12;
    for (const std::string& s : strs) { w.u16(pos, static_cast<uint16_t>(s.size())); pos += 2; }
    for (const std::string& s : strs) { w.raw(pos, s); pos += s.size(); }
  }
  if (!d.searchCond.empty()) {
    w.alignTo(2);
    size_t at = w.size();
    w.u16(506, static_cast<uint16_t>(at));
    counted(w, at, d.searchCond);
  }
  if (d.version >= 8 && d.ext) {
    w.alignTo(4);
    size_t at = w.size();
    w.u16(550, static_cast<uint16_t>(at));
    w.u16(552, static_cast<uint16_t>(kGenericTransInfoBytes));
    writeGenericTransInfo(w, at, *d.ext);
  }
  return w.bytes();
}

// ---------------------------------------------------------------------------------------------
// Values.

ColValue marker(uint16_t code) {
  ColValue v;
  v.marker = code;
  return v;
}

ColValue valSmallint(int16_t v, ByteOrder order) { return data(ordered(v, order)); }
ColValue valInteger(int32_t v, ByteOrder order) { return data(ordered(v, order)); }
ColValue valBigint(int64_t v, ByteOrder order) { return data(ordered(v, order)); }
ColValue valDouble(double v, ByteOrder order) { return data(ordered(v, order)); }
ColValue valFloat(float v, ByteOrder order) { return data(ordered(v, order)); }

ColValue valDecimal(const std::string& text, uint8_t precision, uint8_t scale) {
  bool negative = !text.empty() && text[0] == '-';
  std::string whole, fraction;
  bool point = false;
  for (char c : text) {
    if (c == '.') point = true;
    else if (c >= '0' && c <= '9') (point ? fraction : whole) += c;
  }
  fraction.resize(scale, '0');
  std::string digits = whole + fraction;
  size_t nbytes = precision / 2 + 1;
  size_t ndigits = 2 * nbytes - 1;
  if (digits.size() < ndigits) digits.insert(0, ndigits - digits.size(), '0');
  digits = digits.substr(digits.size() - ndigits);
  Bytes b(nbytes, 0);
  for (size_t i = 0; i < ndigits; ++i) {
    unsigned d = static_cast<unsigned>(digits[i] - '0');
    b[i / 2] |= static_cast<uint8_t>(i % 2 == 0 ? d << 4 : d);
  }
  b[nbytes - 1] |= negative ? 0x0D : 0x0C;
  return data(std::move(b));
}

namespace {

unsigned encodeDeclet(unsigned d2, unsigned d1, unsigned d0) {
  auto b = [](unsigned d, int i) { return (d >> i) & 1u; };
  bool l2 = d2 >= 8, l1 = d1 >= 8, l0 = d0 >= 8;
  unsigned i = d0 & 1, f = d1 & 1, c = d2 & 1;
  if (!l2 && !l1 && !l0) return (d2 << 7) | (d1 << 4) | d0;
  if (!l2 && !l1 && l0) return (d2 << 7) | (d1 << 4) | 0x8 | i;
  if (!l2 && l1 && !l0) return (d2 << 7) | (b(d0, 2) << 6) | (b(d0, 1) << 5) | (f << 4) | 0xA | i;
  if (l2 && !l1 && !l0) return (b(d0, 2) << 9) | (b(d0, 1) << 8) | (c << 7) | (d1 << 4) | 0xC | i;
  if (l2 && l1 && !l0) return (b(d0, 2) << 9) | (b(d0, 1) << 8) | (c << 7) | (f << 4) | 0xE | i;
  if (l2 && !l1 && l0) return (b(d1, 2) << 9) | (b(d1, 1) << 8) | (c << 7) | (1u << 5) | (f << 4) | 0xE | i;
  if (!l2 && l1 && l0) return (d2 << 7) | (2u << 5) | (f << 4) | 0xE | i;
  return (c << 7) | (3u << 5) | (f << 4) | 0xE | i;
}

ColValue decfloatBits(unsigned __int128 v, size_t bytes, ByteOrder order) {
  Bytes b(bytes);
  for (size_t i = 0; i < bytes; ++i) {
    size_t shift = order == ByteOrder::Little ? i : bytes - 1 - i;
    b[i] = static_cast<uint8_t>(v >> (8 * shift));
  }
  return data(std::move(b));
}

}  // namespace

ColValue valDecfloat(const std::string& digits, int exponent, bool negative, size_t bytes, ByteOrder order) {
  const bool wide = bytes == 16;
  const size_t ndigits = wide ? 34 : 16;
  const unsigned expCont = wide ? 12 : 8;
  const int bias = wide ? 6176 : 398;
  std::string coef = digits;
  if (coef.size() < ndigits) coef.insert(0, ndigits - coef.size(), '0');
  unsigned msd = static_cast<unsigned>(coef[0] - '0');
  unsigned biased = static_cast<unsigned>(exponent + bias);
  unsigned expHigh = biased >> expCont;
  unsigned comb = msd < 8 ? (expHigh << 3) | msd : 0x18 | (expHigh << 1) | (msd & 1);
  const size_t total = bytes * 8;
  unsigned __int128 v = 0;
  v |= static_cast<unsigned __int128>(negative ? 1 : 0) << (total - 1);
  v |= static_cast<unsigned __int128>(comb) << (total - 6);
  v |= static_cast<unsigned __int128>(biased & ((1u << expCont) - 1)) << (total - 6 - expCont);
  size_t declets = (ndigits - 1) / 3;
  for (size_t k = 0; k < declets; ++k) {
    size_t at = 1 + 3 * k;  // most significant declet first
    unsigned d = encodeDeclet(static_cast<unsigned>(coef[at] - '0'), static_cast<unsigned>(coef[at + 1] - '0'),
                              static_cast<unsigned>(coef[at + 2] - '0'));
    v |= static_cast<unsigned __int128>(d) << (10 * (declets - 1 - k));
  }
  return decfloatBits(v, bytes, order);
}

ColValue valDecfloatSpecial(bool infinity, bool negative, size_t bytes, ByteOrder order) {
  const size_t total = bytes * 8;
  unsigned __int128 v = static_cast<unsigned __int128>(infinity ? 0x1E : 0x1F) << (total - 6);
  if (negative) v |= static_cast<unsigned __int128>(1) << (total - 1);
  return decfloatBits(v, bytes, order);
}

ColValue valText(const std::string& utf8, int32_t ccsid) {
  std::string s = MsgWriter::encodeText(utf8, ccsid);
  return data(Bytes(s.begin(), s.end()));
}

ColValue valVarchar(const std::string& utf8, int32_t ccsid, ByteOrder order) {
  std::string s = MsgWriter::encodeText(utf8, ccsid);
  Bytes b = ordered(static_cast<uint16_t>(s.size()), order);
  b.insert(b.end(), s.begin(), s.end());
  return data(std::move(b));
}

Bytes utf16(const std::string& utf8, ByteOrder order) {
  std::vector<UChar> units(utf8.size() + 1);
  int32_t n = 0;
  UErrorCode err = U_ZERO_ERROR;
  u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &n, utf8.data(),
                static_cast<int32_t>(utf8.size()), &err);
  if (U_FAILURE(err)) n = 0;
  Bytes b;
  for (int32_t i = 0; i < n; ++i) {
    Bytes u = ordered(static_cast<uint16_t>(units[static_cast<size_t>(i)]), order);
    b.insert(b.end(), u.begin(), u.end());
  }
  return b;
}

ColValue valGraphic(const std::string& utf8, ByteOrder order) { return data(utf16(utf8, order)); }

ColValue valVargraphic(const std::string& utf8, ByteOrder order) {
  Bytes chars = utf16(utf8, order);
  Bytes b = ordered(static_cast<uint16_t>(chars.size() / 2), order);
  b.insert(b.end(), chars.begin(), chars.end());
  return data(std::move(b));
}

ColValue valLobRef(uint32_t rowNum, uint16_t colNum, uint32_t length, ByteOrder order, const Bytes& inlineData) {
  Bytes b = ordered(rowNum, order);
  Bytes c = ordered(colNum, order);
  Bytes l = ordered(length, order);
  b.insert(b.end(), c.begin(), c.end());
  b.insert(b.end(), l.begin(), l.end());
  b.insert(b.end(), inlineData.begin(), inlineData.end());
  return data(std::move(b));
}

// ---------------------------------------------------------------------------------------------
// Rows.

size_t rowSetsAt(uint16_t version) { return version == 0 ? 0 : version == 1 ? 12 : version <= 6 ? 24 : 32; }

namespace {

// One column set at the writer's end (on a multiple of 4 from the row start).
void writeColSet(MsgWriter& w, size_t rowAt, const std::vector<ColValue>& values) {
  w.resize(rowAt + roundUp4(w.size() - rowAt));
  const size_t at = w.size();
  const size_t n = values.size();
  size_t longs = 0;
  for (const ColValue& v : values)
    if (v.marker == 0 && v.longOffset) ++longs;
  size_t slot = 6 + 2 * n;         // long offsets' u32 slots, then the values
  size_t pos = slot + 4 * longs;
  w.resize(at + pos);
  w.u16(at + 4, static_cast<uint16_t>(n));
  for (size_t i = 0; i < n; ++i) {
    const ColValue& v = values[i];
    uint16_t entry = v.marker;
    if (v.marker == 0) {
      if (v.longOffset) {
        w.u32(at + slot, static_cast<uint32_t>(pos));
        entry = static_cast<uint16_t>(0x8000 | slot);
        slot += 4;
      } else {
        entry = static_cast<uint16_t>(pos);
      }
      w.raw(at + pos, v.data.data(), v.data.size());
      pos += v.data.size();
    }
    w.u16(at + 6 + 2 * i, entry);
  }
  w.resize(at + pos);
  w.u32(at, static_cast<uint32_t>(pos));
}

void writeBatchedHeader(MsgWriter& w, size_t at, const BatchedTransHeaderDef& b) {
  const uint16_t length = b.withIdentity ? 126 : 50;
  w.resize(at + length);
  w.u16(at, length);
  size_t n = b.lsn.size() > 16 ? 16 : b.lsn.size();
  w.u16(at + 2, static_cast<uint16_t>(n));
  w.raw(at + 4, b.lsn.data(), n);
  w.u32(at + 20, b.seconds);
  w.u32(at + 24, b.micros);
  w.u32(at + 28, b.sourceLocal);
  size_t u = b.uow.size() > 16 ? 16 : b.uow.size();
  w.u16(at + 32, static_cast<uint16_t>(u));
  w.raw(at + 34, b.uow.data(), u);
  if (b.withIdentity) {
    w.name(at + 50, b.authId, 32);
    w.name(at + 82, b.authTkn, 32);
    w.name(at + 114, b.planId, 12);
  }
}

void writeStmtChunk(MsgWriter& w, size_t at, const StmtChunkDef& c) {
  const size_t colsAt = 28;
  const size_t nameAt = colsAt + 12 * c.cols.size();
  w.resize(at + nameAt);
  w.u8(at + 4, c.operation);
  w.u8(at + 5, c.format);
  w.u16(at + 6, static_cast<uint16_t>(c.cols.size()));
  w.u64(at + 8, c.fileSize);
  w.u64(at + 16, c.nRows);
  w.u16(at + 24, static_cast<uint16_t>(colsAt));
  w.u16(at + 26, static_cast<uint16_t>(nameAt));
  for (size_t i = 0; i < c.cols.size(); ++i) {
    size_t e = at + colsAt + 12 * i;
    w.u16(e, c.cols[i].mask);
    w.u16(e + 2, c.cols[i].position);
    w.u16(e + 4, c.cols[i].type);
    w.u16(e + 6, 0);
    w.u32(e + 8, c.cols[i].typeLen);
  }
  size_t end = at + nameAt + counted(w, at + nameAt, c.fileName);
  w.u32(at, static_cast<uint32_t>(end - at));
}

void writeRow(MsgWriter& w, size_t at, const RowDef& r, uint16_t version) {
  uint8_t bafter = r.extraBafter;
  if (r.keyBefore) bafter |= 2;
  if (r.colsBefore) bafter |= 4;
  if (r.keyAfter) bafter |= 8;
  if (r.colsAfter) bafter |= 1;
  if (r.batched && version >= 8) bafter |= 16;
  w.resize(at + rowSetsAt(version));
  w.u8(at + 4, r.encodeType);
  w.u8(at + 5, r.encodeVer);
  w.u8(at + 6, r.chunk ? 160 : r.operation);
  w.u8(at + 7, bafter);
  w.u32(at + 8, r.subId);
  if (version >= 2) {
    size_t n = version >= 7 ? 16 : 10;
    Bytes seq = r.intentseq;
    seq.resize(n, 0);
    w.raw(at + 12, seq.data(), n);
  }
  if (version >= 7) w.u16(at + 30, r.partitionNo);
  if (r.chunk) {
    writeStmtChunk(w, at + rowSetsAt(version), *r.chunk);
  } else {
    for (const auto* set : {&r.keyBefore, &r.colsBefore, &r.keyAfter, &r.colsAfter})
      if (*set) writeColSet(w, at, **set);
    if (r.batched && version >= 8) {
      w.resize(at + roundUp4(w.size() - at));
      writeBatchedHeader(w, w.size(), *r.batched);
    }
  }
  w.u32(at, static_cast<uint32_t>(w.size() - at));
}

void writeRows(MsgWriter& w, size_t at, const std::vector<RowDef>& rows, uint16_t version) {
  w.resize(at);
  for (const RowDef& r : rows) {
    w.alignTo(4);
    writeRow(w, w.size(), r, version);
  }
}

}  // namespace

Bytes encodeRow(const RowDef& row, uint16_t version, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  writeRow(w, 0, row, version);
  return w.bytes();
}

// ---------------------------------------------------------------------------------------------
// Transactions.

size_t transRowsAt(uint16_t version) {
  return version < 2 ? 32 : version <= 5 ? 116 : version == 6 ? 144 : 152;
}

Bytes encodeTransMsg(const TransMsgDef& d, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(128, d.flag, d.version);
  w.resize(transRowsAt(d.version));
  w.u16(8, d.segment);
  if (d.version < 6) w.raw(10, d.lsn10.data(), d.lsn10.size() > 10 ? 10 : d.lsn10.size());
  w.u32(20, d.seconds);
  w.u32(24, d.micros);
  w.u32(28, static_cast<uint32_t>(d.rows.size()));
  if (d.version >= 2) {
    w.name(32, d.authId, 32);
    w.name(64, d.authTkn, 32);
    w.name(96, d.planId, 10);
    size_t n = d.uow.size() > 10 ? 10 : d.uow.size();
    w.raw(106, d.uow.data(), n);
    if (d.version >= 8) w.u16(118, static_cast<uint16_t>(n));
  }
  if (d.version >= 6) writeLsn(w, 120, d.lsn);
  if (d.version >= 7) {
    w.u32(144, d.sourceLocal);
    w.u16(148, d.numPartitionNo);
  }
  writeRows(w, transRowsAt(d.version), d.rows, d.version);
  return w.bytes();
}

Bytes encodeStreamedTransMsg(const StreamedTransMsgDef& d, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(130, d.flag, d.version);
  w.resize(160);
  w.u8(8, d.transType);
  w.u8(9, d.flags);
  w.u16(10, d.segment);
  size_t n = d.uow.size() > 18 ? 18 : d.uow.size();
  w.u16(12, static_cast<uint16_t>(n));
  w.raw(14, d.uow.data(), n);
  writeLsn(w, 32, d.lsn);
  w.u32(56, d.seconds);
  w.u32(60, d.micros);
  w.name(68, d.authId, 32);
  w.name(100, d.authTkn, 32);
  w.name(132, d.planId, 12);
  uint32_t chunks = 0;
  for (const RowDef& r : d.rows)
    if (r.chunk) ++chunks;
  uint32_t single = static_cast<uint32_t>(d.rows.size()) - chunks;
  w.u32(144, single);
  w.u32(148, chunks);
  w.u32(152, d.numTotalRowOps != 0 ? d.numTotalRowOps : static_cast<uint32_t>(d.rows.size()));
  w.u16(156, d.numPartitionNo);
  writeRows(w, 160, d.rows, d.version);
  return w.bytes();
}

size_t spilledRowAt(uint16_t v) {
  return v == 1 ? 16 : v <= 4 ? 110 : v <= 6 ? 128 : v == 7 ? 136 : v == 8 ? 152 : 168;
}

Bytes encodeSpilledRowMsg(uint16_t version, const RowDef& row, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(33, 0, version);
  w.resize(spilledRowAt(version));
  writeRow(w, spilledRowAt(version), row, version);
  return w.bytes();
}

// ---------------------------------------------------------------------------------------------
// LOB messages.

Bytes encodeLobMsg(const LobMsgDef& d, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(129, d.flag, d.version);
  const bool v7 = d.version >= 7;
  w.u32(8, d.subId);
  w.u32(12, d.rowNum);
  w.u16(16, d.colNum);
  uint32_t len = static_cast<uint32_t>(d.data.size());
  w.u32(20, d.totalLen != 0 ? d.totalLen : len);
  uint32_t part = d.doubleByte ? len / 2 : len;
  if (v7) {
    w.u32(24, d.cpKind);
    w.u32(28, part);
  } else {
    w.u32(24, part);
  }
  w.resize(v7 ? 32 : 28);
  w.append(d.data.data(), d.data.size());
  return w.bytes();
}
