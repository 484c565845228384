// kxic.cpp - the KX API of the client library: a queue manager held by a Redis server.
//
// One KX connection is one hiredis connection. Every get, put and end of a unit of work is one
// Lua script on the server (scripts.h), so two clients never take the same message. Browsing
// reads visible messages in batches behind the cursor (the id of the last message returned) and
// hands them out one per get. A second connection per KX connection listens on the change
// channels of the queues being browsed; a change published by any client (a message taken,
// hidden or given back) drops the batches of that queue, and the next browse reads again from
// the cursor. Without that listener every browse reads from the server.
#include <pthread.h>
#include <sys/random.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kx/client/keys.h"
#include "kx/client/link.h"
#include "kx/client/scripts.h"
#include "kx/kxc.h"
#include "kx/rules.h"

using namespace kxrules;

namespace kxic {
namespace {

// A unit of work not renewed for this long counts as abandoned by a dead process
// (KXIC_UNIT_TIMEOUT, in ms, changes it for the connections made afterwards). A live process
// renews its open units of work five times per period from a thread of its own, so only the
// units of a process that died (or lost its server) expire.
constexpr int kOwnerTtlMs = 15000;
constexpr int kRenewalsPerTtl = 5;
// Browse batches grow from the first to the last size, and stop at about this many data bytes.
constexpr int kFirstBatch = 32;
constexpr int kLastBatch = 512;
constexpr int kBatchByteCap = 4 << 20;
// Browse batches carry the data of messages up to this long; a longer message comes as its
// length, and its data is fetched when it is handed out, only when the caller's buffer takes it.
constexpr int kBatchDataLimit = 64 * 1024;
// A wait blocks on the server in slices of at most this long, then looks again.
constexpr int kWaitSliceMs = 1000;
// A browse that could not listen for changes reads without read-ahead; it tries to listen
// again after this long.
constexpr int64_t kWatchRetryMs = 5000;


struct Object {
  std::string name;
  QueueKeys keys;
  int64_t maxLength = 0;
  KXLONG options = 0;
  std::string cursor;   // id of the last message browsed; empty before the first
  Reply batch;          // {last scanned, id, md, data, ...} of the current browse batch
  size_t pos = 1;       // next message in the batch
  std::string scanEnd;  // the batch scanned the stream up to this id
  int batchSize = kFirstBatch;
};

struct Work {  // what a unit of work did on one queue
  std::vector<std::string> gets, puts;
};

struct Connection {
  std::mutex mutex;
  pid_t pid = 0;
  std::thread::id thread;
  std::string qmgr;
  std::string prefix;
  std::string token;  // names this connection's units of work on the server
  std::string ttl;    // expiry of a unit of work, ms
  Link link;
  Link watch;  // subscribed to the change channels of browsed queues
  std::vector<std::string> watched;
  int64_t watchRetryAt = 0;  // after a failed attempt to listen, the next try (monotonic ms)
  bool closed = false;
  Script get{kGetScript, {}}, browse{kBrowseScript, {}}, put{kPutScript, {}}, end{kEndScript, {}},
      setMax{kSetMaxScript, {}}, depth{kDepthScript, {}}, renew{kRenewScript, {}},
      setThreshold{kSetThresholdScript, {}};
  std::vector<std::unique_ptr<Object>> objects;  // handle = index + 1
  std::map<std::string, Work> work;              // by queue name
};

std::mutex gTable;
std::vector<std::shared_ptr<Connection>> gConnections;  // handle = index + 1

void setResult(KXLONG* cc, KXLONG* rc, KXLONG c, KXLONG r) {
  if (cc) *cc = c;
  if (rc) *rc = r;
}

void failed(KXLONG* cc, KXLONG* rc, KXLONG reason) { setResult(cc, rc, KXCC_FAILED, reason); }

std::string_view bytes(const void* p, size_t n) {
  return std::string_view(static_cast<const char*>(p), n);
}

std::string_view text(const redisReply* r) {
  return r && r->str ? std::string_view(r->str, r->len) : std::string_view();
}

int64_t nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
}

// The reason for a failed command: a lost connection or an error reply.
KXLONG failureOf(const Reply& r) {
  if (!r) return KXRC_Q_MGR_NOT_AVAILABLE;
  if (r->type == REDIS_REPLY_ERROR) return errorReason(r.get());
  return KXRC_UNEXPECTED_ERROR;
}

std::shared_ptr<Connection> findConnection(KXHCONN h) {
  std::lock_guard<std::mutex> lock(gTable);
  if (h < 1 || size_t(h) > gConnections.size()) return nullptr;
  std::shared_ptr<Connection> c = gConnections[size_t(h) - 1];
  // A child process must not use the connections it inherited from its parent.
  if (!c || c->pid != getpid()) return nullptr;
  return c;
}

Object* findObject(Connection& c, KXHOBJ h) {
  if (h < 1 || size_t(h) > c.objects.size()) return nullptr;
  return c.objects[size_t(h) - 1].get();
}

// Drops the read-ahead of every handle of this connection on the queue with change channel `ch`.
void dropBatches(Connection& c, const std::string& ch) {
  for (auto& o : c.objects)
    if (o && o->keys.c == ch) o->batch.reset();
}

// Takes in the changes heard so far. A listener that lost its connection may have missed
// some: every batch is dropped and the listener is opened again by the next browse.
void takeChanges(Connection& c) {
  if (!c.watch.usable()) return;
  std::vector<std::string> channels;
  bool ok = c.watch.pollMessages(channels);
  for (const std::string& ch : channels) dropBatches(c, ch);
  if (!ok) {
    c.watched.clear();
    for (auto& o : c.objects)
      if (o) o->batch.reset();
  }
}

// Makes sure the queue's changes are heard before its batch is trusted. False when there is
// no listener: the caller must not read ahead.
bool watchChanges(Connection& c, Object& o) {
  takeChanges(c);
  if (!c.watch.usable()) {
    if (nowMs() < c.watchRetryAt) return false;
    std::string why;
    c.watched.clear();
    if (c.watch.open(c.link.address(), why) != 0) {
      c.watchRetryAt = nowMs() + kWatchRetryMs;
      return false;
    }
  }
  if (std::find(c.watched.begin(), c.watched.end(), o.keys.c) == c.watched.end()) {
    Reply r = c.watch.command({"SUBSCRIBE", o.keys.c});
    if (!r || r->type != REDIS_REPLY_ARRAY) {
      c.watch.close();
      c.watchRetryAt = nowMs() + kWatchRetryMs;
      return false;
    }
    c.watched.push_back(o.keys.c);
    dropBatches(c, o.keys.c);  // read before anyone listened
  }
  return true;
}

// ---- Getting ------------------------------------------------------------------------------------

struct GetArgs {
  KXMD* md;
  KXGMO* gmo;
  KXLONG bufferLength;
  void* buffer;
  KXLONG* dataLength;
};

// Hands one message to the caller. Returns the reason: 0, 2079 or 2080.
KXLONG deliver(const GetArgs& a, std::string_view md, int64_t length, const char* data) {
  memcpy(a.md, md.data(), kMdLength);
  *a.dataLength = KXLONG(std::min<int64_t>(length, INT32_MAX));
  if (length > a.bufferLength && !(a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG)) {
    a.gmo->ReturnedLength = 0;
    return KXRC_TRUNCATED_MSG_FAILED;
  }
  int64_t n = std::min<int64_t>(length, a.bufferLength);
  if (n > 0 && data) memcpy(a.buffer, data, size_t(n));
  a.gmo->ReturnedLength = KXLONG(n);
  return n < length ? KXRC_TRUNCATED_MSG_ACCEPTED : 0;
}

// The caller's buffer as the place where a long message's data is read to from the socket.
BulkSink sinkFor(const GetArgs& a) {
  BulkSink s;
  s.buffer = static_cast<char*>(a.buffer);
  s.capacity = a.buffer && a.bufferLength > 0 ? size_t(a.bufferLength) : 0;
  return s;
}

bool matches(const GetArgs& a, std::string_view md) {
  if ((a.gmo->MatchOptions & KXMO_MATCH_MSG_ID) &&
      md.substr(offsetof(KXMD, MsgId), kMsgIdLength) != bytes(a.md->MsgId, kMsgIdLength))
    return false;
  if ((a.gmo->MatchOptions & KXMO_MATCH_CORREL_ID) &&
      md.substr(offsetof(KXMD, CorrelId), kMsgIdLength) != bytes(a.md->CorrelId, kMsgIdLength))
    return false;
  return true;
}

// Where a waiting get blocks: the top ids of the queue's stream and of its wake-up stream.
struct WaitPoint {
  std::string q = "0-0", w = "0-0";
};

KXLONG getDestructive(Connection& c, Object& o, const GetArgs& a, bool syncpoint, WaitPoint& wp) {
  bool accept = a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG;
  std::string limit = accept ? "-1" : std::to_string(a.bufferLength);
  const std::string& ttl = c.ttl;
  std::string_view mid, cid;
  if (a.gmo->MatchOptions & KXMO_MATCH_MSG_ID) mid = bytes(a.md->MsgId, kMsgIdLength);
  if (a.gmo->MatchOptions & KXMO_MATCH_CORREL_ID) cid = bytes(a.md->CorrelId, kMsgIdLength);
  std::string owners = c.prefix + "owners";
  BulkSink sink = sinkFor(a);
  Reply r = evalScript(c.link, c.get,
                       {o.keys.q, o.keys.gl, o.keys.pl, owners, o.keys.w, o.keys.h, o.keys.z,
                        o.keys.b},
                       {limit, syncpoint ? std::string_view(c.token) : "", ttl, mid, cid}, &sink);
  if (!r || r->type != REDIS_REPLY_ARRAY || r->elements < 3 ||
      r->element[0]->type != REDIS_REPLY_INTEGER)
    return failureOf(r);
  redisReply** e = r->element;
  switch (e[0]->integer) {
    case 0:
      wp.q = text(e[1]);
      wp.w = text(e[2]);
      return KXRC_NO_MSG_AVAILABLE;
    case 1:
    case 2:
      if (r->elements != 4 || text(e[2]).size() != size_t(kMdLength)) return KXRC_UNEXPECTED_ERROR;
      break;
    default:
      return KXRC_UNEXPECTED_ERROR;
  }
  if (e[0]->integer == 2) {
    memcpy(a.md, e[2]->str, kMdLength);
    *a.dataLength = KXLONG(std::min<long long>(e[3]->integer, INT32_MAX));
    a.gmo->ReturnedLength = 0;
    return KXRC_TRUNCATED_MSG_FAILED;
  }
  if (e[3]->type != REDIS_REPLY_STRING) return KXRC_UNEXPECTED_ERROR;
  // A long message's data is in the caller's buffer already.
  KXLONG reason = sink.taken ? deliver(a, text(e[2]), int64_t(sink.length), nullptr)
                             : deliver(a, text(e[2]), int64_t(e[3]->len), e[3]->str);
  if (syncpoint) c.work[o.name].gets.emplace_back(text(e[1]));
  dropBatches(c, o.keys.c);
  return reason;
}

// Reads the next browse batch after `from` (an id, or empty for the start of the queue); a
// browse whose queue is not watched reads one message at a time.
KXLONG fetchBatch(Connection& c, Object& o, const std::string& from, bool ahead = true) {
  std::string start = from.empty() ? "-" : "(" + from;
  std::string count = std::to_string(ahead ? o.batchSize : 1);
  std::string cap = std::to_string(kBatchByteCap);
  std::string limit = std::to_string(kBatchDataLimit);
  std::string owners = c.prefix + "owners";
  o.batch.reset();
  Reply r = evalScript(c.link, c.browse,
                       {o.keys.q, o.keys.gl, o.keys.pl, owners, o.keys.z, o.keys.b},
                       {start, count, cap, limit});
  if (!r || r->type != REDIS_REPLY_ARRAY || r->elements < 1 || (r->elements - 1) % 3 != 0)
    return failureOf(r);
  for (size_t i = 1; i < r->elements; i += 3) {
    if (text(r->element[i + 1]).size() != size_t(kMdLength)) return KXRC_UNEXPECTED_ERROR;
    redisReply* d = r->element[i + 2];
    if (d->type != REDIS_REPLY_STRING && (d->type != REDIS_REPLY_INTEGER || d->integer < 0))
      return KXRC_UNEXPECTED_ERROR;
  }
  std::string_view last = text(r->element[0]);
  if (!last.empty()) o.scanEnd = last;
  o.batch = std::move(r);
  o.pos = 1;
  o.batchSize = std::min(o.batchSize * 2, kLastBatch);
  return 0;
}

// The reason a browse gets when a message of its batch has gone before its data was fetched.
constexpr KXLONG kGone = -1;

// Hands out the browse batch entry {id, md, data or length}. A long message's data is fetched
// now, once, and only when the caller's buffer takes some of it. Returns deliver's reason, a
// failure, or kGone.
KXLONG deliverEntry(Connection& c, Object& o, const GetArgs& a, redisReply** e) {
  if (e[2]->type == REDIS_REPLY_STRING)
    return deliver(a, text(e[1]), int64_t(e[2]->len), e[2]->str);
  int64_t length = e[2]->integer;
  if ((length > a.bufferLength && !(a.gmo->Options & KXGMO_ACCEPT_TRUNCATED_MSG)) ||
      a.bufferLength == 0)
    return deliver(a, text(e[1]), length, nullptr);
  BulkSink sink = sinkFor(a);
  Reply r = c.link.command({"XRANGE", o.keys.q, text(e[0]), text(e[0])}, nullptr, &sink);
  if (!r || r->type != REDIS_REPLY_ARRAY) return failureOf(r);
  if (r->elements == 0) return kGone;
  redisReply* entry = r->element[0];
  if (entry->type != REDIS_REPLY_ARRAY || entry->elements != 2 ||
      entry->element[1]->type != REDIS_REPLY_ARRAY)
    return KXRC_UNEXPECTED_ERROR;
  redisReply* f = entry->element[1];
  for (size_t i = 0; i + 1 < f->elements; i += 2) {
    if (text(f->element[i]) != "data") continue;
    // The sink takes the first long string: the data, the descriptor before it being short.
    if (sink.taken) {
      if (int64_t(sink.length) != length) return kGone;
      return deliver(a, text(e[1]), length, nullptr);
    }
    if (int64_t(f->element[i + 1]->len) != length) return kGone;
    return deliver(a, text(e[1]), length, f->element[i + 1]->str);
  }
  return KXRC_UNEXPECTED_ERROR;
}

// Browse without match options: the next message of the batch, reading batches as needed.
KXLONG browseNext(Connection& c, Object& o, const GetArgs& a) {
  bool ahead = watchChanges(c, o);
  if (!ahead) o.batch.reset();
  bool fetched = false;
  if (!o.batch) {
    o.scanEnd = o.cursor;
    if (KXLONG r = fetchBatch(c, o, o.cursor, ahead)) return r;
    fetched = true;
  }
  for (;;) {
    if (o.pos + 2 < o.batch->elements) {
      redisReply** e = o.batch->element + o.pos;
      KXLONG reason = deliverEntry(c, o, a, e);
      if (reason == kGone) {
        // The batch is stale: read again from the cursor.
        o.scanEnd = o.cursor;
        if (KXLONG r = fetchBatch(c, o, o.cursor, ahead)) return r;
        fetched = true;
        continue;
      }
      if (reason != 0 && reason != KXRC_TRUNCATED_MSG_ACCEPTED) return reason;
      o.cursor = text(e[0]);
      o.pos += 3;
      return reason;
    }
    // The batch is used up: a fresh batch that scanned nothing means the end of the queue.
    if (fetched && text(o.batch->element[0]).empty()) return KXRC_NO_MSG_AVAILABLE;
    if (KXLONG r = fetchBatch(c, o, o.scanEnd, ahead)) return r;
    fetched = true;
  }
}

// Browse with match options: scans from the cursor for the next matching message.
KXLONG browseMatching(Connection& c, Object& o, const GetArgs& a) {
  o.batch.reset();
  std::string from = o.cursor;
  o.batchSize = kLastBatch;
  for (;;) {
    if (KXLONG r = fetchBatch(c, o, from)) return r;
    redisReply* b = o.batch.get();
    for (size_t i = 1; i + 2 < b->elements; i += 3) {
      if (!matches(a, text(b->element[i + 1]))) continue;
      KXLONG reason = deliverEntry(c, o, a, b->element + i);
      if (reason == kGone) continue;  // taken meanwhile: look further
      if (reason == 0 || reason == KXRC_TRUNCATED_MSG_ACCEPTED) o.cursor = text(b->element[i]);
      o.batch.reset();  // the next plain browse reads again from the cursor
      return reason;
    }
    if (text(b->element[0]).empty()) {
      o.batch.reset();
      return KXRC_NO_MSG_AVAILABLE;
    }
    from = o.scanEnd;
  }
}

// `first`: a browse-first that has not yet started over (a waiting browse-first starts over
// once, then goes on like a browse-next).
KXLONG tryGet(Connection& c, Object& o, const GetArgs& a, bool first, WaitPoint& wp) {
  KXLONG opts = a.gmo->Options;
  if (opts & (KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT)) {
    if (first) {
      o.cursor.clear();
      o.batch.reset();
      o.batchSize = kFirstBatch;
    }
    KXLONG r = a.gmo->MatchOptions == KXMO_NONE ? browseNext(c, o, a) : browseMatching(c, o, a);
    if (r == KXRC_NO_MSG_AVAILABLE && (opts & KXGMO_WAIT)) {
      std::vector<Reply> tops = c.link.pipeline({{"XREVRANGE", o.keys.q, "+", "-", "COUNT", "1"},
                                                 {"XREVRANGE", o.keys.w, "+", "-", "COUNT", "1"}});
      if (tops.size() != 2) return KXRC_Q_MGR_NOT_AVAILABLE;
      for (int i = 0; i < 2; ++i) {
        redisReply* t = tops[size_t(i)].get();
        std::string& id = i == 0 ? wp.q : wp.w;
        if (t->type == REDIS_REPLY_ARRAY && t->elements == 1 &&
            t->element[0]->type == REDIS_REPLY_ARRAY && t->element[0]->elements == 2)
          id = text(t->element[0]->element[0]);
      }
    }
    return r;
  }
  return getDestructive(c, o, a, opts & KXGMO_SYNCPOINT, wp);
}

// Blocks on the server until the queue or its wake-up stream moves past `wp`, or `ms` pass.
KXLONG waitForChange(Connection& c, Object& o, const WaitPoint& wp, int64_t ms) {
  std::string block = std::to_string(std::max<int64_t>(ms, 1));
  Reply r = c.link.commandWithin(
      {"XREAD", "BLOCK", block, "STREAMS", o.keys.q, o.keys.w, wp.q, wp.w}, int(ms));
  if (!r || r->type == REDIS_REPLY_ERROR) return failureOf(r);
  return 0;
}

// ---- Putting ------------------------------------------------------------------------------------

KXLONG putMessage(Connection& c, Object& o, KXMD* md, KXPMO* pmo, KXLONG length, void* buffer) {
  if (KXLONG r = checkPut(o.options, o.maxLength, md, pmo, length, buffer)) return r;
  KXLONG opts = pmo->Options;
  if (!(opts & KXPMO_SET_ALL_CONTEXT)) {
    if ((opts & KXPMO_NEW_MSG_ID) || allZero(md->MsgId, kMsgIdLength)) newMsgId(md->MsgId, "KXC ");
    stampPutTime(*md);
  }
  // The back-out count belongs to the queue manager: a message starts with none.
  md->BackoutCount = 0;
  bool syncpoint = opts & KXPMO_SYNCPOINT;
  const std::string& ttl = c.ttl;
  std::string queues = c.prefix + "queues", owners = c.prefix + "owners";
  Reply r = evalScript(c.link, c.put, {queues, o.keys.q, o.keys.pl, owners, o.keys.z},
                       {o.name, bytes(md, kMdLength), length ? bytes(buffer, size_t(length)) : "",
                        syncpoint ? std::string_view(c.token) : "", ttl});
  if (r && r->type == REDIS_REPLY_NIL) return KXRC_Q_DELETED;
  if (!r || r->type != REDIS_REPLY_STRING) return failureOf(r);
  if (syncpoint) c.work[o.name].puts.emplace_back(text(r.get()));
  return 0;
}

// ---- Units of work ------------------------------------------------------------------------------

// Commits (or backs out) the unit of work in one script. Returns 0, KXRC_BACKED_OUT when a
// commit found its unit taken over, or the failure.
KXLONG endWork(Connection& c, bool commit) {
  if (c.work.empty()) return 0;
  std::vector<std::string> keyStore{c.prefix + "owners"};
  for (const auto& entry : c.work) dropBatches(c, queueKeys(c.qmgr, entry.first).c);
  std::vector<std::string> argStore{c.token, commit ? "c" : "b"};
  for (const auto& [name, w] : c.work) {
    QueueKeys k = queueKeys(c.qmgr, name);
    keyStore.insert(keyStore.end(), {k.q, k.gl, k.pl, k.w, k.h});
    argStore.push_back(std::to_string(w.gets.size()));
    argStore.insert(argStore.end(), w.gets.begin(), w.gets.end());
    argStore.push_back(std::to_string(w.puts.size()));
    argStore.insert(argStore.end(), w.puts.begin(), w.puts.end());
  }
  c.work.clear();
  std::vector<std::string_view> keys(keyStore.begin(), keyStore.end());
  std::vector<std::string_view> args(argStore.begin(), argStore.end());
  Reply r = evalScript(c.link, c.end, keys, args);
  if (!r || r->type != REDIS_REPLY_INTEGER) return failureOf(r);
  return commit && r->integer != 1 ? KXRC_BACKED_OUT : 0;
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
  if (!validQueueName(name)) return KXRC_UNKNOWN_OBJECT_NAME;
  Reply r = c.link.command({"HGET", c.prefix + "queues", name});
  if (r && r->type == REDIS_REPLY_NIL) return KXRC_UNKNOWN_OBJECT_NAME;
  if (!r || r->type != REDIS_REPLY_STRING) return failureOf(r);
  auto o = std::make_unique<Object>();
  o->maxLength = strtoll(r->str, nullptr, 10);
  o->name = name;
  o->keys = queueKeys(c.qmgr, name);
  o->options = options;
  size_t slot = 0;
  while (slot < c.objects.size() && c.objects[slot]) ++slot;
  if (slot == c.objects.size()) c.objects.emplace_back();
  c.objects[slot] = std::move(o);
  *hobj = KXHOBJ(slot + 1);
  return 0;
}

// ---- Renewing units of work ---------------------------------------------------------------------

// One thread per process renews the open units of work of every connection. A connection busy
// in a call is skipped for that round (its calls renew what they touch); the thread ends when
// the process exits.
struct Renewals {
  std::mutex mutex;
  std::condition_variable wake;
  std::thread* thread = nullptr;  // a child's copy names its parent's thread: left alone
  pid_t pid = 0;
  int periodMs = kOwnerTtlMs / kRenewalsPerTtl;
  bool stop = false;
};

Renewals& renewals() {
  static Renewals* r = new Renewals;  // never destroyed: the thread may outlive static objects
  return *r;
}

void renewAll() {
  std::vector<std::shared_ptr<Connection>> all;
  {
    std::lock_guard<std::mutex> lock(gTable);
    for (const auto& c : gConnections)
      if (c && c->pid == getpid()) all.push_back(c);
  }
  for (const auto& c : all) {
    std::unique_lock<std::mutex> lock(c->mutex, std::try_to_lock);
    if (!lock.owns_lock() || c->closed || c->work.empty() || !c->link.usable()) continue;
    evalScript(c->link, c->renew, {c->prefix + "owners"}, {c->token, c->ttl});
  }
}

void stopRenewals() {
  Renewals& r = renewals();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.pid != getpid()) return;
    r.stop = true;
  }
  r.wake.notify_all();
  if (r.thread && r.thread->joinable()) r.thread->join();
}

