// kxq.cpp - the queue admin tool: queue managers, queues, and messages to and from files.
//
// Queue managers and queues are created and deleted through the local queue manager's admin
// functions; everything that touches messages goes through the KX API, so that the same commands
// work against any queue manager the KX library can reach.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"
#include "tools/kxq/dumpfile.h"
#include "version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr KXLONG kCommitEvery = 1000;

const char* const kUsage =
    "usage: kxq COMMAND ARGUMENTS\n"
    "\n"
    "Queue managers and queues:\n"
    "  kxq create-qmgr QMGR\n"
    "  kxq delete-qmgr QMGR\n"
    "  kxq create-queue QMGR QUEUE [--max-length BYTES]\n"
    "  kxq delete-queue QMGR QUEUE\n"
    "  kxq list QMGR                 queues with their depth, maximum message length and\n"
    "                                back-out threshold\n"
    "  kxq clear QMGR QUEUE          remove every message\n"
    "\n"
    "Messages:\n"
    "  kxq put QMGR QUEUE [--format NAME] [--ccsid N] [--encoding N] [--msgid HEX]\n"
    "          [--correlid HEX] [--priority N] [FILE...]\n"
    "                                one message per file (standard input without files)\n"
    "  kxq put QMGR QUEUE --raw FILE...\n"
    "                                each file is a 364-byte descriptor followed by the data\n"
    "  kxq browse QMGR QUEUE --to DIR\n"
    "  kxq get QMGR QUEUE --to DIR [--count N]\n"
    "                                write messages as DIR/0001.msg ... in the raw form;\n"
    "                                get removes what it wrote, browse leaves the queue whole\n"
    "                                the numbering continues after the highest file in DIR,\n"
    "                                and no file is ever overwritten\n"
    "  kxq dump QMGR QUEUE FILE      write the whole queue to one portable file (- for\n"
    "                                standard output); an existing file is not overwritten\n"
    "  kxq load QMGR QUEUE FILE      put the messages of a dump back, byte for byte, in one\n"
    "                                unit of work (- for standard input)\n"
    "  kxq --version\n"
    "\n"
    "Summaries and progress go to standard error. Exit status: 0 done, 1 failed, 2 usage error.\n"
    "The queue managers live in $KX_DATA_PATH (default ~/.kx); with RPLUSEKXCLIENT=TRUE kxq\n"
    "reaches a remote queue manager instead (KXSERVER, KXPASSWORD, KXCLIENTCONF).\n";

struct ReasonText {
  KXLONG reason;
  const char* text;
};

constexpr ReasonText kReasons[] = {
    {KXRC_BACKED_OUT, "unit of work backed out"},
    {KXRC_BUFFER_LENGTH_ERROR, "bad buffer length"},
    {KXRC_HCONN_ERROR, "bad connection handle"},
    {KXRC_HOBJ_ERROR, "bad object handle"},
    {KXRC_MSG_TOO_BIG_FOR_Q, "message longer than the queue's maximum message length"},
    {KXRC_NO_MSG_AVAILABLE, "no message available"},
    {KXRC_NOT_AUTHORIZED, "not authorised"},
    {KXRC_OPTIONS_ERROR, "bad options"},
    {KXRC_Q_DELETED, "queue deleted"},
    {KXRC_Q_MGR_NAME_ERROR, "unknown queue manager"},
    {KXRC_Q_MGR_NOT_AVAILABLE, "queue manager not available"},
    {KXRC_STORAGE_NOT_AVAILABLE, "out of memory"},
    {KXRC_TRUNCATED_MSG_FAILED, "message truncated"},
    {KXRC_UNKNOWN_OBJECT_NAME, "unknown queue"},
    {KXRC_OBJECT_DAMAGED, "object damaged"},
    {KXRC_RESOURCE_PROBLEM, "resource problem (disk full or queue manager busy)"},
    {KXRC_UNEXPECTED_ERROR, "unexpected error"},
};

const char* reasonText(KXLONG reason) {
  for (const ReasonText& r : kReasons)
    if (r.reason == reason) return r.text;
  return "failed";
}

void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void fail(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("kxq: ", stderr);
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
}

