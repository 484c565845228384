// Restart messages (type 32): where the capture program resumes reading the log, for the main
// log reader or for one queue that fell behind, with every partition and every send queue.
//
// The restart message travels without conversion context: its integers are read in this
// machine's order and never swapped, its names are printed as stored, and it prints no compact
// header lines. The dispatch ignores the printer's result; a field that cannot be read is still
// reported and ends the message.
//
// qRestartMsg (current layout):
//
//   0        8       12   14          32   34           168            192   196   200
//   +--------+-------+----+-----------+----+------------+--------------+-----+-----+--..
//   | header | size  |len | capServer |len | capSchema  | lastCommitLSN| sec | usec|
//   +--------+-------+----+-----------+----+------------+--------------+-----+-----+--..
//   216            240          260  262            312      316      320
//   +--------------+------------+----+--------------+--------+--------+----------------+--..
//   | reuseLSN     | reuseTime  |len | behind queue | nParts | nSendQ | 24 x nParts LSN| sendq
//   +--------------+------------+----+--------------+--------+--------+----------------+--..
//
// Send-queue entry (each one 112 + 24 x nRestart bytes long):
//
//   0        4                20   22           72             96    100   104        112
//   +--------+----------------+----+------------+--------------+-----+-----+----------+-----..
//   | active | next msg seqno |len | sendq name | lastCommitLSN| sec | usec| nRestart | 24 x LSN
//   +--------+----------------+----+------------+--------------+-----+-----+----------+-----..
#include <cstdio>
#include <cstring>
#include <string_view>
#include <string>

#include "qmsg/families.h"
#include "qmsg/forms.h"
#include "qmsg/sink.h"
#include "runtime/trace.h"

