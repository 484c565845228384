// link.cpp - server lookup (KXSERVER, client configuration file) and the connection: a socket,
// OpenSSL over it for TLS, hiredis for the protocol, and a cluster's redirections.
#include "kx/client/link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "kx/kxc.h"

namespace kxic {
namespace {

// Redirections one command follows before its last answer is taken as it stands.
constexpr int kMaxRedirects = 16;
// A TLS greeting without an answer for this long makes the client ask whether the port
// speaks plain text; the probes of the other protocol wait this long at most.
constexpr int kProbeMs = 250;

bool startsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

int64_t nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
}

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
  if (opt == "insecure") {
    out.insecure = true;
    return true;
  }
  struct Text {
    std::string_view name;
    std::string ServerAddress::*field;
  };
  static const Text texts[] = {{"password=", &ServerAddress::password},
                               {"user=", &ServerAddress::user},
                               {"ca=", &ServerAddress::ca},
                               {"cert=", &ServerAddress::cert},
                               {"key=", &ServerAddress::key},
                               {"servername=", &ServerAddress::serverName}};
  for (const Text& t : texts) {
    if (startsWith(opt, t.name)) {
      out.*t.field = std::string(opt.substr(t.name.size()));
      return !(out.*t.field).empty() || t.field == &ServerAddress::password;
    }
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

bool wantsTls(const ServerAddress& a) {
  return !a.ca.empty() || !a.cert.empty() || !a.key.empty() || !a.serverName.empty() ||
         a.insecure;
}

std::string hostPort(const std::string& host, int port) {
  bool v6 = host.find(':') != std::string::npos;
  return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

// The OpenSSL errors queued on this thread, as one line; the queue is emptied.
std::string sslErrors() {
  std::string out;
  while (unsigned long e = ERR_get_error()) {
    char buf[256];
    ERR_error_string_n(e, buf, sizeof buf);
    const char* reason = ERR_reason_error_string(e);
    if (!out.empty()) out += "; ";
    out += reason ? reason : buf;
  }
  return out.empty() ? "no detail from the TLS library" : out;
}

bool isIpAddress(const std::string& s) {
  unsigned char buf[sizeof(in6_addr)];
  return inet_pton(AF_INET, s.c_str(), buf) == 1 || inet_pton(AF_INET6, s.c_str(), buf) == 1;
}

// A TLS record starts with one of these content types; a Redis reply never does.
bool tlsRecordByte(int b) { return b >= 0x14 && b <= 0x17; }

// Notes the first byte the server sends through a TLS session's socket.
long firstByteSeen(BIO* b, int oper, const char* argp, size_t, int, long, int ret,
                   size_t* processed) {
  if (oper == (BIO_CB_READ | BIO_CB_RETURN) && ret > 0 && processed && *processed > 0) {
    int* first = reinterpret_cast<int*>(BIO_get_callback_arg(b));
    if (first && *first < 0) *first = static_cast<unsigned char>(argp[0]);
  }
  return ret;
}

std::atomic<bool> gInsecureSaid{false};

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
    const char* tls = getenv("KXTLS");
    std::string_view t = tls ? tls : "";
    if (t != "" && t != "0" && t != "1") {
      why = "KXTLS \"" + std::string(t) + "\" is not 1 (TLS) or 0 (plain text)";
      return KXRC_Q_MGR_NAME_ERROR;
    }
    out.tls = t == "1";
    struct {
      const char* name;
      std::string* field;
    } vars[] = {{"KXTLSCA", &out.ca}, {"KXTLSCERT", &out.cert}, {"KXTLSKEY", &out.key},
                {"KXTLSSERVERNAME", &out.serverName}};
    for (auto& v : vars)
      if (const char* s = getenv(v.name)) *v.field = s;
    out.origin = "KXSERVER";
    if (!out.tls && wantsTls(out)) {
      why = "KXTLSCA, KXTLSCERT, KXTLSKEY and KXTLSSERVERNAME are for TLS: set KXTLS=1 as well";
      return KXRC_Q_MGR_NAME_ERROR;
    }
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
    if (!entry.tls && wantsTls(entry)) {
      why = entry.origin + ": ca=, cert=, key=, servername= and insecure are for TLS: add tls";
      return KXRC_Q_MGR_NAME_ERROR;
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
      startsWith(s, "READONLY") || startsWith(s, "TRYAGAIN") || startsWith(s, "CLUSTERDOWN") ||
      startsWith(s, "MOVED") || startsWith(s, "ASK"))
    return KXRC_Q_MGR_NOT_AVAILABLE;
  if (startsWith(s, "OOM")) return KXRC_RESOURCE_PROBLEM;
  return KXRC_UNEXPECTED_ERROR;
}

// ---- One connection to one node -----------------------------------------------------------------

bool Wire::fail(const std::string& why) {
  lastError_ = why;
  close();
  return false;
}

void Wire::close() {
  if (ssl_) {
    SSL* ssl = static_cast<SSL*>(ssl_);
    SSL_free(ssl);
    ssl_ = nullptr;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (reader_) redisReaderFree(reader_);
  reader_ = nullptr;
  resetScan();
}

void Wire::resetScan() {
  scan_ = Scan::Line;
  line_.clear();
  left_ = 0;
  sink_ = nullptr;
  sunk_ = 0;
}

// Waits until the socket is ready for `events` or the deadline passes.
static bool waitFor(int fd, short events, int64_t deadline) {
  for (;;) {
    int64_t left = deadline - nowMs();
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    int n = poll(&p, 1, int(std::min<int64_t>(left, 1 << 30)));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

// A connected non-blocking socket to host:port, or -1 with `failure`.
static int dial(const std::string& host, int port, int64_t deadline, int timeoutMs,
                std::string& failure) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  std::string service = std::to_string(port);
  int gai = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
  if (gai != 0) {
    failure = gai_strerror(gai);
    return -1;
  }
  failure = "no address";
  int out = -1;
  for (addrinfo* ai = list; ai && out < 0; ai = ai->ai_next) {
    int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
      failure = strerror(errno);
      continue;
    }
    int rc = connect(fd, ai->ai_addr, ai->ai_addrlen);
    if (rc != 0 && errno == EINPROGRESS) {
      if (!waitFor(fd, POLLOUT, deadline)) {
        failure = "no answer within " + std::to_string(timeoutMs) + " ms";
        ::close(fd);
        continue;
      }
      int err = 0;
      socklen_t len = sizeof err;
      getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
      rc = err ? -1 : 0;
      errno = err;
    }
    if (rc != 0) {
      failure = strerror(errno);
      ::close(fd);
      continue;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    out = fd;
  }
  freeaddrinfo(list);
  return out;
}

// A server that waits for more of a TLS greeting in silence may be a plain-text server
// taking it for the start of a command: true when host:port answers a plain PING.
static bool answersPlainText(const std::string& host, int port) {
  std::string failure;
  int64_t deadline = nowMs() + kProbeMs;
  int fd = dial(host, port, deadline, kProbeMs, failure);
  if (fd < 0) return false;
  char c = 0;
  bool plain = send(fd, "PING\r\n", 6, MSG_NOSIGNAL) == 6 && waitFor(fd, POLLIN, deadline) &&
               recv(fd, &c, 1, 0) == 1 && (c == '+' || c == '-');
  ::close(fd);
  return plain;
}

// A server that closes a plain-text connection without a word may want TLS: true when
// host:port answers a TLS greeting.
static bool answersTls(const std::string& host, int port) {
  std::string failure;
  int64_t deadline = nowMs() + kProbeMs;
  int fd = dial(host, port, deadline, kProbeMs, failure);
  if (fd < 0) return false;
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL* ssl = ctx ? SSL_new(ctx) : nullptr;
  SSL_CTX_free(ctx);
  int first = -1;
  if (ssl) {
    SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
    SSL_set_fd(ssl, fd);
    BIO* rbio = SSL_get_rbio(ssl);
    BIO_set_callback_ex(rbio, firstByteSeen);
    BIO_set_callback_arg(rbio, reinterpret_cast<char*>(&first));
    for (;;) {
      int rc = SSL_connect(ssl);
      if (rc == 1 || first >= 0) break;
      int err = SSL_get_error(ssl, rc);
      if ((err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) ||
          !waitFor(fd, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline))
        break;
    }
    SSL_free(ssl);
  }
  ERR_clear_error();
  ::close(fd);
  return first == 0x16;
}

int32_t Wire::open(const ServerAddress& addr, const std::string& host, int port,
                   std::string& why) {
  close();
  host_ = host;
  port_ = port;
  timeoutMs_ = addr.timeoutMs;
  tls_ = addr.tls;
  firstByte_ = -1;
  lastError_.clear();
  std::string where = hostPort(host, port) + " (" + addr.origin + ")";
  int64_t deadline = nowMs() + addr.timeoutMs;

  std::string failure;
  fd_ = dial(host, port, deadline, addr.timeoutMs, failure);
  if (fd_ < 0) {
    why = "cannot reach Redis server " + where + ": " + failure;
    return KXRC_Q_MGR_NOT_AVAILABLE;
  }
  NoSigpipe guard;
  if (tls_) {
    if (int32_t r = handshake(addr, where, deadline, why)) {
      close();
      return r;
    }
  }
  reader_ = redisReaderCreate();
  if (!reader_) {
    why = "out of memory";
    close();
    return KXRC_RESOURCE_PROBLEM;
  }
  std::vector<std::vector<std::string_view>> login;
  if (addr.password.empty())
    login.push_back({"PING"});
  else if (addr.user.empty())
    login.push_back({"AUTH", addr.password});
  else
    login.push_back({"AUTH", addr.user, addr.password});
  std::vector<Reply> rs = exchange(login, 0);
  if (rs.empty()) {
    if (!tls_ && tlsRecordByte(firstByte_)) {
      why = "the Redis server " + where +
            " answered in TLS but TLS is not asked for: add tls to its line (KXTLS=1 with "
            "KXSERVER)";
      return kReasonTlsFailed;
    }
    if (tls_) {
      // The server checks a client certificate after the client's side of the handshake:
      // a refusal comes as an alert, or as the connection closed, at the first read.
      why = "the Redis server " + where + " refused the TLS session: " + lastError_;
      if (!tlsError_ || lastError_.find("certificate") != std::string::npos ||
          lastError_.find("unknown ca") != std::string::npos)
        why += " (a client certificate it trusts is given by cert= and key=, or KXTLSCERT and "
               "KXTLSKEY)";
      return kReasonTlsFailed;
    }
    if (!tls_ && firstByte_ < 0 && answersTls(host, port)) {
      why = "the Redis server " + where +
            " speaks TLS but TLS is not asked for: add tls to its line (KXTLS=1 with KXSERVER)";
      return kReasonTlsFailed;
    }
    if (!tls_ && firstByte_ < 0)
      why = "the Redis server " + where + " closed the connection without a word: " + lastError_;
    else
      why = "Redis server " + where + " closed the connection: " + lastError_;
    return KXRC_Q_MGR_NOT_AVAILABLE;
  }
  const Reply& r = rs.front();
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

int32_t Wire::handshake(const ServerAddress& addr, const std::string& where, int64_t deadline,
                        std::string& why) {
  ERR_clear_error();
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  if (!ctx) {
    why = "cannot set up TLS: " + sslErrors();
    return kReasonTlsFailed;
  }
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  auto setupFailed = [&](const std::string& what) {
    why = what + " for " + where + ": " + sslErrors();
    SSL_CTX_free(ctx);
    return kReasonTlsFailed;
  };
  if (!addr.insecure) {
    if (!addr.ca.empty()) {
      if (SSL_CTX_load_verify_locations(ctx, addr.ca.c_str(), nullptr) != 1)
        return setupFailed("cannot read the CA certificates in " + addr.ca);
    } else if (SSL_CTX_set_default_verify_paths(ctx) != 1) {
      return setupFailed("cannot read the system's CA certificates");
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  } else {
    SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    if (!gInsecureSaid.exchange(true))
      fprintf(stderr,
              "kxic: warning: the certificate of the Redis server %s is not verified "
              "(insecure): anyone on the path can pose as the server\n",
              where.c_str());
  }
  if (!addr.cert.empty()) {
    if (SSL_CTX_use_certificate_chain_file(ctx, addr.cert.c_str()) != 1)
      return setupFailed("cannot read the client certificate in " + addr.cert);
    const std::string& key = addr.key.empty() ? addr.cert : addr.key;
    if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1)
      return setupFailed("cannot use the client key in " + key + " with the certificate in " +
                         addr.cert);
    if (SSL_CTX_check_private_key(ctx) != 1)
      return setupFailed("the key in " + key + " does not belong to the certificate in " +
                         addr.cert);
  } else if (!addr.key.empty()) {
    why = "a client key (" + addr.key + ") is given without its certificate for " + where;
    SSL_CTX_free(ctx);
    return kReasonTlsFailed;
  }
  SSL* ssl = SSL_new(ctx);
  SSL_CTX_free(ctx);  // the session holds its own reference
  if (!ssl) {
    why = "cannot set up TLS: " + sslErrors();
    return kReasonTlsFailed;
  }
  ssl_ = ssl;
  const std::string& name = addr.serverName.empty() ? host_ : addr.serverName;
  if (!addr.insecure) {
    if (isIpAddress(name)) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
    } else {
      SSL_set1_host(ssl, name.c_str());
    }
  }
  if (!isIpAddress(name)) SSL_set_tlsext_host_name(ssl, name.c_str());
  SSL_set_fd(ssl, fd_);
  BIO* rbio = SSL_get_rbio(ssl);
  BIO_set_callback_ex(rbio, firstByteSeen);
  BIO_set_callback_arg(rbio, reinterpret_cast<char*>(&firstByte_));
  bool probed = false;
  for (;;) {
    int rc = SSL_connect(ssl);
    if (rc == 1) break;
    int err = SSL_get_error(ssl, rc);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
      short want = err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
      if (!probed && firstByte_ < 0 && want == POLLIN) {
        probed = true;
        if (waitFor(fd_, want, std::min(deadline, nowMs() + kProbeMs))) continue;
        if (answersPlainText(host_, port_)) {
          why = "the Redis server " + where +
                " answered in plain text, not TLS: name its TLS port, or drop tls from its line";
          return kReasonTlsFailed;
        }
      }
      if (waitFor(fd_, want, deadline)) continue;
      why = "no TLS answer from the Redis server " + where + " within " +
            std::to_string(addr.timeoutMs) + " ms";
      return KXRC_Q_MGR_NOT_AVAILABLE;
    }
    long verify = SSL_get_verify_result(ssl);
    std::string detail = err == SSL_ERROR_SSL ? sslErrors() : "connection closed";
    ERR_clear_error();
    if (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH) {
      why = "the certificate of the Redis server " + where + " does not name \"" + name +
            "\" (servername= names the name it must carry)";
    } else if (verify != X509_V_OK) {
      why = "the certificate of the Redis server " + where + " does not verify: " +
            X509_verify_cert_error_string(verify) + " (CA certificates: " +
            (addr.ca.empty() ? std::string("the system's store") : addr.ca) + ")";
    } else if (firstByte_ >= 0 && !tlsRecordByte(firstByte_)) {
      why = "the Redis server " + where +
            " answered in plain text, not TLS: name its TLS port, or drop tls from its line";
    } else {
      why = "TLS handshake with the Redis server " + where + " failed: " + detail;
    }
    return kReasonTlsFailed;
  }
  return 0;
}

bool Wire::sendAll(const char* bytes, size_t size, int64_t deadline) {
  size_t done = 0;
  SSL* ssl = static_cast<SSL*>(ssl_);
  while (done < size) {
    if (ssl) {
      ERR_clear_error();
      size_t chunk = std::min<size_t>(size - done, 1 << 30);
      int n = SSL_write(ssl, bytes + done, int(chunk));
      if (n > 0) {
        done += size_t(n);
        continue;
      }
      int err = SSL_get_error(ssl, n);
      if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
        if (waitFor(fd_, err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline)) continue;
        return fail("the server took nothing within " + std::to_string(timeoutMs_) + " ms");
      }
      tlsError_ = err == SSL_ERROR_SSL;
      return fail(err == SSL_ERROR_SSL ? sslErrors() : "connection lost");
    }
    ssize_t n = send(fd_, bytes + done, size - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += size_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (waitFor(fd_, POLLOUT, deadline)) continue;
      return fail("the server took nothing within " + std::to_string(timeoutMs_) + " ms");
    }
    return fail(n < 0 ? strerror(errno) : "connection lost");
  }
  return true;
}

// Returns 1 after feeding bytes to the reader, 0 when nothing had arrived (wait not set), -1
// on a failure (the connection is closed).
int Wire::readSome(int64_t deadline, bool wait) {
  char buf[64 * 1024];
  SSL* ssl = static_cast<SSL*>(ssl_);
  for (;;) {
    ssize_t n;
    short want = POLLIN;
    if (ssl) {
      ERR_clear_error();
      int r = SSL_read(ssl, buf, sizeof buf);
      if (r > 0) {
        // A record holds at most 16 KiB: take in the ones already decrypted or waiting on
        // the socket too, so that a long reply reaches the parser in few pieces.
        n = r;
        while (size_t(n) < sizeof buf) {
          int more = SSL_read(ssl, buf + n, int(sizeof buf - size_t(n)));
          if (more <= 0) {
            ERR_clear_error();  // WANT_READ, or a failure the next read reports again
            break;
          }
          n += more;
        }
      } else {
        int err = SSL_get_error(ssl, r);
        if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
          want = err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
          n = -2;
        } else if (err == SSL_ERROR_ZERO_RETURN) {
          fail("the server ended the TLS session");
          return -1;
        } else if (err == SSL_ERROR_SSL) {
          tlsError_ = true;
          fail(sslErrors());
          return -1;
        } else {
          fail(r == 0 || errno == 0 ? "connection closed by the server" : strerror(errno));
          return -1;
        }
      }
    } else {
      n = recv(fd_, buf, sizeof buf, 0);
      if (n == 0) {
        fail("connection closed by the server");
        return -1;
      }
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
          fail(strerror(errno));
          return -1;
        }
        n = -2;
      } else if (firstByte_ < 0) {
        firstByte_ = static_cast<unsigned char>(buf[0]);
        if (tlsRecordByte(firstByte_)) {
          fail("the server answered in TLS");
          return -1;
        }
      }
    }
    if (n == -2) {
      if (!wait) return 0;
      if (waitFor(fd_, want, deadline)) continue;
      fail("no reply within " + std::to_string(timeoutMs_) + " ms");
      return -1;
    }
    if (!feed(buf, size_t(n))) {
      fail("out of memory");
      return -1;
    }
    return 1;
  }
}

