// store.cpp - the queue manager database: paths, names, schema, statements and locking.
#include "kx/store.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace kxm {
namespace {

// How long a connection waits for another one's write transaction before giving up.
constexpr int64_t kBusyTimeoutUs = 60'000'000;
// How long the relief of a full disk waits for other connections' reads to end.
constexpr int64_t kReliefWaitUs = 3'000'000;

int64_t nowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

bool nameChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '%' || c == '/' || c == '-';
}

constexpr const char* kSchema =
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE queues(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE,"
    " max_len INTEGER NOT NULL, backout_threshold INTEGER NOT NULL DEFAULT 5);"
    "CREATE TABLE messages(seq INTEGER PRIMARY KEY AUTOINCREMENT, qid INTEGER NOT NULL,"
    " state INTEGER NOT NULL, owner INTEGER NOT NULL, msgid BLOB NOT NULL,"
    " correlid BLOB NOT NULL, md BLOB NOT NULL, data BLOB NOT NULL,"
    " backouts INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX messages_queue ON messages(qid, state);"
    "CREATE INDEX messages_owner ON messages(owner) WHERE owner <> 0;"
    "CREATE TABLE owners(token INTEGER PRIMARY KEY, pid INTEGER NOT NULL,"
    " started INTEGER NOT NULL);"
    "INSERT INTO meta VALUES('format', '2'), ('ccsid', '1208');";

// A file of the first format gains the back-out count and threshold (no rows are rewritten).
constexpr const char* kUpgrade =
    "ALTER TABLE queues ADD COLUMN backout_threshold INTEGER NOT NULL DEFAULT 5;"
    "ALTER TABLE messages ADD COLUMN backouts INTEGER NOT NULL DEFAULT 0;"
    "UPDATE meta SET value = '2' WHERE key = 'format';";

uint32_t be32(const unsigned char* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Checks what stands at the queue manager's path before SQLite opens it: a directory, a file
// that is not a database, or a database cut shorter than its header says are damage, which no
// retry can mend. Returns 0 or KXRC_OBJECT_DAMAGED with `why`.
int32_t checkFile(const std::string& file, std::string& why) {
  struct stat st;
  if (stat(file.c_str(), &st) != 0) return 0;  // reported by the caller
  if (S_ISDIR(st.st_mode)) {
    why = file + " is damaged: it is a directory, not a queue manager file";
    return KXRC_OBJECT_DAMAGED;
  }
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  unsigned char h[100];
  ssize_t n = pread(fd, h, sizeof h, 0);
  close(fd);
  if (n != ssize_t(sizeof h) || memcmp(h, "SQLite format 3", 16) != 0) {
    why = file + " is damaged: file is not a database (" + std::to_string(st.st_size) + " bytes)";
    return KXRC_OBJECT_DAMAGED;
  }
  // The page count at 28 holds when the version-valid-for number at 92 equals the change
  // counter at 24; a file shorter than that many pages lost its end. Not while a log is beside
  // it: a checkpoint cut short by a full disk leaves the file short and the pages in the log.
  uint32_t pageSize = uint32_t(h[16]) << 8 | h[17];
  if (pageSize == 1) pageSize = 65536;
  uint32_t pages = be32(h + 28);
  struct stat wal;
  bool logged = stat((file + "-wal").c_str(), &wal) == 0 && wal.st_size > 0;
  if (!logged && be32(h + 92) == be32(h + 24) && pages > 0 && pageSize >= 512 &&
      st.st_size < int64_t(pages) * pageSize) {
    why = file + " is damaged: database disk image is malformed (cut short at " +
          std::to_string(st.st_size) + " bytes of " + std::to_string(int64_t(pages) * pageSize) +
          ")";
    return KXRC_OBJECT_DAMAGED;
  }
  return 0;
}

// ---- Reading a long message's pages from a mapping of the file -------------------------------
//
// SQLite reads the overflow pages of a long message one page at a time, straight into the
// caller's buffer: a 64 MiB message was 16,384 reads of 4 KiB, whose system calls and page
// cache lookups took more time than the copying. Queue manager files are opened through a thin
// layer over the operating system's files which, while a connection reads one message's data
// (kReadAheadOp), maps the file and lets SQLite copy the pages from the mapping. A browse of a
// long queue keeps its flat memory: the mapping exists only during the read of one message, and
// the pages copied are let go every kDropEvery bytes, so that they never count as resident
// memory beside the message itself. The pages read do not change meanwhile: the read is within
// one transaction, and SQLite reads from the file only pages that no writer may touch then.
constexpr sqlite3_int64 kDropEvery = 1 << 20;

struct AheadFile {
  sqlite3_file base;
  sqlite3_file* real;  // the operating system's file, in the same allocation after this
  bool on;
  void* map;               // the start of the file in the mapping while on, else null
  sqlite3_int64 mapped;    // bytes of the file mapped
  sqlite3_int64 readSince;  // bytes read since the pages were last let go
  sqlite3_int64 low, high;  // the part of the file those reads were in
};

sqlite3_vfs* gRealVfs = nullptr;

AheadFile* ahead(sqlite3_file* f) { return reinterpret_cast<AheadFile*>(f); }
sqlite3_file* real(sqlite3_file* f) { return ahead(f)->real; }

// Lets the copied pages of the mapping go (the file's pages stay in the page cache). Only while
// the mapping is still the one made for this read: SQLite may have moved or dropped it.
void letGo(AheadFile* a) {
  sqlite3_file* r = a->real;
  void* now = nullptr;
  if (a->map && r->pMethods->xFetch(r, 0, 1, &now) == SQLITE_OK && now)
    r->pMethods->xUnfetch(r, 0, now);
  if (now != a->map) a->map = nullptr;
  sqlite3_int64 page = sysconf(_SC_PAGESIZE);
  sqlite3_int64 from = a->low / page * page, to = std::min(a->high, a->mapped);
  if (a->map && to > from)
    madvise(static_cast<char*>(a->map) + from, size_t(to - from), MADV_DONTNEED);
  a->readSince = 0;
  a->low = INT64_MAX;
  a->high = 0;
}

// Maps the file (SQLite's own mapping, which its reads then copy from) or unmaps it.
void readAhead(AheadFile* a, bool on) {
  sqlite3_file* r = a->real;
  if (on == a->on) return;
  if (on) {
    sqlite3_int64 size = 0;
    if (r->pMethods->xFileSize(r, &size) != SQLITE_OK || size <= 0) return;
    sqlite3_int64 limit = size;
    r->pMethods->xFileControl(r, SQLITE_FCNTL_MMAP_SIZE, &limit);
    void* p = nullptr;
    if (r->pMethods->xFetch(r, 0, 1, &p) != SQLITE_OK || !p) {
      limit = 0;
      r->pMethods->xFileControl(r, SQLITE_FCNTL_MMAP_SIZE, &limit);
      return;
    }
    r->pMethods->xUnfetch(r, 0, p);
    a->map = p;
    // SQLite maps at most 2 GiB less 64 KiB of a file (its default limit).
    a->mapped = std::min<sqlite3_int64>(size, 0x7fff0000);
    a->readSince = 0;
    a->low = INT64_MAX;
    a->high = 0;
    a->on = true;
    return;
  }
  letGo(a);
  sqlite3_int64 none = 0;
  r->pMethods->xFileControl(r, SQLITE_FCNTL_MMAP_SIZE, &none);
  a->map = nullptr;
  a->mapped = 0;
  a->on = false;
}

int aheadClose(sqlite3_file* f) {
  readAhead(ahead(f), false);
  return real(f)->pMethods->xClose(real(f));
}

int aheadRead(sqlite3_file* f, void* buf, int amt, sqlite3_int64 off) {
  AheadFile* a = ahead(f);
  sqlite3_file* r = real(f);
  int rc = r->pMethods->xRead(r, buf, amt, off);
  if (a->on) {
    a->low = std::min(a->low, off);
    a->high = std::max(a->high, off + amt);
    if ((a->readSince += amt) >= kDropEvery) letGo(a);
  }
  return rc;
}

int aheadWrite(sqlite3_file* f, const void* buf, int amt, sqlite3_int64 off) {
  return real(f)->pMethods->xWrite(real(f), buf, amt, off);
}

int aheadTruncate(sqlite3_file* f, sqlite3_int64 size) {
  return real(f)->pMethods->xTruncate(real(f), size);
}

int aheadSync(sqlite3_file* f, int flags) { return real(f)->pMethods->xSync(real(f), flags); }
int aheadFileSize(sqlite3_file* f, sqlite3_int64* size) {
  return real(f)->pMethods->xFileSize(real(f), size);
}
int aheadLock(sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); }
int aheadUnlock(sqlite3_file* f, int level) {
  return real(f)->pMethods->xUnlock(real(f), level);
}
int aheadCheckReserved(sqlite3_file* f, int* out) {
  return real(f)->pMethods->xCheckReservedLock(real(f), out);
}
int aheadFileControl(sqlite3_file* f, int op, void* arg) {
  if (op == kReadAheadOp) {
    readAhead(ahead(f), *static_cast<int*>(arg) != 0);
    return SQLITE_OK;
  }
  int rc = real(f)->pMethods->xFileControl(real(f), op, arg);
  // The layer's name in the chain SQLite reports for the file.
  if (rc == SQLITE_OK && op == SQLITE_FCNTL_VFSNAME && arg) {
    char** name = static_cast<char**>(arg);
    *name = sqlite3_mprintf("kxm/%z", *name);
  }
  return rc;
}
int aheadSectorSize(sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); }
int aheadDeviceCharacteristics(sqlite3_file* f) {
  return real(f)->pMethods->xDeviceCharacteristics(real(f));
}
int aheadShmMap(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
  return real(f)->pMethods->xShmMap(real(f), page, size, extend, out);
}
int aheadShmLock(sqlite3_file* f, int offset, int n, int flags) {
  return real(f)->pMethods->xShmLock(real(f), offset, n, flags);
}
void aheadShmBarrier(sqlite3_file* f) { real(f)->pMethods->xShmBarrier(real(f)); }
int aheadShmUnmap(sqlite3_file* f, int deleteFlag) {
  return real(f)->pMethods->xShmUnmap(real(f), deleteFlag);
}
int aheadFetch(sqlite3_file* f, sqlite3_int64 off, int amt, void** out) {
  return real(f)->pMethods->xFetch(real(f), off, amt, out);
}
int aheadUnfetch(sqlite3_file* f, sqlite3_int64 off, void* p) {
  return real(f)->pMethods->xUnfetch(real(f), off, p);
}