void startRenewals(int ttlMs) {
  Renewals& r = renewals();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.periodMs = std::max(1, std::min(r.periodMs, ttlMs / kRenewalsPerTtl));
  if (r.pid == getpid()) return;
  // A child process inherits no thread from its parent: it starts its own.
  r.pid = getpid();
  r.stop = false;
  r.thread = new std::thread([&r] {
    std::unique_lock<std::mutex> lock(r.mutex);
    while (!r.stop) {
      r.wake.wait_for(lock, std::chrono::milliseconds(r.periodMs));
      if (r.stop) break;
      lock.unlock();
      renewAll();
      lock.lock();
    }
  });
  static std::atomic<bool> registered{false};
  if (!registered.exchange(true)) {
    atexit(stopRenewals);
    // The renewal thread takes the connection table briefly; a fork in that moment must not
    // leave the child's copy locked.
    pthread_atfork([] { gTable.lock(); }, [] { gTable.unlock(); }, [] { gTable.unlock(); });
  }
}

// ---- Connecting ---------------------------------------------------------------------------------

// Says on standard error why a connect failed; a caller retrying gets the same words once.
void sayWhy(const std::string& qmgr, const std::string& why) {
  static std::mutex m;
  static std::string last;
  std::string line = "kxic: queue manager " + qmgr + ": " + why + "\n";
  std::lock_guard<std::mutex> lock(m);
  if (line == last) return;
  last = line;
  fputs(line.c_str(), stderr);
}

