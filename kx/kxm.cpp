// kxm.cpp - the KX API of the local queue manager: connections, queues, gets, puts, units of work.
//
// One process-wide lock serialises the calls; a connection is one SQLite connection to the queue
// manager's file, so processes share queues through the database and its locks. A destructive get
// is one write transaction (find the first message, then delete it or mark it got-under-syncpoint),
// which makes it atomic between processes. Browsing reads ahead in batches behind the cursor (the
// last sequence number seen) and throws the batch away whenever the file changed since it was read.
#include <errno.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"
#include "kx/rules.h"
#include "kx/store.h"

using namespace kxrules;

namespace kxm {
namespace {

// Syncpoint puts wait in memory until the commit; beyond this much they are written as pending.
constexpr size_t kPendingMemoryLimit = 1u << 20;
// Browse read-ahead: batch sizes grow from the first to the last, data above kBatchDataCap is
// read when the message is returned.
constexpr int kFirstBatch = 32;
constexpr int kLastBatch = 512;
constexpr int64_t kBatchDataCap = 64 * 1024;
// Data longer than this goes between the caller's buffer and the database pages through
// incremental blob reads and writes, so that a big message is never held a second time in memory.
constexpr int64_t kBlobIoFrom = 64 * 1024;


struct Ahead {  // one message read ahead by a browse
  int64_t seq;
  int64_t length;
  int64_t backouts;
  size_t md;    // offset of the descriptor in the arena
  size_t data;  // offset of the data in the arena, or SIZE_MAX when not read ahead
};

struct Object {
  std::string name;
  int64_t qid = 0;
  int64_t maxLength = 0;
  int64_t backoutThreshold = 0;  // destructive gets pass over messages backed out this often
  KXLONG options = 0;
  int64_t cursor = 0;  // sequence of the last message browsed; 0 before the first
  int64_t browsed = 0;  // messages browsed since the first, for reports
  // Read-ahead: messages after `aheadFrom` as of (aheadVersion, aheadWrites).
  std::vector<Ahead> ahead;
  std::vector<uint8_t> arena;
  size_t aheadPos = 0;
  int64_t aheadFrom = -1;
  int64_t aheadVersion = -1;
  uint64_t aheadWrites = 0;
  bool aheadComplete = false;  // the batch reached the end of the queue
  int batchSize = kFirstBatch;
};

struct PendingPut {
  int64_t qid;
  std::array<uint8_t, kMdLength> md;
  std::vector<uint8_t> data;
};

struct Connection {
  pid_t pid = 0;
  std::thread::id thread;
  std::string qmgr;
  int64_t token = 0;
  Store store;
  std::vector<std::unique_ptr<Object>> objects;  // handle = index + 1
  std::vector<PendingPut> pending;
  size_t pendingBytes = 0;
  int64_t dbPuts = 0;   // rows in state 1 of this connection
  int64_t dbGets = 0;   // rows in state 2 of this connection
  uint64_t writes = 0;  // own committed changes (data_version does not count them)
  int64_t lastReapUs = 0;  // when this connection last looked for units of work of dead processes
  bool full = false;         // the last write failed on a full disk
  bool needReserve = false;  // the reserve was given back: puts wait until it is made again
  bool damageReported = false;
};

std::mutex gLock;
std::vector<std::unique_ptr<Connection>> gConnections;  // handle = index + 1
// Why the last call of this thread failed, in words (kxmLastFailure).
thread_local std::string gLastFailure;

// The reason for a failed SQLite call on a connection, with its cause kept in words. A damaged
// file is also reported on standard error, once per connection, because no retry mends it and
// the operator must learn which file it is.
KXLONG sqlFailure(Connection& c, int rc, const std::string& where) {
  KXLONG r = reasonOf(rc);
  std::string err = sqlite3_errstr(rc);
  if (c.store.db() && sqlite3_extended_errcode(c.store.db()) == rc)
    err = sqlite3_errmsg(c.store.db());
  c.full = diskFull(rc);
  if (r == KXRC_OBJECT_DAMAGED) {
    gLastFailure = c.store.file() + " is damaged: " + err + " (" + where + ")";
    if (!c.damageReported) fprintf(stderr, "kxm: %s\n", gLastFailure.c_str());
    c.damageReported = true;
  } else if (c.full) {
    gLastFailure = "cannot write " + c.store.file() + ": " + err + " (" + where + ")";
  } else {
    gLastFailure = c.store.file() + ": " + err + " (" + where + ")";
  }
  return r;
}

// Puts after the reserve was given back wait until it can be made again, so that the space a
// drain frees goes first to the reserve; 0 or 2102.
KXLONG roomForPuts(Connection& c) {
  if (!c.needReserve) return 0;
  if (!c.store.keepReserve()) {
    gLastFailure = "cannot write " + c.store.file() +
                   ": database or disk is full (puts wait until messages are drained)";
    return KXRC_RESOURCE_PROBLEM;
  }
  c.needReserve = false;
  return 0;
}

// After a write failed on a full disk: frees what the queue manager can, so that one more try
// of a draining write may succeed.
bool relieve(Connection& c) {
  if (!c.full) return false;
  c.full = false;
  c.needReserve = true;
  return c.store.relieve();
}

void setResult(KXLONG* cc, KXLONG* rc, KXLONG c, KXLONG r) {
  if (cc) *cc = c;
  if (rc) *rc = r;
}

KXLONG failed(KXLONG* cc, KXLONG* rc, KXLONG reason) {
  setResult(cc, rc, KXCC_FAILED, reason);
  return reason;
}

Connection* findConnection(KXHCONN h) {
  if (h < 1 || size_t(h) > gConnections.size()) return nullptr;
  Connection* c = gConnections[size_t(h) - 1].get();
  // A child process must not use the connections it inherited from its parent.
  if (!c || c->pid != getpid()) return nullptr;
  return c;
}

Object* findObject(Connection& c, KXHOBJ h) {
  if (h < 1 || size_t(h) > c.objects.size()) return nullptr;
  return c.objects[size_t(h) - 1].get();
}

int64_t nowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

// ---- Units of work ----------------------------------------------------------------------------

// Inserts one message. Big data is inserted as zeros of its length and then written into the
// row's pages, all in one transaction (the caller's, or one of its own), so that SQLite builds no
// record holding a copy of it.
int insertRow(Connection& c, int64_t qid, int state, const uint8_t* md, const void* data,
              int64_t length) {
  bool big = length > kBlobIoFrom;
  bool own = big && sqlite3_get_autocommit(c.store.db());
  if (own) {
    if (int rc = c.store.beginWrite()) return rc;
  }
  int rc;
  {
    sqlite3_stmt* s = c.store.insert;
    Use use(s);
    sqlite3_bind_int64(s, 1, qid);
    sqlite3_bind_int(s, 2, state);
    sqlite3_bind_int64(s, 3, state == kVisible ? 0 : c.token);
    sqlite3_bind_blob(s, 4, md + offsetof(KXMD, MsgId), kMsgIdLength, SQLITE_STATIC);
    sqlite3_bind_blob(s, 5, md + offsetof(KXMD, CorrelId), kMsgIdLength, SQLITE_STATIC);
    sqlite3_bind_blob(s, 6, md, kMdLength, SQLITE_STATIC);
    if (big)
      sqlite3_bind_zeroblob64(s, 7, sqlite3_uint64(length));
    else
      sqlite3_bind_blob64(s, 7, length ? data : "", sqlite3_uint64(length), SQLITE_STATIC);
    rc = sqlite3_step(s);
  }
  // No row when the queue was deleted: the message goes with it.
  bool inserted = rc == SQLITE_DONE && sqlite3_changes(c.store.db()) == 1;
  rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
  if (rc == SQLITE_OK && big && inserted) {
    sqlite3_blob* b = nullptr;
    rc = sqlite3_blob_open(c.store.db(), "main", "messages", "data",
                           sqlite3_last_insert_rowid(c.store.db()), 1, &b);
    if (rc == SQLITE_OK) rc = sqlite3_blob_write(b, data, int(length), 0);
    int closed = sqlite3_blob_close(b);
    if (rc == SQLITE_OK) rc = closed;
  }
  if (own) {
    if (rc == SQLITE_OK) rc = c.store.commit();
    if (rc != SQLITE_OK) c.store.rollback();
  }
  return rc;
}

int runFor(sqlite3_stmt* s, int64_t token) {
  Use use(s);
  sqlite3_bind_int64(s, 1, token);
  int rc = sqlite3_step(s);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int runOwner(Connection& c, sqlite3_stmt* s) { return runFor(s, c.token); }

std::string hex(const void* p, int n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  const uint8_t* b = static_cast<const uint8_t*>(p);
  for (int i = 0; i < n; ++i) {
    out += digits[b[i] >> 4];
    out += digits[b[i] & 15];
  }
  return out;
}

// Backs out the pending gets of one owner inside the caller's write transaction: each counts one
// more back-out; those at their queue's threshold move to the dead-letter queue when there is
// one, or stay where they are and are passed over by destructive gets. Either is reported.
int backOutGets(Connection& c, int64_t token) {
  Store& st = c.store;
  int rc = runFor(st.countBacks, token);
  if (rc != SQLITE_OK) return rc;
  std::vector<std::string> reports;
  {
    sqlite3_stmt* s = st.overThreshold;
    Use use(s);
    sqlite3_bind_int64(s, 1, token);
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
      const char* q = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
      reports.push_back("message " + hex(sqlite3_column_blob(s, 2), sqlite3_column_bytes(s, 2)) +
                        " on queue " + (q ? q : "?") + " of " + c.qmgr + " was backed out " +
                        std::to_string(sqlite3_column_int64(s, 3)) + " times");
    }
    if (rc != SQLITE_DONE) return rc;
  }
  rc = SQLITE_OK;
  if (!reports.empty()) {
    rc = runFor(st.moveDead, token);
    if (rc != SQLITE_OK) return rc;
    bool moved = sqlite3_changes(st.db()) > 0;
    for (const std::string& r : reports)
      fprintf(stderr, "kxm: %s: %s\n", r.c_str(),
              moved ? (std::string("moved to the dead-letter queue ") + kDeadLetterQueue).c_str()
                    : (std::string("left on its queue, where gets now pass it over (no queue ") +
                       kDeadLetterQueue + ")")
                          .c_str());
  }
  return runFor(st.backGets, token);
}

// Writes the syncpoint puts held in memory as rows of the given state.
int writePending(Connection& c, int state) {
  for (const PendingPut& p : c.pending) {
    int rc = insertRow(c, p.qid, state, p.md.data(), p.data.data(), int64_t(p.data.size()));
    if (rc != SQLITE_OK) return rc;
  }
  return SQLITE_OK;
}

KXLONG flushPending(Connection& c) {
  int rc = c.store.beginWrite();
  if (rc == SQLITE_OK) rc = writePending(c, kPutPending);
  if (rc == SQLITE_OK) rc = c.store.commit();
  if (rc != SQLITE_OK) {
    c.store.rollback();
    return sqlFailure(c, rc, "putting under syncpoint");
  }
  c.dbPuts += int64_t(c.pending.size());
  c.pending.clear();
  c.pendingBytes = 0;
  ++c.writes;
  return 0;
}

// A big syncpoint put is not copied into memory: it is written as pending at once, after the
// puts of the unit of work that wait in memory, so that their order is kept.
KXLONG putPendingNow(Connection& c, int64_t qid, const uint8_t* md, const void* data,
                     int64_t length) {
  int rc = c.store.beginWrite();
  if (rc == SQLITE_OK) rc = writePending(c, kPutPending);
  if (rc == SQLITE_OK) rc = insertRow(c, qid, kPutPending, md, data, length);
  bool inserted = rc == SQLITE_OK && sqlite3_changes(c.store.db()) == 1;
  if (rc == SQLITE_OK) rc = c.store.commit();
  if (rc != SQLITE_OK) {
    c.store.rollback();
    return reasonOf(rc);
  }
  c.dbPuts += int64_t(c.pending.size()) + (inserted ? 1 : 0);
  c.pending.clear();
  c.pendingBytes = 0;
  ++c.writes;
  return inserted ? 0 : KXRC_Q_DELETED;
}

KXLONG backOut(Connection& c) {
  c.pending.clear();
  c.pendingBytes = 0;
  if (c.dbPuts == 0 && c.dbGets == 0) return 0;
  int rc = SQLITE_OK;
  for (int attempt = 0; attempt < 3; ++attempt) {
    rc = c.store.beginWrite();
    if (rc == SQLITE_OK && c.dbPuts) rc = runOwner(c, c.store.backPuts);
    if (rc == SQLITE_OK && c.dbGets) rc = backOutGets(c, c.token);
    if (rc == SQLITE_OK) rc = c.store.commit();
    if (rc == SQLITE_OK) break;
    c.store.rollback();
    KXLONG r = sqlFailure(c, rc, "backing out a unit of work");
    if (!relieve(c)) return r;
  }
  if (rc != SQLITE_OK) return sqlFailure(c, rc, "backing out a unit of work");
  c.dbPuts = c.dbGets = 0;
  ++c.writes;
  return 0;
}

// Commits the unit of work. A commit that cannot be written for a full disk or a lock held too
// long leaves the unit of work as it was and returns 2102 (commit again, or back out); a
// damaged file returns 2101 after backing out what it can; any other failure backs out and
// returns 2003.
KXLONG commitWork(Connection& c) {
  if (c.pending.empty() && c.dbPuts == 0 && c.dbGets == 0) return 0;
  // A unit of work that only takes messages away may use the reserve; one that adds may not.
  if (!c.pending.empty() || c.dbPuts)
    if (KXLONG r = roomForPuts(c)) return r;
  int rc = SQLITE_OK;
  for (int attempt = 0; attempt < 3; ++attempt) {
    rc = c.store.beginWrite();
    if (rc == SQLITE_OK) rc = writePending(c, kVisible);
    if (rc == SQLITE_OK && c.dbPuts) rc = runOwner(c, c.store.commitPuts);
    if (rc == SQLITE_OK && c.dbGets) rc = runOwner(c, c.store.commitGets);
    if (rc == SQLITE_OK) rc = c.store.commit();
    if (rc == SQLITE_OK) break;
    c.store.rollback();
    KXLONG r = sqlFailure(c, rc, "committing a unit of work");
    if (r != KXRC_RESOURCE_PROBLEM) break;
    if (!c.pending.empty() || c.dbPuts || !relieve(c)) return r;
  }
  if (rc != SQLITE_OK && reasonOf(rc) == KXRC_RESOURCE_PROBLEM) return KXRC_RESOURCE_PROBLEM;
  if (rc != SQLITE_OK) {
    KXLONG r = reasonOf(rc);
    std::string cause = gLastFailure;
    backOut(c);
    gLastFailure = cause;
    return r == KXRC_OBJECT_DAMAGED ? r : KXRC_BACKED_OUT;
  }
  c.pending.clear();
  c.pendingBytes = 0;
  c.dbPuts = c.dbGets = 0;
  ++c.writes;
  return 0;
}

// Backs out the units of work of connections whose process has gone (messages they got come
// back in place, messages they put go). Runs inside the caller's write transaction.
int backOutDeadOwners(Connection& c) {
  int rc = SQLITE_OK;
  std::vector<int64_t> dead;
  {
    sqlite3_stmt* s = nullptr;
    rc =
        sqlite3_prepare_v2(c.store.db(), "SELECT token, pid, started FROM owners", -1, &s, nullptr);
    while (rc == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW) {
      pid_t pid = pid_t(sqlite3_column_int64(s, 1));
      int64_t started = sqlite3_column_int64(s, 2);
      // Gone, or the process id now belongs to a process started later.
      int64_t now = processStart(pid);
      bool gone = (kill(pid, 0) != 0 && errno == ESRCH) || (now >= 0 && now != started);
      if (gone) dead.push_back(sqlite3_column_int64(s, 0));
    }
    sqlite3_finalize(s);
  }
  for (int64_t token : dead) {
    // A get of a process that died counts as backed out: a message that kills its getters
    // reaches the threshold like one whose commit fails.
    if (rc == SQLITE_OK) rc = runFor(c.store.backPuts, token);
    if (rc == SQLITE_OK) rc = backOutGets(c, token);
    std::string sql = "DELETE FROM owners WHERE token = " + std::to_string(token);
    if (rc == SQLITE_OK) rc = c.store.exec(sql.c_str());
  }
  return rc;
}

// Backs out what dead processes left, then registers this connection as an owner.
int registerOwner(Connection& c) {
  int rc = c.store.beginWrite();
  if (rc != SQLITE_OK) return rc;
  rc = backOutDeadOwners(c);
  if (rc == SQLITE_OK) {
    std::string sql = "INSERT INTO owners VALUES(" + std::to_string(c.token) + ", " +
                      std::to_string(c.pid) + ", " + std::to_string(processStart(c.pid)) + ")";
    rc = c.store.exec(sql.c_str());
  }
  if (rc == SQLITE_OK) rc = c.store.commit();
  if (rc != SQLITE_OK) c.store.rollback();
  return rc;
}

// A getter that finds the queue empty looks again for units of work of processes that died
// since it connected (at most four times a second), so that their messages come back without
// waiting for a new connection.
bool reapDue(Connection& c) {
  int64_t now = nowUs();
  if (now - c.lastReapUs < 250000) return false;
  c.lastReapUs = now;
  return true;
}

int reapDeadOwners(Connection& c) {
  int rc = c.store.beginWrite();
  if (rc != SQLITE_OK) return rc;
  rc = backOutDeadOwners(c);
  if (rc == SQLITE_OK) rc = c.store.commit();
  if (rc != SQLITE_OK) c.store.rollback();
  else ++c.writes;  // what this connection read ahead may have changed
  return rc;
}

// ---- Getting ------------------------------------------------------------------------------------

struct GetArgs {
  KXMD* md;
  KXGMO* gmo;
  KXLONG bufferLength;
  void* buffer;
  KXLONG* dataLength;
};

// The most data a get reads along with the descriptor: the caller's buffer, at most kBlobIoFrom.
int64_t inlineLimit(const GetArgs& a) {
  bool accept = a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG;
  return std::min<int64_t>(accept ? INT64_MAX : a.bufferLength, kBlobIoFrom);
}

// Hands one message to the caller. The data is `data`, or when that is null the data of
// message `seq`, read from its pages straight into the caller's buffer (only as much as the
// buffer takes, and nothing when the message does not fit). Returns the reason: 0, 2079, 2080,
// or the reason of a failed read.
KXLONG deliver(Store& st, const GetArgs& a, const void* md, int64_t length, const void* data,
               int64_t seq) {
  memcpy(a.md, md, kMdLength);
  *a.dataLength = KXLONG(std::min<int64_t>(length, INT32_MAX));
  if (length > a.bufferLength && !(a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG)) {
    a.gmo->ReturnedLength = 0;
    return KXRC_TRUNCATED_MSG_FAILED;
  }
  int64_t n = std::min<int64_t>(length, a.bufferLength);
  if (n > 0 && data) {
    memcpy(a.buffer, data, size_t(n));
  } else if (n > 0) {
    sqlite3_blob* b = nullptr;
    int rc = sqlite3_blob_open(st.db(), "main", "messages", "data", seq, 0, &b);
    if (rc == SQLITE_OK && sqlite3_blob_bytes(b) != length) rc = SQLITE_ABORT;
    if (rc == SQLITE_OK) {
      st.readAhead(true);
      rc = sqlite3_blob_read(b, a.buffer, int(n), 0);
      st.readAhead(false);
    }
    sqlite3_blob_close(b);
    if (rc != SQLITE_OK) {
      a.gmo->ReturnedLength = 0;
      return rc == SQLITE_ABORT ? KXRC_UNEXPECTED_ERROR : reasonOf(rc);
    }
  }
  a.gmo->ReturnedLength = KXLONG(n);
  return n < length ? KXRC_TRUNCATED_MSG_ACCEPTED : 0;
}

// Binds the match options of a get to the `next` statement.
void bindMatch(sqlite3_stmt* s, const GetArgs& a) {
  if (a.gmo->MatchOptions & KXMO_MATCH_MSG_ID)
    sqlite3_bind_blob(s, 4, a.md->MsgId, kMsgIdLength, SQLITE_TRANSIENT);
  else
    sqlite3_bind_null(s, 4);
  if (a.gmo->MatchOptions & KXMO_MATCH_CORREL_ID)
    sqlite3_bind_blob(s, 5, a.md->CorrelId, kMsgIdLength, SQLITE_TRANSIENT);
  else
    sqlite3_bind_null(s, 5);
}

// Destructive get, one write transaction. Returns a reason; 2033 when nothing is there.
KXLONG getDestructive(Connection& c, Object& o, const GetArgs& a, bool syncpoint) {
  Store& st = c.store;
  int rc = st.beginWrite();
  if (rc != SQLITE_OK) return sqlFailure(c, rc, "getting from queue " + o.name);
  sqlite3_stmt* s = st.next;
  KXLONG reason;
  int64_t seq = 0;
  {
    Use use(s);
    sqlite3_bind_int64(s, 1, o.qid);
    sqlite3_bind_int64(s, 2, 0);
    sqlite3_bind_int64(s, 3, inlineLimit(a));
    bindMatch(s, a);
    sqlite3_bind_int(s, 6, 1);
    if (o.backoutThreshold > 0)
      sqlite3_bind_int64(s, 7, o.backoutThreshold);
    else
      sqlite3_bind_null(s, 7);
    rc = sqlite3_step(s);
    if (rc == SQLITE_DONE) {
      st.rollback();
      return KXRC_NO_MSG_AVAILABLE;
    }
    if (rc != SQLITE_ROW || sqlite3_column_bytes(s, 1) != kMdLength) {
      st.rollback();
      return rc == SQLITE_ROW ? KXRC_UNEXPECTED_ERROR : sqlFailure(c, rc, "getting from queue " + o.name);
    }
    seq = sqlite3_column_int64(s, 0);
    reason = deliver(st, a, sqlite3_column_blob(s, 1), sqlite3_column_int64(s, 2),
                     sqlite3_column_type(s, 3) == SQLITE_NULL ? nullptr : sqlite3_column_blob(s, 3),
                     seq);
    a.md->BackoutCount = KXLONG(sqlite3_column_int64(s, 4));
  }
  if (reason != 0 && reason != KXRC_TRUNCATED_MSG_ACCEPTED) {
    st.rollback();
    return reason;
  }
  sqlite3_stmt* w = syncpoint ? st.mark : st.remove;
  {
    Use use(w);
    sqlite3_bind_int64(w, 1, seq);
    if (syncpoint) sqlite3_bind_int64(w, 2, c.token);
    rc = sqlite3_step(w);
  }
  if (rc == SQLITE_DONE) rc = st.commit();
  if (rc != SQLITE_OK && rc != SQLITE_DONE) {
    st.rollback();
    return sqlFailure(c, rc, "getting from queue " + o.name);
  }
  if (syncpoint) ++c.dbGets;
  ++c.writes;
  return reason;
}

// Reads the next batch of messages after `after` into the object's read-ahead.
int readAhead(Connection& c, Object& o, int64_t after) {
  Store& st = c.store;
  o.ahead.clear();
  o.arena.clear();
  o.aheadPos = 0;
  o.aheadFrom = -1;
  int rc = st.beginRead();
  if (rc != SQLITE_OK) return rc;
  int64_t version = st.dataVersion();
  sqlite3_stmt* s = st.next;
  {
    Use use(s);
    sqlite3_bind_int64(s, 1, o.qid);
    sqlite3_bind_int64(s, 2, after);
    sqlite3_bind_int64(s, 3, kBatchDataCap);
    sqlite3_bind_null(s, 4);
    sqlite3_bind_null(s, 5);
    sqlite3_bind_int(s, 6, o.batchSize);
    sqlite3_bind_null(s, 7);
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
      if (sqlite3_column_bytes(s, 1) != kMdLength) {
        rc = SQLITE_CORRUPT;
        break;
      }
      Ahead e;
      e.seq = sqlite3_column_int64(s, 0);
      e.length = sqlite3_column_int64(s, 2);
      e.backouts = sqlite3_column_int64(s, 4);
      e.md = o.arena.size();
      const uint8_t* md = static_cast<const uint8_t*>(sqlite3_column_blob(s, 1));
      o.arena.insert(o.arena.end(), md, md + kMdLength);
      e.data = SIZE_MAX;
      if (sqlite3_column_type(s, 3) != SQLITE_NULL) {
        e.data = o.arena.size();
        const uint8_t* d = static_cast<const uint8_t*>(sqlite3_column_blob(s, 3));
        if (e.length) o.arena.insert(o.arena.end(), d, d + e.length);
      }
      o.ahead.push_back(e);
    }
  }
  int end = st.commit();
  if (rc != SQLITE_DONE) {
    o.ahead.clear();
    return rc;
  }
  if (end != SQLITE_OK) return end;
  o.aheadComplete = int(o.ahead.size()) < o.batchSize;
  o.aheadFrom = after;
  o.aheadVersion = version;
  o.aheadWrites = c.writes;
  return SQLITE_OK;
}

// A browse that cannot read on says where it stopped.
KXLONG browseFailure(Connection& c, const Object& o, int rc) {
  return sqlFailure(c, rc,
                    "browsing queue " + o.name + ", stopped after message " +
                        std::to_string(o.browsed));
}

// Browse without match options: from the read-ahead while the file is unchanged.
KXLONG browseAhead(Connection& c, Object& o, const GetArgs& a, int64_t after) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    int64_t version = c.store.dataVersion();
    bool unchanged = version == o.aheadVersion && c.writes == o.aheadWrites;
    bool fresh = o.aheadFrom >= 0 && o.aheadFrom <= after && unchanged;
    if (fresh) {
      while (o.aheadPos < o.ahead.size() && o.ahead[o.aheadPos].seq <= after) ++o.aheadPos;
      if (o.aheadPos == o.ahead.size()) {
        if (o.aheadComplete) return KXRC_NO_MSG_AVAILABLE;
        fresh = false;
      }
    }
    if (!fresh) {
      // Batches grow while they are used up, and shrink while others keep changing the file
      // (a busy putter would otherwise make every browse read a whole batch).
      if (o.aheadFrom >= 0 && !unchanged && o.aheadPos < o.ahead.size())
        o.batchSize = std::max(1, o.batchSize / 4);
      else if (o.aheadFrom >= 0)
        o.batchSize = std::min(o.batchSize * 2, kLastBatch);
      int rc = readAhead(c, o, after);
      if (rc != SQLITE_OK) return browseFailure(c, o, rc);
      if (o.ahead.empty()) return KXRC_NO_MSG_AVAILABLE;
    }
    const Ahead& e = o.ahead[o.aheadPos];
    const uint8_t* md = o.arena.data() + e.md;
    KXLONG reason;
    bool accept = a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG;
    if (e.data != SIZE_MAX || (e.length > a.bufferLength && !accept)) {
      reason = deliver(c.store, a, md, e.length,
                       e.data != SIZE_MAX ? o.arena.data() + e.data : nullptr, e.seq);
      if (reason == KXRC_TRUNCATED_MSG_FAILED) return reason;
    } else {
      // A long message: read its data now, in one read transaction that first makes sure it is
      // still there and visible; gone means the read-ahead is stale.
      int rc = c.store.beginRead();
      if (rc != SQLITE_OK) return reasonOf(rc);
      {
        sqlite3_stmt* s = c.store.dataOf;
        Use use(s);
        sqlite3_bind_int64(s, 1, e.seq);
        rc = sqlite3_step(s);
      }
      if (rc == SQLITE_DONE) {
        c.store.rollback();
        o.aheadFrom = -1;
        continue;
      }
      if (rc != SQLITE_ROW) {
        KXLONG failure = browseFailure(c, o, rc);  // before the rollback clears SQLite's text
        c.store.rollback();
        return failure;
      }
      reason = deliver(c.store, a, md, e.length, nullptr, e.seq);
      c.store.rollback();
      if (reason != 0 && reason != KXRC_TRUNCATED_MSG_ACCEPTED) return reason;
    }
    a.md->BackoutCount = KXLONG(e.backouts);
    o.cursor = e.seq;
    ++o.browsed;
    ++o.aheadPos;
    return reason;
  }
  return KXRC_UNEXPECTED_ERROR;
}

