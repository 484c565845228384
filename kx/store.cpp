// store.cpp - the queue manager database: paths, names, schema, statements and locking.
#include "kx/store.h"

#include <errno.h>
#include <pwd.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace kxm {
namespace {

// How long a connection waits for another one's write transaction before giving up.
constexpr int64_t kBusyTimeoutUs = 60'000'000;

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
    " max_len INTEGER NOT NULL);"
    "CREATE TABLE messages(seq INTEGER PRIMARY KEY AUTOINCREMENT, qid INTEGER NOT NULL,"
    " state INTEGER NOT NULL, owner INTEGER NOT NULL, msgid BLOB NOT NULL,"
    " correlid BLOB NOT NULL, md BLOB NOT NULL, data BLOB NOT NULL);"
    "CREATE INDEX messages_queue ON messages(qid, state);"
    "CREATE INDEX messages_owner ON messages(owner) WHERE owner <> 0;"
    "CREATE TABLE owners(token INTEGER PRIMARY KEY, pid INTEGER NOT NULL,"
    " started INTEGER NOT NULL);"
    "INSERT INTO meta VALUES('format', '1'), ('ccsid', '1208');";

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

Store::~Store() {
  for (sqlite3_stmt* s :
       {next, dataOf, insert, remove, mark, findQueue, depth, setMaxLen, commitPuts, commitGets,
        backPuts, backGets, begin_, beginImmediate_, commit_, rollback_, dataVersion_})
    sqlite3_finalize(s);
  if (db_) sqlite3_close_v2(db_);
}

int Store::onBusy(void* self, int count) {
  auto* store = static_cast<Store*>(self);
  int64_t now = nowUs();
  if (count == 0) store->busyStartUs_ = now;
  if (now - store->busyStartUs_ > kBusyTimeoutUs) return 0;
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
  struct stat st;
  if (stat(file.c_str(), &st) != 0) {
    why = "queue manager " + qmgr + " does not exist (no " + file + ")";
    return errno == EACCES ? KXRC_NOT_AUTHORIZED : KXRC_Q_MGR_NAME_ERROR;
  }
  if (access(file.c_str(), R_OK | W_OK) != 0) {
    why = "no access to " + file + ": " + strerror(errno);
    return KXRC_NOT_AUTHORIZED;
  }
  int rc =
      sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    why = "cannot open " + file + ": " + lastError();
    return KXRC_Q_MGR_NOT_AVAILABLE;
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
  if (rc == SQLITE_OK) {
    sqlite3_stmt* s = nullptr;
    rc = prepare(&s, "SELECT value FROM meta WHERE key='format'");
    if (rc == SQLITE_OK) {
      rc = sqlite3_step(s) == SQLITE_ROW ? SQLITE_OK : SQLITE_CORRUPT;
      sqlite3_finalize(s);
    }
  }
  if (rc != SQLITE_OK) {
    why = "cannot use " + file + ": " + lastError();
    return (rc & 0xff) == SQLITE_BUSY ? KXRC_RESOURCE_PROBLEM : KXRC_Q_MGR_NOT_AVAILABLE;
  }
  const char* next_sql =
      "SELECT seq, md, length(data), CASE WHEN length(data) <= ?3 THEN data END"
      " FROM messages WHERE qid = ?1 AND state = 0 AND seq > ?2"
      " AND (?4 IS NULL OR msgid = ?4) AND (?5 IS NULL OR correlid = ?5)"
      " ORDER BY seq LIMIT ?6";
  struct {
    sqlite3_stmt** s;
    const char* sql;
  } stmts[] = {
      {&next, next_sql},
      {&dataOf, "SELECT data FROM messages WHERE seq = ?1 AND state = 0"},
      {&insert,
       "INSERT INTO messages(qid, state, owner, msgid, correlid, md, data)"
       " SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7 WHERE EXISTS(SELECT 1 FROM queues WHERE id = ?1)"},
      {&remove, "DELETE FROM messages WHERE seq = ?1"},
      {&mark, "UPDATE messages SET state = 2, owner = ?2 WHERE seq = ?1"},
      {&findQueue, "SELECT id, max_len FROM queues WHERE name = ?1"},
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
      {&begin_, "BEGIN"},
      {&beginImmediate_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
      {&dataVersion_, "PRAGMA data_version"},
  };
  for (auto& st : stmts) {
    rc = prepare(st.s, st.sql);
    if (rc != SQLITE_OK) {
      why = "cannot prepare a statement on " + file + ": " + lastError();
      return KXRC_Q_MGR_NOT_AVAILABLE;
    }
  }
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
  return 0;
}

}  // namespace kxm