KXLONG connect(KXCHAR* name, KXHCONN* hconn) {
  if (!hconn) return KXRC_HCONN_ERROR;
  std::string qmgr = fieldName(name, kNameLength);
  {
    std::lock_guard<std::mutex> lock(gTable);
    for (size_t i = 0; i < gConnections.size(); ++i) {
      Connection* c = gConnections[i].get();
      // A connection whose server went away is not handed out again: the next connect
      // makes a new one.
      if (c && c->pid == getpid() && c->thread == std::this_thread::get_id() && c->qmgr == qmgr) {
        std::lock_guard<std::mutex> cl(c->mutex);
        if (c->link.usable()) {
          *hconn = KXHCONN(i + 1);
          return KXRC_CONN_ALREADY_EXISTS;
        }
      }
    }
  }
  if (!validQmgrName(qmgr)) return KXRC_Q_MGR_NAME_ERROR;
  auto c = std::make_shared<Connection>();
  ServerAddress addr;
  std::string why;
  if (KXLONG r = resolveServer(qmgr, addr, why)) return sayWhy(qmgr, why), r;
  if (KXLONG r = c->link.open(addr, why)) return sayWhy(qmgr, why), r;
  c->pid = getpid();
  c->thread = std::this_thread::get_id();
  c->qmgr = qmgr;
  c->prefix = qmgrPrefix(qmgr);
  Reply r = c->link.command({"EXISTS", c->prefix + "qmgr"});
  if (!r || r->type != REDIS_REPLY_INTEGER) return failureOf(r);
  if (r->integer != 1) return KXRC_Q_MGR_NAME_ERROR;
  uint64_t t[2] = {0, 0};
  if (getrandom(t, sizeof t, 0) != sizeof t) {
    t[0] = uint64_t(nowMs());
    t[1] = uint64_t(getpid());
  }
  char token[40];
  snprintf(token, sizeof token, "%016llx%016llx", (unsigned long long)t[0],
           (unsigned long long)t[1]);
  c->token = token;
  long ttl = kOwnerTtlMs;
  if (const char* env = getenv("KXIC_UNIT_TIMEOUT")) {
    long v = strtol(env, nullptr, 10);
    if (v > 0) ttl = v;
  }
  c->ttl = std::to_string(ttl);
  startRenewals(int(std::min<long>(ttl, INT32_MAX)));
  std::lock_guard<std::mutex> lock(gTable);
  size_t slot = 0;
  while (slot < gConnections.size() && gConnections[slot]) ++slot;
  if (slot == gConnections.size()) gConnections.emplace_back();
  gConnections[slot] = std::move(c);
  *hconn = KXHCONN(slot + 1);
  return 0;
}