const sqlite3_io_methods kAheadMethods = {
    3,           aheadClose,        aheadRead,          aheadWrite,
    aheadTruncate, aheadSync,       aheadFileSize,      aheadLock,
    aheadUnlock, aheadCheckReserved, aheadFileControl,  aheadSectorSize,
    aheadDeviceCharacteristics, aheadShmMap, aheadShmLock, aheadShmBarrier,
    aheadShmUnmap, aheadFetch,      aheadUnfetch};

constexpr int kAheadHeader = int((sizeof(AheadFile) + 7) / 8 * 8);

int aheadOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* f, int flags, int* outFlags) {
  AheadFile* a = ahead(f);
  memset(a, 0, sizeof *a);
  a->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(f) + kAheadHeader);
  sqlite3_vfs* realVfs = static_cast<sqlite3_vfs*>(vfs->pAppData);
  int rc = realVfs->xOpen(realVfs, name, a->real, flags, outFlags);
  // Only the methods of files the operating system opened: SQLite closes no other.
  if (a->real->pMethods) {
    if (a->real->pMethods->iVersion < 3) {
      a->real->pMethods->xClose(a->real);
      return SQLITE_CANTOPEN;
    }
    a->base.pMethods = &kAheadMethods;
  }
  return rc;
}

// The layer's own file system calls are the operating system's.
int vfsDelete(sqlite3_vfs* v, const char* n, int sync) {
  return gRealVfs->xDelete(gRealVfs, n, sync);
}
int vfsAccess(sqlite3_vfs* v, const char* n, int flags, int* out) {
  return gRealVfs->xAccess(gRealVfs, n, flags, out);
}
int vfsFullPathname(sqlite3_vfs* v, const char* n, int size, char* out) {
  return gRealVfs->xFullPathname(gRealVfs, n, size, out);
}
void* vfsDlOpen(sqlite3_vfs* v, const char* n) { return gRealVfs->xDlOpen(gRealVfs, n); }
void vfsDlError(sqlite3_vfs* v, int n, char* msg) { gRealVfs->xDlError(gRealVfs, n, msg); }
void (*vfsDlSym(sqlite3_vfs* v, void* h, const char* sym))(void) {
  return gRealVfs->xDlSym(gRealVfs, h, sym);
}
void vfsDlClose(sqlite3_vfs* v, void* h) { gRealVfs->xDlClose(gRealVfs, h); }
int vfsRandomness(sqlite3_vfs* v, int n, char* out) {
  return gRealVfs->xRandomness(gRealVfs, n, out);
}
int vfsSleep(sqlite3_vfs* v, int us) { return gRealVfs->xSleep(gRealVfs, us); }
int vfsCurrentTime(sqlite3_vfs* v, double* out) { return gRealVfs->xCurrentTime(gRealVfs, out); }
int vfsGetLastError(sqlite3_vfs* v, int n, char* out) {
  return gRealVfs->xGetLastError(gRealVfs, n, out);
}
int vfsCurrentTimeInt64(sqlite3_vfs* v, sqlite3_int64* out) {
  return gRealVfs->xCurrentTimeInt64(gRealVfs, out);
}

