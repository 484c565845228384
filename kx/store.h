// store.h - one queue manager's SQLite database: names, paths, schema and prepared statements.
//
// A queue manager is the file <data path>/<name>.kxdb in WAL mode. Messages of all queues live in
// one table, in sequence order (the sequence is never reused, so it can serve as a browse cursor):
//
//   messages(seq, qid, state, owner, msgid, correlid, md[364], data, backouts)
//     state 0  committed, visible to gets and browses
//     state 1  put under syncpoint, not yet committed (owner = the connection's token)
//     state 2  got under syncpoint, not yet committed (owner = the connection's token)
//
// Units of work of a connection that died are backed out by the next connection to the queue
// manager (owners table: token, pid and the process start time). Every back-out of a get counts
// in the message's `backouts`; at its queue's backout_threshold the message moves to the dead-letter
// queue kDeadLetterQueue when the queue manager has one, else destructive gets pass it over.
//
// Beside the file lies <name>.kxdb-reserve, a few preallocated megabytes that a connection gives
// back to the file system when the disk is full, so that connecting, browsing and draining go on
// (and free space) while puts are refused; puts wait until the reserve could be made again.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kxm {

constexpr int kMdLength = 364;
constexpr int kNameLength = 48;
constexpr int kMsgIdLength = 24;

// The file control that turns the read-ahead of a queue manager file on (1) and off (0).
constexpr int kReadAheadOp = 0x4b584d01;

// Message states.
constexpr int kVisible = 0;
constexpr int kPutPending = 1;
constexpr int kGetPending = 2;

// The dead-letter queue `kxq create-qmgr` makes; messages backed out too often move there.
constexpr const char* kDeadLetterQueue = "KX.DEAD.LETTER";
// Back-outs after which a message leaves its queue (or is passed over), for a new queue.
constexpr int kDefaultBackoutThreshold = 5;
// Size of the reserve kept beside the file for a full disk.
constexpr int64_t kReserveBytes = 2 << 20;

// The data directory: $KX_DATA_PATH, else ~/.kx.
std::string dataPath();
// Creates the data directory (and its parents) when missing; 0 or KXM_RC_DATA_PATH_ERROR.
int32_t ensureDataPath(std::string& why);
// Names: 1 to 48 characters of A-Z a-z 0-9 . _ % / - (queue managers: no "/", not starting ".").
bool validQmgrName(std::string_view name);
bool validQueueName(std::string_view name);
std::string qmgrFile(const std::string& qmgr);
// A blank or NUL padded fixed field as a name: up to `room` bytes, cut at NUL, blanks trimmed.
std::string fieldName(const char* field, size_t room);
// The reason for a failed SQLite call: 2101 for a damaged file, 2102 for a full disk or a lock
// held too long.
int32_t reasonOf(int sqliteRc);
// A disk that is full (or failing to write): relief may help.
bool diskFull(int sqliteRc);
// Start time of a process (clock ticks since boot), -1 when the process does not exist.
int64_t processStart(pid_t pid);

// Statement that resets itself at the end of a scope.
class Use {
 public:
  explicit Use(sqlite3_stmt* s) : s_(s) {}
  ~Use() { sqlite3_reset(s_); }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  sqlite3_stmt* s_;
};

class Store {
 public:
  Store() = default;
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Opens an existing queue manager. Returns 0 or a reason; `why` explains a failure.
  int32_t open(const std::string& qmgr, std::string& why);
  // Creates a new queue manager file with its schema.
  static int32_t create(const std::string& qmgr, std::string& why);

  // Closes the file (also done by the destructor).
  void close();

  int exec(const char* sql);
  int beginRead() { return step0(begin_); }
  int beginWrite() { return step0(beginImmediate_); }
  int commit() { return step0(commit_); }
  void rollback() {
    if (!sqlite3_get_autocommit(db_)) step0(rollback_);
  }
  // Changes committed to the file by other connections since open (PRAGMA data_version).
  int64_t dataVersion();
  std::string lastError() const { return db_ ? sqlite3_errmsg(db_) : "no database"; }
  const std::string& file() const { return file_; }

  // The reserve beside the file: made when missing and there is room (true when it is there),
  // and given back when the disk is full (true when there was one to give).
  bool keepReserve();
  bool releaseReserve();
  // After a write failed on a full disk: moves the log into the file so that its space is used
  // again, and gives back the reserve. True when anything was done, so that a retry may succeed.
  bool relieve();

  sqlite3* db() const { return db_; }
  // While on, the pages of the file are read in runs (see store.cpp): for the read of one long
  // message's data, within one transaction.
  void readAhead(bool on);

  // seq, md, length(data), data when length(data) <= ?3 -- of queue ?1 after seq ?2, visible,
  // matching MsgId ?4 and CorrelId ?5 when these are bound, at most ?6 rows.
  sqlite3_stmt* next = nullptr;
  sqlite3_stmt* dataOf = nullptr;     // length of the data of visible message ?1
  sqlite3_stmt* insert = nullptr;     // ?1 qid ?2 state ?3 owner ?4 msgid ?5 correlid ?6 md ?7 data
  sqlite3_stmt* remove = nullptr;     // delete message ?1
  sqlite3_stmt* mark = nullptr;       // message ?1 got under syncpoint by owner ?2
  sqlite3_stmt* findQueue = nullptr;  // id, max_len, backout_threshold of queue named ?1
  sqlite3_stmt* depth = nullptr;      // committed messages of queue ?1
  sqlite3_stmt* setMaxLen = nullptr;  // queue ?1 max_len ?2
  // The statements on an owner repeat "owner <> 0" so that the partial index on owner serves them.
  sqlite3_stmt* commitPuts = nullptr;  // owner ?1: pending puts become visible
  sqlite3_stmt* commitGets = nullptr;  // owner ?1: pending gets are deleted
  sqlite3_stmt* backPuts = nullptr;    // owner ?1: pending puts are deleted
  sqlite3_stmt* backGets = nullptr;    // owner ?1: pending gets become visible again
  sqlite3_stmt* countBacks = nullptr;  // owner ?1: pending gets count one more back-out
  // owner ?1: seq, queue name, msgid, backouts of pending gets at their queue's threshold
  sqlite3_stmt* overThreshold = nullptr;
  sqlite3_stmt* moveDead = nullptr;     // owner ?1: those gets move to the dead-letter queue
  sqlite3_stmt* setThreshold = nullptr;  // queue ?1 backout_threshold ?2

 private:
  int step0(sqlite3_stmt* s);
  int prepare(sqlite3_stmt** s, const char* sql);
  int32_t openFile(const std::string& file, std::string& why);
  int upgrade();

  sqlite3* db_ = nullptr;
  std::string file_;
  bool openFull_ = false;  // the last open failed on a full disk
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* beginImmediate_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  sqlite3_stmt* rollback_ = nullptr;
  sqlite3_stmt* dataVersion_ = nullptr;
  int64_t busyStartUs_ = 0;
  int64_t busyLimitUs_ = 60'000'000;
  static int onBusy(void* self, int count);
};

}  // namespace kxm
