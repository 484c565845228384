// The local queue manager under bad conditions: a damaged or foreign database file, a full
// disk during puts, and several processes putting at once. Each failure is a reason code, never
// a crash, and every put that was acknowledged can be read back.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace {

struct Rc {
  KXLONG cc = -1;
  KXLONG reason = -1;
};

KXHCONN connectTo(const char* qmgr, Rc& r) {
  KXCHAR name[KX_Q_MGR_NAME_LENGTH];
  kxSetName(name, sizeof name, qmgr);
  KXHCONN h = -1;
  KXCONN(name, &h, &r.cc, &r.reason);
  return h;
}

KXHOBJ openQueue(KXHCONN h, const char* queue, KXLONG options, Rc& r) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue);
  KXHOBJ o = -1;
  KXOPEN(h, &od, options, &o, &r.cc, &r.reason);
  return o;
}

Rc putText(KXHCONN h, KXHOBJ o, const std::string& data) {
  KXMD md = KXMD_DEFAULT;
  KXPMO pmo = KXPMO_DEFAULT;
  Rc r;
  KXPUT(h, o, &md, &pmo, static_cast<KXLONG>(data.size()), const_cast<char*>(data.data()), &r.cc, &r.reason);
  return r;
}

std::string gBrowseWhy;  // the library's words for the failure of the last browseAll

std::string failureText() {
  char text[1024];
  return kxmLastFailure(text, sizeof text) == 0 ? text : "";
}

// Every message of the queue, browsed in order (empty and a failed rc when it cannot be read).
std::vector<std::string> browseAll(const char* qmgr, const char* queue, Rc& r) {
  std::vector<std::string> msgs;
  gBrowseWhy.clear();
  KXHCONN h = connectTo(qmgr, r);
  gBrowseWhy = failureText();
  if (r.cc != KXCC_OK) return msgs;
  KXHOBJ o = openQueue(h, queue, KXOO_BROWSE, r);
  if (r.cc == KXCC_OK) {
    std::vector<char> buf(1 << 20);
    for (;;) {
      KXMD md = KXMD_DEFAULT;
      KXGMO gmo = KXGMO_DEFAULT;
      gmo.Options = KXGMO_BROWSE_NEXT | KXGMO_NO_SYNCPOINT;
      KXLONG len = 0;
      KXGET(h, o, &md, &gmo, static_cast<KXLONG>(buf.size()), buf.data(), &len, &r.cc, &r.reason);
      if (r.cc != KXCC_OK) break;
      msgs.emplace_back(buf.data(), static_cast<size_t>(len));
    }
    gBrowseWhy = failureText();
    if (r.reason == KXRC_NO_MSG_AVAILABLE) r = Rc{KXCC_OK, 0};
  }
  Rc ignored;
  KXDISC(&h, &ignored.cc, &ignored.reason);
  return msgs;
}

class KxRobust : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kx-robust-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    useDataPath(dir_ + "/kx");
  }
  void TearDown() override {
    if (!mounted_.empty()) umount2(mounted_.c_str(), MNT_DETACH);
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << dir_;
  }
  void useDataPath(const std::string& path) {
    dataPath_ = path;
    setenv("KX_DATA_PATH", path.c_str(), 1);
  }
  void createQueue(const char* qmgr, const char* queue) {
    char msg[256];
    ASSERT_EQ(kxmCreateQmgr(qmgr, msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue(qmgr, queue, -1, msg, sizeof msg), 0) << msg;
  }
  std::string file(const char* qmgr) { return dataPath_ + "/" + qmgr + ".kxdb"; }

  std::string dir_, dataPath_, mounted_;
};