sqlite3_vfs gAheadVfs;

// The name of the layer for sqlite3_open_v2, registered on first use; null when the operating
// system's files are used as they are.
const char* aheadVfsName() {
  static const char* name = [] () -> const char* {
    gRealVfs = sqlite3_vfs_find(nullptr);
    if (!gRealVfs || gRealVfs->iVersion < 2) return nullptr;
    gAheadVfs = sqlite3_vfs{};
    gAheadVfs.iVersion = 2;
    gAheadVfs.szOsFile = kAheadHeader + gRealVfs->szOsFile;
    gAheadVfs.mxPathname = gRealVfs->mxPathname;
    gAheadVfs.zName = "kxm-ahead";
    gAheadVfs.pAppData = gRealVfs;
    gAheadVfs.xOpen = aheadOpen;
    gAheadVfs.xDelete = vfsDelete;
    gAheadVfs.xAccess = vfsAccess;
    gAheadVfs.xFullPathname = vfsFullPathname;
    gAheadVfs.xDlOpen = vfsDlOpen;
    gAheadVfs.xDlError = vfsDlError;
    gAheadVfs.xDlSym = vfsDlSym;
    gAheadVfs.xDlClose = vfsDlClose;
    gAheadVfs.xRandomness = vfsRandomness;
    gAheadVfs.xSleep = vfsSleep;
    gAheadVfs.xCurrentTime = vfsCurrentTime;
    gAheadVfs.xGetLastError = vfsGetLastError;
    gAheadVfs.xCurrentTimeInt64 = vfsCurrentTimeInt64;
    return sqlite3_vfs_register(&gAheadVfs, 0) == SQLITE_OK ? gAheadVfs.zName : nullptr;
  }();
  return name;
}

}  // namespace

