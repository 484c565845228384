// Runs encoded messages through the compact decoder the way the read loop does and returns
// the printed text, so that tests compare it byte for byte with the expected lines.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "qmsg/compact.h"
#include "qmsg/forms.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"
#include "tools/gen/encode.h"

// Captures what a FILE* stream receives.
class Capture {
 public:
  Capture() : f_(open_memstream(&buf_, &len_)) {}
  ~Capture() { if (f_) std::fclose(f_); std::free(buf_); }
  FILE* file() { return f_; }
  std::string text() { std::fflush(f_); return std::string(buf_, len_); }

 private:
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* f_;
};

// The conversion context of a message sent in `order` from code page `ccsid`, printed to `outCcsid`.
inline encodingInfo senderContext(ByteOrder order, int32_t ccsid, int32_t outCcsid = 1208) {
  encodingInfo enc;
  enc.setup(ccsid);
  enc.flags = order == ByteOrder::Little ? kEncMachineOrder : 0;
  enc.outCcsid = outCcsid;
  return enc;
}

struct Decoded {
  int32_t rc;
  std::string out;      // the formatted lines
  std::string reports;  // failure reports
};

// Decodes one message as the read loop would, with a conversion context for its sender.
inline Decoded decodeAs(std::vector<uint8_t> msg, ByteOrder order, int32_t ccsid,
                        int32_t outCcsid = 1208, bool headerOnly = false) {
  ConvMgr::init();
  static ConvMgr cm(6, "rplqmfmt:processQueue");
  encodingInfo enc = senderContext(order, ccsid, outCcsid);
  Capture out, reports;
  msgLogger* logger = rplLogger();
  if (logger == nullptr) {
    logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    setRplLogger(logger);
  }
  FILE* saved = logger->output();
  logger->setOutput(reports.file());
  int32_t counter = 0;
  int32_t rc = processCompactMsg(msg.data(), msg.size(), "TESTQ", out.file(), &counter, &enc, &cm,
                                 false, false, headerOnly);
  logger->setOutput(saved);
  return {rc, out.text(), reports.text()};
}

// Decodes a writer's message from its own byte order and code page.
inline Decoded decode(const MsgWriter& w, int32_t outCcsid = 1208, bool headerOnly = false) {
  return decodeAs(w.bytes(), w.order(), w.ccsid(), outCcsid, headerOnly);
}

// The banner every compact message starts with, for a message of `length` bytes numbered 1.
inline std::string banner(size_t length) {
  return "\n\n**** Message number: 1\n**** Message size:   " + std::to_string(length + 364) + "\n\n";
}

// The header lines of a message of `type` and `version` from the KXRP family.
inline std::string header(const char* type, int version) {
  return "  qMsgHeader.msgFamily:  KXRP\n  qMsgHeader.msgtype:    " + std::string(type) +
         "\n  qMsgHeader.msgVersion: " + std::to_string(version) + "\n";
}
inline std::string headerLines(const char* type, int version) { return header(type, version); }

// Builds a message for a sender (byte order and code page).
using Encoder = std::function<MsgWriter(ByteOrder, int32_t)>;

// One golden case: a message and the exact text it prints after its banner.
struct GoldenCase {
  const char* name;
  Encoder encode;
  std::string text;
};

// Runs a golden case from a little-endian UTF-8, a big-endian UTF-8 and a big-endian EBCDIC
// sender: each prints exactly `text` after its banner with no report. Then every cut of the
// little-endian message either is reported (a bounded read names its field) or, where only
// bytes nothing prints were cut, prints the same text.
inline void expectGolden(const GoldenCase& c) {
  constexpr std::pair<ByteOrder, int32_t> kSenders[] = {
      {ByteOrder::Little, 1208}, {ByteOrder::Big, 1208}, {ByteOrder::Big, 37}};
  for (auto [order, ccsid] : kSenders) {
    MsgWriter w = c.encode(order, ccsid);
    Decoded d = decode(w);
    EXPECT_EQ(d.rc, 0) << c.name << ", sender CCSID " << ccsid << ": " << d.reports;
    EXPECT_EQ(d.out, banner(w.size()) + c.text) << c.name << ", sender CCSID " << ccsid;
    EXPECT_EQ(d.reports, "") << c.name;
  }
  MsgWriter w = c.encode(ByteOrder::Little, 1208);
  for (size_t n = 0; n < w.size(); ++n) {
    std::vector<uint8_t> cut(w.bytes().begin(), w.bytes().begin() + static_cast<std::ptrdiff_t>(n));
    cut.shrink_to_fit();
    Decoded d = decodeAs(cut, ByteOrder::Little, 1208);
    if (d.rc == 0) {
      EXPECT_EQ(d.out, banner(n) + c.text) << c.name << " cut at " << n;
    } else {
      EXPECT_TRUE(d.reports.find("543") != std::string::npos || d.reports.find("does not fit") != std::string::npos)
          << c.name << " cut at " << n << ": " << d.reports;
    }
  }
}

// The same for a message given by its header lines and body lines.
inline void expectBothSenders(const Encoder& encode, const std::string& head, const std::string& body) {
  expectGolden(GoldenCase{"", encode, head + body});
}