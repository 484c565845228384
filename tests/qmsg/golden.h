// Runs encoded messages through the compact decoder the way the read loop does and returns
// the printed text, so that tests compare it byte for byte with the expected lines.
#pragma once

#include <cstdio>
#include <cstdlib>
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