bool Wire::feed(const char* p, size_t size) {
  const char* end = p + size;
  toParser_.clear();
  while (p < end) {
    size_t avail = size_t(end - p);
    if (scan_ == Scan::Payload) {
      size_t k = size_t(std::min<uint64_t>(left_, avail));
      toParser_.append(p, k);
      p += k;
      left_ -= k;
      if (left_ == 0) scan_ = Scan::Line;
      continue;
    }
    if (scan_ == Scan::Sink) {
      size_t k = size_t(std::min<uint64_t>(left_, avail));
      // The payload's bytes go to the buffer as far as it takes them; its CRLF is dropped.
      uint64_t payloadLeft = left_ > 2 ? left_ - 2 : 0;
      size_t data = size_t(std::min<uint64_t>(k, payloadLeft));
      if (sink_ && sunk_ < sink_->capacity) {
        size_t c = std::min(data, sink_->capacity - sunk_);
        memcpy(sink_->buffer + sunk_, p, c);
      }
      sunk_ += data;
      p += k;
      left_ -= k;
      if (left_ == 0) {
        // The parser gets the empty string standing for it only now, so that the reply is not
        // complete before its data is.
        toParser_.append("$0\r\n\r\n");
        scan_ = Scan::Line;
      }
      continue;
    }
    // A line: the type byte, its text or length, CRLF. Bulk strings ('$'; '=' and '!' in the
    // third protocol version) have a payload of that length after it.
    const char* nl = static_cast<const char*>(memchr(p, '\n', avail));
    const char* stop = nl ? nl + 1 : end;
    line_.append(p, size_t(stop - p));
    p = stop;
    if (!nl) break;
    char type = line_[0];
    int64_t n = -1;
    if (type == '$' || type == '=' || type == '!') {
      char* after = nullptr;
      errno = 0;
      long long v = strtoll(line_.c_str() + 1, &after, 10);
      if (errno == 0 && after && *after == '\r') n = v;
    }
    if (n >= 0 && type == '$' && sink_ && !sink_->taken && uint64_t(n) >= sink_->from) {
      sink_->taken = true;
      sink_->length = size_t(n);
      sunk_ = 0;
      scan_ = Scan::Sink;
      left_ = uint64_t(n) + 2;
    } else {
      toParser_.append(line_);
      if (n >= 0) {
        scan_ = Scan::Payload;
        left_ = uint64_t(n) + 2;
      }
    }
    line_.clear();
  }
  return toParser_.empty() ||
         redisReaderFeed(reader_, toParser_.data(), toParser_.size()) == REDIS_OK;
}