// Summaries go to standard error, so that standard output carries only data (a dump, a list).
void summary(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void summary(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
}

// The library's own words for the failure (the damaged file and its cause, ...) follow the
// reason when it has them.
int failCall(const char* call, const std::string& what, KXLONG cc, KXLONG reason) {
  char cause[1024];
  bool known = kxmLastFailure(cause, sizeof cause) == 0 && cause[0];
  fail("%s on %s failed: %s (cc=%d, reason=%d)%s%s", call, what.c_str(), reasonText(reason),
       int(cc), int(reason), known ? ": " : "", known ? cause : "");
  return kExitFailed;
}

// ---- Progress on a terminal ---------------------------------------------------------------------

// Shown only on a terminal, and only once the work has taken half a second.
class Progress {
 public:
  Progress(const char* verb, int64_t total)
      : verb_(verb), total_(total), tty_(isatty(2)), startMs_(nowMs()) {}
  void update(int64_t done, bool force = false) {
    if (!tty_) return;
    int64_t ms = nowMs();
    if (!force && (ms - startMs_ < 500 || ms - lastMs_ < 200)) return;
    lastMs_ = ms;
    shown_ = true;
    if (total_ > 0)
      fprintf(stderr, "\r%s %" PRId64 " of %" PRId64 " messages (%d%%)", verb_, done, total_,
              int(done * 100 / total_));
    else
      fprintf(stderr, "\r%s %" PRId64 " messages", verb_, done);
  }
  void finish(int64_t done) {
    if (!shown_) return;
    update(done, true);
    fputc('\n', stderr);
  }

 private:
  static int64_t nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
  }
  const char* verb_;
  int64_t total_;
  bool tty_;
  int64_t startMs_;
  bool shown_ = false;
  int64_t lastMs_ = 0;
};

// ---- Arguments ----------------------------------------------------------------------------------

bool parseInt(const char* s, int64_t lo, int64_t hi, int64_t* out) {
  if (!s || !*s) return false;
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(s, &end, 10);
  if (errno || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// Up to 24 bytes from hex digits, zero padded on the right.
bool parseHexId(const char* s, KXBYTE* id) {
  size_t n = strlen(s);
  if (n == 0 || n > 48 || n % 2) return false;
  memset(id, 0, 24);
  for (size_t i = 0; i < n; i += 2) {
    char pair[3] = {s[i], s[i + 1], 0};
    char* end = nullptr;
    long v = strtol(pair, &end, 16);
    if (*end) return false;
    id[i / 2] = KXBYTE(v);
  }
  return true;
}

struct Connection {
  KXHCONN hconn = -1;
  std::string qmgr;
  ~Connection() {
    if (hconn != -1) {
      KXLONG cc, rc;
      KXDISC(&hconn, &cc, &rc);
    }
  }
};

int connectTo(const std::string& qmgr, Connection& c) {
  char name[48];
  kxSetName(name, sizeof name, qmgr.c_str());
  KXLONG cc, rc;
  KXCONN(name, &c.hconn, &cc, &rc);
  c.qmgr = qmgr;
  if (cc == KXCC_FAILED) {
    c.hconn = -1;
    if (rc == KXRC_Q_MGR_NAME_ERROR) {
      fail("queue manager %s does not exist (create it with: kxq create-qmgr %s)", qmgr.c_str(),
           qmgr.c_str());
      return kExitFailed;
    }
    return failCall("connect", "queue manager " + qmgr, cc, rc);
  }
  return kExitOk;
}

int openQueue(Connection& c, const std::string& queue, KXLONG options, KXHOBJ* hobj) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue.c_str());
  KXLONG cc, rc;
  KXOPEN(c.hconn, &od, options, hobj, &cc, &rc);
  if (cc == KXCC_FAILED) {
    if (rc == KXRC_UNKNOWN_OBJECT_NAME) {
      fail("queue %s does not exist on queue manager %s", queue.c_str(), c.qmgr.c_str());
      return kExitFailed;
    }
    return failCall("open", "queue " + queue, cc, rc);
  }
  return kExitOk;
}

int64_t queueDepth(Connection& c, const std::string& queue) {
  KXHOBJ h = -1;
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue.c_str());
  KXLONG cc, rc, sel = KXIA_CURRENT_Q_DEPTH, depth = -1;
  KXOPEN(c.hconn, &od, KXOO_INQUIRE, &h, &cc, &rc);
  if (cc == KXCC_FAILED) return -1;
  KXINQ(c.hconn, h, 1, &sel, 1, &depth, 0, nullptr, &cc, &rc);
  KXCLOSE(c.hconn, &h, 0, &cc, &rc);
  return depth;
}