// Browse with match options: one query per get.
KXLONG browseMatching(Connection& c, Object& o, const GetArgs& a, int64_t after) {
  sqlite3_stmt* s = c.store.next;
  Use use(s);
  sqlite3_bind_int64(s, 1, o.qid);
  sqlite3_bind_int64(s, 2, after);
  sqlite3_bind_int64(s, 3, inlineLimit(a));
  bindMatch(s, a);
  sqlite3_bind_int(s, 6, 1);
  sqlite3_bind_null(s, 7);
  int rc = sqlite3_step(s);
  if (rc == SQLITE_DONE) return KXRC_NO_MSG_AVAILABLE;
  if (rc != SQLITE_ROW) return browseFailure(c, o, rc);
  if (sqlite3_column_bytes(s, 1) != kMdLength) return KXRC_UNEXPECTED_ERROR;
  // The statement keeps its read transaction open, so a big message is read from the same view.
  int64_t seq = sqlite3_column_int64(s, 0);
  KXLONG reason = deliver(
      c.store, a, sqlite3_column_blob(s, 1), sqlite3_column_int64(s, 2),
      sqlite3_column_type(s, 3) == SQLITE_NULL ? nullptr : sqlite3_column_blob(s, 3), seq);
  a.md->BackoutCount = KXLONG(sqlite3_column_int64(s, 4));
  if (reason == 0 || reason == KXRC_TRUNCATED_MSG_ACCEPTED) {
    o.cursor = seq;
    ++o.browsed;
  }
  return reason;
}

