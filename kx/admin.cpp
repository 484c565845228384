// admin.cpp - creating and deleting queue managers and queues, and listing queues.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "kx/kxm_admin.h"
#include "kx/store.h"

using namespace kxm;

namespace {

int32_t report(int32_t reason, const std::string& why, char* msg, size_t msgLen) {
  if (msg && msgLen) snprintf(msg, msgLen, "%s", reason ? why.c_str() : "");
  return reason;
}

// Running out of memory is reported like any other failure.
template <typename Body>
int32_t guarded(char* msg, size_t msgLen, Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    if (msg && msgLen) snprintf(msg, msgLen, "out of memory");
    return KXRC_STORAGE_NOT_AVAILABLE;
  } catch (...) {
    if (msg && msgLen) snprintf(msg, msgLen, "unexpected error");
    return KXRC_UNEXPECTED_ERROR;
  }
}

}  // namespace

extern "C" {

KXENTRY int32_t kxmDataPath(char* buf, size_t bufLen) {
  return guarded(nullptr, 0, [&]() -> int32_t {
    std::string path = dataPath();
    if (!buf || bufLen <= path.size()) return KXRC_BUFFER_LENGTH_ERROR;
    memcpy(buf, path.c_str(), path.size() + 1);
    return 0;
  });
}

KXENTRY int32_t kxmCreateQmgr(const char* qmgr, char* msg, size_t msgLen) {
  return guarded(msg, msgLen, [&]() -> int32_t {
    std::string why;
    int32_t r = Store::create(qmgr ? qmgr : "", why);
    return report(r, why, msg, msgLen);
  });
}

KXENTRY int32_t kxmDeleteQmgr(const char* qmgr, char* msg, size_t msgLen) {
  return guarded(msg, msgLen, [&]() -> int32_t {
    std::string name = qmgr ? qmgr : "";
    if (!validQmgrName(name))
      return report(KXM_RC_NAME_ERROR, "queue manager name '" + name + "' is not valid", msg,
                    msgLen);
    std::string file = qmgrFile(name);
    struct stat st;
    if (stat(file.c_str(), &st) != 0)
      return report(KXRC_Q_MGR_NAME_ERROR, "queue manager " + name + " does not exist", msg,
                    msgLen);
    if (unlink(file.c_str()) != 0)
      return report(
          errno == EACCES || errno == EPERM ? KXRC_NOT_AUTHORIZED : KXM_RC_DATA_PATH_ERROR,
          "cannot delete " + file + ": " + strerror(errno), msg, msgLen);
    unlink((file + "-wal").c_str());
    unlink((file + "-shm").c_str());
    unlink((file + "-reserve").c_str());
    return report(0, "", msg, msgLen);
  });
}

KXENTRY int32_t kxmCreateQueue(const char* qmgr, const char* queue, int64_t maxMsgLength, char* msg,
                               size_t msgLen) {
  return guarded(msg, msgLen, [&]() -> int32_t {
    std::string name = queue ? queue : "";
    if (!validQueueName(name))
      return report(
          KXM_RC_NAME_ERROR,
          "queue name '" + name + "' is not valid (1 to 48 characters of A-Z a-z 0-9 . _ % / -)",
          msg, msgLen);
    if (maxMsgLength < 0) maxMsgLength = KXM_DEFAULT_MAX_MSG_LENGTH;
    if (maxMsgLength > KXM_LARGEST_MAX_MSG_LENGTH)
      return report(KXM_RC_LENGTH_ERROR,
                    "maximum message length " + std::to_string(maxMsgLength) + " is above " +
                        std::to_string(KXM_LARGEST_MAX_MSG_LENGTH),
                    msg, msgLen);
    Store store;
    std::string why;
    if (int32_t r = store.open(qmgr ? qmgr : "", why)) return report(r, why, msg, msgLen);
    sqlite3_stmt* s = nullptr;
    // The dead-letter queue keeps what it is given: its messages are never passed over.
    int rc = sqlite3_prepare_v2(
        store.db(), "INSERT INTO queues(name, max_len, backout_threshold) VALUES(?1, ?2, ?3)", -1,
        &s, nullptr);
    if (rc == SQLITE_OK) {
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(s, 2, maxMsgLength);
      sqlite3_bind_int(s, 3, name == kDeadLetterQueue ? 0 : kDefaultBackoutThreshold);
      rc = sqlite3_step(s);
      sqlite3_finalize(s);
    }
    if (rc == SQLITE_CONSTRAINT_UNIQUE)
      return report(KXM_RC_ALREADY_EXISTS, "queue " + name + " already exists", msg, msgLen);
    if (rc != SQLITE_DONE && rc != SQLITE_OK)
      return report(reasonOf(rc), "cannot create queue " + name + ": " + store.lastError(), msg,
                    msgLen);
    return report(0, "", msg, msgLen);
  });
}

KXENTRY int32_t kxmDeleteQueue(const char* qmgr, const char* queue, char* msg, size_t msgLen) {
  return guarded(msg, msgLen, [&]() -> int32_t {
    std::string name = queue ? queue : "";
    Store store;
    std::string why;
    if (int32_t r = store.open(qmgr ? qmgr : "", why)) return report(r, why, msg, msgLen);
    int rc = store.beginWrite();
    int64_t id = -1;
    if (rc == SQLITE_OK) {
      Use use(store.findQueue);
      sqlite3_bind_text(store.findQueue, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      int step = sqlite3_step(store.findQueue);
      if (step == SQLITE_ROW)
        id = sqlite3_column_int64(store.findQueue, 0);
      else if (step != SQLITE_DONE)
        rc = step;
    }
    if (rc == SQLITE_OK && id < 0) {
      store.rollback();
      return report(KXRC_UNKNOWN_OBJECT_NAME, "queue " + name + " does not exist", msg, msgLen);
    }
    if (rc == SQLITE_OK) {
      std::string sql = "DELETE FROM messages WHERE qid = " + std::to_string(id) +
                        "; DELETE FROM queues WHERE id = " + std::to_string(id) + ";";
      rc = store.exec(sql.c_str());
    }
    if (rc == SQLITE_OK) rc = store.commit();
    if (rc != SQLITE_OK) {
      std::string err = store.lastError();
      store.rollback();
      return report(reasonOf(rc), "cannot delete queue " + name + ": " + err, msg, msgLen);
    }
    return report(0, "", msg, msgLen);
  });
}

KXENTRY int32_t kxmListQueues(const char* qmgr, KXMQUEUEFN fn, void* ctx, char* msg,
                              size_t msgLen) {
  return guarded(msg, msgLen, [&]() -> int32_t {
    Store store;
    std::string why;
    if (int32_t r = store.open(qmgr ? qmgr : "", why)) return report(r, why, msg, msgLen);
    sqlite3_stmt* s = nullptr;
    int rc = sqlite3_prepare_v2(store.db(),
                                "SELECT q.name, q.max_len, (SELECT count(*) FROM messages m"
                                " WHERE m.qid = q.id AND m.state IN (0, 2)) FROM queues q"
                                " ORDER BY q.name",
                                -1, &s, nullptr);
    int32_t result = 0;
    if (rc == SQLITE_OK) rc = sqlite3_step(s);
    for (; rc == SQLITE_ROW; rc = sqlite3_step(s)) {
      if (!fn) continue;
      result = fn(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)),
                  sqlite3_column_int64(s, 2), sqlite3_column_int64(s, 1), ctx);
      if (result) break;
    }
    sqlite3_finalize(s);
    if (result) return report(result, "listing stopped", msg, msgLen);
    if (rc != SQLITE_DONE)
      return report(reasonOf(rc), "cannot list queues: " + store.lastError(), msg, msgLen);
    return report(0, "", msg, msgLen);
  });
}

}  // extern "C"
