// link.h - which Redis server holds a queue manager, and one synchronous connection to it.
//
// A queue manager name is looked up in this order:
//   1. KXSERVER="host:port" (password from KXPASSWORD): every queue manager is on that server;
//   2. the client configuration file ($KXCLIENTCONF, else ~/.kx/client.conf), one line per
//      queue manager: NAME HOST:PORT [password=...] [user=...] [tls] [timeout=MS]; "*" matches
//      any name not listed;
//   3. 127.0.0.1:6379.
// Failures to reach the server are reason 2059 (queue manager not available), a refused login
// 2035 (not authorised).
#pragma once

#include <hiredis/hiredis.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kxic {

struct ServerAddress {
  std::string host = "127.0.0.1";
  int port = 6379;
  std::string user;
  std::string password;
  bool tls = false;
  int timeoutMs = 30000;  // connect and reply timeout (blocking reads add their wait)
  std::string origin;     // where the address came from, for messages
};

// Fills `out` for queue manager `qmgr`. Returns 0, or KXRC_Q_MGR_NAME_ERROR with `why` when the
// configuration is unreadable or malformed.
int32_t resolveServer(const std::string& qmgr, ServerAddress& out, std::string& why);
// "host:port" (IPv6 hosts in brackets) into host and port; false when malformed.
bool parseHostPort(std::string_view text, std::string& host, int& port);
// The configuration file in effect.
std::string configPath();

struct ReplyFree {
  void operator()(redisReply* r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

// The reason for an error reply.
int32_t errorReason(const redisReply* r);

class Link {
 public:
  Link() = default;
  ~Link() { close(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Connects and logs in. Returns 0, 2059 or 2035; `why` explains a failure.
  int32_t open(const ServerAddress& addr, std::string& why);
  void close();
  bool usable() const { return ctx_ != nullptr; }

  // One command, binary safe. A null reply means the connection failed; it is closed and
  // lastError() says why. The reply may be an error reply.
  Reply command(const std::vector<std::string_view>& args);
  // Several commands in one round trip; replies in order, or empty on a connection failure.
  std::vector<Reply> pipeline(const std::vector<std::vector<std::string_view>>& commands);
  // Runs `args` with a reply timeout extended by extraMs (blocking reads).
  Reply commandWithin(const std::vector<std::string_view>& args, int extraMs);

  // For a subscribed connection: reads the published messages that have arrived, without
  // waiting, and appends their channels. False when the connection failed.
  bool pollMessages(std::vector<std::string>& channels);

  const std::string& lastError() const { return lastError_; }
  const ServerAddress& address() const { return addr_; }

 private:
  void fail();

  redisContext* ctx_ = nullptr;
  ServerAddress addr_;
  std::string lastError_;
};

// A Lua script run by its digest, loaded on first use and again after the server lost it.
struct Script {
  const char* text;
  std::string sha;
};

// Runs `script` with `keys` and `args`. Null reply: connection failure (see Link::command).
Reply evalScript(Link& link, Script& script, const std::vector<std::string_view>& keys,
                 const std::vector<std::string_view>& args);

}  // namespace kxic
