// The JSON writer of rplq's lines: strings and keys read eight bytes at a time while nothing
// needs escaping, so every byte that does is tried at every place of strings of every length
// up to a few words, as a value and as a key, and parsed back.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "qmsg/json.h"

namespace {

using nlohmann::json;

TEST(RplqJsonOut, EveryByteToEscapeAtEveryPlace) {
  struct Special {
    std::string byte;   // what is written
    std::string reads;  // what the parser reads back
  };
  const Special specials[] = {
      {"\"", "\""}, {"\\", "\\"}, {"\n", "\n"}, {std::string(1, '\0'), std::string(1, '\0')},
      {"\x1f", "\x1f"}, {"\x7f", "\x7f"}, {"\xC3\xA9", "\xC3\xA9"}, {"\xFF", "\xEF\xBF\xBD"},
      {" ", " "}, {"~", "~"}};
  for (size_t length = 1; length <= 20; ++length) {
    for (size_t at = 0; at < length; ++at) {
      for (const Special& s : specials) {
        std::string in(length, 'a'), reads(length, 'a');
        in.replace(at, 1, s.byte);
        reads.replace(at, 1, s.reads);
        JsonOut out;
        out.beginObject();
        out.str("v", in);
        out.num(in.c_str(), 7);  // as a key (a zero byte ends a key)
        out.endObject();
        json doc = json::parse(out.str(), nullptr, false);
        ASSERT_FALSE(doc.is_discarded()) << out.str();
        EXPECT_EQ(doc["v"].get<std::string>(), reads) << out.str();
        const std::string key = s.byte[0] == '\0' ? reads.substr(0, at) : reads;
        EXPECT_TRUE(doc.contains(key)) << out.str();
      }
    }
  }
}

TEST(RplqJsonOut, NumbersAsTheirDecimalText) {
  JsonOut out;
  out.beginArray();
  for (int64_t v : {int64_t{0}, int64_t{-1}, int64_t{1234567}, INT64_MIN, INT64_MAX}) out.num(nullptr, v);
  out.unum(nullptr, UINT64_MAX);
  out.endArray();
  EXPECT_EQ(out.str(), "[0,-1,1234567,-9223372036854775808,9223372036854775807,18446744073709551615]");
}

}  // namespace