std::string dataPath() {
  const char* env = getenv("KX_DATA_PATH");
  if (env && *env) return env;
  const char* home = getenv("HOME");
  if (!home || !*home) {
    struct passwd* pw = getpwuid(getuid());
    home = pw && pw->pw_dir ? pw->pw_dir : "/tmp";
  }
  return std::string(home) + "/.kx";
}

int32_t ensureDataPath(std::string& why) {
  std::string path = dataPath();
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) {
      why = "data path " + path + " is not a directory";
      return KXM_RC_DATA_PATH_ERROR;
    }
    return 0;
  }
  // Create each missing level, like mkdir -p.
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i < path.size() && path[i] != '/') continue;
    std::string part = path.substr(0, i);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      why = "cannot create the data directory " + part + ": " + strerror(errno) +
            " (set KX_DATA_PATH to a writable directory)";
      return KXM_RC_DATA_PATH_ERROR;
    }
  }
  return 0;
}

bool validQueueName(std::string_view name) {
  if (name.empty() || name.size() > size_t(kNameLength)) return false;
  for (char c : name)
    if (!nameChar(c)) return false;
  return true;
}

bool validQmgrName(std::string_view name) {
  return validQueueName(name) && name[0] != '.' && name.find('/') == std::string_view::npos;
}

