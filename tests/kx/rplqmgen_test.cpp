// rplqmgen_test.cpp - the traffic generator run as a program: its exit statuses, repeatable
// mixed traffic, and a day of mixed traffic formatted by rplqmfmt end to end.
#if defined(RPLQMGEN_PATH) && defined(RPLQMFMT_PATH)

#include <sys/wait.h>

#include <fstream>
#include <map>
#include <cstring>
#include <set>
#include <sstream>

#include "tests/kx/kx_fixture.h"
#include "version.h"

using namespace kxtest;

namespace {

struct Ran {
  int status;
  std::string out, err;
};

Ran runProgram(const std::string& program, const std::string& args, const std::string& dir) {
  std::string cmd = program + " " + args + " >" + dir + "/run.out 2>" + dir + "/run.err";
  int status = std::system(cmd.c_str());
  auto slurp = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(dir + "/run.out"), slurp(dir + "/run.err")};
}

Ran rplqmgen(const std::string& args, const std::string& dir) { return runProgram(RPLQMGEN_PATH, args, dir); }

// Every message of a queue, data only, in order.
std::vector<std::string> browseData(const char* queue) {
  std::vector<std::string> out;
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, queue, KXOO_BROWSE);
  for (Got g; (g = get(h, o, KXGMO_BROWSE_NEXT, 1 << 20)).r.cc == KXCC_OK;) out.push_back(g.data);
  disconnect(h);
  return out;
}

}  // namespace

TEST_F(KxTest, RplqmgenExitsTwoOnUsageErrorsAndOneOnFailures) {
  struct Case {
    const char* args;
    int status;
    const char* says;
  };
  const Case cases[] = {
      {"", 2, "expected QMGR and QUEUE"},
      {"QM1 Q1", 2, "--scenario is required"},
      {"QM1 Q1 --scenario nightly", 2, "unknown scenario 'nightly'"},
      {"QM1 Q1 --scenario mixed --seed x", 2, "--seed needs a number"},
      {"QM1 Q1 --scenario mixed --transactions 0", 2, "--transactions needs a number"},
      {"QM1 Q1 --scenario mixed --frobnicate", 2, "unknown option '--frobnicate'"},
      {"NOSUCH Q1 --scenario mixed", 1, "queue manager NOSUCH does not exist"},
      {"QM1 NOSUCH --scenario mixed", 1, "queue NOSUCH does not exist"},
      {"--help", 0, ""},
  };
  for (const Case& c : cases) {
    Ran r = rplqmgen(c.args, dir_);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << ": " << r.err;
  }
  EXPECT_EQ(browseData("Q1").size(), 0u);
  Ran v = rplqmgen("--version", dir_);
  EXPECT_EQ(v.status, 0);
  EXPECT_EQ(v.out, std::string("rplqmgen ") + RPL_VERSION + "\n");
}

TEST_F(KxTest, MixedTrafficIsTheSameForASeedAndDiffersBetweenSeeds) {
  ASSERT_EQ(rplqmgen("QM1 Q1 --scenario mixed --transactions 300 --seed 7", dir_).status, 0);
  ASSERT_EQ(rplqmgen("QM1 Q2 --scenario mixed --transactions 300 --seed 7", dir_).status, 0);
  std::vector<std::string> a = browseData("Q1"), b = browseData("Q2");
  EXPECT_GT(a.size(), 300u);
  EXPECT_EQ(a, b);
  KXHCONN h = connect("QM1");
  KXHOBJ o = open(h, "Q2", KXOO_INPUT_SHARED);
  while (get(h, o, 0, 1 << 20).r.cc == KXCC_OK) {
  }
  disconnect(h);
  ASSERT_EQ(rplqmgen("QM1 Q2 --scenario mixed --transactions 300 --seed 8", dir_).status, 0);
  EXPECT_NE(browseData("Q2"), a);
}

// A day of mixed traffic, formatted: every transaction has its own commit position, time and
// unit of work, in commit order, over at least three subscriptions and tables, and nothing is
// reported as a failure.
struct MixedCase {
  const char* queue;
  const char* sender;  // rplqmgen options of the sender
  size_t transactions;
};

