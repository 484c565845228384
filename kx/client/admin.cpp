// admin.cpp - creating and deleting queue managers and queues on their Redis server, and listing
// queues: the administration functions of kxm_admin.h for client mode.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kx/client/keys.h"
#include "kx/client/link.h"
#include "kx/kxm_admin.h"

using namespace kxic;

namespace {

int32_t report(int32_t reason, const std::string& why, char* msg, size_t msgLen) {
  if (msg && msgLen) snprintf(msg, msgLen, "%s", reason ? why.c_str() : "");
  return reason;
}

std::string replyText(const Reply& r, const Link& link) {
  if (!r) return link.lastError();
  if (r->type == REDIS_REPLY_ERROR) return std::string(r->str, r->len);
  return "unexpected reply";
}

// Connects to the server of `qmgr`; with mustExist, also checks that the queue manager exists.
int32_t connectTo(const std::string& qmgr, bool mustExist, Link& link, std::string& why) {
  if (!validQmgrName(qmgr)) {
    why = "queue manager name '" + qmgr +
          "' is not valid (1 to 48 characters of A-Z a-z 0-9 . _ % -, not starting with '.')";
    return KXM_RC_NAME_ERROR;
  }
  ServerAddress addr;
  if (int32_t r = resolveServer(qmgr, addr, why)) return r;
  if (int32_t r = link.open(addr, why)) return r;
  if (!mustExist) return 0;
  Reply r = link.command({"EXISTS", qmgrPrefix(qmgr) + "qmgr"});
  if (!r || r->type != REDIS_REPLY_INTEGER) {
    why = "queue manager " + qmgr + ": " + replyText(r, link);
    return r ? errorReason(r.get()) : KXRC_Q_MGR_NOT_AVAILABLE;
  }
  if (r->integer != 1) {
    why = "queue manager " + qmgr + " does not exist on " + addr.host + ":" +
          std::to_string(addr.port);
    return KXRC_Q_MGR_NAME_ERROR;
  }
  return 0;
}

int32_t failure(const Reply& r, const Link& link, const std::string& what, char* msg,
                size_t msgLen) {
  int32_t reason = !r ? KXRC_Q_MGR_NOT_AVAILABLE
                      : r->type == REDIS_REPLY_ERROR ? errorReason(r.get()) : KXRC_UNEXPECTED_ERROR;
  return report(reason, what + ": " + replyText(r, link), msg, msgLen);
}

}  // namespace