std::string qmgrFile(const std::string& qmgr) { return dataPath() + "/" + qmgr + ".kxdb"; }

std::string fieldName(const char* field, size_t room) {
  if (!field) return {};
  size_t n = 0;
  while (n < room && field[n] != '\0') ++n;
  while (n > 0 && field[n - 1] == ' ') --n;
  return std::string(field, n);
}

int32_t reasonOf(int rc) {
  switch (rc & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
      return KXRC_OBJECT_DAMAGED;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
      return KXRC_RESOURCE_PROBLEM;
    case SQLITE_NOMEM:
      return KXRC_STORAGE_NOT_AVAILABLE;
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
      return KXRC_NOT_AUTHORIZED;
    case SQLITE_CANTOPEN:
      return KXRC_Q_MGR_NOT_AVAILABLE;
    default:
      return KXRC_UNEXPECTED_ERROR;
  }
}

void Store::readAhead(bool on) {
  int flag = on ? 1 : 0;
  if (db_) sqlite3_file_control(db_, "main", kReadAheadOp, &flag);
}

bool diskFull(int rc) { return (rc & 0xff) == SQLITE_FULL || (rc & 0xff) == SQLITE_IOERR; }

int64_t processStart(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/stat", int(pid));
  FILE* f = fopen(path, "r");
  if (!f) return -1;
  char buf[1024];
  size_t n = fread(buf, 1, sizeof buf - 1, f);
  fclose(f);
  buf[n] = '\0';
  // Field 22 (starttime); the command name in field 2 may hold blanks, so count after ')'.
  char* p = strrchr(buf, ')');
  if (!p) return -1;
  int field = 2;
  for (++p; *p && field < 22; ++p)
    if (*p == ' ') ++field;
  return strtoll(p, nullptr, 10);
}

Store::~Store() { close(); }

void Store::close() {
  for (sqlite3_stmt** s :
       {&next, &dataOf, &insert, &remove, &mark, &findQueue, &depth, &setMaxLen, &commitPuts,
        &commitGets, &backPuts, &backGets, &countBacks, &overThreshold, &moveDead, &setThreshold,
        &begin_, &beginImmediate_, &commit_, &rollback_, &dataVersion_}) {
    sqlite3_finalize(*s);
    *s = nullptr;
  }
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
}

bool Store::keepReserve() {
  std::string path = file_ + "-reserve";
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && st.st_size >= kReserveBytes) return true;
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  int e = posix_fallocate(fd, 0, kReserveBytes);
  ::close(fd);
  if (e != 0) unlink(path.c_str());
  return e == 0;
}

bool Store::releaseReserve() { return unlink((file_ + "-reserve").c_str()) == 0; }