std::vector<Reply> Wire::exchange(const std::vector<std::vector<std::string_view>>& commands,
                                  int extraMs, BulkSink* sink) {
  std::vector<Reply> out;
  if (fd_ < 0 || !reader_) {
    if (lastError_.empty()) lastError_ = "not connected";
    return out;
  }
  tlsError_ = false;
  int64_t deadline = nowMs() + timeoutMs_ + extraMs;
  // The commands in the protocol's form; a long argument is sent from where it stands.
  std::string bytes;
  for (const auto& args : commands) {
    bytes += '*';
    bytes += std::to_string(args.size());
    bytes += "\r\n";
    for (std::string_view a : args) {
      bytes += '$';
      bytes += std::to_string(a.size());
      bytes += "\r\n";
      if (a.size() >= kSendInPlaceFrom) {
        if (!sendAll(bytes.data(), bytes.size(), deadline) || !sendAll(a.data(), a.size(), deadline))
          return out;
        bytes.clear();
      } else {
        bytes.append(a);
      }
      bytes += "\r\n";
    }
  }
  if (!sendAll(bytes.data(), bytes.size(), deadline)) return out;
  sink_ = sink;
  if (sink) sink->taken = false;
  struct Unsink {
    BulkSink*& s;
    ~Unsink() { s = nullptr; }
  } unsink{sink_};
  while (out.size() < commands.size()) {
    void* r = nullptr;
    if (redisReaderGetReply(reader_, &r) != REDIS_OK) {
      fail(std::string("unreadable reply: ") + reader_->errstr);
      out.clear();
      return out;
    }
    if (r) {
      out.emplace_back(static_cast<redisReply*>(r));
      continue;
    }
    if (readSome(deadline, true) < 0) {
      out.clear();
      return out;
    }
  }
  return out;
}