namespace {

constexpr size_t kRestartSizeAt = 8;
constexpr size_t kCapServerAt = 12;
constexpr size_t kCapServerRoom = 20;
constexpr size_t kCapSchemaAt = 32;
constexpr size_t kCapSchemaRoom = 136;
constexpr size_t kLastCommitLsnAt = 168;
constexpr size_t kLastCommitSecAt = 192;
constexpr size_t kLastCommitUsecAt = 196;
constexpr size_t kReuseLsnAt = 216;
constexpr size_t kReuseTimeAt = 240;
constexpr size_t kReuseTimeShown = 19;
constexpr size_t kBehindQueueAt = 260;
constexpr size_t kBehindQueueRoom = 52;
constexpr size_t kPartCountAt = 312;
constexpr size_t kSendqCountAt = 316;
constexpr size_t kPartsAt = 320;
constexpr size_t kLsnSize = 24;

constexpr size_t kSqActivationAt = 0;
constexpr size_t kSqNextSeqAt = 4;
constexpr size_t kSqNextSeqSize = 16;
constexpr size_t kSqNameAt = 20;
constexpr size_t kSqNameRoom = 52;
constexpr size_t kSqLastCommitLsnAt = 72;
constexpr size_t kSqLastCommitSecAt = 96;
constexpr size_t kSqLastCommitUsecAt = 100;
constexpr size_t kSqRestartCountAt = 104;
constexpr size_t kSqRestartsAt = 112;

// One log sequence value with its node id, as the restart lines print them.
int32_t readRestartPoint(const MsgReader& r, size_t at, std::string& lsn, uint16_t& node,
                         const char* field) {
  int32_t rc = formatLsnRecord(r, at, true, lsn, field);
  if (rc == 0) rc = r.machine(at + 4, node, field);
  return rc;
}

// Commit time of the restart point: local stamp with the microseconds held to 999999.
int32_t readCommitTime(const MsgReader& r, size_t secAt, size_t usecAt, std::string& out,
                       UtcTime& utc, const char* field) {
  uint32_t seconds = 0, micros = 0;
  int32_t rc = r.machine(secAt, seconds, field);
  if (rc == 0) rc = r.machine(usecAt, micros, field);
  if (rc == 0) out = formatLocalStampMicros(seconds, micros);
  utc = UtcTime{seconds, static_cast<int32_t>(micros > 999999 ? 999999 : micros)};
  return rc;
}

// A name read as stored (no conversion).
std::string_view stored(const uint8_t* p, uint16_t n) {
  return std::string_view(reinterpret_cast<const char*>(p), n);
}

// Prints the send-queue entry that starts at `at` and returns its length in `length`.
template <class O>
int32_t printSendqEntry(const MsgReader& msg, size_t at, int32_t index, O& o, size_t& length) {
  RPL_TRACE(kCompPrinters, 321);
  MsgReader r = msg.from(at);
  uint32_t activation = 0, restarts = 0;
  const uint8_t* name = nullptr;
  const uint8_t* seq = nullptr;
  uint16_t nameLen = 0;
  std::string lsn, time;
  UtcTime utc{};
  // The fixed part of the entry, padding included, must all be there.
  int32_t rc = r.bytes(0, kSqRestartsAt, seq, "qRestartMsg.sendq entry");
  if (rc == 0) rc = r.machine(kSqActivationAt, activation, "qRestartMsg.sendq activation time");
  if (rc == 0) rc = r.bytes(kSqNextSeqAt, kSqNextSeqSize, seq, "qRestartMsg.sendq next msg seq no");
  if (rc == 0) rc = r.name(kSqNameAt, kSqNameRoom, name, nameLen, "qRestartMsg.sendq name");
  if (rc == 0) rc = formatLsnRecord(r, kSqLastCommitLsnAt, true, lsn, "qRestartMsg.sendq lastCommitLSN");
  if (rc == 0)
    rc = readCommitTime(r, kSqLastCommitSecAt, kSqLastCommitUsecAt, time, utc, "qRestartMsg.sendq lastCommitTime");
  if (rc == 0) rc = r.machine(kSqRestartCountAt, restarts, "qRestartMsg.sendq restart point count");
  if (rc != 0) return rplTrace_.ret(rc);

  o.show("sendq_name", stored(name, nameLen), "  [%4d] sendq name:             %.*s\n", index,
         static_cast<int>(nameLen), reinterpret_cast<const char*>(name));
  o.show("sendq_activation_time", UtcTime{activation, -1}, "  %6s sendq activation time:  %-11d(%s)\n", "",
         static_cast<int32_t>(activation), formatLocalStamp(activation).c_str());
  o.show("sendq_next_msg_seq_no", HexBytes{seq, kSqNextSeqSize}, "  %6s sendq next msg seq no:  %s\n", "",
         hexRunText(seq, kSqNextSeqSize, false).c_str());
  o.show("sendq_lastCommitLSN", lsn, "  %6s sendq lastCommitLSN:    %s\n", "", lsn.c_str());
  o.show("sendq_lastCommitTime", utc, "  %6s sendq lastCommitTime:   %s\n", "", time.c_str());
  o.beginList("restart_points");
  for (uint32_t i = 0; i < restarts; ++i) {
    uint16_t node = 0;
    rc = readRestartPoint(r, kSqRestartsAt + kLsnSize * size_t{i}, lsn, node, "qRestartMsg.sendq restartLSN");
    if (rc != 0) return rplTrace_.ret(rc);
    o.text("  %6s sendq restartLSN=%s nodeId=%d\n", "", lsn.c_str(), node);
    o.beginItem();
    o.hidden("restartLSN", lsn);
    o.hidden("nodeId", node);
    o.endItem();
  }
  o.endList();
  length = kSqRestartsAt + kLsnSize * size_t{restarts};
  return rplTrace_.ret(0);
}

}  // namespace

