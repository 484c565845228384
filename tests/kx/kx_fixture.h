// kx_fixture.h - a private data directory with one queue manager per test, and short helpers.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kx/kxc.h"
#include "kx/kxm_admin.h"

namespace kxtest {

struct Result {
  KXLONG cc = -1;
  KXLONG rc = -1;
};

inline KXHCONN connect(const char* qmgr, Result* r = nullptr) {
  char name[48];
  kxSetName(name, sizeof name, qmgr);
  KXHCONN h = -1;
  Result local;
  Result& res = r ? *r : local;
  KXCONN(name, &h, &res.cc, &res.rc);
  return h;
}

inline KXHOBJ open(KXHCONN h, const char* queue, KXLONG options, Result* r = nullptr) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queue);
  KXHOBJ o = -1;
  Result local;
  Result& res = r ? *r : local;
  KXOPEN(h, &od, options, &o, &res.cc, &res.rc);
  return o;
}

inline Result put(KXHCONN h, KXHOBJ o, const std::string& data, KXLONG pmoOptions = 0,
                  KXMD* mdIn = nullptr) {
  KXMD md = KXMD_DEFAULT;
  if (mdIn) md = *mdIn;
  KXPMO pmo = KXPMO_DEFAULT;
  if (pmoOptions) pmo.Options = pmoOptions;
  Result r;
  KXPUT(h, o, &md, &pmo, KXLONG(data.size()), const_cast<char*>(data.data()), &r.cc, &r.rc);
  if (mdIn) *mdIn = md;
  return r;
}

struct Got {
  Result r;
  KXMD md = KXMD_DEFAULT;
  std::string data;
  KXLONG dataLength = -1;
};

inline Got get(KXHCONN h, KXHOBJ o, KXLONG options, KXLONG bufferLength = 65536,
               KXLONG waitMs = 0) {
  Got g;
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = options;
  gmo.WaitInterval = waitMs;
  std::vector<char> buf(size_t(bufferLength) + 1);
  KXGET(h, o, &g.md, &gmo, bufferLength, buf.data(), &g.dataLength, &g.r.cc, &g.r.rc);
  if (g.r.cc != KXCC_FAILED) g.data.assign(buf.data(), size_t(gmo.ReturnedLength));
  return g;
}

inline KXLONG depth(KXHCONN h, const char* queue) {
  KXHOBJ o = open(h, queue, KXOO_INQUIRE);
  KXLONG sel = KXIA_CURRENT_Q_DEPTH, value = -1;
  Result r;
  KXINQ(h, o, 1, &sel, 1, &value, 0, nullptr, &r.cc, &r.rc);
  KXCLOSE(h, &o, 0, &r.cc, &r.rc);
  return value;
}

inline void disconnect(KXHCONN h) {
  Result r;
  KXDISC(&h, &r.cc, &r.rc);
}

// Each test gets a fresh data directory holding queue manager QM1 with queues Q1 and Q2.
class KxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kxtest.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("KX_DATA_PATH", (dir_ + "/data").c_str(), 1);
    char msg[256];
    ASSERT_EQ(kxmCreateQmgr("QM1", msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue("QM1", "Q1", -1, msg, sizeof msg), 0) << msg;
    ASSERT_EQ(kxmCreateQueue("QM1", "Q2", -1, msg, sizeof msg), 0) << msg;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string dir_;
};

}  // namespace kxtest