KXLONG tryGet(Connection& c, Object& o, const GetArgs& a) {
  KXLONG opts = a.gmo->Options;
  if (opts & (KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT)) {
    if (opts & KXGMO_BROWSE_FIRST) o.cursor = o.browsed = 0;
    if (a.gmo->MatchOptions == KXMO_NONE) return browseAhead(c, o, a, o.cursor);
    return browseMatching(c, o, a, o.cursor);
  }
  return getDestructive(c, o, a, opts & KXGMO_SYNCPOINT);
}

// ---- Putting ------------------------------------------------------------------------------------

KXLONG putMessage(Connection& c, Object& o, KXMD* md, KXPMO* pmo, KXLONG length, void* buffer) {
  if (KXLONG r = checkPut(o.options, o.maxLength, md, pmo, length, buffer)) return r;
  KXLONG opts = pmo->Options;
  if (!(opts & KXPMO_SET_ALL_CONTEXT)) {
    if ((opts & KXPMO_NEW_MSG_ID) || allZero(md->MsgId, kMsgIdLength)) newMsgId(md->MsgId, "KXM ");
    stampPutTime(*md);
  }
  // The back-out count belongs to the queue manager: a message starts with none.
  md->BackoutCount = 0;
  const uint8_t* mdBytes = reinterpret_cast<const uint8_t*>(md);
  if ((opts & KXPMO_SYNCPOINT) && length > kBlobIoFrom)
    return putPendingNow(c, o.qid, mdBytes, buffer, length);
  if (opts & KXPMO_SYNCPOINT) {
    PendingPut p;
    p.qid = o.qid;
    memcpy(p.md.data(), mdBytes, kMdLength);
    const uint8_t* d = static_cast<const uint8_t*>(buffer);
    p.data.assign(d, d + length);
    c.pending.push_back(std::move(p));
    c.pendingBytes += size_t(length) + kMdLength;
    if (c.pendingBytes <= kPendingMemoryLimit) return 0;
    KXLONG r = roomForPuts(c);
    if (!r) r = flushPending(c);
    if (r) {
      // This put failed; the earlier ones of the unit of work stay pending.
      c.pendingBytes -= size_t(length) + kMdLength;
      c.pending.pop_back();
    }
    return r;
  }
  if (KXLONG r = roomForPuts(c)) return r;
  int rc = insertRow(c, o.qid, kVisible, mdBytes, buffer, length);
  if (rc != SQLITE_OK) return sqlFailure(c, rc, "putting on queue " + o.name);
  if (sqlite3_changes(c.store.db()) != 1) return KXRC_Q_DELETED;
  ++c.writes;
  return 0;
}