template <class O>
int32_t printRestartMsg(QMsg& m, O& o) {
  RPL_TRACE(kCompPrinters, 320);
  // Read as stored, whatever the descriptor says about the sender.
  MsgReader r(m.r.data(), m.r.size(), false);

  int16_t behindLen = 0;
  const uint8_t* behind = nullptr;
  uint16_t behindCount = 0;
  int32_t rc = r.i16(kBehindQueueAt, behindLen, "qRestartMsg.behind queue name length");
  if (rc == 0 && behindLen > 0)
    rc = r.name(kBehindQueueAt, kBehindQueueRoom, behind, behindCount, "qRestartMsg.behind queue name");
  const uint8_t* server = nullptr;
  const uint8_t* schema = nullptr;
  uint16_t serverLen = 0, schemaLen = 0;
  int32_t size = 0;
  uint32_t parts = 0, sendqs = 0;
  if (rc == 0) rc = r.name(kCapServerAt, kCapServerRoom, server, serverLen, "qRestartMsg.capServer");
  if (rc == 0) rc = r.name(kCapSchemaAt, kCapSchemaRoom, schema, schemaLen, "qRestartMsg.capSchema");
  if (rc == 0) rc = r.machine(kRestartSizeAt, size, "qRestartMsg.qRestartMsgSize");
  if (rc == 0) rc = r.machine(kPartCountAt, parts, "qRestartMsg.partition count");
  if (rc != 0) return rplTrace_.ret(rc);

  if (behindLen > 0)
    o.show("behind_queue", stored(behind, behindCount), "  qRestartMsg for BEHIND queue: %.*s\n",
           static_cast<int>(behindCount), reinterpret_cast<const char*>(behind));
  else
    o.show("behind_queue", SqlNull{}, "  qRestartMsg for MAINLINE log reader.\n");
  o.show("capServer", stored(server, serverLen), "  qRestartMsg.capServer: %.*s\n", static_cast<int>(serverLen),
         reinterpret_cast<const char*>(server));
  o.show("capSchema", stored(schema, schemaLen), "  qRestartMsg.capSchema: %.*s\n", static_cast<int>(schemaLen),
         reinterpret_cast<const char*>(schema));
  o.field("qRestartMsgSize", size, "  qRestartMsg.qRestartsgSize: %d\n");
  o.field("partitions", static_cast<int32_t>(parts), "  Number of partition at restart: %d\n");

  std::string lsn;
  o.beginList("restart_points");
  for (uint32_t i = 0; i < parts; ++i) {
    uint16_t node = 0;
    rc = readRestartPoint(r, kPartsAt + kLsnSize * size_t{i}, lsn, node, "qRestartMsg.partition restartLSN");
    if (rc != 0) return rplTrace_.ret(rc);
    o.text("  qRestartMsg.restartLSN=%s nodeId=%d\n", lsn.c_str(), node);
    o.beginItem();
    o.hidden("restartLSN", lsn);
    o.hidden("nodeId", node);
    o.endItem();
  }
  o.endList();

  std::string time, reuseLsn;
  UtcTime utc{};
  const uint8_t* reuseTime = nullptr;
  rc = formatLsnRecord(r, kLastCommitLsnAt, true, lsn, "qRestartMsg.lastCommitLSN");
  if (rc == 0)
    rc = readCommitTime(r, kLastCommitSecAt, kLastCommitUsecAt, time, utc, "qRestartMsg.lastCommitTime");
  if (rc == 0) rc = formatLsnRecord(r, kReuseLsnAt, true, reuseLsn, "qRestartMsg.reuseLSN");
  if (rc == 0) rc = r.bytes(kReuseTimeAt, kReuseTimeShown, reuseTime, "qRestartMsg.reuseTime");
  if (rc == 0) rc = r.machine(kSendqCountAt, sendqs, "qRestartMsg.send queue count");
  if (rc != 0) return rplTrace_.ret(rc);

  o.field("lastCommitLSN", lsn, "  qRestartMsg.lastCommitLSN:  %s\n");
  o.show("lastCommitTime", utc, "  qRestartMsg.lastCommitTime: %s\n", time.c_str());
  o.field("reuseLSN", reuseLsn, "  qRestartMsg.reuseLSN:       %s\n");
  // At most 19 characters, fewer when the text ends sooner.
  o.show("reuseTime", std::string_view(reinterpret_cast<const char*>(reuseTime), strnlen(reinterpret_cast<const char*>(reuseTime), kReuseTimeShown)),
         "  qRestartMsg.reuseTime:      %.19s\n", reinterpret_cast<const char*>(reuseTime));
  o.field("sendqs", static_cast<int32_t>(sendqs), "  Number of send queues at restart: %d\n");

  size_t at = kPartsAt + kLsnSize * size_t{parts};
  o.beginList("sendq_entries");
  for (uint32_t i = 0; i < sendqs; ++i) {
    size_t length = 0;
    o.beginItem();
    rc = printSendqEntry(r, at, static_cast<int32_t>(i), o, length);
    if (rc != 0) return rplTrace_.ret(rc);
    o.endItem();
    at += length;
  }
  o.endList();
  return rplTrace_.ret(0);
}

#define RPL_RESTART_PRINTER(O) template int32_t printRestartMsg(QMsg&, O&);
RPL_FOR_EACH_SINK(RPL_RESTART_PRINTER)
