// crash_run - writers and drainers of one queue killed with SIGKILL again and again, then a count
// of what was acknowledged, lost and committed twice. Runs against the queue manager library the
// KX binding chooses (the local one, or the client with RPLUSEKXCLIENT=TRUE).
//
//   kx_crash_run [--writers N] [--drainers N] [--kills N] [--qmgr NAME]
//
// Writers put one message under syncpoint and commit it; each commit that returned OK is an
// acknowledged message, recorded in a file of the writer's own (one fixed-length record per
// write, so a kill loses at most the record of the step it was in: a message committed but not
// recorded is simply not counted as acknowledged). Drainers get a message under syncpoint and
// put its id on a receipt queue in the same unit of work, then commit: the receipts are exactly
// the gets that were committed, whenever a drainer was killed. The parent kills a random
// writer and a random drainer `--kills` times each and starts a new one in its place, then
// stops the writers, lets the drainers empty the queue, and reads what is left on the queue and
// on the dead-letter queue. Exit status 0 when no acknowledged message was lost and none was
// committed twice.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace {

constexpr size_t kRecord = 32;  // "A w03g0012-000123" padded with blanks, newline at the end
constexpr const char* kQueue = "CRASHQ";
constexpr const char* kReceipts = "RECEIPTQ";
constexpr const char* kDeadLetter = "KX.DEAD.LETTER";

std::string gDir;
std::string gQmgr = "CRASHQM";

void record(int fd, char kind, const std::string& id) {
  char line[kRecord];
  memset(line, ' ', sizeof line);
  line[0] = kind;
  memcpy(line + 2, id.data(), std::min(id.size(), kRecord - 3));
  line[kRecord - 1] = '\n';
  if (write(fd, line, sizeof line) != ssize_t(sizeof line)) _exit(9);
}

bool stopRequested() { return access((gDir + "/stop").c_str(), F_OK) == 0; }

KXHCONN connectOrDie() {
  char name[48];
  kxSetName(name, sizeof name, gQmgr.c_str());
  KXHCONN h = -1;
  KXLONG cc, rc;
  for (int i = 0; i < 100; ++i) {
    KXCONN(name, &h, &cc, &rc);
    if (cc != KXCC_FAILED) return h;
    usleep(50000);
  }
  fprintf(stderr, "crash_run: connect failed: %d\n", int(rc));
  _exit(3);
}

KXHOBJ openOrDie(KXHCONN h, const char* queue, KXLONG options) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue);
  KXHOBJ o = -1;
  KXLONG cc, rc;
  KXOPEN(h, &od, options, &o, &cc, &rc);
  if (cc == KXCC_FAILED) {
    fprintf(stderr, "crash_run: open %s failed: %d\n", queue, int(rc));
    _exit(4);
  }
  return o;
}

// Puts numbered messages, one unit of work each, until asked to stop.
[[noreturn]] void writer(int slot, int generation) {
  std::string file = gDir + "/w" + std::to_string(slot) + "g" + std::to_string(generation);
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  KXHCONN h = connectOrDie();
  KXHOBJ o = openOrDie(h, kQueue, KXOO_OUTPUT);
  for (int n = 0; !stopRequested(); ++n) {
    char id[64];  // 18 characters: the first 18 bytes of the message
    snprintf(id, sizeof id, "w%02dg%04d-%09d", slot % 100, generation % 10000, n % 1000000000);
    std::string data = std::string(id) + std::string(200 + n % 500, 'x');
    KXMD md = KXMD_DEFAULT;
    KXPMO pmo = KXPMO_DEFAULT;
    pmo.Options = KXPMO_SYNCPOINT;
    KXLONG cc, rc;
    KXPUT(h, o, &md, &pmo, KXLONG(data.size()), data.data(), &cc, &rc);
    if (cc == KXCC_FAILED) {
      usleep(10000);
      continue;
    }
    KXCMIT(h, &cc, &rc);
    if (cc == KXCC_OK) record(fd, 'A', id);
  }
  _exit(0);
}

