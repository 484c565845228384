// Runs encoded messages through the compact decoder the way the read loop does and returns
// the printed text, so that tests compare it byte for byte with the expected lines.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
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

using Bytes = std::vector<uint8_t>;

// A sender: its byte order and code page.
struct Sender {
  ByteOrder order;
  int32_t ccsid;
};
inline constexpr Sender kLittleUtf8{ByteOrder::Little, 1208};
inline constexpr Sender kBigUtf8{ByteOrder::Big, 1208};
inline constexpr Sender kBigEbcdic{ByteOrder::Big, 37};

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The text without the lines that begin with any of `prefixes`.
inline std::string withoutLines(const std::string& text, std::initializer_list<const char*> prefixes) {
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    end = end == std::string::npos ? text.size() : end + 1;
    std::string line = text.substr(pos, end - pos);
    bool drop = false;
    for (const char* p : prefixes)
      if (line.rfind(p, 0) == 0) drop = true;
    if (!drop) out += line;
    pos = end;
  }
  return out;
}

// Builds a message for a sender (byte order and code page), from a writer or as bytes.
class Encoder {
 public:
  template <class F>
  Encoder(F f) : f_([f](ByteOrder o, int32_t c) { return bytesOf(f(o, c)); }) {}  // NOLINT: implicit on purpose
  Bytes operator()(ByteOrder o, int32_t c) const { return f_(o, c); }

 private:
  static Bytes bytesOf(const MsgWriter& w) { return w.bytes(); }
  static Bytes bytesOf(Bytes b) { return b; }
  std::function<Bytes(ByteOrder, int32_t)> f_;
};

// One golden case: a message and the exact text it prints after its banner.
struct GoldenCase {
  const char* name;
  Encoder encode;
  std::string text = {};
  // The text when it depends on the sender or on the encoded bytes (instead of `text`).
  std::function<std::string(Sender, const Bytes&)> textFor = nullptr;
  // Runs before every decode of the sender's message: the schema cache the message needs.
  std::function<void(Sender)> prepare = nullptr;
  // The text is checked by another case: here only that each sender prints without a report
  // and what every cut does.
  bool cutsOnly = false;
  // Only a little-endian sender's message reads as sent (UTF-8 and EBCDIC senders are run): the
  // message is read as stored, or a count of it is read unswapped, whatever the sender's order.
  bool littleEndianOnly = false;
};

// The text after the banner.
inline std::string afterBanner(const std::string& out) {
  size_t end = out.find("\n\n", 2);
  return end == std::string::npos ? out : out.substr(end + 2);
}

// Runs a golden case from a little-endian UTF-8, a big-endian UTF-8 and a big-endian EBCDIC
// sender: each prints exactly its text after its banner with no report. Then every cut of each
// sender's message either is reported (a bounded read names its field, or the row walk names
// a row that does not fit) or, where only bytes nothing prints were cut, prints the same text.
inline void expectGolden(const GoldenCase& c) {
  constexpr Sender kLittleEbcdic{ByteOrder::Little, 37};
  for (Sender s : {kLittleUtf8, kBigUtf8, kBigEbcdic, kLittleEbcdic}) {
    // An EBCDIC sender in little-endian order stands in for the big-endian ones where only
    // the little-endian order reads as sent.
    if (c.littleEndianOnly ? s.order != ByteOrder::Little : s.ccsid == 37 && s.order == ByteOrder::Little) continue;
    if (c.prepare) c.prepare(s);
    const Bytes msg = c.encode(s.order, s.ccsid);
    Decoded d = decodeAs(msg, s.order, s.ccsid);
    EXPECT_EQ(d.rc, 0) << c.name << ", sender CCSID " << s.ccsid << ": " << d.reports;
    if (!c.cutsOnly) {
      EXPECT_EQ(d.out, banner(msg.size()) + (c.textFor ? c.textFor(s, msg) : c.text)) << c.name << ", sender CCSID " << s.ccsid;
    }
    EXPECT_EQ(d.reports, "") << c.name;
    const std::string whole = afterBanner(d.out);
    for (size_t n = 0; n < msg.size(); ++n) {
      if (c.prepare) c.prepare(s);
      Bytes cut(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(n));
      cut.shrink_to_fit();
      Decoded p = decodeAs(cut, s.order, s.ccsid);
      if (p.rc == 0) {
        EXPECT_EQ(afterBanner(p.out), whole) << c.name << ", sender CCSID " << s.ccsid << ", cut at " << n
                                             << " printed something else without a report";
      } else {
        EXPECT_TRUE(has(p.reports, "543") || has(p.reports, "does not fit"))
            << c.name << ", sender CCSID " << s.ccsid << ", cut at " << n << ": " << p.reports;
      }
    }
  }
}

// The same for a message given by its header lines and body lines.
inline void expectBothSenders(const Encoder& encode, const std::string& head, const std::string& body) {
  expectGolden(GoldenCase{"", encode, head + body});
}
