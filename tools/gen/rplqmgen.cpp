// rplqmgen: puts realistic replication traffic (compact messages) on a queue through the KX API.
//
//   rplqmgen QMGR QUEUE --scenario demo|bench [--transactions N] [--rows N]
//                       [--byte-order little|big] [--ccsid N]
//
// demo: one subscription with columns of many types, inserts, updates and deletes with before
// and after values, NULLs, a LOB sent in its own messages, a streamed transaction with a
// statement chunk, and the control messages of appendControlDemo.
// bench: one subscription and N transactions of R rows with mixed column types, put fast.
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "tools/gen/encode_data.h"
#include "tools/gen/encode_file_transfer.h"
#include "tools/gen/encode_lifecycle.h"
#include "tools/gen/encode_queue_control.h"
#include "tools/gen/encode_restart.h"
#include "tools/gen/encode_schema_change.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitFailed = 2;

const char* const kUsage =
    "usage: rplqmgen QMGR QUEUE --scenario demo|bench [--transactions N] [--rows N]\n"
    "                [--byte-order little|big] [--ccsid N]\n"
    "\n"
    "Puts compact replication messages on QUEUE of queue manager QMGR.\n"
    "\n"
    "  --scenario demo    one subscription, inserts, updates and deletes of many column types\n"
    "                     with NULLs, a LOB in its own messages, a streamed transaction with a\n"
    "                     statement chunk, and control messages\n"
    "  --scenario bench   one subscription and N transactions of R rows, put in batches\n"
    "  --transactions N   transactions to put (bench: default 100000; demo: default 1)\n"
    "  --rows N           rows per transaction (bench: default 10; demo: default 3)\n"
    "  --byte-order O     integers of the sender: little (default) or big\n"
    "  --ccsid N          code page of the sender's text (default 1208; 37 for EBCDIC)\n"
    "  --help             this text\n";

struct Options {
  std::string qmgr, queue, scenario;
  long transactions = -1;
  long rows = -1;
  ByteOrder order = ByteOrder::Little;
  int32_t ccsid = 1208;
};

int usageError(const char* fmt, const char* arg) {
  std::fprintf(stderr, "rplqmgen: ");
  std::fprintf(stderr, fmt, arg);
  std::fprintf(stderr, "\n%s", kUsage);
  return kExitUsage;
}

bool parseCount(const char* s, long min, long max, long& out) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(s, &end, 10);
  if (errno != 0 || end == s || *end != '\0' || v < min || v > max) return false;
  out = v;
  return true;
}

int parseArgs(int argc, char** argv, Options& o) {
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) return nullptr;
      (void)name;
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(kExitOk);
    } else if (a == "--scenario") {
      const char* v = value("--scenario");
      if (v == nullptr) return usageError("%s needs a value", "--scenario");
      o.scenario = v;
      if (o.scenario != "demo" && o.scenario != "bench")
        return usageError("unknown scenario '%s' (demo or bench)", v);
    } else if (a == "--transactions") {
      const char* v = value(a.c_str());
      if (v == nullptr || !parseCount(v, 1, 100000000, o.transactions))
        return usageError("--transactions needs a number from 1 to 100000000%s", "");
    } else if (a == "--rows") {
      const char* v = value(a.c_str());
      if (v == nullptr || !parseCount(v, 1, 10000, o.rows))
        return usageError("--rows needs a number from 1 to 10000%s", "");
    } else if (a == "--byte-order") {
      const char* v = value(a.c_str());
      if (v == nullptr) return usageError("%s needs a value", "--byte-order");
      if (std::strcmp(v, "little") == 0) o.order = ByteOrder::Little;
      else if (std::strcmp(v, "big") == 0) o.order = ByteOrder::Big;
      else return usageError("unknown byte order '%s' (little or big)", v);
    } else if (a == "--ccsid") {
      const char* v = value(a.c_str());
      long c = 0;
      if (v == nullptr || !parseCount(v, 1, 65535, c)) return usageError("--ccsid needs a code page number%s", "");
      o.ccsid = static_cast<int32_t>(c);
    } else if (a.size() > 1 && a[0] == '-') {
      return usageError("unknown option '%s'", a.c_str());
    } else {
      positional.push_back(a);
    }
  }
  if (positional.size() != 2) return usageError("expected QMGR and QUEUE%s", "");
  if (o.scenario.empty()) return usageError("%s is required", "--scenario");
  o.qmgr = positional[0];
  o.queue = positional[1];
  if (o.transactions < 0) o.transactions = o.scenario == "bench" ? 100000 : 1;
  if (o.rows < 0) o.rows = o.scenario == "bench" ? 10 : 3;
  return kExitOk;
}