// An integer attribute of a queue, -1 when it cannot be inquired.
int64_t queueAttribute(Connection& c, const std::string& queue, KXLONG selector) {
  KXHOBJ h = -1;
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue.c_str());
  KXLONG cc, rc, value = -1;
  KXOPEN(c.hconn, &od, KXOO_INQUIRE, &h, &cc, &rc);
  if (cc == KXCC_FAILED) return -1;
  KXINQ(c.hconn, h, 1, &selector, 1, &value, 0, nullptr, &cc, &rc);
  KXCLOSE(c.hconn, &h, 0, &cc, &rc);
  return cc == KXCC_FAILED ? -1 : value;
}

int commit(Connection& c, const std::string& queue) {
  KXLONG cc, rc;
  KXCMIT(c.hconn, &cc, &rc);
  return cc == KXCC_OK ? kExitOk : failCall("commit", "queue " + queue, cc, rc);
}

void backOut(Connection& c) {
  KXLONG cc, rc;
  KXBACK(c.hconn, &cc, &rc);
}

bool readFile(FILE* f, std::vector<char>& out) {
  out.clear();
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  return !ferror(f);
}

// Reads messages one after another through a growing buffer.
class Reader {
 public:
  Reader(Connection& c, KXHOBJ h, std::string queue) : c_(c), h_(h), queue_(std::move(queue)) {
    buffer_.resize(64 * 1024);
  }
  // Returns 1 with a message, 0 at the end of the queue, -1 after a reported failure.
  int next(KXLONG options) {
    for (;;) {
      KXGMO gmo = KXGMO_DEFAULT;
      gmo.Options = options;
      md_ = KXMD_DEFAULT;
      KXLONG cc, rc;
      KXGET(c_.hconn, h_, &md_, &gmo, KXLONG(buffer_.size()), buffer_.data(), &length_, &cc, &rc);
      if (cc == KXCC_OK) return 1;
      if (rc == KXRC_NO_MSG_AVAILABLE) return 0;
      if (rc == KXRC_TRUNCATED_MSG_FAILED && size_t(length_) > buffer_.size()) {
        buffer_.resize(size_t(length_));
        continue;
      }
      failCall("get", "queue " + queue_, cc, rc);
      return -1;
    }
  }
  const KXMD& md() const { return md_; }
  const char* data() const { return buffer_.data(); }
  KXLONG length() const { return length_; }

 private:
  Connection& c_;
  KXHOBJ h_;
  std::string queue_;
  std::vector<char> buffer_;
  KXMD md_ = KXMD_DEFAULT;
  KXLONG length_ = 0;
};

// ---- Commands -----------------------------------------------------------------------------------

using Args = std::vector<std::string>;

int adminResult(int32_t r, const char* msg) {
  if (r == 0) return kExitOk;
  fail("%s", msg);
  return kExitFailed;
}

// The dead-letter queue: messages backed out as often as their queue's back-out threshold
// move there instead of being handed out again.
constexpr const char* kDeadLetterQueue = "KX.DEAD.LETTER";

int cmdCreateQmgr(const Args& a) {
  char msg[1024];
  int r = adminResult(kxmCreateQmgr(a[0].c_str(), msg, sizeof msg), msg);
  if (r == kExitOk) r = adminResult(kxmCreateQueue(a[0].c_str(), kDeadLetterQueue, -1, msg, sizeof msg), msg);
  if (r == kExitOk) summary("queue manager %s created, with dead-letter queue %s", a[0].c_str(), kDeadLetterQueue);
  return r;
}

int cmdDeleteQmgr(const Args& a) {
  char msg[1024];
  int r = adminResult(kxmDeleteQmgr(a[0].c_str(), msg, sizeof msg), msg);
  if (r == kExitOk) summary("queue manager %s deleted", a[0].c_str());
  return r;
}