// ---- Opening ------------------------------------------------------------------------------------

KXLONG openQueue(Connection& c, KXOD* od, KXLONG options, KXHOBJ* hobj) {
  if (!od || !strucIdIs(od->StrucId, "OD  ") || od->Version < 1) return KXRC_OD_ERROR;
  if (od->ObjectType != KXOT_Q) return KXRC_OBJECT_TYPE_ERROR;
  if (options & ~kOpenKnownOptions) return KXRC_OPTIONS_ERROR;
  KXLONG input = options & kOpenInputOptions;
  if (input & (input - 1)) return KXRC_OPTIONS_ERROR;  // more than one input option
  if (!(options & ~KXOO_FAIL_IF_QUIESCING)) return KXRC_OPTIONS_ERROR;
  std::string target = fieldName(od->ObjectQMgrName, kNameLength);
  if (!target.empty() && target != c.qmgr) return KXRC_UNKNOWN_OBJECT_NAME;
  std::string name = fieldName(od->ObjectName, kNameLength);
  auto o = std::make_unique<Object>();
  {
    sqlite3_stmt* s = c.store.findQueue;
    Use use(s);
    sqlite3_bind_text(s, 1, name.data(), int(name.size()), SQLITE_STATIC);
    int rc = sqlite3_step(s);
    if (rc == SQLITE_DONE) return KXRC_UNKNOWN_OBJECT_NAME;
    if (rc != SQLITE_ROW) return sqlFailure(c, rc, "opening queue " + name);
    o->qid = sqlite3_column_int64(s, 0);
    o->maxLength = sqlite3_column_int64(s, 1);
    o->backoutThreshold = sqlite3_column_int64(s, 2);
  }
  o->name = name;
  o->options = options;
  size_t slot = 0;
  while (slot < c.objects.size() && c.objects[slot]) ++slot;
  if (slot == c.objects.size()) c.objects.emplace_back();
  c.objects[slot] = std::move(o);
  *hobj = KXHOBJ(slot + 1);
  return 0;
}