// ---------------------------------------------------------------------------------------------
// Putting messages: batches under syncpoint.

class Putter {
 public:
  explicit Putter(const Options& o) : o_(o) {}
  ~Putter() { close(); }

  int open() {
    char name[KX_Q_MGR_NAME_LENGTH];
    kxSetName(name, sizeof name, o_.qmgr.c_str());
    KXLONG cc = 0, rc = 0;
    KXCONN(name, &hconn_, &cc, &rc);
    if (cc == KXCC_FAILED) {
      hconn_ = -1;
      if (rc == KXRC_Q_MGR_NAME_ERROR)
        return fail("queue manager %s does not exist (create it with: kxq create-qmgr %s)", o_.qmgr.c_str(), o_.qmgr.c_str());
      return failCall("connect to queue manager", o_.qmgr.c_str(), cc, rc);
    }
    KXOD od = KXOD_DEFAULT;
    kxSetName(od.ObjectName, sizeof od.ObjectName, o_.queue.c_str());
    KXOPEN(hconn_, &od, KXOO_OUTPUT | KXOO_FAIL_IF_QUIESCING, &hobj_, &cc, &rc);
    if (cc == KXCC_FAILED) {
      hobj_ = -1;
      if (rc == KXRC_UNKNOWN_OBJECT_NAME)
        return fail("queue %s does not exist on queue manager %s (create it with: kxq create-queue %s %s)",
                    o_.queue.c_str(), o_.qmgr.c_str(), o_.qmgr.c_str(), o_.queue.c_str());
      return failCall("open queue", o_.queue.c_str(), cc, rc);
    }
    return kExitOk;
  }

  int put(const Bytes& msg) {
    KXMD md = KXMD_DEFAULT;
    std::memcpy(md.Format, KXFMT_COMPACT, KX_FORMAT_LENGTH);
    md.Encoding = descriptorEncoding(o_.order);
    md.CodedCharSetId = o_.ccsid;
    KXPMO pmo = KXPMO_DEFAULT;
    pmo.Options = KXPMO_SYNCPOINT | KXPMO_FAIL_IF_QUIESCING;
    KXLONG cc = 0, rc = 0;
    KXPUT(hconn_, hobj_, &md, &pmo, static_cast<KXLONG>(msg.size()), const_cast<uint8_t*>(msg.data()), &cc, &rc);
    if (cc == KXCC_FAILED) {
      if (rc == KXRC_MSG_TOO_BIG_FOR_Q)
        return fail("a %zu-byte message is longer than queue %s accepts", msg.size(), o_.queue.c_str());
      return failCall("put to queue", o_.queue.c_str(), cc, rc);
    }
    ++count_;
    bytes_ += msg.size();
    if (++pending_ >= kBatch) return commit();
    return kExitOk;
  }

  int commit() {
    if (pending_ == 0) return kExitOk;
    KXLONG cc = 0, rc = 0;
    KXCMIT(hconn_, &cc, &rc);
    pending_ = 0;
    if (cc == KXCC_FAILED) return failCall("commit on queue manager", o_.qmgr.c_str(), cc, rc);
    return kExitOk;
  }

  // Drops the messages put since the last commit (after a failure).
  void backout() {
    if (pending_ == 0 || hconn_ == -1) return;
    KXLONG cc = 0, rc = 0;
    KXBACK(hconn_, &cc, &rc);
    pending_ = 0;
  }

  void close() {
    KXLONG cc = 0, rc = 0;
    if (hobj_ != -1) KXCLOSE(hconn_, &hobj_, KXCO_NONE, &cc, &rc);
    hobj_ = -1;
    if (hconn_ != -1) KXDISC(&hconn_, &cc, &rc);
    hconn_ = -1;
  }

  uint64_t count() const { return count_; }
  uint64_t bytes() const { return bytes_; }

 private:
  static constexpr int kBatch = 500;