int cmdCreateQueue(const Args& a) {
  int64_t maxLength = -1;
  for (size_t i = 2; i < a.size(); ++i) {
    if (a[i] == "--max-length" && i + 1 < a.size()) {
      if (!parseInt(a[++i].c_str(), 0, KXM_LARGEST_MAX_MSG_LENGTH, &maxLength)) {
        fail("create-queue: --max-length must be a number from 0 to %d",
             KXM_LARGEST_MAX_MSG_LENGTH);
        return kExitUsage;
      }
    } else {
      fail("create-queue: unexpected argument '%s'", a[i].c_str());
      return kExitUsage;
    }
  }
  char msg[1024];
  int r = adminResult(kxmCreateQueue(a[0].c_str(), a[1].c_str(), maxLength, msg, sizeof msg), msg);
  if (r == kExitOk) summary("queue %s created on %s", a[1].c_str(), a[0].c_str());
  return r;
}

int cmdDeleteQueue(const Args& a) {
  char msg[1024];
  int r = adminResult(kxmDeleteQueue(a[0].c_str(), a[1].c_str(), msg, sizeof msg), msg);
  if (r == kExitOk) summary("queue %s deleted from %s", a[1].c_str(), a[0].c_str());
  return r;
}

int cmdList(const Args& a) {
  struct Row {
    std::string name;
    int64_t maxLength;
  };
  std::vector<Row> rows;
  char msg[1024];
  int32_t r = kxmListQueues(
      a[0].c_str(),
      [](const char* q, int64_t, int64_t maxLength, void* ctx) -> int32_t {
        static_cast<std::vector<Row>*>(ctx)->push_back({q, maxLength});
        return 0;
      },
      &rows, msg, sizeof msg);
  if (r) return adminResult(r, msg);
  Connection c;
  if (int e = connectTo(a[0], c)) return e;
  printf("%-48s %12s %12s %9s\n", "QUEUE", "DEPTH", "MAXMSGL", "BOTHRESH");
  for (const Row& row : rows) {
    int64_t depth = queueDepth(c, row.name);
    int64_t threshold = queueAttribute(c, row.name, KXIA_BACKOUT_THRESHOLD);
    printf("%-48s %12" PRId64 " %12" PRId64 " %9" PRId64 "\n", row.name.c_str(), depth,
           row.maxLength, threshold);
  }
  return kExitOk;
}

int cmdClear(const Args& a) {
  Connection c;
  KXHOBJ h = -1;
  if (int e = connectTo(a[0], c)) return e;
  if (int e = openQueue(c, a[1], KXOO_INPUT_SHARED | KXOO_FAIL_IF_QUIESCING, &h)) return e;
  int64_t removed = 0;
  Progress progress("cleared", queueDepth(c, a[1]));
  for (;;) {
    KXMD md = KXMD_DEFAULT;
    KXGMO gmo = KXGMO_DEFAULT;
    gmo.Options = KXGMO_SYNCPOINT | KXGMO_ACCEPT_TRUNCATED_MSG;
    KXLONG cc, rc, length;
    KXGET(c.hconn, h, &md, &gmo, 0, nullptr, &length, &cc, &rc);
    if (rc == KXRC_NO_MSG_AVAILABLE) break;
    if (cc == KXCC_FAILED) {
      int e = failCall("get", "queue " + a[1], cc, rc);  // while the cause is known
      backOut(c);
      return e;
    }
    if (++removed % kCommitEvery == 0) {
      if (int e = commit(c, a[1])) return e;
      progress.update(removed);
    }
  }
  if (int e = commit(c, a[1])) return e;
  progress.finish(removed);
  summary("%" PRId64 " messages removed from %s", removed, a[1].c_str());
  return kExitOk;
}

int putOne(Connection& c, KXHOBJ h, const std::string& queue, KXMD& md, KXLONG options,
           const char* data, size_t length, const std::string& source) {
  if (length > size_t(INT32_MAX)) {
    fail("put: %s is too long for a message", source.c_str());
    return kExitFailed;
  }
  KXPMO pmo = KXPMO_DEFAULT;
  pmo.Options = options;
  KXLONG cc, rc;
  KXPUT(c.hconn, h, &md, &pmo, KXLONG(length), const_cast<char*>(data), &cc, &rc);
  if (cc == KXCC_FAILED) return failCall(("put of " + source).c_str(), "queue " + queue, cc, rc);
  return kExitOk;
}

