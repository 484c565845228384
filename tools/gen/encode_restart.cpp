// Encoder of the restart message and of the shared log position record.
#include "tools/gen/encode_restart.h"

#include <algorithm>

void writeLogPosition(MsgWriter& w, size_t at, const LogPosition& p) {
  size_t n = std::min<size_t>(p.value.size(), 16);
  w.resize(at + 24);
  w.u8(at, p.flags);
  w.u16(at + 4, p.node);
  w.u16(at + 6, static_cast<uint16_t>(n));
  w.raw(at + 8, p.value.data(), n);
}

LogPosition sampleLogPosition(uint8_t seed, uint16_t node) {
  LogPosition p;
  p.flags = node != 0 ? 1 : 0;
  p.node = node;
  for (uint8_t i = 0; i < 16; ++i) p.value.push_back(static_cast<uint8_t>(seed + i));
  return p;
}

MsgWriter encodeRestartMsg(const RestartMsgFields& f, ByteOrder order, int32_t ccsid) {
  MsgWriter w(order, ccsid);
  w.header(32, 0, f.version);
  w.resize(320);
  w.name(12, f.capServer, 20);
  w.name(32, f.capSchema, 136);
  writeLogPosition(w, 168, f.lastCommitLsn);
  w.u32(192, f.lastCommitSeconds);
  w.u32(196, f.lastCommitMicros);
  writeLogPosition(w, 216, f.reuseLsn);
  std::string reuse = w.encodeText(f.reuseTime);
  w.raw(240, reuse.data(), std::min<size_t>(reuse.size(), 20));
  w.name(260, f.behindQueue, 52);
  w.u32(312, static_cast<uint32_t>(f.partitions.size()));
  w.u32(316, static_cast<uint32_t>(f.sendqs.size()));
  size_t at = 320;
  for (const LogPosition& p : f.partitions) {
    writeLogPosition(w, at, p);
    at += 24;
  }
  for (const RestartSendqEntry& q : f.sendqs) {
    w.resize(at + 112);
    w.u32(at, q.activationTime);
    w.raw(at + 4, q.nextMsgSeq.data(), q.nextMsgSeq.size());
    w.name(at + 20, q.name, 52);
    writeLogPosition(w, at + 72, q.lastCommitLsn);
    w.u32(at + 96, q.lastCommitSeconds);
    w.u32(at + 100, q.lastCommitMicros);
    w.u32(at + 104, static_cast<uint32_t>(q.restartPoints.size()));
    at += 112;
    for (const LogPosition& p : q.restartPoints) {
      writeLogPosition(w, at, p);
      at += 24;
    }
  }
  w.u32(8, static_cast<uint32_t>(f.size >= 0 ? static_cast<size_t>(f.size) : w.size()));
  return w;
}

MsgWriter sampleRestartMsg(ByteOrder order, int32_t ccsid) {
  RestartMsgFields f;
  f.capServer = "SALESDB";
  f.capSchema = "KXCAP";
  f.lastCommitLsn = sampleLogPosition(0x40);
  f.lastCommitMicros = 250000;
  f.reuseLsn = sampleLogPosition(0x20);
  f.partitions = {sampleLogPosition(0x30, 1), sampleLogPosition(0x38, 2)};
  for (int i = 0; i < 2; ++i) {
    RestartSendqEntry q;
    q.name = i == 0 ? "KXRP.SALES.TO.WAREHOUSE" : "KXRP.SALES.TO.REPORTS";
    for (size_t b = 0; b < q.nextMsgSeq.size(); ++b) q.nextMsgSeq[b] = static_cast<uint8_t>(b == 15 ? 0x2a + i : 0);
    q.lastCommitLsn = sampleLogPosition(static_cast<uint8_t>(0x40 - i));
    q.lastCommitMicros = 125000;
    q.restartPoints = {sampleLogPosition(0x30, 1), sampleLogPosition(0x38, 2)};
    f.sendqs.push_back(q);
  }
  return encodeRestartMsg(f, order, ccsid);
}