bool Store::relieve() {
  // The reserve first: a checkpoint may need it to give the file its full length before the
  // log can be emptied. Then the log is moved into the file and cut to nothing, which frees
  // its space; other connections' reads hold that up for at most a few seconds.
  bool released = releaseReserve();
  std::string wal = file_ + "-wal";
  struct stat before, after;
  if (stat(wal.c_str(), &before) != 0) before.st_size = 0;
  if (db_ && sqlite3_get_autocommit(db_)) {
    busyLimitUs_ = kReliefWaitUs;
    sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    busyLimitUs_ = kBusyTimeoutUs;
  }
  if (stat(wal.c_str(), &after) != 0) after.st_size = 0;
  return released || after.st_size < before.st_size;
}

int Store::onBusy(void* self, int count) {
  auto* store = static_cast<Store*>(self);
  int64_t now = nowUs();
  if (count == 0) store->busyStartUs_ = now;
  if (now - store->busyStartUs_ > store->busyLimitUs_) return 0;
  // Writers hold the lock for microseconds: yield first, then sleep briefly.
  if (count < 8) {
    sched_yield();
  } else {
    usleep(count < 200 ? 50 : 1000);
  }
  return 1;
}

int Store::prepare(sqlite3_stmt** s, const char* sql) {
  return sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, s, nullptr);
}

int Store::step0(sqlite3_stmt* s) {
  int rc = sqlite3_step(s);
  sqlite3_reset(s);
  return rc == SQLITE_DONE || rc == SQLITE_ROW ? SQLITE_OK : rc;
}

int Store::exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }

int64_t Store::dataVersion() {
  int64_t v = -1;
  if (sqlite3_step(dataVersion_) == SQLITE_ROW) v = sqlite3_column_int64(dataVersion_, 0);
  sqlite3_reset(dataVersion_);
  return v;
}

int32_t Store::open(const std::string& qmgr, std::string& why) {
  if (!validQmgrName(qmgr)) {
    why = "queue manager name '" + qmgr + "' is not valid";
    return KXRC_Q_MGR_NAME_ERROR;
  }
  std::string file = qmgrFile(qmgr);
  file_ = file;
  struct stat st;
  if (stat(file.c_str(), &st) != 0) {
    why = "queue manager " + qmgr + " does not exist (no " + file + ")";
    return errno == EACCES ? KXRC_NOT_AUTHORIZED : KXRC_Q_MGR_NAME_ERROR;
  }
  if (int32_t r = checkFile(file, why)) return r;
  if (access(file.c_str(), R_OK | W_OK) != 0) {
    why = "no access to " + file + ": " + strerror(errno);
    return KXRC_NOT_AUTHORIZED;
  }
  int32_t r = openFile(file, why);
  // On a full disk the shared-memory index or the log may not be made: give back the reserve
  // and try once more, so that the queue manager can still be read and drained.
  if (r == KXRC_RESOURCE_PROBLEM && openFull_ && releaseReserve()) {
    close();
    r = openFile(file, why);
  }
  if (r) close();
  return r;
}

// The text for a failure on the file: damage and a full disk name their cause.
static int32_t fileFailure(int rc, const std::string& file, const std::string& err,
                           std::string& why) {
  int32_t r = reasonOf(rc);
  if (r == KXRC_OBJECT_DAMAGED)
    why = file + " is damaged: " + err;
  else if (diskFull(rc))
    why = "cannot write " + file + ": " + err;
  else
    why = "cannot use " + file + ": " + err;
  return r == KXRC_OBJECT_DAMAGED || r == KXRC_RESOURCE_PROBLEM || r == KXRC_NOT_AUTHORIZED ||
                 r == KXRC_STORAGE_NOT_AVAILABLE
             ? r
             : KXRC_Q_MGR_NOT_AVAILABLE;
}

int Store::upgrade() {
  int rc = beginWrite();
  if (rc == SQLITE_OK) rc = exec(kUpgrade);
  if (rc == SQLITE_OK) rc = commit();
  if (rc != SQLITE_OK) rollback();
  return rc;
}

