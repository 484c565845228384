// tls_test.cpp - TLS to the queue manager's server: the refusals each come at once with their
// own words (a certificate from another CA, another name, plain text on one side), and the
// options that make a connection work. Runs under with-redis.sh --tls, which makes the
// certificates and starts a server with a plain-text port and a TLS port.
#include <cstdlib>
#include <map>
#include <optional>

#include "tests/kxic/kxic_fixture.h"

using namespace kxictest;

namespace {

// The reason of a TLS failure: the connect is not worth retrying.
constexpr int32_t kReasonTlsFailed = 2397;

const char* const kTlsVariables[] = {"KXSERVER", "KXTLS",           "KXTLSCA",     "KXTLSCERT",
                                     "KXTLSKEY", "KXTLSSERVERNAME", "KXCLIENTCONF"};

// Puts the KX* variables back as they were when it was made.
class SavedEnv {
 public:
  SavedEnv() {
    for (const char* v : kTlsVariables)
      if (const char* s = getenv(v)) saved_[v] = s;
  }
  ~SavedEnv() {
    for (const char* v : kTlsVariables) {
      auto it = saved_.find(v);
      if (it == saved_.end())
        unsetenv(v);
      else
        setenv(v, it->second.c_str(), 1);
    }
  }

 private:
  std::map<std::string, std::string> saved_;
};

std::string tlsDir() {
  const char* d = getenv("KXIC_TLS_DIR");
  return d ? d : "";
}

// How a row reaches the server. Paths are in the certificate directory; "-" unsets.
struct Reach {
  std::string port;  // "tls" or "plain"
  std::string tls = "1", ca = "ca.crt", cert = "client.crt", key = "client.key", name = "-";
};

void apply(const Reach& r) {
  const char* port = getenv(r.port == "tls" ? "KXIC_TLS_PORT" : "KXIC_PLAIN_PORT");
  setenv("KXSERVER", ("127.0.0.1:" + std::string(port ? port : "0")).c_str(), 1);
  unsetenv("KXCLIENTCONF");
  auto set = [](const char* var, const std::string& v, bool path) {
    if (v == "-")
      unsetenv(var);
    else
      setenv(var, (path ? tlsDir() + "/" + v : v).c_str(), 1);
  };
  set("KXTLS", r.tls, false);
  set("KXTLSCA", r.ca, true);
  set("KXTLSCERT", r.cert, true);
  set("KXTLSKEY", r.key, true);
  set("KXTLSSERVERNAME", r.name, false);
}

struct Outcome {
  int32_t reason;
  std::string text;
};

// Creates and deletes a queue manager there (the admin functions return the words), and
// connects through the KX API.
Outcome tryServer(KXLONG* connectReason) {
  static int n = 0;
  std::string qm = "TLS" + std::to_string(getpid()) + "_" + std::to_string(++n);
  char msg[512] = "";
  Outcome o{kxmCreateQmgr(qm.c_str(), msg, sizeof msg), msg};
  Result r;
  KXHCONN h = connect(qm.c_str(), &r);
  *connectReason = r.rc;
  if (r.cc == KXCC_OK) disconnect(h);
  if (o.reason == 0) kxmDeleteQmgr(qm.c_str(), msg, sizeof msg);
  return o;
}

class KxicTls : public ::testing::Test {
 protected:
  void SetUp() override {
    if (tlsDir().empty()) GTEST_SKIP() << "run through tests/kxic/with-redis.sh --tls";
  }
  SavedEnv saved_;
};

}  // namespace