int cmdPut(const Args& a) {
  KXMD base = KXMD_DEFAULT;
  bool raw = false;
  std::vector<std::string> files;
  for (size_t i = 2; i < a.size(); ++i) {
    const std::string& o = a[i];
    bool hasValue = i + 1 < a.size();
    int64_t v;
    if (o == "--raw") {
      raw = true;
    } else if (o == "--format" && hasValue) {
      const std::string& f = a[++i];
      if (f.size() > 8) {
        fail("put: --format takes at most 8 characters");
        return kExitUsage;
      }
      memset(base.Format, ' ', 8);
      memcpy(base.Format, f.data(), f.size());
    } else if ((o == "--ccsid" || o == "--encoding" || o == "--priority") && hasValue) {
      if (!parseInt(a[++i].c_str(), o == "--priority" ? -1 : 0, INT32_MAX, &v)) {
        fail("put: %s needs a number, not '%s'", o.c_str(), a[i].c_str());
        return kExitUsage;
      }
      (o == "--ccsid"      ? base.CodedCharSetId
       : o == "--encoding" ? base.Encoding
                           : base.Priority) = KXLONG(v);
    } else if ((o == "--msgid" || o == "--correlid") && hasValue) {
      if (!parseHexId(a[++i].c_str(), o == "--msgid" ? base.MsgId : base.CorrelId)) {
        fail("put: %s needs an even number of hex digits, at most 48", o.c_str());
        return kExitUsage;
      }
    } else if (o.size() > 1 && o[0] == '-' && o != "-") {
      fail("put: unknown option '%s'", o.c_str());
      return kExitUsage;
    } else {
      files.push_back(o);
    }
  }
  if (raw && (files.empty() || a.size() - 2 != files.size() + 1)) {
    fail("put: --raw takes files and no other options");
    return kExitUsage;
  }
  if (files.empty()) files.push_back("-");
  Connection c;
  KXHOBJ h = -1;
  if (int e = connectTo(a[0], c)) return e;
  if (int e = openQueue(c, a[1], KXOO_OUTPUT | KXOO_FAIL_IF_QUIESCING, &h)) return e;
  std::vector<char> content;
  for (const std::string& file : files) {
    FILE* f = file == "-" ? stdin : fopen(file.c_str(), "rb");
    if (!f) {
      fail("put: cannot open %s: %s", file.c_str(), strerror(errno));
      return kExitFailed;
    }
    bool ok = readFile(f, content);
    if (f != stdin) fclose(f);
    if (!ok) {
      fail("put: cannot read %s: %s", file.c_str(), strerror(errno));
      return kExitFailed;
    }
    std::string source = file == "-" ? "standard input" : file;
    KXMD md = base;
    const char* data = content.data();
    size_t length = content.size();
    if (raw) {
      if (length < sizeof(KXMD) || memcmp(content.data(), "MD  ", 4) != 0) {
        fail(
            "put: %s is not a raw message (a 364-byte descriptor starting with \"MD  \", then "
            "the data)",
            source.c_str());
        return kExitFailed;
      }
      memcpy(&md, content.data(), sizeof md);
      data += sizeof md;
      length -= sizeof md;
    }
    if (int e = putOne(c, h, a[1], md, KXPMO_NO_SYNCPOINT, data, length, source)) return e;
  }
  return kExitOk;
}

// ---- Message files ------------------------------------------------------------------------------

// A got message's file while its get is being committed: ".NNNN.msg.part".
constexpr const char* kPartSuffix = ".part";

// The number of a message file name "NNNN.msg" (digits only), or of the part file of one that
// a get left behind (".NNNN.msg.part", kept and never reused); 0 for any other name.
int64_t messageFileNumber(std::string_view name) {
  if (name.size() > 6 && name[0] == '.' && name.ends_with(kPartSuffix))
    name = name.substr(1, name.size() - 1 - strlen(kPartSuffix));
  if (name.size() < 5 || name.size() > 4 + 18 || !name.ends_with(".msg")) return 0;
  int64_t v = 0;
  for (char ch : name.substr(0, name.size() - 4)) {
    if (ch < '0' || ch > '9') return 0;
    v = v * 10 + (ch - '0');
  }
  return v;
}