bool Wire::drain(std::vector<Reply>& out) {
  if (fd_ < 0 || !reader_) return false;
  for (;;) {
    void* r = nullptr;
    if (redisReaderGetReply(reader_, &r) != REDIS_OK) return fail("unreadable reply");
    if (r) {
      out.emplace_back(static_cast<redisReply*>(r));
      continue;
    }
    int got = readSome(0, false);
    if (got < 0) return false;
    if (got == 0) return true;
  }
}

// ---- The connection to a queue manager, across a cluster's nodes ------------------------------

int32_t Link::open(const ServerAddress& addr, std::string& why) {
  close();
  addr_ = addr;
  NoSigpipe guard;
  return node_.open(addr, addr.host, addr.port, why);
}

void Link::close() {
  node_.close();
  ask_.close();
}

ServerAddress Link::address() const {
  ServerAddress a = addr_;
  if (node_.usable()) {
    a.host = node_.host();
    a.port = node_.port();
  }
  return a;
}

// Points `wire` at the node "host:port" of a redirection (an empty host: the node's own).
bool Link::moveTo(std::string_view target, Wire& wire) {
  size_t colon = target.rfind(':');
  if (colon == std::string_view::npos) {
    lastError_ = "unreadable redirection \"" + std::string(target) + "\"";
    return false;
  }
  std::string host(target.substr(0, colon));
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  if (host.empty()) host = node_.host();
  int port = atoi(std::string(target.substr(colon + 1)).c_str());
  if (wire.usable() && wire.host() == host && wire.port() == port) return true;
  std::string why;
  if (wire.open(addr_, host, port, why) != 0) {
    lastError_ = "redirected to " + hostPort(host, port) + ": " + why;
    return false;
  }
  return true;
}