TEST_F(KxRobust, DamagedOrForeignDatabaseFilesGiveReason2101WithTheFileAndItsCause) {
  createQueue("GOOD", "Q1");
  Rc r;
  KXHCONN h = connectTo("GOOD", r);
  ASSERT_EQ(r.cc, KXCC_OK);
  KXHOBJ o = openQueue(h, "Q1", KXOO_OUTPUT, r);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(putText(h, o, std::string(300, static_cast<char>('a' + i % 26))).cc, KXCC_OK);
  KXDISC(&h, &r.cc, &r.reason);
  std::ifstream in(file("GOOD"), std::ios::binary);
  const std::string good((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(good.size(), 8192u);

  // Each row stands where a queue manager's database is expected, with the cause the connect
  // must name (empty: the damage may be met later, by a read, with the same reason).
  struct Row {
    std::string bytes;
    const char* cause;
  };
  std::map<std::string, Row> files;
  files["EMPTY"] = {"", "file is not a database"};
  files["TEXT"] = {"this is not a queue manager\n", "file is not a database"};
  std::string header = good;
  for (size_t i = 0; i < 100; ++i) header[i] = static_cast<char>(i * 37);
  files["HEADER"] = {header, "file is not a database"};
  std::string pages = good;
  for (size_t i = 4096; i < pages.size(); i += 7) pages[i] = static_cast<char>(i);
  files["PAGES"] = {pages, ""};
  files["CUT"] = {good.substr(0, good.size() / 2), "database disk image is malformed"};
  for (const auto& [name, row] : files) std::ofstream(file(name.c_str()), std::ios::binary) << row.bytes;
  // Another program's SQLite database, and a directory in place of the file.
  ASSERT_EQ(std::system(("sqlite3 '" + file("FOREIGN") + "' 'create table t(x); insert into t values(1);'").c_str()), 0);
  files["FOREIGN"] = {"", "not a queue manager file"};
  ASSERT_EQ(mkdir(file("DIR").c_str(), 0700), 0);
  files["DIR"] = {"", "is a directory"};

  for (const auto& [name, row] : files) {
    SCOPED_TRACE(name);
    std::vector<std::string> got = browseAll(name.c_str(), "Q1", r);
    // Refused as damaged, never as a passing outage, with the file and the cause in words; or
    // (a damage that spared what was read) read back as it was put; never a crash.
    if (*row.cause) {
      EXPECT_EQ(r.cc, KXCC_FAILED);
      EXPECT_EQ(r.reason, KXRC_OBJECT_DAMAGED);
      const std::string why = gBrowseWhy;
      EXPECT_NE(why.find(file(name.c_str())), std::string::npos) << why;
      EXPECT_NE(why.find(row.cause), std::string::npos) << why;
    } else if (r.cc == KXCC_OK) {
      for (const std::string& m : got) EXPECT_EQ(m.size(), 300u);
    } else {
      EXPECT_EQ(r.reason, KXRC_OBJECT_DAMAGED);
      EXPECT_NE(gBrowseWhy.find(file(name.c_str())), std::string::npos) << gBrowseWhy;
    }
    // A put is refused or kept: it never crashes either.
    KXHCONN p = connectTo(name.c_str(), r);
    if (r.cc == KXCC_OK) {
      KXHOBJ q = openQueue(p, "Q1", KXOO_OUTPUT, r);
      if (r.cc == KXCC_OK) r = putText(p, q, "after");
      KXDISC(&p, &r.cc, &r.reason);
    } else {
      EXPECT_EQ(r.reason, KXRC_OBJECT_DAMAGED);
      EXPECT_NE(failureText().find(file(name.c_str())), std::string::npos) << failureText();
    }
  }
  // The damage did not spread to the good queue manager.
  EXPECT_EQ(browseAll("GOOD", "Q1", r).size(), 200u);
  EXPECT_EQ(r.cc, KXCC_OK);
}

// Bytes overwritten in the middle of a queue manager with many messages: a browse stops with
// 2101 and says after which message; a drainer that backs out on a failed commit and stops on
// 2101 (as every caller should) ends after a bounded number of calls, however the damage falls.
TEST_F(KxRobust, BytesOverwrittenInTheMiddleStopBrowsesAndDrainersWithoutEndlessRetries) {
  createQueue("MID", "Q1");
  Rc r;
  KXHCONN h = connectTo("MID", r);
  KXHOBJ o = openQueue(h, "Q1", KXOO_OUTPUT, r);
  constexpr int kCount = 3000;
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(putText(h, o, std::to_string(i) + std::string(200, 'm')).cc, KXCC_OK);
  KXDISC(&h, &r.cc, &r.reason);
  struct stat st;
  ASSERT_EQ(stat(file("MID").c_str(), &st), 0);
  for (int where : {2, 3}) {
    SCOPED_TRACE(where);
    {
      std::fstream f(file("MID"), std::ios::in | std::ios::out | std::ios::binary);
      f.seekp(st.st_size * where / 5);
      std::string junk(64, '\0');
      for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(0x5a ^ (i * 29));
      f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    std::vector<std::string> got = browseAll("MID", "Q1", r);
    if (r.cc != KXCC_OK) {
      EXPECT_EQ(r.reason, KXRC_OBJECT_DAMAGED);
      const std::string why = gBrowseWhy;
      EXPECT_NE(why.find("stopped after message " + std::to_string(got.size())), std::string::npos) << why;
      EXPECT_NE(why.find(file("MID")), std::string::npos) << why;
    }
    h = connectTo("MID", r);
    if (r.cc != KXCC_OK) {
      EXPECT_EQ(r.reason, KXRC_OBJECT_DAMAGED);
      continue;
    }
    o = openQueue(h, "Q1", KXOO_INPUT_SHARED, r);
    long calls = 0;
    std::vector<char> buf(4096);
    for (; calls < 10L * kCount; ++calls) {
      KXMD md = KXMD_DEFAULT;
      KXGMO gmo = KXGMO_DEFAULT;
      gmo.Options = KXGMO_SYNCPOINT;
      KXLONG len = 0;
      KXGET(h, o, &md, &gmo, static_cast<KXLONG>(buf.size()), buf.data(), &len, &r.cc, &r.reason);
      if (r.cc == KXCC_FAILED) break;
      KXCMIT(h, &r.cc, &r.reason);
      if (r.cc == KXCC_OK) continue;
      if (r.reason == KXRC_OBJECT_DAMAGED) break;
      EXPECT_EQ(r.reason, KXRC_BACKED_OUT);
    }
    EXPECT_LT(calls, 10L * kCount) << "the drainer never stopped";
    EXPECT_TRUE(r.reason == KXRC_NO_MSG_AVAILABLE || r.reason == KXRC_OBJECT_DAMAGED) << r.reason;
    KXDISC(&h, &r.cc, &r.reason);
  }
}

TEST_F(KxRobust, AFullDiskRefusesPutsWithAReasonAndLosesNoAcknowledgedOne) {
  const std::string mnt = dir_ + "/small";
  ASSERT_EQ(mkdir(mnt.c_str(), 0700), 0);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount a small file system here: " << std::strerror(errno);
  mounted_ = mnt;
  useDataPath(mnt + "/kx");
  createQueue("QFULL", "Q1");

  Rc r;
  KXHCONN h = connectTo("QFULL", r);
  ASSERT_EQ(r.cc, KXCC_OK);
  KXHOBJ o = openQueue(h, "Q1", KXOO_OUTPUT, r);
  ASSERT_EQ(r.cc, KXCC_OK);
  int acked = 0;
  for (; acked < 1000; ++acked) {
    r = putText(h, o, std::to_string(acked) + std::string(20000, 'x'));
    if (r.cc != KXCC_OK) break;
  }
  ASSERT_LT(acked, 1000) << "the disk never filled";
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.reason, KXRC_RESOURCE_PROBLEM);
  // Still full: the next put is refused the same way.
  r = putText(h, o, "one more");
  EXPECT_EQ(r.reason, KXRC_RESOURCE_PROBLEM);
  KXDISC(&h, &r.cc, &r.reason);

  // With room again, every acknowledged put is there, in order, and puts work again.
  ASSERT_EQ(mount("tmpfs", mnt.c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0) << std::strerror(errno);
  std::vector<std::string> got = browseAll("QFULL", "Q1", r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.reason;
  ASSERT_GE(got.size(), static_cast<size_t>(acked));
  for (int i = 0; i < acked; ++i) EXPECT_EQ(got[i], std::to_string(i) + std::string(20000, 'x'));
  h = connectTo("QFULL", r);
  o = openQueue(h, "Q1", KXOO_OUTPUT, r);
  EXPECT_EQ(putText(h, o, "room again").cc, KXCC_OK);
  KXDISC(&h, &r.cc, &r.reason);
}

// Gets messages until the queue is empty; their texts, in order.
std::vector<std::string> drain(KXHCONN h, KXHOBJ o, KXLONG options, Rc& r) {
  std::vector<std::string> got;
  std::vector<char> buf(1 << 16);
  for (;;) {
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = options;
    KXLONG len = 0;
    KXGET(h, o, &md, &gmo, static_cast<KXLONG>(buf.size()), buf.data(), &len, &r.cc, &r.reason);
    if (r.cc != KXCC_OK) break;
    if (options & KXGMO_SYNCPOINT) {
      KXCMIT(h, &r.cc, &r.reason);
      if (r.cc != KXCC_OK) break;
    }
    got.emplace_back(buf.data(), static_cast<size_t>(len));
  }
  if (r.reason == KXRC_NO_MSG_AVAILABLE) r = Rc{KXCC_OK, 0};
  return got;
}

// A disk filled to the last byte: connecting, browsing, listing and draining still work (with
// the reserve the queue manager gives back), puts and a commit of puts answer 2102 and keep
// their unit of work, and after the drain every acknowledged message was taken exactly once.
TEST_F(KxRobust, AFullDiskStillConnectsBrowsesListsAndDrainsAndRefusesPutsWith2102) {
  const std::string mnt = dir_ + "/full";
  ASSERT_EQ(mkdir(mnt.c_str(), 0700), 0);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=6m") != 0)
    GTEST_SKIP() << "cannot mount a small file system here: " << std::strerror(errno);
  mounted_ = mnt;
  useDataPath(mnt + "/kx");
  createQueue("QF", "Q1");
  struct stat st;
  ASSERT_EQ(stat((file("QF") + "-reserve").c_str(), &st), 0) << "no reserve beside the file";

  Rc r;
  // A unit of work of puts opened before the disk fills, committed while it is full.
  KXHCONN s = connectTo("QF", r);
  KXHOBJ so = openQueue(s, "Q1", KXOO_OUTPUT, r);
  for (int i = 0; i < 3; ++i) {
    KXMD md = KXMD_DEFAULT;
    KXPMO pmo = KXPMO_DEFAULT;
    pmo.Options = KXPMO_SYNCPOINT;
    std::string text = "unit " + std::to_string(i);
    KXPUT(s, so, &md, &pmo, static_cast<KXLONG>(text.size()), text.data(), &r.cc, &r.reason);
    ASSERT_EQ(r.cc, KXCC_OK);
  }
  KXHCONN w = connectTo("QF", r);
  KXHOBJ wo = openQueue(w, "Q1", KXOO_OUTPUT, r);
  std::vector<std::string> acked;
  for (int i = 0; i < 5000; ++i) {
    std::string text = std::to_string(i) + std::string(3000, 'f');
    r = putText(w, wo, text);
    if (r.cc != KXCC_OK) break;
    acked.push_back(text);
  }
  ASSERT_EQ(r.reason, KXRC_RESOURCE_PROBLEM) << "the disk never filled";
  // Use up what the file system has left, byte by byte.
  {
    std::ofstream fill(mnt + "/filler", std::ios::binary);
    std::string chunk(4096, 'z');
    while (fill.write(chunk.data(), static_cast<std::streamsize>(chunk.size())) && fill.flush()) {
    }
  }
  EXPECT_EQ(putText(w, wo, "one more").reason, KXRC_RESOURCE_PROBLEM);
  KXCMIT(s, &r.cc, &r.reason);
  EXPECT_EQ(r.cc, KXCC_FAILED);
  EXPECT_EQ(r.reason, KXRC_RESOURCE_PROBLEM) << "a commit that cannot be written is not backed out";
  EXPECT_NE(failureText().find("full"), std::string::npos) << failureText();

  // A new connection (on a thread of its own: connections are per thread), a browse and the
  // listing work on the full disk.
  std::vector<std::string> browsed;
  std::thread([&] { browsed = browseAll("QF", "Q1", r); }).join();
  EXPECT_EQ(r.cc, KXCC_OK) << r.reason << " " << gBrowseWhy;
  EXPECT_EQ(browsed.size(), acked.size());
  EXPECT_TRUE(browsed == acked);
  char msg[256];
  int64_t listedDepth = -1;
  EXPECT_EQ(kxmListQueues(
                "QF",
                [](const char*, int64_t depth, int64_t, void* ctx) -> int32_t {
                  *static_cast<int64_t*>(ctx) = depth;
                  return 0;
                },
                &listedDepth, msg, sizeof msg),
            0)
      << msg;
  EXPECT_EQ(listedDepth, static_cast<int64_t>(acked.size()));

  // Draining, on another thread: half under syncpoint, the rest without.
  std::vector<std::string> drained;
  KXHCONN d = -1;
  KXHOBJ dobj = -1;
  std::thread([&] {
  d = connectTo("QF", r);
  ASSERT_EQ(r.cc, KXCC_OK) << r.reason << " " << failureText();
  dobj = openQueue(d, "Q1", KXOO_INPUT_SHARED, r);
  std::vector<char> buf(1 << 16);
  for (size_t i = 0; i < acked.size() / 2; ++i) {
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = KXGMO_SYNCPOINT;
    KXLONG len = 0;
    KXGET(d, dobj, &md, &gmo, static_cast<KXLONG>(buf.size()), buf.data(), &len, &r.cc, &r.reason);
    ASSERT_EQ(r.cc, KXCC_OK) << i << " " << r.reason << " " << failureText();
    KXCMIT(d, &r.cc, &r.reason);
    ASSERT_EQ(r.cc, KXCC_OK) << i << " " << r.reason << " " << failureText();
    drained.emplace_back(buf.data(), static_cast<size_t>(len));
  }
  std::vector<std::string> rest = drain(d, dobj, KXGMO_NO_SYNCPOINT, r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.reason << " " << failureText();
  drained.insert(drained.end(), rest.begin(), rest.end());
  }).join();
  EXPECT_EQ(drained.size(), acked.size());
  EXPECT_TRUE(drained == acked) << "every acknowledged message, once, in order";

  // With the filler gone there is room: the unit of work left open commits whole.
  unlink((mnt + "/filler").c_str());
  KXCMIT(s, &r.cc, &r.reason);
  EXPECT_EQ(r.cc, KXCC_OK) << r.reason << " " << failureText();
  KXHOBJ back = openQueue(s, "Q1", KXOO_INPUT_SHARED, r);
  EXPECT_EQ(drain(s, back, KXGMO_NO_SYNCPOINT, r),
            (std::vector<std::string>{"unit 0", "unit 1", "unit 2"}));
  KXDISC(&s, &r.cc, &r.reason);
  KXDISC(&w, &r.cc, &r.reason);
}

TEST_F(KxRobust, ConcurrentWritersLoseNothingAcknowledged) {
  createQueue("QCONC", "Q1");
  constexpr int kWriters = 4;
  constexpr int kPuts = 250;
  std::vector<pid_t> children;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      Rc r;
      KXHCONN h = connectTo("QCONC", r);
      if (r.cc != KXCC_OK) _exit(2);
      KXHOBJ o = openQueue(h, "Q1", KXOO_OUTPUT, r);
      if (r.cc != KXCC_OK) _exit(3);
      for (int i = 0; i < kPuts; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "w%d-%04d", w, i);
        r = putText(h, o, text);
        // A busy store is a reason, never a lost or doubled message: the writer tries again.
        if (r.cc != KXCC_OK && r.reason != KXRC_RESOURCE_PROBLEM) _exit(4);
        if (r.cc != KXCC_OK) {
          --i;
          continue;
        }
        if (write(fds[1], text, 32) != 32) _exit(5);
      }
      KXDISC(&h, &r.cc, &r.reason);
      _exit(0);
    }
    children.push_back(pid);
  }
  close(fds[1]);
  std::set<std::string> acked;
  char text[32];
  while (read(fds[0], text, 32) == 32) acked.insert(text);
  close(fds[0]);
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  ASSERT_EQ(acked.size(), static_cast<size_t>(kWriters * kPuts));

  Rc r;
  std::vector<std::string> got = browseAll("QCONC", "Q1", r);
  EXPECT_EQ(r.cc, KXCC_OK) << r.reason;
  EXPECT_EQ(got.size(), acked.size());
  std::set<std::string> seen;
  std::map<char, std::string> last;
  for (const std::string& m : got) {
    EXPECT_TRUE(seen.insert(m).second) << "twice: " << m;
    EXPECT_EQ(acked.count(m), 1u) << "never acknowledged: " << m;
    // Each writer's messages come back in the order it put them.
    EXPECT_LT(last[m[1]], m) << m;
    last[m[1]] = m;
  }
}

}  // namespace
