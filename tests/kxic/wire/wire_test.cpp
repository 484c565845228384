// wire_test.cpp - the connection's reading of replies against a scripted server on loopback: a
// long bulk string goes to the caller's buffer as it arrives, whatever pieces the reply comes in,
// the reply keeps its shape around it, and the replies after it are read in step.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "kx/client/link.h"

using namespace kxic;

namespace {

// Bytes that look like protocol lines, so that a payload read as lines would show.
std::string payload(size_t n) {
  static const char kPiece[] = "\r\n$5\r\n*2\r\n:1\r\n-ERR\r\nx";
  std::string s;
  s.reserve(n);
  for (size_t i = 0; s.size() < n; ++i) s += kPiece[i % (sizeof kPiece - 1)];
  return s;
}

// A reply as the server writes it: the protocol's lines a few bytes at a time with a pause,
// so that the client reads them in pieces, and payloads at once.
struct Piece {
  std::string bytes;
  bool slow;
};
using Script = std::vector<Piece>;

Script operator+(Script a, const Script& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Script line(const std::string& s) { return {{s + "\r\n", true}}; }
// A length is appended to its marker, not the marker prepended (GCC 12 warns falsely on that).
std::string marked(char marker, size_t n) { return std::string(1, marker).append(std::to_string(n)); }
Script bulk(const std::string& s) {
  return {{marked('$', s.size()) + "\r\n", true}, {s, false}, {"\r\n", true}};
}

// A server that answers each command read, in order, with the reply given.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<Script> replies) : replies_(std::move(replies)) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      return;
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedServer() {
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }
  int port() const { return port_; }

 private:
  // Reads one command: an array of bulk strings.
  static bool readCommand(int fd, std::string& pending) {
    for (;;) {
      size_t pos = 0;
      auto line = [&](std::string& out) {
        size_t e = pending.find("\r\n", pos);
        if (e == std::string::npos) return false;
        out = pending.substr(pos, e - pos);
        pos = e + 2;
        return true;
      };
      std::string head;
      bool whole = false;
      if (line(head) && head[0] == '*') {
        long n = atol(head.c_str() + 1);
        whole = true;
        for (long i = 0; i < n && whole; ++i) {
          std::string len;
          if (!line(len)) {
            whole = false;
            break;
          }
          size_t l = size_t(atol(len.c_str() + 1));
          if (pending.size() < pos + l + 2) whole = false;
          pos += l + 2;
        }
      }
      if (whole) {
        pending.erase(0, pos);
        return true;
      }
      char buf[65536];
      ssize_t got = recv(fd, buf, sizeof buf, 0);
      if (got <= 0) return false;
      pending.append(buf, size_t(got));
    }
  }

  void serve() {
    int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::string pending;
    for (const Script& reply : replies_) {
      if (!readCommand(fd, pending)) break;
      for (const Piece& p : reply) {
        if (!p.slow) {
          send(fd, p.bytes.data(), p.bytes.size(), MSG_NOSIGNAL);
          continue;
        }
        for (size_t k = 0; k < p.bytes.size(); k += 3) {
          send(fd, p.bytes.data() + k, std::min<size_t>(3, p.bytes.size() - k), MSG_NOSIGNAL);
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      }
    }
    close(fd);
  }

  std::vector<Script> replies_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

struct Case {
  const char* name;
  Script reply;       // the answer to the command
  size_t capacity;    // of the caller's buffer
  bool taken;         // a bulk string went to the buffer
  std::string sunk;   // the whole bulk string that did
  // The reply as the caller sees it, flattened: type letters and strings.
  std::string shape;
};

std::string flatten(const redisReply* r) {
  switch (r->type) {
    case REDIS_REPLY_ARRAY: {
      std::string s = "[";
      for (size_t i = 0; i < r->elements; ++i) s.append(i ? " " : "").append(flatten(r->element[i]));
      return s + "]";
    }
    case REDIS_REPLY_STRING:
      return r->len > 16 ? marked('s', r->len) : std::string("'").append(r->str, r->len).append("'");
    case REDIS_REPLY_INTEGER:
      return std::to_string(r->integer);
    case REDIS_REPLY_NIL:
      return "nil";
    case REDIS_REPLY_ERROR:
      return "error " + std::string(r->str, r->len);
    case REDIS_REPLY_STATUS:
      return "status " + std::string(r->str, r->len);
    default:
      return "?";
  }
}

TEST(Wire, ALongBulkStringGoesToTheBufferAndTheRepliesAfterItStayInStep) {
  const std::string big = payload(70000), huge = payload(300001), small = payload(1000);
  const std::string md = payload(364);
  const std::vector<Case> cases = {
      {"a get's reply", line("*4") + line(":1") + bulk("1-0") + bulk(md) + bulk(big), big.size(),
       true, big, "[1 '1-0' s364 '']"},
      {"cut short by the buffer", line("*4") + line(":1") + bulk("1-0") + bulk(md) + bulk(huge),
       1000, true, huge, "[1 '1-0' s364 '']"},
      {"no buffer", line("*2") + bulk(big) + line(":3"), 0, true, big, "['' 3]"},
      {"a browse's entry",
       line("*1") + line("*2") + bulk("5-1") + line("*4") + bulk("md") + bulk(md) + bulk("data") +
           bulk(big),
       big.size(), true, big, "[['5-1' ['md' s364 'data' '']]]"},
      {"more after it", line("*4") + bulk(big) + bulk("after") + line(":7") + bulk(huge),
       huge.size(), true, big, "['' 'after' 7 s300001]"},
      {"short strings stay in the reply", line("*2") + bulk(small) + line("$-1"), 70000, false, "",
       "[s1000 nil]"},
      {"an error", line("-ERR no such key"), 70000, false, "", "error ERR no such key"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server({line("+PONG"), c.reply, line("+PONG"), bulk(big)});
    ASSERT_GT(server.port(), 0);
    ServerAddress addr;
    addr.port = server.port();
    addr.timeoutMs = 10000;
    Link link;
    std::string why;
    ASSERT_EQ(link.open(addr, why), 0) << why;
    std::vector<char> buffer(c.capacity + 1, '#');
    BulkSink sink;
    sink.buffer = buffer.data();
    sink.capacity = c.capacity;
    Reply r = link.command({"GET", "k"}, nullptr, &sink);
    ASSERT_TRUE(r) << link.lastError();
    EXPECT_EQ(flatten(r.get()), c.shape);
    EXPECT_EQ(sink.taken, c.taken);
    if (c.taken) {
      EXPECT_EQ(sink.length, c.sunk.size());
      size_t n = std::min(c.capacity, c.sunk.size());
      EXPECT_TRUE(std::string(buffer.data(), n) == c.sunk.substr(0, n));
      EXPECT_EQ(buffer[c.capacity], '#') << "written beyond the buffer";
    }
    // The next replies are read in step: a status, then a long string without a sink.
    r = link.command({"PING"});
    ASSERT_TRUE(r) << link.lastError();
    EXPECT_EQ(flatten(r.get()), "status PONG");
    r = link.command({"GET", "k"});
    ASSERT_TRUE(r) << link.lastError();
    EXPECT_TRUE(r->type == REDIS_REPLY_STRING && std::string(r->str, r->len) == big);
  }
}

// A long argument is sent from where it stands: the server reads it whole, in order.
TEST(Wire, ALongArgumentArrivesWhole) {
  const std::string big = payload(200003);
  ScriptedServer server({line("+PONG"), line(":1")});
  ASSERT_GT(server.port(), 0);
  ServerAddress addr;
  addr.port = server.port();
  Link link;
  std::string why;
  ASSERT_EQ(link.open(addr, why), 0) << why;
  // The scripted server parses the command by its lengths: a command sent wrong would not be
  // answered (the reply would time out) or be answered out of step.
  Reply r = link.command({"SET", "k", big, "tail"});
  ASSERT_TRUE(r) << link.lastError();
  EXPECT_EQ(r->type, REDIS_REPLY_INTEGER);
}

}  // namespace