// Runs `fn` on the connection under its lock; a lost server gives 2059 at once.
template <typename Fn>
void withConnection(KXHCONN h, KXLONG* cc, KXLONG* rc, Fn fn) {
  std::shared_ptr<Connection> c = findConnection(h);
  if (!c) return failed(cc, rc, KXRC_HCONN_ERROR);
  std::lock_guard<std::mutex> lock(c->mutex);
  if (c->closed) return failed(cc, rc, KXRC_HCONN_ERROR);
  if (!c->link.usable()) return failed(cc, rc, KXRC_Q_MGR_NOT_AVAILABLE);
  takeChanges(*c);  // keeps the listener's socket from filling up
  KXLONG r = fn(*c);
  if (r == 0) return setResult(cc, rc, KXCC_OK, 0);
  if (r == KXRC_TRUNCATED_MSG_ACCEPTED) return setResult(cc, rc, KXCC_WARNING, r);
  failed(cc, rc, r);
}

}  // namespace
}  // namespace kxic

using namespace kxic;

// ---- The entry points ---------------------------------------------------------------------------

extern "C" {

KXENTRY void KXCONN(KXCHAR* QMgrName, KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason) {
  KXLONG r = connect(QMgrName, Hconn);
  if (r == KXRC_CONN_ALREADY_EXISTS) return setResult(CompCode, Reason, KXCC_WARNING, r);
  if (r) {
    if (Hconn) *Hconn = -1;
    return failed(CompCode, Reason, r);
  }
  setResult(CompCode, Reason, KXCC_OK, 0);
}

KXENTRY void KXCONNX(KXCHAR* QMgrName, KXCNO* ConnectOpts, KXHCONN* Hconn, KXLONG* CompCode,
                     KXLONG* Reason) {
  if (!ConnectOpts || !strucIdIs(ConnectOpts->StrucId, "CNO "))
    return failed(CompCode, Reason, KXRC_CNO_ERROR);
  if (ConnectOpts->Options != KXCNO_NONE) return failed(CompCode, Reason, KXRC_OPTIONS_ERROR);
  KXCONN(QMgrName, Hconn, CompCode, Reason);
}

KXENTRY void KXDISC(KXHCONN* Hconn, KXLONG* CompCode, KXLONG* Reason) {
  std::shared_ptr<Connection> c = Hconn ? findConnection(*Hconn) : nullptr;
  if (!c) return failed(CompCode, Reason, KXRC_HCONN_ERROR);
  {
    std::lock_guard<std::mutex> lock(gTable);
    gConnections[size_t(*Hconn) - 1].reset();
  }
  std::lock_guard<std::mutex> lock(c->mutex);
  // A connection that lost its server ends quietly: its unit of work expires on the server.
  KXLONG r = c->link.usable() ? endWork(*c, true) : 0;
  c->closed = true;
  c->objects.clear();
  c->link.close();
  c->watch.close();
  *Hconn = -1;
  if (r) return setResult(CompCode, Reason, KXCC_WARNING, r);
  setResult(CompCode, Reason, KXCC_OK, 0);
}

KXENTRY void KXOPEN(KXHCONN Hconn, KXOD* ObjDesc, KXLONG Options, KXHOBJ* Hobj, KXLONG* CompCode,
                    KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    if (!Hobj) return KXRC_HOBJ_ERROR;
    KXLONG r = openQueue(c, ObjDesc, Options, Hobj);
    if (r) *Hobj = -1;
    return r;
  });
}