// The highest message file number in a directory (0 when there is none), -1 when it cannot be read.
int64_t highestMessageFile(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return -1;
  int64_t highest = 0;
  while (dirent* e = readdir(d)) highest = std::max(highest, messageFileNumber(e->d_name));
  closedir(d);
  return highest;
}

std::string messageFileName(int64_t number) {
  char name[32];
  snprintf(name, sizeof name, "%04" PRId64 ".msg", number);
  return name;
}

// Writes all of the bytes, retrying short writes.
bool writeAll(int fd, const void* p, size_t n) {
  const char* c = static_cast<const char*>(p);
  while (n > 0) {
    ssize_t w = write(fd, c, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    c += w;
    n -= size_t(w);
  }
  return true;
}

// Creates `path`, which must not exist yet, with the descriptor and the data, flushed to the disk.
// A file that cannot be written whole is removed again. Returns 0, or errno (EEXIST: the name is
// taken and nothing was touched).
int createRaw(const std::string& path, const KXMD& md, const char* data, size_t length) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return errno;
  bool ok = writeAll(fd, &md, sizeof md) && writeAll(fd, data, length) && fsync(fd) == 0;
  int err = ok ? 0 : errno ? errno : EIO;
  if (close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (!ok) unlink(path.c_str());
  return err;
}

// Gives a written file its final name, never replacing a file that has it. Returns 0 or errno.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without the no-replace rename: a hard link fails on an existing name as well.
  if (link(from.c_str(), to.c_str()) != 0) return errno;
  unlink(from.c_str());
  return 0;
}

void syncDirectory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// browse and get --to DIR [--count N]
//
// Files are numbered on from the highest "NNNN.msg" already in DIR, and a name that is taken
// stops the run: no file is ever overwritten. A got message's file is written under a temporary
// name and flushed, the get is committed, and only then is the file renamed into place: no
// "NNNN.msg" ever stands for a message still on the queue, and a failed commit leaves the
// message on the queue and no file behind.
int cmdToDir(const Args& a, bool remove) {
  const char* cmd = remove ? "get" : "browse";
  std::string dir;
  int64_t count = -1;
  for (size_t i = 2; i < a.size(); ++i) {
    if (a[i] == "--to" && i + 1 < a.size()) {
      dir = a[++i];
    } else if (remove && a[i] == "--count" && i + 1 < a.size()) {
      if (!parseInt(a[++i].c_str(), 0, INT64_MAX, &count)) {
        fail("get: --count needs a number");
        return kExitUsage;
      }
    } else {
      fail("%s: unexpected argument '%s'", cmd, a[i].c_str());
      return kExitUsage;
    }
  }
  if (dir.empty()) {
    fail("%s: --to DIR is required", cmd);
    return kExitUsage;
  }
  if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
    fail("%s: cannot create %s: %s", cmd, dir.c_str(), strerror(errno));
    return kExitFailed;
  }
  int64_t last = highestMessageFile(dir);
  if (last < 0) {
    fail("%s: cannot read %s: %s", cmd, dir.c_str(), strerror(errno));
    return kExitFailed;
  }
  Connection c;
  KXHOBJ h = -1;
  if (int e = connectTo(a[0], c)) return e;
  KXLONG openOptions = (remove ? KXOO_INPUT_SHARED : KXOO_BROWSE) | KXOO_FAIL_IF_QUIESCING;
  if (int e = openQueue(c, a[1], openOptions, &h)) return e;
  Reader reader(c, h, a[1]);
  int64_t n = 0;
  Progress progress(remove ? "got" : "browsed", remove ? count : -1);
  auto finish = [&](int rc) {
    progress.finish(n);
    if (n == 1) {
      syncDirectory(dir);
      summary("1 message written to %s (%s)", dir.c_str(), messageFileName(last + 1).c_str());
    } else if (n > 1) {
      syncDirectory(dir);
      summary("%" PRId64 " messages written to %s (%s to %s)", n, dir.c_str(),
              messageFileName(last + 1).c_str(), messageFileName(last + n).c_str());
    } else if (rc == kExitOk) {
      summary("0 messages written to %s", dir.c_str());
    }
    return rc;
  };
  while (count < 0 || n < count) {
    int r = reader.next(remove ? KXGMO_SYNCPOINT : KXGMO_BROWSE_NEXT);
    if (r < 0) {
      if (remove) backOut(c);
      return finish(kExitFailed);
    }
    if (r == 0) break;
    std::string name = messageFileName(last + n + 1);
    std::string path = dir + "/" + name;
    std::string written = remove ? dir + "/." + name + kPartSuffix : path;
    if (int err = createRaw(written, reader.md(), reader.data(), size_t(reader.length()))) {
      if (remove) backOut(c);
      if (err == EEXIST)
        fail("%s: %s already exists; it is left as it is and the run stops here", cmd,
             written.c_str());
      else
        fail("%s: cannot write %s: %s", cmd, written.c_str(), strerror(err));
      return finish(kExitFailed);
    }
    if (remove) {
      KXLONG cc, rc;
      KXCMIT(c.hconn, &cc, &rc);
      if (cc != KXCC_OK) {
        unlink(written.c_str());
        failCall("commit", "queue " + a[1], cc, rc);
        fail("get: the message stays on the queue; no file was written for it");
        return finish(kExitFailed);
      }
      if (int err = renameNoReplace(written, path)) {
        fail("get: cannot name %s %s (%s); the message, removed from the queue, is kept in %s",
             written.c_str(), path.c_str(), strerror(err), written.c_str());
        return finish(kExitFailed);
      }
    }
    ++n;
    progress.update(n);
  }
  return finish(kExitOk);
}