KXLONG closeConnection(Connection& c) {
  KXLONG reason = commitWork(c);
  // A unit of work that could not be committed nor backed out keeps its owner row: it is backed
  // out once this process has gone.
  if (reason && (c.dbPuts || c.dbGets) && backOut(c) != 0) return reason;
  std::string sql = "DELETE FROM owners WHERE token = " + std::to_string(c.token);
  c.store.exec(sql.c_str());
  return reason;
}

KXLONG connect(KXCHAR* name, KXHCONN* hconn) {
  if (!hconn) return KXRC_HCONN_ERROR;
  std::string qmgr = fieldName(name, kNameLength);
  for (size_t i = 0; i < gConnections.size(); ++i) {
    Connection* c = gConnections[i].get();
    if (c && c->pid == getpid() && c->thread == std::this_thread::get_id() && c->qmgr == qmgr) {
      *hconn = KXHCONN(i + 1);
      return KXRC_CONN_ALREADY_EXISTS;
    }
  }
  auto c = std::make_unique<Connection>();
  std::string why;
  if (qmgr.empty()) return KXRC_Q_MGR_NAME_ERROR;
  if (KXLONG r = c->store.open(qmgr, why)) {
    gLastFailure = why;
    if (r == KXRC_OBJECT_DAMAGED) fprintf(stderr, "kxm: %s\n", why.c_str());
    return r;
  }
  c->pid = getpid();
  c->thread = std::this_thread::get_id();
  c->qmgr = qmgr;
  while (c->token <= 0) {
    if (getrandom(&c->token, sizeof c->token, 0) != sizeof c->token) c->token = nowUs();
    c->token &= INT64_MAX;
  }
  int rc = registerOwner(*c);
  // On a full disk the owner row may need the space the queue manager keeps in reserve.
  if (rc != SQLITE_OK && diskFull(rc)) {
    sqlFailure(*c, rc, "connecting");
    if (relieve(*c)) rc = registerOwner(*c);
  }
  if (rc != SQLITE_OK) return sqlFailure(*c, rc, "connecting");
  size_t slot = 0;
  while (slot < gConnections.size() && gConnections[slot]) ++slot;
  if (slot == gConnections.size()) gConnections.emplace_back();
  gConnections[slot] = std::move(c);
  *hconn = KXHCONN(slot + 1);
  return 0;
}

