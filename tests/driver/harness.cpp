// End-to-end harness of the rplqmfmt tests.
#include "tests/driver/harness.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kx/kxm_admin.h"

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

int occurrences(const std::string& s, const std::string& what) {
  int n = 0;
  for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
  return n;
}

void QueueTest::SetUp() {
  char tmpl[] = "/tmp/rplqmfmt-test-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  dir_ = tmpl;
  setenv("KX_DATA_PATH", (dir_ + "/kx").c_str(), 1);
  char msg[256];
  ASSERT_EQ(kxmCreateQmgr(kQmgr, msg, sizeof msg), 0) << msg;
  ASSERT_EQ(kxmCreateQueue(kQmgr, kQueue, -1, msg, sizeof msg), 0) << msg;
  KXCHAR name[48];
  kxSetName(name, sizeof name, kQmgr);
  KXLONG cc, reason;
  KXCONN(name, &hconn_, &cc, &reason);
  ASSERT_EQ(cc, 0) << reason;
}

void QueueTest::TearDown() {
  KXLONG cc, reason;
  KXDISC(&hconn_, &cc, &reason);
  std::string cmd = "rm -rf '" + dir_ + "'";
  if (std::system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << dir_;
}

void QueueTest::putMd(KXMD md, const std::string& data) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, kQueue);
  KXHOBJ hobj = 0;
  KXLONG cc, reason;
  KXOPEN(hconn_, &od, KXOO_OUTPUT, &hobj, &cc, &reason);
  ASSERT_EQ(cc, 0) << reason;
  KXPMO pmo = KXPMO_DEFAULT;
  KXPUT(hconn_, hobj, &md, &pmo, static_cast<KXLONG>(data.size()), const_cast<char*>(data.data()),
        &cc, &reason);
  ASSERT_EQ(cc, 0) << reason;
  KXCLOSE(hconn_, &hobj, 0, &cc, &reason);
}

void QueueTest::put(const std::string& data, PutOptions o) {
  KXMD md = KXMD_DEFAULT;
  std::memcpy(md.Format, o.format, 8);
  md.CodedCharSetId = o.ccsid;
  md.Encoding = o.encoding;
  putMd(md, data);
}

int64_t QueueTest::depth(const char* queue) {
  struct Find { const char* name; int64_t depth = -1; } find{queue};
  char msg[256];
  kxmListQueues(
      kQmgr,
      [](const char* q, int64_t d, int64_t, void* ctx) -> int32_t {
        auto* f = static_cast<Find*>(ctx);
        if (std::strcmp(q, f->name) == 0) f->depth = d;
        return 0;
      },
      &find, msg, sizeof msg);
  return find.depth;
}

RunResult QueueTest::run(const std::vector<std::string>& words, const std::vector<std::string>& env,
                         const char* stdoutPath, bool closedPipe) {
  std::string outPath = dir_ + "/stdout";
  std::string errPath = dir_ + "/stderr";
  int pipeFds[2] = {-1, -1};
  if (closedPipe) {
    if (pipe(pipeFds) != 0) return {};
    close(pipeFds[0]);  // nobody reads: every write of the child fails with a broken pipe
  }
  pid_t pid = fork();
  if (pid == 0) {
    int out = closedPipe ? pipeFds[1]
                         : open(stdoutPath != nullptr ? stdoutPath : outPath.c_str(),
                                O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, 1);
    dup2(err, 2);
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's interception of dlopen hides the program's RUNPATH from the search:
    // name the bundled library's directory instead (a test's own setting still comes after).
    setenv("LD_LIBRARY_PATH", KXM_DIR, 1);
#endif
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(RPLQMFMT_PATH));
    for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
    argv.push_back(nullptr);
    execv(RPLQMFMT_PATH, argv.data());
    _exit(127);
  }
  if (closedPipe) close(pipeFds[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  RunResult r;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = (stdoutPath != nullptr || closedPipe) ? "" : readFile(outPath);
  r.err = readFile(errPath);
  return r;
}