TEST_F(KxicTls, EachRefusalComesAtOnceWithItsOwnWords) {
  struct Row {
    const char* what;
    Reach reach;
    int32_t reason;
    const char* words;  // in the text; empty for a success
  };
  const Row rows[] = {
      {"the client's CA and certificate", {"tls"}, 0, ""},
      {"the name localhost, also in the certificate",
       {"tls", "1", "ca.crt", "client.crt", "client.key", "localhost"},
       0,
       ""},
      {"a server certificate from another CA",
       {"tls", "1", "other-ca.crt"},
       kReasonTlsFailed,
       "does not verify"},
      {"another name than the certificate's",
       {"tls", "1", "ca.crt", "client.crt", "client.key", "db.example"},
       kReasonTlsFailed,
       "does not name \"db.example\""},
      {"a plain-text server behind tls", {"plain"}, kReasonTlsFailed, "answered in plain text"},
      {"a TLS server reached without tls",
       {"tls", "-", "-", "-", "-"},
       kReasonTlsFailed,
       "speaks TLS but TLS is not asked for"},
      {"no client certificate",
       {"tls", "1", "ca.crt", "-", "-"},
       kReasonTlsFailed,
       "refused the TLS session"},
      {"a client certificate from another CA",
       {"tls", "1", "ca.crt", "other-client.crt", "other-client.key"},
       kReasonTlsFailed,
       "refused the TLS session"},
      {"a CA file that is not there",
       {"tls", "1", "missing.crt"},
       kReasonTlsFailed,
       "cannot read the CA certificates"},
      {"a key that is not the certificate's",
       {"tls", "1", "ca.crt", "client.crt", "other-client.key"},
       kReasonTlsFailed,
       "cannot use the client key"},
      {"TLS options without KXTLS",
       {"tls", "-", "ca.crt", "-", "-"},
       KXRC_Q_MGR_NAME_ERROR,
       "set KXTLS=1"},
      {"KXTLS neither 0 nor 1", {"tls", "yes"}, KXRC_Q_MGR_NAME_ERROR, "is not 1"},
  };
  for (const Row& row : rows) {
    apply(row.reach);
    KXLONG connectReason = -1;
    Outcome o = tryServer(&connectReason);
    EXPECT_EQ(o.reason, row.reason) << row.what << ": " << o.text;
    EXPECT_EQ(connectReason, row.reason) << row.what;
    if (*row.words) {
      EXPECT_NE(o.text.find(row.words), std::string::npos) << row.what << ": " << o.text;
    } else {
      EXPECT_EQ(o.text, "") << row.what;
    }
  }
}

TEST_F(KxicTls, TheConfigurationLineCarriesTheTlsOptions) {
  std::string d = tlsDir() + "/";
  std::string tlsPort = getenv("KXIC_TLS_PORT");
  std::string server = " 127.0.0.1:" + tlsPort + " ";
  struct Row {
    const char* what;
    std::string options;
    int32_t reason;
    const char* words;
  };
  const Row rows[] = {
      {"every option",
       "tls ca=" + d + "ca.crt cert=" + d + "client.crt key=" + d +
           "client.key servername=localhost",
       0, ""},
      {"the key in the certificate's file", "tls ca=" + d + "ca.crt cert=" + d + "both.pem", 0, ""},
      {"insecure takes any server certificate",
       "tls insecure cert=" + d + "client.crt key=" + d + "client.key", 0, ""},
      {"the system's store does not know the test CA",
       "tls cert=" + d + "client.crt key=" + d + "client.key", kReasonTlsFailed,
       "the system's store"},
      {"ca= without tls", "ca=" + d + "ca.crt", KXRC_Q_MGR_NAME_ERROR, "add tls"},
      {"an empty servername", "tls servername=", KXRC_Q_MGR_NAME_ERROR, "unknown option"},
  };
  {
    std::ofstream both(d + "both.pem");
    both << std::ifstream(d + "client.crt").rdbuf() << std::ifstream(d + "client.key").rdbuf();
  }
  unsetenv("KXSERVER");
  for (const char* v : {"KXTLS", "KXTLSCA", "KXTLSCERT", "KXTLSKEY"}) unsetenv(v);
  std::string conf = d + "client.conf";
  setenv("KXCLIENTCONF", conf.c_str(), 1);
  for (const Row& row : rows) {
    std::ofstream(conf) << "*" << server << row.options << "\n";
    KXLONG connectReason = -1;
    testing::internal::CaptureStderr();
    Outcome o = tryServer(&connectReason);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(o.reason, row.reason) << row.what << ": " << o.text;
    EXPECT_EQ(connectReason, row.reason) << row.what;
    if (*row.words) {
      EXPECT_NE(o.text.find(row.words), std::string::npos) << row.what << ": " << o.text;
      // A failed connect says why on standard error too.
      EXPECT_NE(err.find(row.words), std::string::npos) << row.what << ": " << err;
    }
    // Turning verification off is said on standard error.
    if (row.options.find("insecure") != std::string::npos) {
      EXPECT_NE(err.find("is not verified"), std::string::npos) << err;
    }
  }
}
