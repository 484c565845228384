// rplqmgen: puts realistic replication traffic (compact messages) on a queue through the KX API.
//
//   rplqmgen QMGR QUEUE --scenario demo|mixed|bench [--transactions N] [--rows N] [--seed N]
//                       [--byte-order little|big] [--ccsid N]
//
// demo: one subscription with columns of many types, inserts, updates and deletes with before
// and after values, NULLs, a LOB sent in its own messages, a streamed transaction with a
// statement chunk, and the control messages of appendControlDemo.
// mixed: what a capture program sends over a working day: four subscriptions over tables of
// different shapes, every transaction with its own unit of work, commit position and time,
// inserts, updates and deletes, NULLs, now and then a LOB or a streamed transaction, and
// heartbeats, a schema change and a subscription's stop and start in between; --seed N
// chooses the day, the same seed gives the same bytes.
// bench: three subscriptions and N transactions of R rows with mixed column types, put fast:
// one template message per subscription, its commit position, time, unit of work and keys
// patched per transaction.
#include <cerrno>
#include <chrono>
#include <random>
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
#include "version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: rplqmgen QMGR QUEUE --scenario demo|mixed|bench [--transactions N] [--rows N]\n"
    "                [--seed N] [--byte-order little|big] [--ccsid N]\n"
    "       rplqmgen --help | --version\n"
    "\n"
    "Puts compact replication messages on QUEUE of queue manager QMGR.\n"
    "\n"
    "  --scenario demo    one subscription, inserts, updates and deletes of many column types\n"
    "                     with NULLs, a LOB in its own messages, a streamed transaction with a\n"
    "                     statement chunk, and control messages\n"
    "  --scenario mixed   four subscriptions over tables of different shapes, transactions\n"
    "                     with their own unit of work, commit position and time, inserts,\n"
    "                     updates and deletes with NULLs, now and then a LOB or a streamed\n"
    "                     transaction, heartbeats, a schema change, a subscription stopped\n"
    "                     and started again\n"
    "  --scenario bench   three subscriptions, then N transactions of R rows, put in batches\n"
    "  --transactions N   transactions to put (bench: default 100000; mixed: 1000; demo: 1)\n"
    "  --rows N           rows per transaction (bench: default 10; mixed: up to 5; demo: 3)\n"
    "  --seed N           the seed of the mixed traffic (default 1): the same seed, the same\n"
    "                     messages\n"
    "  --byte-order O     integers of the sender: little (default) or big\n"
    "  --ccsid N          code page of the sender's text (default 1208; 37 for EBCDIC)\n"
    "  --help             this text\n"
    "  --version          the program's version\n"
    "\n"
    "Exit status: 0 done, 1 failed (nothing of the failed batch stays on the queue), 2 usage\n"
    "error. The summary goes to standard error.\n";