// Gets and commits, with a receipt, until the queue stays empty after the writers stopped.
[[noreturn]] void drainer(int, int) {
  KXHCONN h = connectOrDie();
  KXHOBJ o = openOrDie(h, kQueue, KXOO_INPUT_SHARED);
  KXHOBJ receipts = openOrDie(h, kReceipts, KXOO_OUTPUT);
  std::vector<char> buf(4096);
  int empty = 0;
  for (;;) {
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = KXGMO_SYNCPOINT | KXGMO_WAIT;
    gmo.WaitInterval = 200;
    KXLONG len = 0, cc, rc;
    KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
    if (cc == KXCC_FAILED) {
      if (rc == KXRC_NO_MSG_AVAILABLE && stopRequested() && ++empty >= 5) break;
      if (rc != KXRC_NO_MSG_AVAILABLE) usleep(10000);
      continue;
    }
    empty = 0;
    std::string id(buf.data(), std::min<size_t>(size_t(len), 18));
    KXMD rmd = KXMD_DEFAULT;
    KXPMO pmo = KXPMO_DEFAULT;
    pmo.Options = KXPMO_SYNCPOINT;
    KXPUT(h, receipts, &rmd, &pmo, KXLONG(id.size()), id.data(), &cc, &rc);
    if (cc == KXCC_FAILED) {
      KXBACK(h, &cc, &rc);
      continue;
    }
    KXCMIT(h, &cc, &rc);
  }
  _exit(0);
}

pid_t spawn(bool isWriter, int slot, int generation) {
  pid_t pid = fork();
  if (pid == 0) {
    if (isWriter) writer(slot, generation);
    drainer(slot, generation);
  }
  return pid;
}

// Every message left on a queue, by its first 18 bytes.
void browseInto(KXHCONN h, const char* queue, std::vector<std::string>& out) {
  KXHOBJ o = openOrDie(h, queue, KXOO_BROWSE);
  std::vector<char> buf(4096);
  for (;;) {
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = KXGMO_BROWSE_NEXT | KXGMO_ACCEPT_TRUNCATED_MSG;
    KXLONG len = 0, cc, rc;
    KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
    if (cc == KXCC_FAILED) break;
    out.emplace_back(buf.data(), std::min<size_t>(size_t(len), 18));
  }
  KXLONG cc, rc;
  KXCLOSE(h, &o, 0, &cc, &rc);
}

void readRecords(const std::string& path, std::map<char, std::vector<std::string>>& into) {
  FILE* f = fopen(path.c_str(), "r");
  if (!f) return;
  char line[kRecord];
  while (fread(line, 1, sizeof line, f) == sizeof line) {
    std::string id(line + 2, kRecord - 3);
    id.erase(id.find_last_not_of(' ') + 1);
    into[line[0]].push_back(id);
  }
  fclose(f);
}

}  // namespace