void checkMixedDay(const MixedCase& c, const std::string& dir) {
  SCOPED_TRACE(c.sender);
  std::string args = std::string("QM1 ") + c.queue + " --scenario mixed --seed 3 --transactions " +
                     std::to_string(c.transactions) + " " + c.sender;
  Ran gen = rplqmgen(args, dir);
  ASSERT_EQ(gen.status, 0) << gen.err;
  Ran fmt = runProgram(std::string("TZ=UTC ") + RPLQMFMT_PATH, std::string(c.queue) + " QM1", dir);
  EXPECT_EQ(fmt.status, 0);
  std::istringstream errLines(fmt.err);
  for (std::string line; std::getline(errLines, line);)
    EXPECT_NE(line.find("RPL0585I"), std::string::npos) << "reported: " << line;

  // One entry per transaction: the transaction header, or the parts of a streamed transaction
  // (which share theirs).
  struct Tx {
    std::string lsn, time, uow;
  };
  std::vector<Tx> txs;
  // The value after a line's label, when the line starts with it.
  auto valueOf = [](const std::string& line, const char* label, std::string& value) {
    size_t n = strlen(label);
    if (line.compare(0, n, label) != 0) return false;
    size_t at = line.find_first_not_of(' ', n);
    value = at == std::string::npos ? "" : line.substr(at);
    return true;
  };
  std::set<std::string> subscriptions, tables;
  std::istringstream out(fmt.out);
  Tx current;
  std::string v;
  for (std::string line; std::getline(out, line);) {
    if (valueOf(line, "qTransMsgHeader.commit_LSN:", v) || valueOf(line, "qStreamedTransMsgHeader.LSN:", v)) {
      current = Tx{v, "", ""};
    } else if (current.time.empty() && (valueOf(line, "qTransMsgHeader.commit_time:", v) ||
                                        valueOf(line, "qStreamedTransMsgHeader.trans_time:", v))) {
      // "MM-DD-YYYY hh:mm:ss.uuuuuu UTC" as "YYYYMMDD hh:mm:ss.uuuuuu", which sorts in time order.
      ASSERT_GE(v.size(), 26u) << line;
      current.time = v.substr(6, 4) + v.substr(0, 2) + v.substr(3, 2) + v.substr(10, 16);
    } else if (valueOf(line, "qTransMsgHeader.uow_id:", v) || valueOf(line, "qStreamedTransMsgHeader.uowID:", v)) {
      current.uow = v;
      if (txs.empty() || txs.back().uow != current.uow) txs.push_back(current);
    } else if (valueOf(line, "schema.subname:", v)) {
      subscriptions.insert(v);
    } else if (valueOf(line, "schema.src_owner schema.src_name:", v)) {
      tables.insert(v);
    }
  }
  ASSERT_EQ(txs.size(), c.transactions);
  std::set<std::string> uows;
  for (size_t i = 0; i < txs.size(); ++i) {
    uows.insert(txs[i].uow);
    ASSERT_FALSE(txs[i].time.empty()) << i;
    if (i == 0) continue;
    ASSERT_LT(txs[i - 1].lsn, txs[i].lsn) << i;
    ASSERT_LT(txs[i - 1].time, txs[i].time) << i;
  }
  EXPECT_EQ(uows.size(), txs.size());
  EXPECT_GE(subscriptions.size(), 3u);
  EXPECT_GE(tables.size(), 3u);
  // The traffic holds every kind the scenario promises.
  for (const char* kind : {"RPLKX_SUBSCHEMA_MSG", "RPLKX_TRANS_MSG", "RPLKX_LOB_MSG", "RPLKX_STREAMED_TRANS_MSG",
                           "RPLKX_HEARTBEAT", "RPLKX_ADDCOLUMN_MSG", "RPLKX_SUBDEACTIVATED"})
    EXPECT_NE(fmt.out.find(kind), std::string::npos) << kind;
  for (const char* op : {"INSERT", "UPDATE", "DELETE"}) EXPECT_NE(fmt.out.find(op), std::string::npos) << op;
  EXPECT_NE(fmt.out.find("NULL"), std::string::npos);
}

TEST_F(KxTest, TenThousandMixedTransactionsFormatWithoutAFailure) {
  const MixedCase cases[] = {
      {"Q1", "", 10000},                                 // this machine's order, UTF-8
      {"Q2", "--byte-order big --ccsid 37", 2000},       // a big-endian EBCDIC sender
  };
  for (const MixedCase& c : cases) checkMixedDay(c, dir_);
}

#endif