// A call that runs out of memory ends with a reason like any other failure.
// The connection of a handle, or null with completion code 2 and reason 2018.
Connection* connectionOf(KXHCONN h, KXLONG* cc, KXLONG* rc) {
  Connection* c = findConnection(h);
  if (!c) failed(cc, rc, KXRC_HCONN_ERROR);
  return c;
}

// The open object of a handle on a connection, or null with completion code 2 and reason 2018
// or 2019.
Object* objectOf(KXHCONN hc, KXHOBJ ho, Connection*& c, KXLONG* cc, KXLONG* rc) {
  c = connectionOf(hc, cc, rc);
  if (!c) return nullptr;
  Object* o = findObject(*c, ho);
  if (!o) failed(cc, rc, KXRC_HOBJ_ERROR);
  return o;
}

template <typename Body>
void guarded(KXLONG* cc, KXLONG* rc, Body&& body) {
  gLastFailure.clear();
  try {
    body();
  } catch (const std::bad_alloc&) {
    failed(cc, rc, KXRC_STORAGE_NOT_AVAILABLE);
  } catch (...) {
    failed(cc, rc, KXRC_UNEXPECTED_ERROR);
  }
}

}  // namespace
}  // namespace kxm

using namespace kxm;

// ---- The entry points ---------------------------------------------------------------------------

