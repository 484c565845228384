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
// A restart point: its log position (formatted) and node.
std::string restartPoint(Cursor& c, size_t at, uint16_t& node, const char* field) {
  std::string lsn;
  if (c) c.take(formatLsnRecord(c.reader(), at, true, lsn, field));
  node = c.machine<uint16_t>(at + 4, field);
  return lsn;
}

// A commit time: the local stamp of the text, the UTC value of JSON.
std::string commitTime(Cursor& c, size_t secAt, size_t usecAt, UtcTime& utc, const char* field) {
  const uint32_t seconds = c.machine<uint32_t>(secAt, field);
  const uint32_t micros = c.machine<uint32_t>(usecAt, field);
  utc = UtcTime{seconds, static_cast<int32_t>(micros > 999999 ? 999999 : micros)};
  return c ? formatLocalStampMicros(seconds, micros) : std::string();
}

std::string_view stored(const uint8_t* p, uint16_t n) {
  return std::string_view(reinterpret_cast<const char*>(p), n);
}

// Prints the send-queue entry that starts at `at` and returns its length in `length`.
template <class O>
int32_t printSendqEntry(const MsgReader& msg, size_t at, int32_t index, O& o, size_t& length) {
  RPL_TRACE(kCompPrinters, 321);
  MsgReader r = msg.from(at);
  Cursor c(r);
  // The fixed part of the entry, padding included, must all be there.
  c.bytes(0, kSqRestartsAt, "qRestartMsg.sendq entry");
  const uint32_t activation = c.machine<uint32_t>(kSqActivationAt, "qRestartMsg.sendq activation time");
  const uint8_t* seq = c.bytes(kSqNextSeqAt, kSqNextSeqSize, "qRestartMsg.sendq next msg seq no");
  uint16_t nameLen = 0;
  const uint8_t* name = c.name(kSqNameAt, kSqNameRoom, nameLen, "qRestartMsg.sendq name");
  std::string lsn;
  if (c) c.take(formatLsnRecord(r, kSqLastCommitLsnAt, true, lsn, "qRestartMsg.sendq lastCommitLSN"));
  UtcTime utc{};
  const std::string time = commitTime(c, kSqLastCommitSecAt, kSqLastCommitUsecAt, utc, "qRestartMsg.sendq lastCommitTime");
  const uint32_t restarts = c.machine<uint32_t>(kSqRestartCountAt, "qRestartMsg.sendq restart point count");
  if (!c) return rplTrace_.ret(c.rc());

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
    lsn = restartPoint(c, kSqRestartsAt + kLsnSize * size_t{i}, node, "qRestartMsg.sendq restartLSN");
    if (!c) return rplTrace_.ret(c.rc());
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
  Cursor c(r);
  const int16_t behindLen = c.i16(kBehindQueueAt, "qRestartMsg.behind queue name length");
  uint16_t behindCount = 0, serverLen = 0, schemaLen = 0;
  const uint8_t* behind =
      behindLen > 0 ? c.name(kBehindQueueAt, kBehindQueueRoom, behindCount, "qRestartMsg.behind queue name") : nullptr;
  const uint8_t* server = c.name(kCapServerAt, kCapServerRoom, serverLen, "qRestartMsg.capServer");
  const uint8_t* schema = c.name(kCapSchemaAt, kCapSchemaRoom, schemaLen, "qRestartMsg.capSchema");
  const int32_t size = c.machine<int32_t>(kRestartSizeAt, "qRestartMsg.qRestartMsgSize");
  const uint32_t parts = c.machine<uint32_t>(kPartCountAt, "qRestartMsg.partition count");
  if (!c) return rplTrace_.ret(c.rc());

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
    lsn = restartPoint(c, kPartsAt + kLsnSize * size_t{i}, node, "qRestartMsg.partition restartLSN");
    if (!c) return rplTrace_.ret(c.rc());
    o.text("  qRestartMsg.restartLSN=%s nodeId=%d\n", lsn.c_str(), node);
    o.beginItem();
    o.hidden("restartLSN", lsn);
    o.hidden("nodeId", node);
    o.endItem();
  }
  o.endList();

  if (c) c.take(formatLsnRecord(r, kLastCommitLsnAt, true, lsn, "qRestartMsg.lastCommitLSN"));
  UtcTime utc{};
  const std::string time = commitTime(c, kLastCommitSecAt, kLastCommitUsecAt, utc, "qRestartMsg.lastCommitTime");
  std::string reuseLsn;
  if (c) c.take(formatLsnRecord(r, kReuseLsnAt, true, reuseLsn, "qRestartMsg.reuseLSN"));
  const uint8_t* reuseTime = c.bytes(kReuseTimeAt, kReuseTimeShown, "qRestartMsg.reuseTime");
  const uint32_t sendqs = c.machine<uint32_t>(kSendqCountAt, "qRestartMsg.send queue count");
  if (!c) return rplTrace_.ret(c.rc());

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
    if (!c.take(printSendqEntry(r, at, static_cast<int32_t>(i), o, length))) return rplTrace_.ret(c.rc());
    o.endItem();
    at += length;
  }
  o.endList();
  return rplTrace_.ret(0);
}

#define RPL_RESTART_PRINTER(O) template int32_t printRestartMsg(QMsg&, O&);
RPL_FOR_EACH_SINK(RPL_RESTART_PRINTER)