KXENTRY void KXCLOSE(KXHCONN Hconn, KXHOBJ* Hobj, KXLONG Options, KXLONG* CompCode,
                     KXLONG* Reason) {
  std::shared_ptr<Connection> c = findConnection(Hconn);
  if (!c) return failed(CompCode, Reason, KXRC_HCONN_ERROR);
  std::lock_guard<std::mutex> lock(c->mutex);
  // Closing needs no server, so it works on a connection that lost its server too.
  if (c->closed) return failed(CompCode, Reason, KXRC_HCONN_ERROR);
  if (!Hobj || !findObject(*c, *Hobj)) return failed(CompCode, Reason, KXRC_HOBJ_ERROR);
  if (Options != KXCO_NONE) return failed(CompCode, Reason, KXRC_OPTIONS_ERROR);
  c->objects[size_t(*Hobj) - 1].reset();
  *Hobj = -1;
  setResult(CompCode, Reason, KXCC_OK, 0);
}

KXENTRY void KXGET(KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXGMO* GetMsgOpts,
                   KXLONG BufferLength, void* Buffer, KXLONG* DataLength, KXLONG* CompCode,
                   KXLONG* Reason) {
  GetArgs a{MsgDesc, GetMsgOpts, BufferLength, Buffer, DataLength};
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    Object* o = findObject(c, Hobj);
    if (!o) return KXRC_HOBJ_ERROR;
    if (KXLONG r = checkGet(o->options, a.md, a.gmo, a.bufferLength, a.buffer, a.dataLength)) return r;
    int64_t deadline = -1;
    bool first = a.gmo->Options & KXGMO_BROWSE_FIRST;
    for (;;) {
      WaitPoint wp;
      KXLONG r = tryGet(c, *o, a, first, wp);
      first = false;
      if (r != KXRC_NO_MSG_AVAILABLE || !(a.gmo->Options & KXGMO_WAIT)) return r;
      int64_t now = nowMs();
      if (deadline < 0)
        deadline = a.gmo->WaitInterval == KXWI_UNLIMITED ? INT64_MAX : now + a.gmo->WaitInterval;
      if (now >= deadline) return r;
      if (KXLONG w = waitForChange(c, *o, wp, std::min<int64_t>(deadline - now, kWaitSliceMs)))
        return w;
    }
  });
}