struct Options {
  std::string qmgr, queue, scenario;
  long transactions = -1;
  long rows = -1;
  uint64_t seed = 1;
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
    } else if (a == "--version") {
      std::printf("rplqmgen %s\n", RPL_VERSION);
      std::exit(kExitOk);
    } else if (a == "--seed") {
      const char* v = value(a.c_str());
      long seed = 0;
      if (v == nullptr || !parseCount(v, 0, 2147483647, seed))
        return usageError("--seed needs a number from 0 to 2147483647%s", "");
      o.seed = static_cast<uint64_t>(seed);
    } else if (a == "--scenario") {
      const char* v = value("--scenario");
      if (v == nullptr) return usageError("%s needs a value", "--scenario");
      o.scenario = v;
      if (o.scenario != "demo" && o.scenario != "bench" && o.scenario != "mixed")
        return usageError("unknown scenario '%s' (demo, mixed or bench)", v);
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
  if (o.transactions < 0) o.transactions = o.scenario == "bench" ? 100000 : o.scenario == "mixed" ? 1000 : 1;
  if (o.rows < 0) o.rows = o.scenario == "bench" ? 10 : o.scenario == "mixed" ? 5 : 3;
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
  s.ext.emplace();
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

// The REMARKS value of the demo subscription's first row (8 KiB of `sentence` repeated), sent in
// two LOB messages of 4 KiB; the second ends the transaction.
std::vector<Bytes> demoRemarksLob(const std::string& sentence, ByteOrder order, int32_t ccsid) {
  constexpr size_t kPart = 4096;
  std::string text;
  while (text.size() < 2 * kPart) text += sentence;
  text.resize(2 * kPart);
  Bytes all = valText(text, ccsid).data;
  std::vector<Bytes> parts;
  for (size_t part = 0; part < 2; ++part) {
    LobMsgDef l;
    l.subId = kDemoSub;
    l.rowNum = 2;
    l.colNum = 15;
    l.flag = part == 1 ? 1 : 0;
    l.totalLen = static_cast<uint32_t>(all.size());
    l.data.assign(all.begin() + part * kPart, all.begin() + (part + 1) * kPart);
    parts.push_back(encodeLobMsg(l, order, ccsid));
  }
  return parts;
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
    for (Bytes& part : demoRemarksLob("The quick brown fox jumps over the lazy dog. ", b, cp))
      msgs.push_back(std::move(part));
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
// The capture program's progress: every committed transaction moves the log position, the
// commit time and the unit-of-work id forward, by steps of varying length.

class Capture {
 public:
  explicit Capture(uint64_t seed) : rng_(seed) {}

  // Moves on to the next committed transaction.
  void commit() {
    lsn_ += 0x40 + below(0x800);
    micros_ += 150 + below(40000);
    seconds_ += static_cast<uint32_t>(micros_ / 1000000);
    micros_ %= 1000000;
    uow_ += 1 + below(3);  // units of work that changed nothing replicated leave gaps
  }
  uint64_t below(uint64_t n) { return rng_() % n; }
  bool oneIn(uint64_t n) { return below(n) == 0; }

  Bytes lsnBytes() const {
    Bytes b(16, 0);
    for (int i = 0; i < 8; ++i) b[8 + i] = static_cast<uint8_t>(lsn_ >> (56 - 8 * i));
    return b;
  }
  LsnDef lsn() const {
    LsnDef l;
    l.bytes = lsnBytes();
    return l;
  }
  LogPosition position() const {
    LogPosition p;
    p.value = lsnBytes();
    return p;
  }
  Bytes uow() const {
    Bytes b(10, 0);
    for (int i = 0; i < 6; ++i) b[4 + i] = static_cast<uint8_t>(uow_ >> (40 - 8 * i));
    return b;
  }
  uint32_t seconds() const { return seconds_; }
  uint32_t micros() const { return static_cast<uint32_t>(micros_); }
  // "2025-11-21-05.40.00.000001" of the commit time (UTC).
  std::string timestamp() const {
    time_t t = seconds_;
    struct tm tm;
    gmtime_r(&t, &tm);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d-%02d.%02d.%02d.%06u", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros());
    return text;
  }

 private:
  std::mt19937_64 rng_;
  uint64_t lsn_ = 0x0000000012340000ull;
  uint32_t seconds_ = kStartTime;
  uint64_t micros_ = 0;
  uint64_t uow_ = 0x0a0b00000000ull;
};

// ---------------------------------------------------------------------------------------------
// The mixed scenario: four tables of different shapes, each the source of one subscription.
//
//   sub  table            key                      columns
//   1    SHOP.ORDERS      ORDER_ID BIGINT          16 of many types, a CLOB (the demo table)
//   2    SHOP.CUSTOMERS   CUST_ID INTEGER          NAME, COUNTRY, BALANCE, CREATED, NOTE (+ EMAIL)
//   3    STOCK.ITEMS      WAREHOUSE, ITEM_NO       QTY, PRICE, UPDATED
//   4    PAY.PAYMENTS     PAY_ID BIGINT            ORDER_ID, AMOUNT, CURRENCY, PAID_AT, METHOD

constexpr uint32_t kCustomersSub = 2, kStockSub = 3, kPaymentsSub = 4;

const char* const kNames[] = {"Ada Lovelace", "Charles Babbage", "Grace Hopper", "Alan Turing",
                              "Edsger Dijkstra", "Barbara Liskov", "Donald Knuth", "Frances Allen",
                              "Tony Hoare", "Margaret Hamilton"};
const char* const kCountries[] = {"FR", "DE", "GB", "US", "JP", "BR"};
const char* const kCurrencies[] = {"EUR", "USD", "GBP", "JPY"};
const char* const kMethods[] = {"CARD", "TRANSFER", "CASH", "VOUCHER"};

SchemaMsgDef tableSchema(uint32_t subId, const char* subname, const char* owner, const char* name,
                         uint16_t keys, std::vector<ColumnDef> columns, const Capture& cap) {
  SchemaMsgDef s;
  s.version = 11;
  s.subId = subId;
  s.subname = subname;
  s.srcDbname = "SALES";
  s.srcOwner = owner;
  s.srcName = name;
  s.sendqName = "RPL.SALES.TO.DWH";
  s.opts = 4 | 8;
  s.reason = 1;
  s.replddl = 1;
  s.nColsInKey = keys;
  s.ext.emplace();
  s.ext->lsn = cap.lsn();
  s.ext->seconds = cap.seconds();
  s.ext->micros = cap.micros();
  s.ext->uow = cap.uow();
  s.columns = std::move(columns);
  return s;
}

SchemaMsgDef customersSchema(int32_t cp, bool withEmail, const Capture& cap) {
  std::vector<ColumnDef> cols = {{"CUST_ID", 496, 4, 0},     {"NAME", 449, 60, cp},
                                 {"COUNTRY", 452, 2, cp},    {"BALANCE", 485, 0, 0, 11, 2},
                                 {"CREATED", 393, 26, cp},   {"NOTE", 449, 200, cp}};
  if (withEmail) cols.push_back({"EMAIL", 449, 64, cp});
  return tableSchema(kCustomersSub, "CUSTOMERS0001", "SHOP", "CUSTOMERS", 1, cols, cap);
}

SchemaMsgDef stockSchema(int32_t cp, const Capture& cap) {
  return tableSchema(kStockSub, "STOCK0001", "STOCK", "ITEMS", 2,
                     {{"WAREHOUSE", 500, 2, 0}, {"ITEM_NO", 452, 10, cp}, {"QTY", 497, 4, 0},
                      {"PRICE", 481, 8, 0}, {"UPDATED", 385, 10, cp}},
                     cap);
}

SchemaMsgDef paymentsSchema(int32_t cp, const Capture& cap) {
  return tableSchema(kPaymentsSub, "PAYMENTS0001", "PAY", "PAYMENTS", 1,
                     {{"PAY_ID", 492, 8, 0}, {"ORDER_ID", 493, 8, 0}, {"AMOUNT", 485, 0, 0, 15, 2},
                      {"CURRENCY", 453, 3, cp}, {"PAID_AT", 393, 26, cp}, {"METHOD", 449, 20, cp}},
                     cap);
}

std::string padded(std::string text, size_t width) {
  text.resize(width, ' ');
  return text;
}

std::string money(Capture& cap, int maxUnits) {
  long cents = static_cast<long>(cap.below(static_cast<uint64_t>(maxUnits) * 100));
  char text[32];
  std::snprintf(text, sizeof text, "%ld.%02ld", cents / 100, cents % 100);
  return text;
}

class Mixed {
 public:
  Mixed(const Options& o, Putter& p) : o_(o), p_(p), cap_(o.seed) {}

  int run() {
    const int32_t cp = o_.ccsid;
    // The subscriptions start: each schema before the first row that needs it.
    SchemaMsgDef orders = demoSchema(cp);
    orders.ext->lsn = cap_.lsn();
    orders.ext->uow = cap_.uow();
    if (int rc = put(encodeSchemaMsg(orders, o_.order, cp))) return rc;
    if (int rc = put(encodeSchemaMsg(customersSchema(cp, false, cap_), o_.order, cp))) return rc;
    if (int rc = put(encodeSchemaMsg(stockSchema(cp, cap_), o_.order, cp))) return rc;
    if (int rc = put(encodeSchemaMsg(paymentsSchema(cp, cap_), o_.order, cp))) return rc;

    const long n = o_.transactions;
    const long schemaChangeAt = n / 2, stopAt = n / 3, startAt = n / 3 + n / 10 + 1;
    for (long t = 0; t < n; ++t) {
      cap_.commit();
      if (t == schemaChangeAt && n > 1)
        if (int rc = addEmailColumn()) return rc;
      if (t == stopAt && n > 2)
        if (int rc = stopStock()) return rc;
      if (t == startAt && !stockActive_)
        if (int rc = startStock()) return rc;
      int rc = 0;
      if (cap_.oneIn(40))
        rc = lobTransaction();
      else if (cap_.oneIn(150))
        rc = streamedTransaction();
      else
        rc = put(encodeTransMsg(transaction(), o_.order, o_.ccsid));
      if (rc) return rc;
      if (cap_.oneIn(60))
        if (int hb = heartbeat()) return hb;
    }
    return p_.commit();
  }

 private:
  int put(const Bytes& m) { return p_.put(m); }

  TransMsgDef header() {
    TransMsgDef tx;
    tx.lsn = cap_.lsn();
    tx.seconds = cap_.seconds();
    tx.micros = cap_.micros();
    tx.sourceLocal = cap_.seconds() + 3600;
    tx.uow = cap_.uow();
    tx.authId = cap_.oneIn(3) ? "BATCHJOB" : "APPUSER";
    tx.authTkn = cap_.oneIn(3) ? "NIGHTLY" : "WEBSHOP";
    tx.planId = "SALESAPP";
    return tx;
  }

  // One to R rows over one or two tables, most of them inserts.
  TransMsgDef transaction() {
    TransMsgDef tx = header();
    long rows = 1 + static_cast<long>(cap_.below(static_cast<uint64_t>(o_.rows)));
    uint32_t first = pickTable(), second = cap_.oneIn(4) ? pickTable() : first;
    for (long r = 0; r < rows; ++r) tx.rows.push_back(row(r % 2 ? second : first));
    return tx;
  }

  uint32_t pickTable() {
    for (;;) {
      uint32_t sub = 1 + static_cast<uint32_t>(cap_.below(4));
      if (sub != kStockSub || stockActive_) return sub;
    }
  }

  uint8_t operation() {
    uint64_t d = cap_.below(10);
    return d < 6 ? 16 : d < 9 ? 32 : 64;
  }

  RowDef row(uint32_t sub) {
    uint8_t op = operation();
    switch (sub) {
      case kCustomersSub: return customerRow(op);
      case kStockSub: return stockRow(op);
      case kPaymentsSub: return paymentRow(op);
      default: return orderRow(op, true);
    }
  }

  static void place(RowDef& r, uint8_t op, std::vector<ColValue> keyBefore, std::vector<ColValue> before,
                    std::vector<ColValue> keyAfter, std::vector<ColValue> after) {
    r.operation = op;
    if (op != 16) {
      r.keyBefore = std::move(keyBefore);
      r.colsBefore = std::move(before);
    }
    if (op != 64) {
      r.keyAfter = std::move(keyAfter);
      r.colsAfter = std::move(after);
    }
  }

  RowDef orderRow(uint8_t op, bool lobInline) {
    long id = 1000 + static_cast<long>(cap_.below(1000000));
    DemoValues before{id, kNames[cap_.below(10)], "N", static_cast<int16_t>(1 + cap_.below(20)),
                      money(cap_, 5000), 0.05};
    DemoValues after = before;
    after.status = op == 32 ? "S" : "N";
    after.amount = money(cap_, 5000);
    RowDef r = demoRow(op == 64 ? 64 : op, op == 16 ? nullptr : &before, op == 64 ? nullptr : &after, o_,
                       lobInline);
    r.subId = kDemoSub;
    return r;
  }

  std::vector<ColValue> customerCols(const std::string& name, const std::string& note) {
    const ByteOrder b = o_.order;
    const int32_t cp = o_.ccsid;
    std::vector<ColValue> c = {valVarchar(name, cp, b), valText(kCountries[cap_.below(6)], cp),
                               valDecimal(money(cap_, 20000), 11, 2), valText(cap_.timestamp(), cp),
                               note.empty() ? marker(kMarkerNull) : valVarchar(note, cp, b)};
    if (customersHaveEmail_)
      c.push_back(cap_.oneIn(3) ? marker(kMarkerNull) : valVarchar("customer@example.org", cp, b));
    return c;
  }

  RowDef customerRow(uint8_t op) {
    const ByteOrder b = o_.order;
    int32_t id = 1 + static_cast<int32_t>(cap_.below(50000));
    std::string name = kNames[cap_.below(10)];
    std::string note = cap_.oneIn(2) ? "" : "prefers delivery after 18:00";
    RowDef r;
    r.subId = kCustomersSub;
    place(r, op, {valInteger(id, b)}, customerCols(name, note), {valInteger(id, b)},
          customerCols(name, cap_.oneIn(2) ? "" : "moved to a new address"));
    return r;
  }

  RowDef stockRow(uint8_t op) {
    const ByteOrder b = o_.order;
    const int32_t cp = o_.ccsid;
    int16_t warehouse = static_cast<int16_t>(1 + cap_.below(12));
    char item[16];
    std::snprintf(item, sizeof item, "IT%06u", static_cast<unsigned>(cap_.below(1000000)));
    std::vector<ColValue> key = {valSmallint(warehouse, b), valText(padded(item, 10), cp)};
    auto cols = [&] {
      return std::vector<ColValue>{cap_.oneIn(8) ? marker(kMarkerNull) : valInteger(int32_t(cap_.below(5000)), b),
                                   valDouble(double(cap_.below(100000)) / 100.0, b),
                                   valText(cap_.timestamp().substr(0, 10), cp)};
    };
    RowDef r;
    r.subId = kStockSub;
    place(r, op, key, cols(), key, cols());
    return r;
  }

  RowDef paymentRow(uint8_t op) {
    const ByteOrder b = o_.order;
    const int32_t cp = o_.ccsid;
    int64_t id = 500000 + static_cast<int64_t>(cap_.below(1000000));
    auto cols = [&] {
      return std::vector<ColValue>{
          cap_.oneIn(5) ? marker(kMarkerNull) : valBigint(1000 + int64_t(cap_.below(1000000)), b),
          valDecimal(money(cap_, 3000), 15, 2), valText(kCurrencies[cap_.below(4)], cp),
          valText(cap_.timestamp(), cp),
          cap_.oneIn(6) ? marker(kMarkerNull) : valVarchar(kMethods[cap_.below(4)], cp, b)};
    };
    RowDef r;
    r.subId = kPaymentsSub;
    place(r, op, {valBigint(id, b)}, cols(), {valBigint(id, b)}, cols());
    return r;
  }

  // An order whose REMARKS travel in LOB messages after the transaction message; the last one
  // ends the transaction.
  int lobTransaction() {
    TransMsgDef tx = header();
    tx.rows.push_back(orderRow(16, false));
    tx.flag = 0;
    if (int rc = put(encodeTransMsg(tx, o_.order, o_.ccsid))) return rc;
    for (Bytes& part : demoRemarksLob("Deliver to the loading bay at the back, ring twice. ", o_.order, o_.ccsid))
      if (int rc = put(std::move(part))) return rc;
    return 0;
  }

  // A large transaction sent in three messages as it runs: begin, more rows, commit.
  int streamedTransaction() {
    StreamedTransMsgDef st;
    st.uow = cap_.uow();
    st.lsn = cap_.lsn();
    st.seconds = cap_.seconds();
    st.micros = cap_.micros();
    st.authId = "BATCHJOB";
    st.authTkn = "MONTHEND";
    st.planId = "SALESAPP";
    const uint8_t types[] = {2, 4, 16};
    for (int part = 0; part < 3; ++part) {
      st.transType = types[part];
      st.flag = part == 2 ? 1 : 0;
      st.rows.clear();
      for (int r = 0; r < 3; ++r) st.rows.push_back(paymentRow(16));
      if (int rc = put(encodeStreamedTransMsg(st, o_.order, o_.ccsid))) return rc;
    }
    return 0;
  }

  int heartbeat() {
    HeartbeatFields f;
    f.sendq = "RPL.SALES.TO.DWH";
    f.lastLogSeconds = cap_.seconds();
    f.lastLogMicros = cap_.micros();
    f.lastLogCmtLsn = cap_.position();
    return put(encodeHeartbeatMsg(f, o_.order, o_.ccsid).bytes());
  }

  // ALTER TABLE SHOP.CUSTOMERS ADD COLUMN EMAIL: the schema change, then the subscription's
  // schema with the new column before the first row that carries it.
  int addEmailColumn() {
    AddColumnFields f;
    f.subId = static_cast<int32_t>(kCustomersSub);
    f.colName = "EMAIL";
    f.typeLen = 64;
    f.codepage = o_.ccsid;
    f.trans.commitLsn = cap_.position();
    f.trans.commitSeconds = cap_.seconds();
    f.trans.commitMicros = cap_.micros();
    f.trans.uow = cap_.uow();
    if (int rc = put(encodeAddColumnMsg(f, o_.order, o_.ccsid).bytes())) return rc;
    cap_.commit();
    customersHaveEmail_ = true;
    return put(encodeSchemaMsg(customersSchema(o_.ccsid, true, cap_), o_.order, o_.ccsid));
  }

  int stopStock() {
    SubDeactivatedFields f;
    f.subId = static_cast<int32_t>(kStockSub);
    f.subname = "STOCK0001";
    stockActive_ = false;
    return put(encodeSubDeactivatedMsg(f, o_.order, o_.ccsid).bytes());
  }

  int startStock() {
    stockActive_ = true;
    return put(encodeSchemaMsg(stockSchema(o_.ccsid, cap_), o_.order, o_.ccsid));
  }

  const Options& o_;
  Putter& p_;
  Capture cap_;
  bool customersHaveEmail_ = false;
  bool stockActive_ = true;
};

int runMixed(const Options& o, Putter& p) { return Mixed(o, p).run(); }

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

// The offsets at which two encodings of the same message differ: where a field lies.
std::vector<size_t> differing(const Bytes& a, const Bytes& b) {
  std::vector<size_t> at;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (a[i] != b[i]) at.push_back(i);
  return at;
}

// Three subscriptions over the orders tables of three regions (one shape, so every transaction
// message has the same size), then N transactions spread over them, each with its own commit
// position, time and unit of work, as a capture program sends them.
int runBench(const Options& o, Putter& p) {
  const ByteOrder b = o.order;
  const int32_t cp = o.ccsid;
  Capture cap(o.seed);
  const char* const regions[] = {"SHOP_EU", "SHOP_US", "SHOP_AP"};
  constexpr uint32_t kSubs = 3;
  for (uint32_t sub = 0; sub < kSubs; ++sub) {
    SchemaMsgDef s = demoSchema(cp);
    s.subId = kDemoSub + sub;
    s.subname = "BENCH000" + std::to_string(sub + 1);
    s.srcOwner = regions[sub];
    s.ext->lsn = cap.lsn();
    s.ext->uow = cap.uow();
    int rc = p.put(encodeSchemaMsg(s, b, cp));
    if (rc != kExitOk) return rc;
  }

  const std::vector<ColValue> cols = demoCols({0, "Bench Customer", "N", 1, "42.42", 0.5}, o, true);
  std::vector<Bytes> templates;
  TransMsgDef tx;
  for (uint32_t sub = 0; sub < kSubs; ++sub) {
    tx.rows.clear();
    for (long r = 0; r < o.rows; ++r) {
      RowDef row;
      row.subId = kDemoSub + sub;
      row.operation = 16;
      row.keyAfter = std::vector<ColValue>{valBigint(0, b)};
      row.colsAfter = cols;
      tx.rows.push_back(row);
    }
    templates.push_back(encodeTransMsg(tx, b, cp));
  }
  // Where the commit position and the unit of work lie: the bytes that change with them.
  TransMsgDef otherLsn = tx, otherUow = tx;
  for (uint8_t& v : otherLsn.lsn.bytes) v = static_cast<uint8_t>(~v);
  for (uint8_t& v : otherUow.uow) v = static_cast<uint8_t>(~v);
  const std::vector<size_t> lsnAt = differing(templates.back(), encodeTransMsg(otherLsn, b, cp));
  const std::vector<size_t> uowAt = differing(templates.back(), encodeTransMsg(otherUow, b, cp));
  if (lsnAt.size() != 16 || uowAt.size() != tx.uow.size()) {
    std::fprintf(stderr, "rplqmgen: cannot place the commit position in the bench message\n");
    return kExitFailed;
  }
  // Where each row's key value lies: the key set is the row's first, its one value follows
  // the set's 6-byte header and its one entry.
  const Bytes& msg0 = templates[0];
  std::vector<size_t> keyAt;
  size_t at = transRowsAt(tx.version);
  for (long r = 0; r < o.rows; ++r) {
    keyAt.push_back(at + rowSetsAt(tx.version) + 8);
    at += (getU32(msg0, at, b) + 3) & ~3u;
  }
  uint64_t id = 1;
  for (long t = 0; t < o.transactions; ++t) {
    cap.commit();
    Bytes& msg = templates[static_cast<size_t>(t) % kSubs];
    putU32(msg, 20, cap.seconds(), b);
    putU32(msg, 24, cap.micros(), b);
    Bytes lsn = cap.lsnBytes(), uow = cap.uow();
    for (size_t i = 0; i < lsnAt.size(); ++i) msg[lsnAt[i]] = lsn[i];
    for (size_t i = 0; i < uowAt.size(); ++i) msg[uowAt[i]] = uow[i];
    for (size_t k : keyAt) putU64(msg, k, id++, b);
    int rc = p.put(msg);
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
  rc = o.scenario == "bench" ? runBench(o, p) : o.scenario == "mixed" ? runMixed(o, p) : runDemo(o, p);
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (rc != kExitOk) p.backout();
  p.close();
  if (rc != kExitOk) return rc;
  std::fprintf(stderr, "rplqmgen: put %" PRIu64 " messages (%" PRIu64 " bytes) on %s in %.2f s\n", p.count(), p.bytes(),
              o.queue.c_str(), secs);
  return kExitOk;
}