int32_t Store::openFile(const std::string& file, std::string& why) {
  int rc = sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                           aheadVfsName());
  if (rc != SQLITE_OK) {
    why = "cannot open " + file + ": " + lastError();
    return (rc & 0xff) == SQLITE_CANTOPEN ? KXRC_Q_MGR_NOT_AVAILABLE
                                           : fileFailure(rc, file, lastError(), why);
  }
  sqlite3_busy_handler(db_, onBusy, this);
  sqlite3_extended_result_codes(db_, 1);
  // A browse of a long queue keeps a flat memory: pages are read, not mapped (mapped pages of
  // the whole file would count as resident), into a 4 MiB page cache.
  // WAL with synchronous=NORMAL: a commit is in the operating system's hands when it returns,
  // so it survives the death of the process; only a power failure can lose the last commits.
  rc = exec(
      "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-2048;"
      " PRAGMA temp_store=MEMORY; PRAGMA mmap_size=0;"
      " PRAGMA journal_size_limit=67108864; PRAGMA wal_autocheckpoint=8192;");
  std::string format;
  if (rc == SQLITE_OK) {
    sqlite3_stmt* s = nullptr;
    rc = prepare(&s, "SELECT value FROM meta WHERE key='format'");
    if (rc == SQLITE_OK) {
      int step = sqlite3_step(s);
      if (step == SQLITE_ROW)
        format = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
      else
        rc = step == SQLITE_DONE ? SQLITE_CORRUPT : step;
      sqlite3_finalize(s);
    } else if ((rc & 0xff) == SQLITE_ERROR) {
      // Another program's database, or one whose tables are gone.
      why = file + " is damaged: not a queue manager file (" + lastError() + ")";
      return KXRC_OBJECT_DAMAGED;
    }
  }
  if (rc == SQLITE_OK && format == "1") rc = upgrade();
  openFull_ = diskFull(rc);
  if (rc != SQLITE_OK) {
    if ((rc & 0xff) == SQLITE_BUSY) {
      why = "cannot use " + file + ": " + lastError();
      return KXRC_RESOURCE_PROBLEM;
    }
    return fileFailure(rc, file, lastError(), why);
  }
  if (format != "1" && format != "2") {
    why = file + " is damaged: unknown format '" + format + "'";
    return KXRC_OBJECT_DAMAGED;
  }
  const char* next_sql =
      "SELECT seq, md, length(data), CASE WHEN length(data) <= ?3 THEN data END, backouts"
      " FROM messages WHERE qid = ?1 AND state = 0 AND seq > ?2"
      " AND (?4 IS NULL OR msgid = ?4) AND (?5 IS NULL OR correlid = ?5)"
      " AND (?7 IS NULL OR backouts < ?7)"
      " ORDER BY seq LIMIT ?6";
  // Pending gets of owner ?1 whose queue's threshold is reached.
  const char* over =
      " FROM messages m JOIN queues q ON q.id = m.qid WHERE m.owner = ?1 AND m.owner <> 0"
      " AND m.state = 2 AND q.backout_threshold > 0 AND m.backouts >= q.backout_threshold";
  std::string overSql = std::string("SELECT m.seq, q.name, m.msgid, m.backouts") + over;
  std::string moveSql = std::string(
                            "UPDATE messages SET qid = (SELECT id FROM queues WHERE name = '") +
                        kDeadLetterQueue + "') WHERE seq IN (SELECT m.seq" + over +
                        ") AND EXISTS(SELECT 1 FROM queues WHERE name = '" + kDeadLetterQueue +
                        "')";
  struct {
    sqlite3_stmt** s;
    const char* sql;
  } stmts[] = {
      {&next, next_sql},
      {&dataOf, "SELECT length(data) FROM messages WHERE seq = ?1 AND state = 0"},
      {&insert,
       "INSERT INTO messages(qid, state, owner, msgid, correlid, md, data)"
       " SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7 WHERE EXISTS(SELECT 1 FROM queues WHERE id = ?1)"},
      {&remove, "DELETE FROM messages WHERE seq = ?1"},
      {&mark, "UPDATE messages SET state = 2, owner = ?2 WHERE seq = ?1"},
      {&findQueue, "SELECT id, max_len, backout_threshold FROM queues WHERE name = ?1"},
      {&depth, "SELECT count(*) FROM messages WHERE qid = ?1 AND state IN (0, 2)"},
      {&setMaxLen, "UPDATE queues SET max_len = ?2 WHERE id = ?1"},
      // OR FAIL: a change of many rows needs no statement journal (which temp_store=MEMORY
      // would hold in memory, as large as the unit of work); the enclosing transaction is
      // rolled back whole on any failure anyway.
      {&commitPuts,
       "UPDATE OR FAIL messages SET state = 0, owner = 0"
       " WHERE owner = ?1 AND state = 1 AND owner <> 0"},
      {&commitGets, "DELETE FROM messages WHERE owner = ?1 AND state = 2 AND owner <> 0"},
      {&backPuts, "DELETE FROM messages WHERE owner = ?1 AND state = 1 AND owner <> 0"},
      {&backGets,
       "UPDATE OR FAIL messages SET state = 0, owner = 0"
       " WHERE owner = ?1 AND state = 2 AND owner <> 0"},
      {&countBacks,
       "UPDATE OR FAIL messages SET backouts = backouts + 1"
       " WHERE owner = ?1 AND state = 2 AND owner <> 0"},
      {&overThreshold, overSql.c_str()},
      {&moveDead, moveSql.c_str()},
      {&setThreshold, "UPDATE queues SET backout_threshold = ?2 WHERE id = ?1"},
      {&begin_, "BEGIN"},
      {&beginImmediate_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
      {&dataVersion_, "PRAGMA data_version"},
  };
  for (auto& st : stmts) {
    rc = prepare(st.s, st.sql);
    if (rc != SQLITE_OK) {
      why = file + " is damaged: not a queue manager file (" + lastError() + ")";
      return (rc & 0xff) == SQLITE_ERROR ? KXRC_OBJECT_DAMAGED
                                         : fileFailure(rc, file, lastError(), why);
    }
  }
  keepReserve();
  return 0;
}