KXENTRY void KXPUT(KXHCONN Hconn, KXHOBJ Hobj, KXMD* MsgDesc, KXPMO* PutMsgOpts,
                   KXLONG BufferLength, void* Buffer, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    Object* o = findObject(c, Hobj);
    if (!o) return KXRC_HOBJ_ERROR;
    return putMessage(c, *o, MsgDesc, PutMsgOpts, BufferLength, Buffer);
  });
}

KXENTRY void KXPUT1(KXHCONN Hconn, KXOD* ObjDesc, KXMD* MsgDesc, KXPMO* PutMsgOpts,
                    KXLONG BufferLength, void* Buffer, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    KXHOBJ h = -1;
    KXLONG r = openQueue(c, ObjDesc, KXOO_OUTPUT, &h);
    if (r) return r;
    r = putMessage(c, *findObject(c, h), MsgDesc, PutMsgOpts, BufferLength, Buffer);
    c.objects[size_t(h) - 1].reset();
    return r;
  });
}

KXENTRY void KXINQ(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors,
                   KXLONG IntAttrCount, KXLONG* IntAttrs, KXLONG CharAttrLength,
                   KXCHAR* CharAttrs, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    Object* o = findObject(c, Hobj);
    if (!o) return KXRC_HOBJ_ERROR;
    if (KXLONG r = checkInquire(o->options, SelectorCount, Selectors, IntAttrCount, IntAttrs,
                                CharAttrLength, CharAttrs))
      return r;
    KXLONG ints = 0, chars = 0;
    for (KXLONG i = 0; i < SelectorCount; ++i) {
      KXLONG sel = Selectors[i];
      if (sel == KXCA_Q_NAME) {
        if (chars + kNameLength > CharAttrLength) return KXRC_CHAR_ATTR_LENGTH_ERROR;
        memset(CharAttrs + chars, ' ', kNameLength);
        memcpy(CharAttrs + chars, o->name.data(), o->name.size());
        chars += kNameLength;
        continue;
      }
      if (sel != KXIA_CURRENT_Q_DEPTH && sel != KXIA_MAX_MSG_LENGTH &&
          sel != KXIA_BACKOUT_THRESHOLD)
        return KXRC_SELECTOR_ERROR;
      if (ints >= IntAttrCount) return KXRC_INT_ATTR_COUNT_ERROR;
      if (sel == KXIA_MAX_MSG_LENGTH) {
        IntAttrs[ints++] = KXLONG(o->maxLength);
        continue;
      }
      if (sel == KXIA_BACKOUT_THRESHOLD) {
        Reply r = c.link.command({"HGET", c.prefix + "bt", o->name});
        if (!r || (r->type != REDIS_REPLY_STRING && r->type != REDIS_REPLY_NIL))
          return failureOf(r);
        long v = r->type == REDIS_REPLY_STRING ? strtol(r->str, nullptr, 10)
                 : o->name == kDeadLetterQueue ? 0
                                               : 5;
        IntAttrs[ints++] = KXLONG(v);
        continue;
      }
      Reply r = evalScript(c.link, c.depth, {o->keys.q, o->keys.pl}, {});
      if (!r || r->type != REDIS_REPLY_INTEGER) return failureOf(r);
      IntAttrs[ints++] = KXLONG(std::clamp<long long>(r->integer, 0, INT32_MAX));
    }
    return 0;
  });
}