  template <typename... A>
  static int fail(const char* fmt, A... args) {
    std::fprintf(stderr, "rplqmgen: ");
    std::fprintf(stderr, fmt, args...);
    std::fputc('\n', stderr);
    return kExitFailed;
  }
  static int failCall(const char* what, const char* name, KXLONG cc, KXLONG rc) {
    std::fprintf(stderr, "rplqmgen: cannot %s %s: cc=%d, rc=%d\n", what, name, cc, rc);
    return kExitFailed;
  }

  const Options& o_;
  KXHCONN hconn_ = -1;
  KXHOBJ hobj_ = -1;
  int pending_ = 0;
  uint64_t count_ = 0, bytes_ = 0;
};

// ---------------------------------------------------------------------------------------------
// The demo subscription.

constexpr uint32_t kDemoSub = 1;
constexpr uint32_t kStartTime = 1763700000;  // 2025-11-21 04:40:00 UTC

SchemaMsgDef demoSchema(int32_t ccsid) {
  SchemaMsgDef s;
  s.version = 11;
  s.subId = kDemoSub;
  s.subname = "ORDERS0001";
  s.srcDbname = "SALES";
  s.srcOwner = "SHOP";
  s.srcName = "ORDERS";
  s.sendqName = "RPL.SALES.TO.DWH";
  s.opts = 4 | 8;
  s.reason = 1;
  s.replddl = 1;
  s.nColsInKey = 1;
  s.ext = GenericTransInfoDef{};
  s.ext->seconds = kStartTime;
  s.columns = {
      {"ORDER_ID", 492, 8, 0},          {"CUSTOMER", 449, 40, ccsid},     {"STATUS", 453, 1, ccsid},
      {"QUANTITY", 501, 2, 0},          {"LINE_NO", 497, 4, 0},           {"AMOUNT", 485, 0, 0, 11, 2},
      {"DISCOUNT", 481, 8, 0},          {"WEIGHT", 481, 4, 0},            {"RATE", 997, 8, 0},
      {"ORDER_DATE", 385, 10, ccsid},   {"ORDER_TIME", 389, 8, ccsid},    {"CHANGED", 393, 26, ccsid},
      {"CHANGED_TZ", 2449, 32, ccsid},  {"LABEL", 469, 4, 1200},          {"NOTE_DBCS", 465, 20, 1200},
      {"REMARKS", 409, 1048576, ccsid}, {"ACTIVE", 2437, 1, 0},
  };
  return s;
}

struct DemoValues {
  long id;
  std::string customer;
  std::string status;
  int16_t quantity;
  std::string amount;
  double discount;
};

std::vector<ColValue> demoCols(const DemoValues& v, const Options& o, bool lobInline) {
  ByteOrder b = o.order;
  int32_t cp = o.ccsid;
  std::string remarks = "Deliver to the back door, ring twice.";
  ColValue lob = lobInline ? valLobRef(1, 15, static_cast<uint32_t>(valText(remarks, cp).data.size()), b, valText(remarks, cp).data)
                           : valLobRef(2, 15, 2 * 4096, b);
  return {valVarchar(v.customer, cp, b),
          valText(v.status, cp),
          valSmallint(v.quantity, b),
          marker(kMarkerNull),                        // LINE_NO: NULL
          valDecimal(v.amount, 11, 2),
          valDouble(v.discount, b),
          valFloat(0.25f, b),
          valDecfloat("1875", -4, false, 8, b),       // 0.1875
          valText("2025-11-21", cp),
          valText("05.40.00", cp),
          valText("2025-11-21-05.40.00.000001", cp),
          valText("2025-11-21-05.40.00.000001+01:00", cp),
          valGraphic("Ａ１", b),
          valVargraphic("東京", b),
          lob,
          valText(std::string(1, '\1'), 0)};
}

RowDef demoRow(uint8_t op, const DemoValues* before, const DemoValues* after, const Options& o, bool lobInline) {
  RowDef r;
  r.subId = kDemoSub;
  r.operation = op;
  r.encodeVer = 3;
  if (before) {
    r.keyBefore = std::vector<ColValue>{valBigint(before->id, o.order)};
    r.colsBefore = demoCols(*before, o, true);
  }
  if (after) {
    r.keyAfter = std::vector<ColValue>{valBigint(after->id, o.order)};
    r.colsAfter = demoCols(*after, o, lobInline);
  }
  return r;
}