// Opens the file a dump is written to: "-" is standard output; an existing regular file is not
// overwritten (devices and pipes are written to as they are). `created` says whether the file
// is ours to remove after a failure.
FILE* openDumpOutput(const std::string& path, bool& created) {
  created = false;
  if (path == "-") return stdout;
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return fopen(path.c_str(), "wb");
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  created = true;
  return fdopen(fd, "wb");
}

int cmdDump(const Args& a) {
  const std::string& path = a[2];
  const std::string shown = path == "-" ? "standard output" : path;
  if (path == "-" && isatty(1)) {
    fail("dump: standard output is a terminal; redirect it to a file or a pipe");
    return kExitUsage;
  }
  Connection c;
  KXHOBJ h = -1;
  if (int e = connectTo(a[0], c)) return e;
  if (int e = openQueue(c, a[1], KXOO_BROWSE | KXOO_FAIL_IF_QUIESCING, &h)) return e;
  bool created = false;
  FILE* f = openDumpOutput(path, created);
  if (!f) {
    if (errno == EEXIST)
      fail("dump: %s already exists; it is left as it is (choose another name)", path.c_str());
    else
      fail("dump: cannot create %s: %s", path.c_str(), strerror(errno));
    return kExitFailed;
  }
  kxq::DumpWriter writer(f);
  Reader reader(c, h, a[1]);
  Progress progress("dumped", queueDepth(c, a[1]));
  uint64_t n = 0;
  int err = 0;
  bool ok = writer.header();
  if (!ok) err = errno;
  int r = 0;
  while (ok && (r = reader.next(KXGMO_BROWSE_NEXT)) > 0) {
    ok = writer.message(&reader.md(), reader.data(), uint32_t(reader.length()));
    if (!ok) err = errno;
    progress.update(int64_t(++n));
  }
  if (ok && r == 0 && !(ok = writer.trailer(n))) err = errno;
  if (f == stdout ? fflush(f) != 0 : fclose(f) != 0) {
    if (ok) err = errno;
    ok = false;
  }
  progress.finish(int64_t(n));
  if (!ok || r < 0) {
    if (!ok) fail("dump: cannot write %s: %s", shown.c_str(), strerror(err));
    if (created) unlink(path.c_str());
    return kExitFailed;
  }
  summary("%" PRIu64 " messages dumped from %s to %s", n, a[1].c_str(), shown.c_str());
  return kExitOk;
}