Reply Link::run(const std::vector<std::string_view>& args, int extraMs, const char* scriptText,
                BulkSink* sink) {
  NoSigpipe guard;
  int64_t giveUp = nowMs() + addr_.timeoutMs + extraMs;
  int redirects = 0;
  int pauseMs = 2;
  bool loaded = false;
  Wire* target = &node_;
  bool asking = false;
  for (;;) {
    std::vector<Reply> rs = asking ? target->exchange({{"ASKING"}, args}, extraMs, sink)
                                   : target->exchange({args}, extraMs, sink);
    if (rs.empty()) {
      lastError_ = target->lastError();
      close();
      return nullptr;
    }
    Reply r = std::move(rs.back());
    if (r->type != REDIS_REPLY_ERROR) return r;
    std::string_view s(r->str, r->len);
    bool moved = startsWith(s, "MOVED ");
    if (moved || startsWith(s, "ASK ")) {
      // "MOVED <slot> <host>:<port>", "ASK <slot> <host>:<port>"
      size_t sp = s.rfind(' ');
      if (++redirects > kMaxRedirects || sp == std::string_view::npos) return r;
      Wire& to = moved ? node_ : ask_;
      if (!moveTo(s.substr(sp + 1), to)) {
        close();
        return nullptr;
      }
      target = &to;
      asking = !moved;
      continue;
    }
    if (startsWith(s, "TRYAGAIN")) {
      // Some of the command's keys have moved to the slot's new node and some not yet: the
      // move ends shortly.
      if (nowMs() + pauseMs >= giveUp) return r;
      std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
      pauseMs = std::min(pauseMs * 2, 50);
      target = &node_;
      asking = false;
      redirects = 0;  // the time limit bounds this loop; MOVED and ASK count afresh
      continue;
    }
    if (scriptText && !loaded && startsWith(s, "NOSCRIPT")) {
      loaded = true;
      std::vector<Reply> l = target->exchange({{"SCRIPT", "LOAD", scriptText}}, 0);
      if (l.empty()) {
        lastError_ = target->lastError();
        close();
        return nullptr;
      }
      if (l.front()->type == REDIS_REPLY_ERROR) return std::move(l.front());
      continue;
    }
    return r;
  }
}