extern "C" {

KXENTRY void KXCONN(KXCHAR* QMgrName, KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    KXLONG r = connect(QMgrName, Hconn);
    if (r == KXRC_CONN_ALREADY_EXISTS) return setResult(CompCode, Reason, KXCC_WARNING, r);
    if (r) {
      if (Hconn) *Hconn = -1;
      return setResult(CompCode, Reason, KXCC_FAILED, r);
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXCONNX(KXCHAR* QMgrName, KXCNO* ConnectOpts, KXHCONN* Hconn, KXLONG* CompCode,
                     KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    if (!ConnectOpts || !strucIdIs(ConnectOpts->StrucId, "CNO ")) {
      failed(CompCode, Reason, KXRC_CNO_ERROR);
      return;
    }
    if (ConnectOpts->Options != KXCNO_NONE) {
      failed(CompCode, Reason, KXRC_OPTIONS_ERROR);
      return;
    }
    KXCONN(QMgrName, Hconn, CompCode, Reason);
  });
}

KXENTRY void KXDISC(KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = Hconn ? findConnection(*Hconn) : nullptr;
    if (!c) {
      failed(CompCode, Reason, KXRC_HCONN_ERROR);
      return;
    }
    KXLONG r = closeConnection(*c);
    gConnections[size_t(*Hconn) - 1].reset();
    *Hconn = -1;
    if (r) return setResult(CompCode, Reason, KXCC_WARNING, r);
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXOPEN(KXHCONN Hconn, KXOD* ObjDesc, KXLONG Options, KXHOBJ* Hobj, KXLONG* CompCode,
                    KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = connectionOf(Hconn, CompCode, Reason);
    if (!c) return;
    if (!Hobj) {
      failed(CompCode, Reason, KXRC_HOBJ_ERROR);
      return;
    }
    if (KXLONG r = openQueue(*c, ObjDesc, Options, Hobj)) {
      *Hobj = -1;
      failed(CompCode, Reason, r);
      return;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXCLOSE(KXHCONN Hconn, KXHOBJ* Hobj, KXLONG Options, KXLONG* CompCode,
                     KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = connectionOf(Hconn, CompCode, Reason);
    if (!c) return;
    if (!Hobj || !findObject(*c, *Hobj)) {
      failed(CompCode, Reason, KXRC_HOBJ_ERROR);
      return;
    }
    if (Options != KXCO_NONE) {
      failed(CompCode, Reason, KXRC_OPTIONS_ERROR);
      return;
    }
    c->objects[size_t(*Hobj) - 1].reset();
    *Hobj = -1;
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXGET(KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXGMO* GetMsgOpts,
                   KXLONG BufferLength, void* Buffer, KXLONG* DataLength, KXLONG* CompCode,
                   KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    GetArgs a{MsgDesc, GetMsgOpts, BufferLength, Buffer, DataLength};
    std::unique_lock<std::mutex> lock(gLock);
    int64_t deadline = -1;
    int sleepMs = 1;
    for (;;) {
      Connection* c = nullptr;
      Object* o = objectOf(Hconn, Hobj, c, CompCode, Reason);
      if (!o) return;
      if (KXLONG r = checkGet(o->options, a.md, a.gmo, a.bufferLength, a.buffer, a.dataLength)) {
        failed(CompCode, Reason, r);
        return;
      }
      KXLONG r = tryGet(*c, *o, a);
      // A destructive get on a full disk may use the space the queue manager holds back: taking
      // messages away is how the disk gets room again.
      bool browse = a.gmo->Options & (KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT);
      if (r == KXRC_RESOURCE_PROBLEM && !browse && relieve(*c)) r = tryGet(*c, *o, a);
      if (r == KXRC_NO_MSG_AVAILABLE && reapDue(*c) && reapDeadOwners(*c) == SQLITE_OK)
        r = tryGet(*c, *o, a);
      if (r == 0) return setResult(CompCode, Reason, KXCC_OK, 0);
      if (r == KXRC_TRUNCATED_MSG_ACCEPTED) return setResult(CompCode, Reason, KXCC_WARNING, r);
      if (r == KXRC_TRUNCATED_MSG_FAILED) {
        failed(CompCode, Reason, r);
        return;
      }
      if (r != KXRC_NO_MSG_AVAILABLE || !(a.gmo->Options & KXGMO_WAIT)) {
        failed(CompCode, Reason, r);
        return;
      }
      // Wait: poll with short sleeps, without the lock, until a message comes or time is up.
      int64_t now = nowUs();
      if (deadline < 0)
        deadline = a.gmo->WaitInterval == KXWI_UNLIMITED
                       ? INT64_MAX
                       : now + int64_t(a.gmo->WaitInterval) * 1000;
      if (now >= deadline) {
        failed(CompCode, Reason, r);
        return;
      }
      lock.unlock();
      int64_t nap = std::min<int64_t>(int64_t(sleepMs) * 1000, deadline - now);
      usleep(useconds_t(nap));
      sleepMs = std::min(sleepMs * 2, 20);
      lock.lock();
    }
  });
}

KXENTRY void KXPUT(KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXPMO* PutMsgOpts,
                   KXLONG BufferLength, void* Buffer, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = nullptr;
    Object* o = objectOf(Hconn, Hobj, c, CompCode, Reason);
    if (!o) return;
    if (KXLONG r = putMessage(*c, *o, MsgDesc, PutMsgOpts, BufferLength, Buffer)) {
      failed(CompCode, Reason, r);
      return;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXPUT1(KXHCONN Hconn, KXOD* ObjDesc, KXMD* MsgDesc, KXPMO* PutMsgOpts,
                    KXLONG BufferLength, void* Buffer, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = connectionOf(Hconn, CompCode, Reason);
    if (!c) return;
    KXHOBJ h = -1;
    KXLONG r = openQueue(*c, ObjDesc, KXOO_OUTPUT, &h);
    if (r == 0) {
      r = putMessage(*c, *findObject(*c, h), MsgDesc, PutMsgOpts, BufferLength, Buffer);
      c->objects[size_t(h) - 1].reset();
    }
    if (r) {
      failed(CompCode, Reason, r);
      return;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXINQ(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors,
                   KXLONG IntAttrCount, KXLONG* IntAttrs, KXLONG CharAttrLength, KXCHAR* CharAttrs,
                   KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = nullptr;
    Object* o = objectOf(Hconn, Hobj, c, CompCode, Reason);
    if (!o) return;
    if (KXLONG r = checkInquire(o->options, SelectorCount, Selectors, IntAttrCount, IntAttrs,
                                CharAttrLength, CharAttrs)) {
      failed(CompCode, Reason, r);
      return;
    }
    KXLONG ints = 0, chars = 0;
    for (KXLONG i = 0; i < SelectorCount; ++i) {
      KXLONG sel = Selectors[i];
      if (sel == KXCA_Q_NAME) {
        if (chars + kNameLength > CharAttrLength) {
          failed(CompCode, Reason, KXRC_CHAR_ATTR_LENGTH_ERROR);
          return;
        }
        memset(CharAttrs + chars, ' ', kNameLength);
        memcpy(CharAttrs + chars, o->name.data(), o->name.size());
        chars += kNameLength;
        continue;
      }
      if (sel != KXIA_CURRENT_Q_DEPTH && sel != KXIA_MAX_MSG_LENGTH &&
          sel != KXIA_BACKOUT_THRESHOLD) {
        failed(CompCode, Reason, KXRC_SELECTOR_ERROR);
        return;
      }
      if (ints >= IntAttrCount) {
        failed(CompCode, Reason, KXRC_INT_ATTR_COUNT_ERROR);
        return;
      }
      if (sel == KXIA_MAX_MSG_LENGTH) {
        IntAttrs[ints++] = KXLONG(o->maxLength);
        continue;
      }
      if (sel == KXIA_BACKOUT_THRESHOLD) {
        IntAttrs[ints++] = KXLONG(o->backoutThreshold);
        continue;
      }
      sqlite3_stmt* s = c->store.depth;
      Use use(s);
      sqlite3_bind_int64(s, 1, o->qid);
      int rc = sqlite3_step(s);
      if (rc != SQLITE_ROW) {
        failed(CompCode, Reason, reasonOf(rc));
        return;
      }
      IntAttrs[ints++] = KXLONG(std::min<int64_t>(sqlite3_column_int64(s, 0), INT32_MAX));
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXSET(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors,
                   KXLONG IntAttrCount, KXLONG* IntAttrs, KXLONG CharAttrLength, KXCHAR* CharAttrs,
                   KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = nullptr;
    Object* o = objectOf(Hconn, Hobj, c, CompCode, Reason);
    if (!o) return;
    if (KXLONG r = checkSet(o->options, SelectorCount, Selectors, IntAttrCount, IntAttrs)) {
      failed(CompCode, Reason, r);
      return;
    }
    for (KXLONG i = 0; i < SelectorCount; ++i) {
      bool threshold = Selectors[i] == KXIA_BACKOUT_THRESHOLD;
      sqlite3_stmt* s = threshold ? c->store.setThreshold : c->store.setMaxLen;
      Use use(s);
      sqlite3_bind_int64(s, 1, o->qid);
      sqlite3_bind_int64(s, 2, IntAttrs[i]);
      int rc = sqlite3_step(s);
      if (rc != SQLITE_DONE) {
        failed(CompCode, Reason, sqlFailure(*c, rc, "setting an attribute of queue " + o->name));
        return;
      }
      (threshold ? o->backoutThreshold : o->maxLength) = IntAttrs[i];
      ++c->writes;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXBEGIN(KXHCONN Hconn, KXBO* BeginOpts, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    if (!findConnection(Hconn)) {
      failed(CompCode, Reason, KXRC_HCONN_ERROR);
      return;
    }
    if (BeginOpts && !strucIdIs(BeginOpts->StrucId, "BO  ")) {
      failed(CompCode, Reason, KXRC_BO_ERROR);
      return;
    }
    if (BeginOpts && BeginOpts->Options != KXBO_NONE) {
      failed(CompCode, Reason, KXRC_OPTIONS_ERROR);
      return;
    }
    // A unit of work begins with the first get or put under syncpoint; nothing to do here.
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXCMIT(KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = connectionOf(Hconn, CompCode, Reason);
    if (!c) return;
    if (KXLONG r = commitWork(*c)) {
      failed(CompCode, Reason, r);
      return;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY void KXBACK(KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason) {
  guarded(CompCode, Reason, [&] {
    std::lock_guard<std::mutex> lock(gLock);
    Connection* c = connectionOf(Hconn, CompCode, Reason);
    if (!c) return;
    if (KXLONG r = backOut(*c)) {
      failed(CompCode, Reason, r);
      return;
    }
    setResult(CompCode, Reason, KXCC_OK, 0);
  });
}

KXENTRY int32_t kxmLastFailure(char* msg, size_t msgLen) {
  if (msg && msgLen) snprintf(msg, msgLen, "%s", gLastFailure.c_str());
  return gLastFailure.empty() ? -1 : 0;
}

}  // extern "C"