int cmdLoad(const Args& a) {
  const std::string& path = a[2];
  const std::string shown = path == "-" ? "standard input" : path;
  FILE* f = path == "-" ? stdin : fopen(path.c_str(), "rb");
  if (!f) {
    fail("load: cannot open %s: %s", path.c_str(), strerror(errno));
    return kExitFailed;
  }
  auto closeInput = [&] {
    if (f != stdin) fclose(f);
  };
  kxq::DumpReader dump(f);
  std::string why;
  if (!dump.header(why)) {
    closeInput();
    fail("load: %s: %s", shown.c_str(), why.c_str());
    return kExitFailed;
  }
  Connection c;
  KXHOBJ h = -1;
  if (int e = connectTo(a[0], c)) return closeInput(), e;
  if (int e = openQueue(c, a[1], KXOO_OUTPUT | KXOO_FAIL_IF_QUIESCING, &h)) return closeInput(), e;
  // The whole file is one unit of work, streamed a message at a time: a load that fails leaves
  // the queue as it was.
  Progress progress("loaded", dump.count() ? int64_t(dump.count()) : -1);
  uint64_t n = 0;
  KXMD md;
  std::vector<char> data;
  int r;
  while ((r = dump.message(&md, data, why)) > 0) {
    if (int e = putOne(c, h, a[1], md, KXPMO_SYNCPOINT | KXPMO_SET_ALL_CONTEXT, data.data(),
                       data.size(), "message " + std::to_string(n + 1))) {
      backOut(c);
      closeInput();
      progress.finish(int64_t(n));
      fail("load: nothing was loaded");
      return e;
    }
    progress.update(int64_t(++n));
  }
  bool whole = r == 0 && dump.complete(n, why) && dump.atEnd(why);
  closeInput();
  if (!whole) {
    backOut(c);
    progress.finish(int64_t(n));
    fail("load: %s: %s; nothing was loaded", shown.c_str(), why.c_str());
    return kExitFailed;
  }
  if (int e = commit(c, a[1])) {
    fail("load: nothing was loaded");
    return e;
  }
  progress.finish(int64_t(n));
  summary("%" PRIu64 " messages loaded from %s to %s", n, shown.c_str(), a[1].c_str());
  return kExitOk;
}

struct Command {
  const char* name;
  size_t positional;  // QMGR, QUEUE, FILE ... before the options
  int (*run)(const Args&);
  const char* usage;
};

int cmdBrowse(const Args& a) { return cmdToDir(a, false); }
int cmdGet(const Args& a) { return cmdToDir(a, true); }

constexpr Command kCommands[] = {
    {"create-qmgr", 1, cmdCreateQmgr, "create-qmgr QMGR"},
    {"delete-qmgr", 1, cmdDeleteQmgr, "delete-qmgr QMGR"},
    {"create-queue", 2, cmdCreateQueue, "create-queue QMGR QUEUE [--max-length BYTES]"},
    {"delete-queue", 2, cmdDeleteQueue, "delete-queue QMGR QUEUE"},
    {"list", 1, cmdList, "list QMGR"},
    {"clear", 2, cmdClear, "clear QMGR QUEUE"},
    {"put", 2, cmdPut, "put QMGR QUEUE [options] [FILE...] | put QMGR QUEUE --raw FILE..."},
    {"browse", 2, cmdBrowse, "browse QMGR QUEUE --to DIR"},
    {"get", 2, cmdGet, "get QMGR QUEUE --to DIR [--count N]"},
    {"dump", 3, cmdDump, "dump QMGR QUEUE FILE|-"},
    {"load", 3, cmdLoad, "load QMGR QUEUE FILE|-"},
};

// Commands whose arguments are exactly the positional ones.
bool fixedArity(const Command& c) {
  std::string_view n = c.name;
  return n != "create-queue" && n != "put" && n != "browse" && n != "get";
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away (a closed pipe) makes a write fail with an error in words.
  signal(SIGPIPE, SIG_IGN);
  if (argc == 2 && !strcmp(argv[1], "--version")) {
    printf("kxq %s\n", RPL_VERSION);
    return kExitOk;
  }
  if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") ||
      !strcmp(argv[1], "help")) {
    fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? kExitUsage : kExitOk;
  }
  for (const Command& c : kCommands) {
    if (strcmp(argv[1], c.name) != 0) continue;
    Args args(argv + 2, argv + argc);
    for (const std::string& s : args)
      if (s == "--help" || s == "-h") {
        printf("usage: kxq %s\n", c.usage);
        return kExitOk;
      }
    if (args.size() < c.positional || (fixedArity(c) && args.size() != c.positional)) {
      fail("usage: kxq %s", c.usage);
      return kExitUsage;
    }
    return c.run(args);
  }
  fail("unknown command '%s' (kxq --help lists the commands)", argv[1]);
  return kExitUsage;
}
