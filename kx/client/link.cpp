// link.cpp - server lookup (KXSERVER, client configuration file) and the hiredis connection.
#include "kx/client/link.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kx/kxc.h"

namespace kxic {
namespace {

timeval toTimeval(int ms) {
  timeval tv;
  tv.tv_sec = ms / 1000;
  tv.tv_usec = (ms % 1000) * 1000;
  return tv;
}

bool startsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

// Writing to a server that went away raises SIGPIPE, which would end the calling program:
// the signal is blocked while a command is written and read, and a SIGPIPE raised meanwhile
// is taken off the thread before the old mask comes back.
class NoSigpipe {
 public:
  NoSigpipe() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    pendingBefore_ = sigismember(&pending, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
  }
  ~NoSigpipe() {
    if (!pendingBefore_) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE)) {
        timespec zero{0, 0};
        sigtimedwait(&pipe_, nullptr, &zero);
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  NoSigpipe(const NoSigpipe&) = delete;
  NoSigpipe& operator=(const NoSigpipe&) = delete;

 private:
  sigset_t pipe_, old_;
  bool pendingBefore_ = false;
};

// Applies the options after the address on a configuration line.
bool applyOption(std::string_view opt, ServerAddress& out) {
  if (opt == "tls") {
    out.tls = true;
    return true;
  }
  if (startsWith(opt, "password=")) {
    out.password = std::string(opt.substr(9));
    return true;
  }
  if (startsWith(opt, "user=")) {
    out.user = std::string(opt.substr(5));
    return true;
  }
  if (startsWith(opt, "timeout=")) {
    std::string v(opt.substr(8));
    char* end = nullptr;
    long ms = strtol(v.c_str(), &end, 10);
    if (v.empty() || *end || ms < 1 || ms > 3600000) return false;
    out.timeoutMs = int(ms);
    return true;
  }
  return false;
}

}  // namespace

std::string configPath() {
  const char* env = getenv("KXCLIENTCONF");
  if (env && *env) return env;
  const char* home = getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.kx/client.conf";
}

bool parseHostPort(std::string_view text, std::string& host, int& port) {
  size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) return false;
  std::string_view h = text.substr(0, colon);
  if (h.front() == '[') {
    if (h.size() < 3 || h.back() != ']') return false;
    h = h.substr(1, h.size() - 2);
  } else if (h.find(':') != std::string_view::npos) {
    return false;  // IPv6 addresses need brackets
  }
  int p = 0;
  for (char c : text.substr(colon + 1)) {
    if (c < '0' || c > '9') return false;
    p = p * 10 + (c - '0');
    if (p > 65535) return false;
  }
  if (p == 0) return false;
  host = std::string(h);
  port = p;
  return true;
}

int32_t resolveServer(const std::string& qmgr, ServerAddress& out, std::string& why) {
  out = ServerAddress();
  const char* env = getenv("KXSERVER");
  if (env && *env) {
    if (!parseHostPort(env, out.host, out.port)) {
      why = std::string("KXSERVER \"") + env + "\" is not host:port";
      return KXRC_Q_MGR_NAME_ERROR;
    }
    const char* pw = getenv("KXPASSWORD");
    if (pw) out.password = pw;
    out.origin = "KXSERVER";
    return 0;
  }
  std::string path = configPath();
  std::ifstream in(path);
  if (!in) {
    out.origin = "default";
    return 0;
  }
  std::string line;
  int lineNo = 0;
  bool haveWildcard = false;
  ServerAddress wildcard;
  while (std::getline(in, line)) {
    ++lineNo;
    size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::string name, address, opt;
    if (!(words >> name)) continue;
    bool mine = name == qmgr;
    bool any = name == "*";
    ServerAddress entry;
    entry.origin = path + ":" + std::to_string(lineNo);
    if (!(words >> address) || !parseHostPort(address, entry.host, entry.port)) {
      why = entry.origin + ": expected NAME HOST:PORT [password=...] [user=...] [tls]";
      return KXRC_Q_MGR_NAME_ERROR;
    }
    while (words >> opt) {
      if (!applyOption(opt, entry)) {
        why = entry.origin + ": unknown option \"" + opt + "\"";
        return KXRC_Q_MGR_NAME_ERROR;
      }
    }
    if (mine) {
      out = entry;
      return 0;
    }
    if (any && !haveWildcard) {
      wildcard = entry;
      haveWildcard = true;
    }
  }
  if (haveWildcard) {
    out = wildcard;
    return 0;
  }
  out.origin = "default";
  return 0;
}

int32_t errorReason(const redisReply* r) {
  std::string_view s(r->str ? r->str : "", r->str ? r->len : 0);
  if (startsWith(s, "NOAUTH") || startsWith(s, "WRONGPASS") || startsWith(s, "NOPERM"))
    return KXRC_NOT_AUTHORIZED;
  if (startsWith(s, "LOADING") || startsWith(s, "MASTERDOWN") || startsWith(s, "BUSY") ||
      startsWith(s, "READONLY") || startsWith(s, "TRYAGAIN") || startsWith(s, "CLUSTERDOWN"))
    return KXRC_Q_MGR_NOT_AVAILABLE;
  if (startsWith(s, "OOM")) return KXRC_RESOURCE_PROBLEM;
  return KXRC_UNEXPECTED_ERROR;
}