int main(int argc, char** argv) {
  int writers = 2, drainers = 3, kills = 20;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    if (a == "--writers") writers = atoi(argv[i + 1]);
    else if (a == "--drainers") drainers = atoi(argv[i + 1]);
    else if (a == "--kills") kills = atoi(argv[i + 1]);
    else if (a == "--qmgr") gQmgr = argv[i + 1];
    else {
      fprintf(stderr, "usage: kx_crash_run [--writers N] [--drainers N] [--kills N] [--qmgr NAME]\n");
      return 2;
    }
  }
  char tmpl[] = "/tmp/kx-crash-XXXXXX";
  if (!mkdtemp(tmpl)) return 2;
  gDir = tmpl;
  if (!getenv("KX_DATA_PATH")) setenv("KX_DATA_PATH", (gDir + "/kx").c_str(), 1);
  char msg[512];
  kxmDeleteQmgr(gQmgr.c_str(), msg, sizeof msg);
  if (kxmCreateQmgr(gQmgr.c_str(), msg, sizeof msg) ||
      kxmCreateQueue(gQmgr.c_str(), kQueue, -1, msg, sizeof msg) ||
      kxmCreateQueue(gQmgr.c_str(), kReceipts, -1, msg, sizeof msg) ||
      kxmCreateQueue(gQmgr.c_str(), kDeadLetter, -1, msg, sizeof msg)) {
    fprintf(stderr, "crash_run: %s\n", msg);
    return 2;
  }
  std::mt19937 rng{static_cast<uint32_t>(getpid())};
  std::vector<pid_t> w(static_cast<size_t>(writers)), d(static_cast<size_t>(drainers));
  std::vector<int> wGen(static_cast<size_t>(writers), 0), dGen(static_cast<size_t>(drainers), 0);
  for (int i = 0; i < writers; ++i) w[size_t(i)] = spawn(true, i, 0);
  for (int i = 0; i < drainers; ++i) d[size_t(i)] = spawn(false, i, 0);
  for (int k = 0; k < kills; ++k) {
    usleep(useconds_t(50000 + rng() % 250000));
    size_t i = rng() % size_t(writers);
    kill(w[i], SIGKILL);
    waitpid(w[i], nullptr, 0);
    w[i] = spawn(true, int(i), ++wGen[i]);
    usleep(useconds_t(50000 + rng() % 250000));
    size_t j = rng() % size_t(drainers);
    kill(d[j], SIGKILL);
    waitpid(d[j], nullptr, 0);
    d[j] = spawn(false, int(j), ++dGen[j]);
  }
  usleep(300000);
  int fd = open((gDir + "/stop").c_str(), O_WRONLY | O_CREAT, 0600);
  close(fd);
  int failedChildren = 0;
  for (pid_t p : w) {
    int st = 0;
    waitpid(p, &st, 0);
    failedChildren += !(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  for (pid_t p : d) {
    int st = 0;
    waitpid(p, &st, 0);
    failedChildren += !(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  // Units of work of killed drainers come back when their owner is found dead (the local queue
  // manager) or their expiry passes (the client): wait for them, then look at what is left.
  long ttl = 15000;
  if (const char* e = getenv("KXIC_UNIT_TIMEOUT")) ttl = atol(e);
  const char* client = getenv("RPLUSEKXCLIENT");
  if (client && strcasecmp(client, "TRUE") == 0) usleep(useconds_t(ttl + 2000) * 1000);
  std::vector<std::string> left, dead, committed;
  KXHCONN h = connectOrDie();
  {
    // A get that finds the queue empty gives back what dead processes left.
    KXHOBJ o = openOrDie(h, kQueue, KXOO_BROWSE | KXOO_INPUT_SHARED);
    std::vector<char> buf(4096);
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = KXGMO_SYNCPOINT;
    KXLONG len = 0, cc, rc;
    KXGET(h, o, &md, &gmo, KXLONG(buf.size()), buf.data(), &len, &cc, &rc);
    KXBACK(h, &cc, &rc);
    KXCLOSE(h, &o, 0, &cc, &rc);
  }
  browseInto(h, kQueue, left);
  browseInto(h, kDeadLetter, dead);
  browseInto(h, kReceipts, committed);
  KXLONG cc, rc;
  KXDISC(&h, &cc, &rc);

  std::map<char, std::vector<std::string>> recs;
  for (int i = 0; i < writers; ++i)
    for (int g = 0; g <= wGen[size_t(i)]; ++g)
      readRecords(gDir + "/w" + std::to_string(i) + "g" + std::to_string(g), recs);
  std::map<std::string, int> seen;  // committed gets plus what is left
  for (const std::string& id : committed) ++seen[id];
  for (const std::string& id : left) ++seen[id];
  for (const std::string& id : dead) ++seen[id];
  std::set<std::string> acked(recs['A'].begin(), recs['A'].end());
  long lost = 0, twice = 0;
  for (const std::string& id : acked)
    if (!seen.count(id)) ++lost;
  for (const auto& [id, n] : seen)
    if (n > 1) ++twice;
  printf("CRASH backend=%s writers=%d drainers=%d kills=%d+%d acknowledged=%zu committed_gets=%zu"
         " left=%zu dead_letter=%zu lost=%ld committed_twice=%ld children_failed=%d\n",
         client && strcasecmp(client, "TRUE") == 0 ? "redis" : "local", writers, drainers, kills,
         kills, acked.size(), committed.size(), left.size(), dead.size(), lost, twice,
         failedChildren);
  kxmDeleteQmgr(gQmgr.c_str(), msg, sizeof msg);
  std::string cmd = "rm -rf '" + gDir + "'";
  if (system(cmd.c_str()) != 0) fprintf(stderr, "crash_run: cannot remove %s\n", gDir.c_str());
  return lost == 0 && twice == 0 && failedChildren == 0 ? 0 : 1;
}