KXENTRY void KXSET(KXHCONN Hconn, KXHOBJ Hobj, KXLONG SelectorCount, KXLONG* Selectors,
                   KXLONG IntAttrCount, KXLONG* IntAttrs, KXLONG CharAttrLength,
                   KXCHAR* CharAttrs, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) -> KXLONG {
    Object* o = findObject(c, Hobj);
    if (!o) return KXRC_HOBJ_ERROR;
    if (KXLONG r = checkSet(o->options, SelectorCount, Selectors, IntAttrCount, IntAttrs)) return r;
    for (KXLONG i = 0; i < SelectorCount; ++i) {
      std::string value = std::to_string(IntAttrs[i]);
      bool threshold = Selectors[i] == KXIA_BACKOUT_THRESHOLD;
      Reply r = threshold ? evalScript(c.link, c.setThreshold,
                                       {c.prefix + "queues", c.prefix + "bt"}, {o->name, value})
                          : evalScript(c.link, c.setMax, {c.prefix + "queues"}, {o->name, value});
      if (!r || r->type != REDIS_REPLY_INTEGER) return failureOf(r);
      if (r->integer != 1) return KXRC_Q_DELETED;
      if (!threshold) o->maxLength = IntAttrs[i];
    }
    return 0;
  });
}

KXENTRY void KXBEGIN(KXHCONN Hconn, KXBO* BeginOpts, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection&) -> KXLONG {
    if (BeginOpts && !strucIdIs(BeginOpts->StrucId, "BO  ")) return KXRC_BO_ERROR;
    if (BeginOpts && BeginOpts->Options != KXBO_NONE) return KXRC_OPTIONS_ERROR;
    // A unit of work begins with the first get or put under syncpoint; nothing to do here.
    return 0;
  });
}

KXENTRY void KXCMIT(KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) { return endWork(c, true); });
}

KXENTRY void KXBACK(KXHCONN Hconn, KXLONG* CompCode, KXLONG* Reason) {
  withConnection(Hconn, CompCode, Reason, [&](Connection& c) { return endWork(c, false); });
}

}  // extern "C"