int32_t Link::open(const ServerAddress& addr, std::string& why) {
  close();
  addr_ = addr;
  std::string where = addr.host + ":" + std::to_string(addr.port) + " (" + addr.origin + ")";
  if (addr.tls) {
    // hiredis as packaged here has no TLS transport.
    why = "TLS is asked for " + where + " but this client library was built without TLS";
    return KXRC_Q_MGR_NOT_AVAILABLE;
  }
  ctx_ = redisConnectWithTimeout(addr.host.c_str(), addr.port, toTimeval(addr.timeoutMs));
  if (!ctx_ || ctx_->err) {
    why = "cannot reach Redis server " + where + ": " + (ctx_ ? ctx_->errstr : "out of memory");
    close();
    return KXRC_Q_MGR_NOT_AVAILABLE;
  }
  redisSetTimeout(ctx_, toTimeval(addr.timeoutMs));
  redisEnableKeepAlive(ctx_);
  Reply r;
  if (!addr.password.empty()) {
    if (addr.user.empty())
      r = command({"AUTH", addr.password});
    else
      r = command({"AUTH", addr.user, addr.password});
  } else {
    r = command({"PING"});
  }
  if (!r) {
    why = "Redis server " + where + " closed the connection: " + lastError_;
    return KXRC_Q_MGR_NOT_AVAILABLE;
  }
  if (r->type == REDIS_REPLY_ERROR) {
    int32_t reason = errorReason(r.get());
    // A refused AUTH says ERR or WRONGPASS depending on the server version.
    if (!addr.password.empty() && reason == KXRC_UNEXPECTED_ERROR) reason = KXRC_NOT_AUTHORIZED;
    why = "Redis server " + where + " refused the connection: " + std::string(r->str, r->len);
    close();
    return reason;
  }
  return 0;
}

void Link::close() {
  if (ctx_) redisFree(ctx_);
  ctx_ = nullptr;
}

void Link::fail() {
  lastError_ = ctx_ && ctx_->err ? ctx_->errstr : "connection lost";
  close();
}

Reply Link::command(const std::vector<std::string_view>& args) {
  if (!ctx_) {
    lastError_ = "not connected";
    return nullptr;
  }
  std::vector<const char*> argv(args.size());
  std::vector<size_t> lens(args.size());
  for (size_t i = 0; i < args.size(); ++i) {
    argv[i] = args[i].data();
    lens[i] = args[i].size();
  }
  NoSigpipe guard;
  void* r = redisCommandArgv(ctx_, int(args.size()), argv.data(), lens.data());
  if (!r) {
    fail();
    return nullptr;
  }
  return Reply(static_cast<redisReply*>(r));
}

std::vector<Reply> Link::pipeline(const std::vector<std::vector<std::string_view>>& commands) {
  std::vector<Reply> out;
  if (!ctx_) {
    lastError_ = "not connected";
    return out;
  }
  for (const auto& args : commands) {
    std::vector<const char*> argv(args.size());
    std::vector<size_t> lens(args.size());
    for (size_t i = 0; i < args.size(); ++i) {
      argv[i] = args[i].data();
      lens[i] = args[i].size();
    }
    if (redisAppendCommandArgv(ctx_, int(args.size()), argv.data(), lens.data()) != REDIS_OK) {
      fail();
      return out;
    }
  }
  NoSigpipe guard;
  for (size_t i = 0; i < commands.size(); ++i) {
    void* r = nullptr;
    if (redisGetReply(ctx_, &r) != REDIS_OK || !r) {
      fail();
      out.clear();
      return out;
    }
    out.emplace_back(static_cast<redisReply*>(r));
  }
  return out;
}

Reply Link::commandWithin(const std::vector<std::string_view>& args, int extraMs) {
  if (!ctx_) return command(args);
  redisSetTimeout(ctx_, toTimeval(addr_.timeoutMs + extraMs));
  Reply r = command(args);
  if (ctx_) redisSetTimeout(ctx_, toTimeval(addr_.timeoutMs));
  return r;
}

bool Link::pollMessages(std::vector<std::string>& channels) {
  if (!ctx_) return false;
  for (;;) {
    void* r = nullptr;
    if (redisGetReplyFromReader(ctx_, &r) != REDIS_OK) {
      fail();
      return false;
    }
    if (r) {
      Reply m(static_cast<redisReply*>(r));
      // {"message", channel, payload}
      if (m->type == REDIS_REPLY_ARRAY && m->elements == 3 &&
          m->element[1]->type == REDIS_REPLY_STRING)
        channels.emplace_back(m->element[1]->str, m->element[1]->len);
      continue;
    }
    pollfd p{ctx_->fd, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0) return true;
    if (redisBufferRead(ctx_) != REDIS_OK) {
      fail();
      return false;
    }
  }
}

Reply evalScript(Link& link, Script& script, const std::vector<std::string_view>& keys,
                 const std::vector<std::string_view>& args) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (script.sha.empty()) {
      Reply loaded = link.command({"SCRIPT", "LOAD", script.text});
      if (!loaded || loaded->type != REDIS_REPLY_STRING) return loaded;
      script.sha.assign(loaded->str, loaded->len);
    }
    std::string nkeys = std::to_string(keys.size());
    std::vector<std::string_view> argv;
    argv.reserve(3 + keys.size() + args.size());
    argv.push_back("EVALSHA");
    argv.push_back(script.sha);
    argv.push_back(nkeys);
    argv.insert(argv.end(), keys.begin(), keys.end());
    argv.insert(argv.end(), args.begin(), args.end());
    Reply r = link.command(argv);
    if (r && r->type == REDIS_REPLY_ERROR && startsWith(std::string_view(r->str, r->len), "NOSCRIPT")) {
      script.sha.clear();  // the server restarted or flushed its scripts
      continue;
    }
    return r;
  }
  return nullptr;
}

}  // namespace kxic
