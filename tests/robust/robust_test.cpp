// A queue of 1,000 randomly damaged messages of every family (compact messages of each type
// and version from both byte orders and an EBCDIC sender, KXHRF2 headers, XML) is formatted to
// its end: no crash, no hang, nothing read past a message. The read loop stops at the first
// compact message that cannot be printed, having removed it with "-delmsg", so the queue is
// read again until it is empty.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "driver/kxbind.h"
#include "driver/queue_loop.h"
#include "driver/xml_printer.h"
#include "kx/kxm_admin.h"
#include "qmsg/compact.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char* kQmgr = "QROB";
constexpr const char* kQueue = "DAMAGED";
constexpr int kMessages = 1000;
constexpr uint8_t kSplit[4] = {0xFE, 0xFE, 0xFE, 0xFE};

// One message as put: format, descriptor encoding and code page, data.
struct QueuedMsg {
  const char* format;
  int32_t encoding;
  int32_t ccsid;
  Bytes data;
};

// A seed of the fuzz corpus: the mode byte (fuzz/fuzz_common.h) then messages split by FE FE FE FE.
struct Seed {
  int32_t encoding;
  int32_t ccsid;
  std::vector<Bytes> msgs;
};

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<Bytes> readDir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());  // the same queue on every run
  std::vector<Bytes> files;
  for (const std::string& n : names) files.push_back(readFile(dir + "/" + n));
  return files;
}

Seed parseSeed(const Bytes& f) {
  static constexpr int32_t kCcsids[] = {1208, 37, 1200, 943};
  Seed s{(f[0] & 2) != 0 ? 273 : 546, kCcsids[(f[0] >> 2) & 3], {}};
  size_t start = 1;
  for (size_t i = 1; i + 4 <= f.size(); ++i)
    if (std::memcmp(&f[i], kSplit, 4) == 0) {
      s.msgs.emplace_back(f.begin() + static_cast<long>(start), f.begin() + static_cast<long>(i));
      start = i + 4;
      i += 3;
    }
  s.msgs.emplace_back(f.begin() + static_cast<long>(start), f.end());
  return s;
}

// Damage of the kinds a broken sender or a cut transfer leaves: flipped bits, boundary values
// written over integers (counts, lengths and offsets among them), bytes cut off or added.
void damage(Bytes& m, std::mt19937& rng) {
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  const int edits = 1 + static_cast<int>(rng() % 4);
  for (int e = 0; e < edits && !m.empty(); ++e) {
    switch (rng() % 6) {
      case 0:
        m[pick(m.size())] ^= static_cast<uint8_t>(1u << (rng() % 8));
        break;
      case 1: {  // a boundary value over a 16- or 32-bit integer (the header is left alone half the time)
        static constexpr uint32_t kValues[] = {0, 1, 0x7F, 0x80, 0xFF, 0x7FFF, 0x8000, 0xFFFF,
                                               0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 4096};
        const size_t width = rng() % 2 != 0 ? 2 : 4;
        if (m.size() < width) break;
        const size_t at = pick(m.size() - width + 1) & ~static_cast<size_t>(1);
        const uint32_t v = kValues[rng() % std::size(kValues)];
        std::memcpy(&m[at], &v, width);
        break;
      }
      case 2:
        m.resize(pick(m.size()));
        break;
      case 3: {
        const size_t at = pick(m.size() + 1);
        m.insert(m.begin() + static_cast<long>(at), 1 + pick(16), static_cast<uint8_t>(rng()));
        break;
      }
      case 4: {  // a message type or version of another family
        if (m.size() >= 8) m[4 + pick(4)] = static_cast<uint8_t>(rng());
        break;
      }
      default:
        m[pick(m.size())] = static_cast<uint8_t>(rng());
        break;
    }
  }
}