extern "C" {

// Client mode has no data directory; this names the server in effect instead: the KXSERVER
// address, the client configuration file, or the default address.
KXENTRY int32_t kxmDataPath(char* buf, size_t bufLen) {
  std::string where;
  const char* env = getenv("KXSERVER");
  if (env && *env) {
    where = env;
  } else {
    std::string conf = configPath();
    FILE* f = fopen(conf.c_str(), "r");
    if (f) {
      fclose(f);
      where = conf;
    } else {
      where = "127.0.0.1:6379";
    }
  }
  if (!buf || bufLen <= where.size()) return KXRC_BUFFER_LENGTH_ERROR;
  memcpy(buf, where.c_str(), where.size() + 1);
  return 0;
}

KXENTRY int32_t kxmCreateQmgr(const char* qmgr, char* msg, size_t msgLen) {
  std::string name = qmgr ? qmgr : "";
  Link link;
  std::string why;
  if (int32_t r = connectTo(name, false, link, why)) return report(r, why, msg, msgLen);
  Reply r = link.command({"HSETNX", qmgrPrefix(name) + "qmgr", "ccsid", "1208"});
  if (!r || r->type != REDIS_REPLY_INTEGER)
    return failure(r, link, "cannot create queue manager " + name, msg, msgLen);
  if (r->integer != 1)
    return report(KXM_RC_ALREADY_EXISTS, "queue manager " + name + " already exists", msg, msgLen);
  return report(0, "", msg, msgLen);
}

KXENTRY int32_t kxmDeleteQmgr(const char* qmgr, char* msg, size_t msgLen) {
  std::string name = qmgr ? qmgr : "";
  Link link;
  std::string why;
  if (int32_t r = connectTo(name, true, link, why)) return report(r, why, msg, msgLen);
  std::string prefix = qmgrPrefix(name);
  Reply r = link.command({"HKEYS", prefix + "queues"});
  if (!r || r->type != REDIS_REPLY_ARRAY)
    return failure(r, link, "cannot list the queues of " + name, msg, msgLen);
  std::vector<std::string> keys{prefix + "qmgr", prefix + "queues", prefix + "owners",
                                prefix + "bt"};
  for (size_t i = 0; i < r->elements; ++i) {
    QueueKeys k = queueKeys(name, std::string(r->element[i]->str, r->element[i]->len));
    keys.insert(keys.end(), {k.q, k.gl, k.pl, k.w, k.h, k.z, k.b});
  }
  std::vector<std::string_view> args{"DEL"};
  args.insert(args.end(), keys.begin(), keys.end());
  Reply d = link.command(args);
  if (!d || d->type != REDIS_REPLY_INTEGER)
    return failure(d, link, "cannot delete queue manager " + name, msg, msgLen);
  return report(0, "", msg, msgLen);
}

KXENTRY int32_t kxmCreateQueue(const char* qmgr, const char* queue, int64_t maxMsgLength,
                               char* msg, size_t msgLen) {
  std::string name = queue ? queue : "";
  if (!validQueueName(name))
    return report(KXM_RC_NAME_ERROR,
                  "queue name '" + name +
                      "' is not valid (1 to 48 characters of A-Z a-z 0-9 . _ % / -)",
                  msg, msgLen);
  if (maxMsgLength < 0) maxMsgLength = KXM_DEFAULT_MAX_MSG_LENGTH;
  if (maxMsgLength > KXM_LARGEST_MAX_MSG_LENGTH)
    return report(KXM_RC_LENGTH_ERROR,
                  "maximum message length " + std::to_string(maxMsgLength) + " is above " +
                      std::to_string(KXM_LARGEST_MAX_MSG_LENGTH),
                  msg, msgLen);
  std::string qm = qmgr ? qmgr : "";
  Link link;
  std::string why;
  if (int32_t r = connectTo(qm, true, link, why)) return report(r, why, msg, msgLen);
  std::string length = std::to_string(maxMsgLength);
  Reply r = link.command({"HSETNX", qmgrPrefix(qm) + "queues", name, length});
  if (!r || r->type != REDIS_REPLY_INTEGER)
    return failure(r, link, "cannot create queue " + name, msg, msgLen);
  if (r->integer != 1)
    return report(KXM_RC_ALREADY_EXISTS, "queue " + name + " already exists", msg, msgLen);
  return report(0, "", msg, msgLen);
}

KXENTRY int32_t kxmDeleteQueue(const char* qmgr, const char* queue, char* msg, size_t msgLen) {
  std::string name = queue ? queue : "";
  std::string qm = qmgr ? qmgr : "";
  Link link;
  std::string why;
  if (int32_t r = connectTo(qm, true, link, why)) return report(r, why, msg, msgLen);
  Reply r = link.command({"HDEL", qmgrPrefix(qm) + "queues", name});
  if (!r || r->type != REDIS_REPLY_INTEGER)
    return failure(r, link, "cannot delete queue " + name, msg, msgLen);
  if (r->integer != 1)
    return report(KXRC_UNKNOWN_OBJECT_NAME, "queue " + name + " does not exist", msg, msgLen);
  QueueKeys k = queueKeys(qm, name);
  link.command({"HDEL", qmgrPrefix(qm) + "bt", name});
  Reply d = link.command({"DEL", k.q, k.gl, k.pl, k.w, k.h, k.z, k.b});
  if (!d || d->type != REDIS_REPLY_INTEGER)
    return failure(d, link, "cannot delete the messages of queue " + name, msg, msgLen);
  return report(0, "", msg, msgLen);
}

KXENTRY int32_t kxmListQueues(const char* qmgr, KXMQUEUEFN fn, void* ctx, char* msg,
                              size_t msgLen) {
  std::string qm = qmgr ? qmgr : "";
  Link link;
  std::string why;
  if (int32_t r = connectTo(qm, true, link, why)) return report(r, why, msg, msgLen);
  Reply r = link.command({"HGETALL", qmgrPrefix(qm) + "queues"});
  if (!r || r->type != REDIS_REPLY_ARRAY)
    return failure(r, link, "cannot list the queues of " + qm, msg, msgLen);
  std::vector<std::pair<std::string, int64_t>> queues;
  for (size_t i = 0; i + 1 < r->elements; i += 2)
    queues.emplace_back(std::string(r->element[i]->str, r->element[i]->len),
                        strtoll(r->element[i + 1]->str, nullptr, 10));
  std::sort(queues.begin(), queues.end());
  // Depth: the messages in the stream less those put under syncpoint and not yet committed.
  std::vector<QueueKeys> keys;
  std::vector<std::vector<std::string_view>> commands;
  for (const auto& q : queues) keys.push_back(queueKeys(qm, q.first));
  for (const QueueKeys& k : keys) {
    commands.push_back({"XLEN", k.q});
    commands.push_back({"HLEN", k.pl});
  }
  std::vector<Reply> counts = link.pipeline(commands);
  if (counts.size() != commands.size())
    return report(KXRC_Q_MGR_NOT_AVAILABLE, "cannot count the messages of " + qm + ": " +
                  link.lastError(), msg, msgLen);
  for (size_t i = 0; i < queues.size(); ++i) {
    const Reply& len = counts[2 * i];
    const Reply& pending = counts[2 * i + 1];
    if (len->type != REDIS_REPLY_INTEGER || pending->type != REDIS_REPLY_INTEGER)
      return failure(len->type == REDIS_REPLY_ERROR ? len : pending, link,
                     "cannot count the messages of " + queues[i].first, msg, msgLen);
    if (!fn) continue;
    int64_t depth = std::max<int64_t>(0, len->integer - pending->integer);
    if (int32_t res = fn(queues[i].first.c_str(), depth, queues[i].second, ctx)) {
      report(0, "", msg, msgLen);
      return res;
    }
  }
  return report(0, "", msg, msgLen);
}

}  // extern "C"