int32_t Store::create(const std::string& qmgr, std::string& why) {
  if (!validQmgrName(qmgr)) {
    why = "queue manager name '" + qmgr +
          "' is not valid (1 to 48 characters of A-Z a-z 0-9 . _ % -, not starting with '.')";
    return KXM_RC_NAME_ERROR;
  }
  if (int32_t r = ensureDataPath(why)) return r;
  std::string file = qmgrFile(qmgr);
  struct stat st;
  if (stat(file.c_str(), &st) == 0) {
    why = "queue manager " + qmgr + " already exists";
    return KXM_RC_ALREADY_EXISTS;
  }
  // Build the database under a temporary name and rename it, so that a half-created queue
  // manager is never seen.
  std::string tmp = file + ".new." + std::to_string(getpid());
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((tmp + suffix).c_str());
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(tmp.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db, "PRAGMA journal_mode=DELETE;", nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK) {
    std::string sql = std::string("BEGIN;") + kSchema + "COMMIT;";
    rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  }
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr);
  std::string err = db ? sqlite3_errmsg(db) : "out of memory";
  sqlite3_close_v2(db);
  if (rc != SQLITE_OK) {
    unlink(tmp.c_str());
    why = "cannot create " + file + ": " + err;
    return reasonOf(rc);
  }
  if (link(tmp.c_str(), file.c_str()) != 0) {
    int e = errno;
    unlink(tmp.c_str());
    unlink((tmp + "-wal").c_str());
    unlink((tmp + "-shm").c_str());
    if (e == EEXIST) {
      why = "queue manager " + qmgr + " already exists";
      return KXM_RC_ALREADY_EXISTS;
    }
    why = "cannot create " + file + ": " + strerror(e);
    return KXM_RC_DATA_PATH_ERROR;
  }
  unlink(tmp.c_str());
  unlink((tmp + "-wal").c_str());
  unlink((tmp + "-shm").c_str());
  Store made;
  made.file_ = file;
  made.keepReserve();
  return 0;
}

}  // namespace kxm
