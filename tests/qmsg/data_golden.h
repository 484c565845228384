// Helpers shared by the data-path golden tests: senders, text filters and the truncation loop.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qmsg/golden.h"
#include "tools/gen/encode_data.h"

// A sender: its byte order and code page.
struct Sender {
  ByteOrder order;
  int32_t ccsid;
};
inline constexpr Sender kLittleUtf8{ByteOrder::Little, 1208};
inline constexpr Sender kBigEbcdic{ByteOrder::Big, 37};

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

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Cuts the message at every length: each cut either fails with a bounded-read report or, where
// only unused trailing bytes were cut, prints exactly what the whole message prints.
// `prepare` runs before each decode (to set up the schema cache).
template <typename Prepare>
void expectTruncationReported(const Bytes& msg, Sender s, Prepare prepare) {
  prepare();
  Decoded whole = decodeAs(msg, s.order, s.ccsid);
  ASSERT_EQ(whole.rc, 0) << whole.reports;
  for (size_t n = 0; n < msg.size(); ++n) {
    prepare();
    Bytes cut(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(n));
    cut.shrink_to_fit();
    Decoded d = decodeAs(cut, s.order, s.ccsid);
    if (d.rc == 0) {
      EXPECT_EQ(withoutLines(d.out, {"**** Message size:"}), withoutLines(whole.out, {"**** Message size:"}))
          << "cut at " << n << " printed something else without a report";
    } else {
      // A bounded read names its field (543); the row walk reports a row that does not fit.
      EXPECT_TRUE(has(d.reports, "543") || has(d.reports, "does not fit")) << "cut at " << n << ": " << d.reports;
    }
  }
}
inline void expectTruncationReported(const Bytes& msg, Sender s) {
  expectTruncationReported(msg, s, [] {});
}