// Control messages of the demo: the restart, heartbeat, create-subscription, schema-change and
// file-transfer families append their messages here as their encoders are written.
// Control traffic beside the data: the capture program's restart message, a heartbeat, a new
// subscription, a schema change and a file-transfer payload. The restart message and the
// file-transfer counts travel in the capture program's own byte order and are never swapped by
// the reader, so they are sent only by a little-endian sender (this machine's order).
void appendControlDemo(std::vector<Bytes>& msgs, const Options& o) {
  const bool native = o.order == ByteOrder::Little;
  if (native) msgs.push_back(sampleRestartMsg(o.order, o.ccsid).bytes());
  msgs.push_back(sampleHeartbeatMsg(o.order, o.ccsid).bytes());
  msgs.push_back(sampleCreateSubMsg(o.order, o.ccsid).bytes());
  msgs.push_back(sampleAddColumnMsg(o.order, o.ccsid).bytes());
  if (native) msgs.push_back(sampleXfPayloadMsg(o.order, o.ccsid).bytes());
}

std::vector<Bytes> demoMessages(const Options& o) {
  std::vector<Bytes> msgs;
  const ByteOrder b = o.order;
  const int32_t cp = o.ccsid;
  msgs.push_back(encodeSchemaMsg(demoSchema(cp), b, cp));
  appendControlDemo(msgs, o);

  for (long t = 0; t < o.transactions; ++t) {
    const long base = 1000 + 10 * t;
    TransMsgDef tx;
    tx.segment = 1;
    tx.seconds = kStartTime + static_cast<uint32_t>(t);
    tx.micros = 125000;
    tx.lsn.bytes[15] = static_cast<uint8_t>(t);
    tx.uow[9] = static_cast<uint8_t>(t + 1);
    DemoValues a{base, "Ada Lovelace", "N", 3, "1234.50", 0.1};
    DemoValues a2{base, "Ada Lovelace", "S", 4, "1646.00", 0.125};
    DemoValues c{base + 1, "Charles Babbage", "C", 1, "-20.00", 0};
    // The first insert's REMARKS travel in LOB messages of their own.
    tx.rows.push_back(demoRow(17, nullptr, &a, o, false));
    for (long r = 1; r < o.rows; ++r) {
      DemoValues extra{base + 1 + r, "Customer " + std::to_string(r), "N", static_cast<int16_t>(r), "99.99", 0.5};
      tx.rows.push_back(demoRow(16, nullptr, &extra, o, true));
    }
    tx.rows.push_back(demoRow(32, &a, &a2, o, true));      // update with before and after values
    tx.rows.push_back(demoRow(64, &c, nullptr, o, true));  // delete with before values
    RowDef keyUpdate;
    keyUpdate.subId = kDemoSub;
    keyUpdate.operation = 128;
    keyUpdate.keyBefore = std::vector<ColValue>{valBigint(base + 2, b)};
    keyUpdate.keyAfter = std::vector<ColValue>{valBigint(base + 3, b)};
    keyUpdate.colsAfter = std::vector<ColValue>(16, marker(kMarkerSuppressed));
    tx.rows.push_back(keyUpdate);
    tx.flag = 0;  // the LOB messages end the transaction
    msgs.push_back(encodeTransMsg(tx, b, cp));

    // The REMARKS value of the first row, in two parts; the last one ends the transaction.
    std::string text;
    while (text.size() < 2 * 4096) text += "The quick brown fox jumps over the lazy dog. ";
    text.resize(2 * 4096);
    Bytes all = valText(text, cp).data;
    for (int part = 0; part < 2; ++part) {
      LobMsgDef l;
      l.subId = kDemoSub;
      l.rowNum = 2;
      l.colNum = 15;
      l.flag = part == 1 ? 1 : 0;
      l.totalLen = static_cast<uint32_t>(all.size());
      l.data.assign(all.begin() + part * 4096, all.begin() + (part + 1) * 4096);
      msgs.push_back(encodeLobMsg(l, b, cp));
    }
  }

  // A large transaction streamed in three messages, the middle one with a statement chunk.
  StreamedTransMsgDef st;
  st.seconds = kStartTime + 60;
  st.transType = 2;
  DemoValues big{900000, "Grace Hopper", "N", 10, "10.00", 0};
  st.rows = {demoRow(16, nullptr, &big, o, true)};
  msgs.push_back(encodeStreamedTransMsg(st, b, cp));
  st.transType = 4;
  StmtChunkDef chunk;
  chunk.operation = 16;
  chunk.format = 3;
  chunk.fileSize = 52428800;
  chunk.nRows = 250000;
  chunk.fileName = "/var/rpl/spill/ORDERS0001_0001.bin";
  chunk.cols = {{1, 1, 492, 8}, {2, 2, 449, 40}, {2, 3, 453, 1}, {2, 6, 485, 11}};
  RowDef chunkRow;
  chunkRow.subId = kDemoSub;
  chunkRow.chunk = chunk;
  st.rows = {chunkRow};
  msgs.push_back(encodeStreamedTransMsg(st, b, cp));
  st.transType = 16;
  st.flag = 1;
  DemoValues bigger{900001, "Grace Hopper", "S", 11, "11.00", 0};
  st.rows = {demoRow(16, nullptr, &bigger, o, true)};
  msgs.push_back(encodeStreamedTransMsg(st, b, cp));

  // A row spilled by the capture side.
  DemoValues spilled{900002, "Alan Turing", "N", 1, "0.01", 0};
  msgs.push_back(encodeSpilledRowMsg(9, demoRow(16, nullptr, &spilled, o, true), b, cp));
  return msgs;
}