Reply Link::command(const std::vector<std::string_view>& args, const char* scriptText,
                    BulkSink* sink) {
  if (!node_.usable()) {
    if (lastError_.empty()) lastError_ = "not connected";
    return nullptr;
  }
  return run(args, 0, scriptText, sink);
}

Reply Link::commandWithin(const std::vector<std::string_view>& args, int extraMs) {
  if (!node_.usable()) return command(args);
  return run(args, extraMs, nullptr);
}

std::vector<Reply> Link::pipeline(const std::vector<std::vector<std::string_view>>& commands) {
  std::vector<Reply> out;
  if (!node_.usable()) {
    if (lastError_.empty()) lastError_ = "not connected";
    return out;
  }
  {
    NoSigpipe guard;
    out = node_.exchange(commands, 0);
  }
  if (out.empty()) {
    lastError_ = node_.lastError();
    close();
    return out;
  }
  // A command the node sent elsewhere runs again on its own, following the redirection.
  for (size_t i = 0; i < out.size(); ++i) {
    const redisReply* r = out[i].get();
    if (r->type != REDIS_REPLY_ERROR) continue;
    std::string_view s(r->str, r->len);
    if (!startsWith(s, "MOVED ") && !startsWith(s, "ASK ") && !startsWith(s, "TRYAGAIN"))
      continue;
    out[i] = run(commands[i], 0, nullptr);
    if (!out[i]) {
      out.clear();
      return out;
    }
  }
  return out;
}

bool Link::pollMessages(std::vector<std::string>& channels) {
  if (!node_.usable()) return false;
  std::vector<Reply> messages;
  bool ok;
  {
    NoSigpipe guard;
    ok = node_.drain(messages);
  }
  for (const Reply& m : messages) {
    // {"message", channel, payload}
    if (m->type == REDIS_REPLY_ARRAY && m->elements == 3 &&
        m->element[1]->type == REDIS_REPLY_STRING)
      channels.emplace_back(m->element[1]->str, m->element[1]->len);
  }
  if (!ok) {
    lastError_ = node_.lastError();
    close();
  }
  return ok;
}

Reply evalScript(Link& link, Script& script, const std::vector<std::string_view>& keys,
                 const std::vector<std::string_view>& args, BulkSink* sink) {
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
  // A node that does not have the script (restarted, flushed, or another node of a cluster)
  // gets it loaded and runs it again.
  return link.command(argv, script.text, sink);
}

}  // namespace kxic
