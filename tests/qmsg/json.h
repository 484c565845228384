// Renders encoded messages as JSON the way an outside caller does and parses the result with a
// real JSON parser, so that tests check keys and typed values, not strings.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "qmsg/json.h"
#include "tests/qmsg/golden.h"

using Json = nlohmann::json;

struct Rendered {
  int32_t rc;
  std::string text;  // the line as written
  Json doc;          // parsed; discarded (is_discarded) when the line is not valid JSON
  std::string reports;
};

// Renders one message from `order` and `ccsid`; the run's output code page is 819 to show
// that text still arrives as UTF-8. With `joinTo`, the message's members are written into an
// object already open and holding that one member (as rplq joins them to the descriptor).
inline Rendered renderAs(std::vector<uint8_t> msg, ByteOrder order, int32_t ccsid, const char* joinTo = nullptr) {
  ConvMgr::init();
  static ConvMgr cm(6, "rplq:render");
  encodingInfo enc = senderContext(order, ccsid, 819);
  msgLogger* logger = rplLogger();
  if (logger == nullptr) {
    logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    setRplLogger(logger);
  }
  Capture reports;
  FILE* saved = logger->output();
  logger->setOutput(reports.file());
  JsonOut out;
  int32_t rc = 0;
  if (joinTo == nullptr) {
    rc = renderCompactJson(msg.data(), msg.size(), enc, cm, out);
  } else {
    out.beginObject();
    out.num(joinTo, 1);
    rc = renderCompactJsonMembers(msg.data(), msg.size(), enc, cm, out);
    out.endLine();
  }
  logger->setOutput(saved);
  Rendered r{rc, std::string(out.str()), Json(), reports.text()};
  r.doc = Json::parse(r.text, nullptr, false);
  return r;
}

// The senders every JSON case runs under.
struct JsonSender {
  ByteOrder order;
  int32_t ccsid;
  const char* tag;
};
inline constexpr JsonSender kJsonSenders[] = {
    {ByteOrder::Little, 1208, "little-endian UTF-8"},
    {ByteOrder::Big, 1208, "big-endian UTF-8"},
    {ByteOrder::Big, 37, "big-endian EBCDIC"},
};

// One case: a message built for a sender, and the members its object must hold (a subset of
// the object: every key of `expected` with the same type and value; nested objects and arrays
// compared whole).
struct JsonCase {
  const char* name;
  std::function<MsgWriter(ByteOrder, int32_t)> encode;
  Json expected;
  bool littleEndianOnly = false;  // a message read as stored: big-endian senders cannot send it
};

// Runs a case under every sender, then cuts the message at every length: each cut still
// renders one valid object, which ends with an "error" naming a field unless the cut only
// removed bytes that nothing reads.
inline void expectJson(const JsonCase& c) {
  for (const JsonSender& s : kJsonSenders) {
    if (c.littleEndianOnly && s.order == ByteOrder::Big) continue;
    MsgWriter w = c.encode(s.order, s.ccsid);
    Rendered r = renderAs(w.bytes(), s.order, s.ccsid);
    ASSERT_FALSE(r.doc.is_discarded()) << c.name << " (" << s.tag << "): " << r.text;
    EXPECT_EQ(r.rc, 0) << c.name << " (" << s.tag << "): " << r.reports;
    EXPECT_EQ(r.text.back(), '\n');
    EXPECT_EQ(r.text.find('\n'), r.text.size() - 1) << "one line per message";
    EXPECT_EQ(r.doc.value("format", 0), kJsonFormatVersion);
    EXPECT_FALSE(r.doc.contains("error")) << c.name << " (" << s.tag << "): " << r.text;
    for (auto it = c.expected.begin(); it != c.expected.end(); ++it) {
      ASSERT_TRUE(r.doc.contains(it.key())) << c.name << " (" << s.tag << ") has no " << it.key() << ": " << r.text;
      EXPECT_EQ(r.doc[it.key()], it.value()) << c.name << " (" << s.tag << ") member " << it.key();
    }
    const std::vector<uint8_t> whole = w.bytes();
    for (size_t n = 0; n < whole.size(); ++n) {
      std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
      cut.shrink_to_fit();
      Rendered t = renderAs(cut, s.order, s.ccsid);
      ASSERT_FALSE(t.doc.is_discarded()) << c.name << " cut at " << n << ": " << t.text;
      if (t.rc != 0) {
        ASSERT_TRUE(t.doc.contains("error")) << c.name << " cut at " << n << ": " << t.text;
        EXPECT_TRUE(t.doc["error"].contains("field")) << c.name << " cut at " << n << ": " << t.text;
      } else {
        EXPECT_EQ(t.doc.dump().size() > 0, true);
      }
    }
  }
}