// The damaged queue: schema messages go before the rows that need them (damaged too, now and
// then), every other message is damaged.
std::vector<QueuedMsg> damagedQueue() {
  std::vector<Seed> compact;
  for (const Bytes& f : readDir(std::string(CORPUS_DIR) + "/compact"))
    if (!f.empty()) compact.push_back(parseSeed(f));
  std::vector<Seed> rfh2;
  for (const Bytes& f : readDir(std::string(CORPUS_DIR) + "/rfh2"))
    if (!f.empty()) rfh2.push_back(parseSeed(f));
  std::vector<Bytes> xml;
  for (const Bytes& f : readDir(std::string(CORPUS_DIR) + "/xml"))
    if (!f.empty()) xml.emplace_back(f.begin() + 1, f.end());
  EXPECT_GT(compact.size(), 100u) << "seed corpus missing under " << CORPUS_DIR;

  std::mt19937 rng(20261121);
  std::vector<QueuedMsg> queue;
  int damaged = 0;
  for (size_t i = 0; damaged < kMessages; ++i) {
    const unsigned kind = rng() % 20;
    if (kind == 0 && !rfh2.empty()) {
      const Seed& s = rfh2[rng() % rfh2.size()];
      QueuedMsg q{KXFMT_RFH2, s.encoding, s.ccsid, s.msgs.back()};
      damage(q.data, rng);
      queue.push_back(std::move(q));
    } else if (kind == 1 && !xml.empty()) {
      QueuedMsg q{KXFMT_STRING, 546, 1208, xml[rng() % xml.size()]};
      damage(q.data, rng);
      queue.push_back(std::move(q));
    } else {
      // Every seed in turn, so that each family and version comes by more than once.
      const Seed& s = compact[i % compact.size()];
      for (size_t k = 0; k + 1 < s.msgs.size(); ++k) {
        QueuedMsg schema{KXFMT_COMPACT, s.encoding, s.ccsid, s.msgs[k]};
        if (rng() % 4 == 0) damage(schema.data, rng);
        queue.push_back(std::move(schema));
      }
      QueuedMsg q{KXFMT_COMPACT, s.encoding, s.ccsid, s.msgs.back()};
      damage(q.data, rng);
      queue.push_back(std::move(q));
    }
    ++damaged;
  }
  return queue;
}

class DamagedQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/rplqmfmt-robust-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("KX_DATA_PATH", (dir_ + "/kx").c_str(), 1);
    char msg[256];
    ASSERT_EQ(kxmCreateQmgr(kQmgr, msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue(kQmgr, kQueue, -1, msg, sizeof msg), 0) << msg;

    msgLogger* logger = rplLogger();
    if (logger == nullptr) {
      logger = msgLogger::create(13, 0);
      logger->loadCatalog(kRplCatalog);
      setRplLogger(logger);
    }
    reports_ = std::fopen((dir_ + "/reports").c_str(), "w+");
    ASSERT_NE(reports_, nullptr);
    savedOutput_ = logger->output();
    logger->setOutput(reports_);
    rplkx::init();
    ConvMgr::init();

    KXCHAR name[KX_Q_MGR_NAME_LENGTH];
    kxSetName(name, sizeof name, kQmgr);
    KXLONG cc = 0, reason = 0;
    rplkx::KXCONN(name, &hconn_, &cc, &reason);
    ASSERT_EQ(cc, KXCC_OK) << reason;
  }

  void TearDown() override {
    KXLONG cc = 0, reason = 0;
    rplkx::KXDISC(&hconn_, &cc, &reason);
    releaseSchemaCache();
    xmlShutdown();
    if (rplLogger() != nullptr) rplLogger()->setOutput(savedOutput_);
    if (reports_ != nullptr) std::fclose(reports_);
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << dir_;
  }

  void putAll(const std::vector<QueuedMsg>& msgs) {
    KXOD od = KXOD_DEFAULT;
    kxSetName(od.ObjectName, sizeof od.ObjectName, kQueue);
    KXHOBJ hobj = 0;
    KXLONG cc = 0, reason = 0;
    rplkx::KXOPEN(hconn_, &od, KXOO_OUTPUT, &hobj, &cc, &reason);
    ASSERT_EQ(cc, KXCC_OK) << reason;
    KXBO bo = KXBO_DEFAULT;
    rplkx::KXBEGIN(hconn_, &bo, &cc, &reason);
    for (const QueuedMsg& q : msgs) {
      KXMD md = KXMD_DEFAULT;
      std::memcpy(md.Format, q.format, 8);
      md.Encoding = q.encoding;
      md.CodedCharSetId = q.ccsid;
      KXPMO pmo = KXPMO_DEFAULT;
      pmo.Options = KXPMO_SYNCPOINT;
      rplkx::KXPUT(hconn_, hobj, &md, &pmo, static_cast<KXLONG>(q.data.size()),
                   const_cast<uint8_t*>(q.data.data()), &cc, &reason);
      ASSERT_EQ(cc, KXCC_OK) << reason;
    }
    rplkx::KXCMIT(hconn_, &cc, &reason);
    ASSERT_EQ(cc, KXCC_OK) << reason;
    rplkx::KXCLOSE(hconn_, &hobj, 0, &cc, &reason);
  }

  int64_t depth() {
    struct Find { int64_t depth = -1; } find;
    char msg[256];
    kxmListQueues(
        kQmgr,
        [](const char* q, int64_t d, int64_t, void* ctx) -> int32_t {
          if (std::strcmp(q, kQueue) == 0) static_cast<Find*>(ctx)->depth = d;
          return 0;
        },
        &find, msg, sizeof msg);
    return find.depth;
  }

  std::string dir_;
  KXHCONN hconn_ = 0;
  FILE* reports_ = nullptr;
  FILE* savedOutput_ = nullptr;
};

