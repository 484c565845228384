// link.h - which Redis server holds a queue manager, and one synchronous connection to it.
//
// A queue manager name is looked up in this order:
//   1. KXSERVER="host:port" (password from KXPASSWORD; KXTLS=1 with KXTLSCA, KXTLSCERT and
//      KXTLSKEY for TLS): every queue manager is on that server;
//   2. the client configuration file ($KXCLIENTCONF, else ~/.kx/client.conf), one line per
//      queue manager: NAME HOST:PORT [password=...] [user=...] [timeout=MS] [tls [ca=FILE]
//      [cert=FILE] [key=FILE] [servername=NAME] [insecure]]; "*" matches any name not listed;
//   3. 127.0.0.1:6379.
// Failures to reach the server are reason 2059 (queue manager not available), a refused login
// 2035 (not authorised), a TLS failure (certificate, name, one side speaking TLS and the other
// not) 2397, which callers do not retry.
//
// The connection is a socket, wrapped by OpenSSL when TLS is asked for; hiredis formats the
// commands and parses the replies. On a cluster the connection follows MOVED (and moves to
// the node named) and ASK (ASKING and the command on the node named, once), and retries a
// command answered TRYAGAIN while the queue manager's slot is being moved.
#pragma once

#include <hiredis/hiredis.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kxic {

// A TLS failure: the server's certificate does not verify or is for another name, or one side
// speaks TLS and the other does not. Retrying does not help.
constexpr int32_t kReasonTlsFailed = 2397;

struct ServerAddress {
  std::string host = "127.0.0.1";
  int port = 6379;
  std::string user;
  std::string password;
  bool tls = false;
  std::string ca;          // CA certificates (PEM); empty: the system's store
  std::string cert, key;   // client certificate and its key (PEM); key empty: in cert
  std::string serverName;  // name the certificate must carry; empty: host
  bool insecure = false;   // do not verify the server's certificate
  int timeoutMs = 30000;   // connect and reply timeout (blocking reads add their wait)
  std::string origin;      // where the address came from, for messages
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

// Where one long bulk string of a reply goes instead of into the reply: the first bulk string
// of at least `from` bytes is written into `buffer` as it arrives from the socket (as much as
// `capacity` takes; the rest is read and dropped) and stands in the reply as an empty string.
// A long message is then held once, in its caller's buffer, not by the parser and the reply too.
struct BulkSink {
  char* buffer = nullptr;
  size_t capacity = 0;
  size_t from = 64 * 1024;
  bool taken = false;  // a bulk string went to the buffer
  size_t length = 0;   // its full length
};

// Bulk strings of a command at least this long are written from the caller's memory, not
// copied into the formatted command first.
constexpr size_t kSendInPlaceFrom = 64 * 1024;

// One connection to one server node: the socket, the TLS session over it, the reply parser.
class Wire {
 public:
  Wire() = default;
  ~Wire() { close(); }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  // Connects to host:port with the options of `addr` and logs in. Returns 0, 2059, 2035 or
  // 2397; `why` explains a failure.
  int32_t open(const ServerAddress& addr, const std::string& host, int port, std::string& why);
  void close();
  bool usable() const { return fd_ >= 0; }
  const std::string& host() const { return host_; }
  int port() const { return port_; }

  // Sends the commands and reads as many replies, all before now + timeout + extraMs. Empty on
  // a failure: the connection is closed and lastError() says why. `sink`: where the first long
  // bulk string of the replies goes.
  std::vector<Reply> exchange(const std::vector<std::vector<std::string_view>>& commands,
                              int extraMs, BulkSink* sink = nullptr);
  // Reads the replies that have arrived, without waiting. False when the connection failed.
  bool drain(std::vector<Reply>& out);
  const std::string& lastError() const { return lastError_; }

 private:
  bool sendAll(const char* bytes, size_t size, int64_t deadline);
  // Passes bytes read from the server to the reply parser, all but a sunk bulk string's.
  bool feed(const char* bytes, size_t size);
  void resetScan();
  // Reads what is there (waiting until the deadline when wait is set); false on failure.
  int readSome(int64_t deadline, bool wait);
  bool fail(const std::string& why);
  int32_t handshake(const ServerAddress& addr, const std::string& where, int64_t deadline,
                    std::string& why);

  int fd_ = -1;
  void* ssl_ = nullptr;  // SSL*
  redisReader* reader_ = nullptr;
  std::string host_;
  int port_ = 0;
  int timeoutMs_ = 30000;
  bool tls_ = false;
  int firstByte_ = -1;     // the first byte the server sent: TLS records and replies differ
  bool tlsError_ = false;  // the last failure came from the TLS session
  std::string lastError_;
  // Where the bytes from the server stand in the protocol: in a line (a reply's type and
  // header), in a bulk string's payload (with its closing CRLF), or in one going to the sink.
  enum class Scan { Line, Payload, Sink };
  Scan scan_ = Scan::Line;
  std::string line_;      // the line read so far
  uint64_t left_ = 0;     // payload bytes still to come, CRLF included
  BulkSink* sink_ = nullptr;
  size_t sunk_ = 0;       // payload bytes of the sunk string read so far
  std::string toParser_;  // bytes for the parser, gathered over one read
};

class Link {
 public:
  Link() = default;
  ~Link() { close(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Connects and logs in. Returns 0, 2059, 2035 or 2397; `why` explains a failure.
  int32_t open(const ServerAddress& addr, std::string& why);
  void close();
  bool usable() const { return node_.usable(); }

  // One command, binary safe. A null reply means the connection failed; it is closed and
  // lastError() says why. The reply may be an error reply. `scriptText`: the script an
  // EVALSHA runs, loaded on a node that does not have it.
  Reply command(const std::vector<std::string_view>& args, const char* scriptText = nullptr,
                BulkSink* sink = nullptr);
  // Several commands in one round trip; replies in order, or empty on a connection failure.
  std::vector<Reply> pipeline(const std::vector<std::vector<std::string_view>>& commands);
  // Runs `args` with a reply timeout extended by extraMs (blocking reads).
  Reply commandWithin(const std::vector<std::string_view>& args, int extraMs);

  // For a subscribed connection: reads the published messages that have arrived, without
  // waiting, and appends their channels. False when the connection failed.
  bool pollMessages(std::vector<std::string>& channels);

  const std::string& lastError() const { return lastError_; }
  // The address the connection was opened with, naming the node it talks to now (which a
  // cluster's MOVED may have changed).
  ServerAddress address() const;

 private:
  Reply run(const std::vector<std::string_view>& args, int extraMs, const char* scriptText,
            BulkSink* sink = nullptr);
  bool moveTo(std::string_view target, Wire& wire);

  Wire node_;  // the node that holds the queue manager's slot, as far as we know
  Wire ask_;   // the node an ASK redirection named
  ServerAddress addr_;
  std::string lastError_;
};

// A Lua script run by its digest, loaded on first use and again on a node without it.
struct Script {
  const char* text;
  std::string sha;
};

// Runs `script` with `keys` and `args`. Null reply: connection failure (see Link::command).
Reply evalScript(Link& link, Script& script, const std::vector<std::string_view>& keys,
                 const std::vector<std::string_view>& args, BulkSink* sink = nullptr);

}  // namespace kxic