int runDemo(const Options& o, Putter& p) {
  for (const Bytes& m : demoMessages(o)) {
    int rc = p.put(m);
    if (rc != kExitOk) return rc;
  }
  return p.commit();
}

// ---------------------------------------------------------------------------------------------
// The bench: one template transaction, its commit time and key values patched per transaction.

void putU32(Bytes& b, size_t at, uint32_t v, ByteOrder o) {
  for (size_t i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * (o == ByteOrder::Little ? i : 3 - i)));
}
void putU64(Bytes& b, size_t at, uint64_t v, ByteOrder o) {
  for (size_t i = 0; i < 8; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * (o == ByteOrder::Little ? i : 7 - i)));
}
uint32_t getU32(const Bytes& b, size_t at, ByteOrder o) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) v |= uint32_t{b[at + i]} << (8 * (o == ByteOrder::Little ? i : 3 - i));
  return v;
}

int runBench(const Options& o, Putter& p) {
  const ByteOrder b = o.order;
  const int32_t cp = o.ccsid;
  SchemaMsgDef s = demoSchema(cp);
  s.subname = "BENCH0001";
  int rc = p.put(encodeSchemaMsg(s, b, cp));
  if (rc != kExitOk) return rc;

  TransMsgDef tx;
  const std::vector<ColValue> cols = demoCols({0, "Bench Customer", "N", 1, "42.42", 0.5}, o, true);
  for (long r = 0; r < o.rows; ++r) {
    RowDef row;
    row.subId = kDemoSub;
    row.operation = 16;
    row.keyAfter = std::vector<ColValue>{valBigint(0, b)};
    row.colsAfter = cols;
    tx.rows.push_back(row);
  }
  Bytes msg = encodeTransMsg(tx, b, cp);
  // Where each row's key value lies: the key set is the row's first, its one value follows
  // the set's 6-byte header and its one entry.
  std::vector<size_t> keyAt;
  size_t at = transRowsAt(tx.version);
  for (long r = 0; r < o.rows; ++r) {
    keyAt.push_back(at + rowSetsAt(tx.version) + 8);
    at += (getU32(msg, at, b) + 3) & ~3u;
  }
  uint64_t id = 1;
  for (long t = 0; t < o.transactions; ++t) {
    putU32(msg, 20, kStartTime + static_cast<uint32_t>(t / 1000), b);
    putU32(msg, 24, static_cast<uint32_t>((t % 1000) * 1000), b);
    for (size_t k : keyAt) putU64(msg, k, id++, b);
    rc = p.put(msg);
    if (rc != kExitOk) return rc;
  }
  return p.commit();
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int rc = parseArgs(argc, argv, o);
  if (rc != kExitOk) return rc;
  Putter p(o);
  rc = p.open();
  if (rc != kExitOk) return rc;
  auto start = std::chrono::steady_clock::now();
  rc = o.scenario == "bench" ? runBench(o, p) : runDemo(o, p);
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (rc != kExitOk) p.backout();
  p.close();
  if (rc != kExitOk) return rc;
  std::printf("rplqmgen: put %" PRIu64 " messages (%" PRIu64 " bytes) on %s in %.2f s\n", p.count(), p.bytes(),
              o.queue.c_str(), secs);
  return kExitOk;
}