TEST_F(DamagedQueue, FormatsToTheEndWithoutCrashOrHang) {
  const std::vector<QueuedMsg> msgs = damagedQueue();
  ASSERT_GE(msgs.size(), static_cast<size_t>(kMessages));
  putAll(msgs);
  ASSERT_EQ(depth(), static_cast<int64_t>(msgs.size()));

  FILE* out = std::fopen((dir_ + "/out").c_str(), "w");
  ASSERT_NE(out, nullptr);
  // The XML parser writes its errors to standard error: keep them out of the test's output.
  std::fflush(stderr);
  const int savedErr = dup(2);
  std::FILE* parserErrors = std::fopen((dir_ + "/parser").c_str(), "w");
  ASSERT_NE(parserErrors, nullptr);
  dup2(fileno(parserErrors), 2);
  int runs = 0;
  int stopped = 0;
  int64_t left = depth();
  while (left > 0) {
    char encodingName[kEncodingNameRoom] = "UTF-8";
    QueueRun run;
    run.queueName = kQueue;
    run.encodingName = encodingName;
    run.deleteMsgs = true;
    const int32_t rc = processQueue(&hconn_, run, out);
    ++runs;
    if (rc != 0) ++stopped;
    // A failure of the loop itself (open, get) would leave the queue as it is.
    const int64_t now = depth();
    if (now >= left) break;
    left = now;
  }
  std::fflush(stderr);
  dup2(savedErr, 2);
  close(savedErr);
  std::fclose(parserErrors);
  std::fclose(out);
  ASSERT_EQ(left, 0) << "run " << runs << " removed nothing";
  // Every run but perhaps the last ended at a message that could not be printed.
  EXPECT_GE(stopped, runs - 1);
  // Damaged messages were reported, each naming what could not be read.
  std::fflush(reports_);
  std::rewind(reports_);
  std::string reports;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, reports_)) > 0;) reports.append(buf, n);
  EXPECT_GT(stopped, 0);
  EXPECT_NE(reports.find("RPL0543E"), std::string::npos);
  std::printf("%zu messages, %d runs of the read loop\n", msgs.size(), runs);
}

}  // namespace
