// rplq's command line and the value forms of its options, as table rows.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tools/rplq/options.h"

namespace {

using rplq::Micros;
using rplq::Options;

// Parses the words after the program name; returns the error ("" when accepted).
std::string parse(std::vector<const char*> words, Options& o) {
  words.insert(words.begin(), "rplq");
  return rplq::parseOptions(static_cast<int>(words.size()), words.data(), o);
}

struct TypeRow {
  const char* word;
  int type;  // -1: refused
};

TEST(RplqOptions, TypeNamesAndNumbers) {
  const TypeRow rows[] = {
      {"RPLKX_TRANS_MSG", 128}, {"TRANS_MSG", 128},   {"trans", 128},  {"Trans_Msg", 128},
      {"128", 128},             {"RPLKX_RESTART", 32}, {"restart", 32}, {"subschema", 1},
      {"0", 0},                 {"255", 255},         {"256", -1},     {"-1", -1},
      {"", -1},                 {"TRANSACTION", -1},  {"12a", -1},     {"RPLKX_", -1},
  };
  for (const TypeRow& r : rows) {
    uint8_t type = 0;
    bool ok = rplq::parseTypeName(r.word, type);
    EXPECT_EQ(ok, r.type >= 0) << r.word;
    if (ok) {
      EXPECT_EQ(type, r.type) << r.word;
    }
  }
}

struct TimeRow {
  const char* text;
  bool ok;
  const char* iso;  // the same instant in UTC
};

TEST(RplqOptions, IsoTimes) {
  const TimeRow rows[] = {
      {"2026-11-23", true, "2026-11-23T00:00:00.000000Z"},
      {"2026-11-23T19:40", true, "2026-11-23T19:40:00.000000Z"},
      {"2026-11-23 19:40:26", true, "2026-11-23T19:40:26.000000Z"},
      {"2026-11-23T19:40:26.5Z", true, "2026-11-23T19:40:26.500000Z"},
      {"2026-11-23T19:40:26.123456789Z", true, "2026-11-23T19:40:26.123456Z"},
      {"2026-11-23T19:40:26+02:00", true, "2026-11-23T17:40:26.000000Z"},
      {"2026-11-23T00:30:00-0130", true, "2026-11-23T02:00:00.000000Z"},
      {"2026-11-23T01:00:00+05", true, "2026-11-22T20:00:00.000000Z"},
      {"2024-02-29", true, "2024-02-29T00:00:00.000000Z"},
      {"2026-02-29", false, nullptr},
      {"2026-13-01", false, nullptr},
      {"2026-11-23T24:00", false, nullptr},
      {"2026-11-23T19", false, nullptr},
      {"2026-11-23T19:40:26.", false, nullptr},
      {"2026-11-23X", false, nullptr},
      {"yesterday", false, nullptr},
      {"", false, nullptr},
  };
  for (const TimeRow& r : rows) {
    Micros at = 0;
    bool ok = rplq::parseIsoTime(r.text, at);
    EXPECT_EQ(ok, r.ok) << r.text;
    if (ok && r.ok) {
      EXPECT_EQ(rplq::isoTime(at), r.iso) << r.text;
    }
  }
}

TEST(RplqOptions, PutTimeOfDescriptor) {
  struct Row {
    const char* date;
    const char* time;
    bool ok;
    const char* iso;
  };
  const Row rows[] = {
      {"20261123", "19402612", true, "2026-11-23T19:40:26.120000Z"},
      {"19991231", "23595999", true, "1999-12-31T23:59:59.990000Z"},
      {"        ", "        ", false, nullptr},
      {"20261323", "00000000", false, nullptr},
      {"2026112x", "00000000", false, nullptr},
  };
  for (const Row& r : rows) {
    KXMD md = KXMD_DEFAULT;
    std::memcpy(md.PutDate, r.date, 8);
    std::memcpy(md.PutTime, r.time, 8);
    Micros at = 0;
    bool ok = rplq::putTimeOf(md, at);
    EXPECT_EQ(ok, r.ok) << r.date;
    if (ok && r.ok) {
      EXPECT_EQ(rplq::isoTime(at), r.iso) << r.date;
    }
  }
}

TEST(RplqOptions, HexIds) {
  struct Row {
    const char* text;
    bool ok;
    uint8_t first, second, last;
  };
  const Row rows[] = {
      {"00ff", true, 0x00, 0xff, 0},
      {"AbCd", true, 0xab, 0xcd, 0},
      {"414d5120514d31202020202020202020a1b2c3d4e5f60718", true, 0x41, 0x4d, 0x18},
      {"414d5120514d31202020202020202020a1b2c3d4e5f6071800", false, 0, 0, 0},  // 25 bytes
      {"abc", false, 0, 0, 0},
      {"zz", false, 0, 0, 0},
      {"", false, 0, 0, 0},
  };
  for (const Row& r : rows) {
    KXBYTE id[KX_MSG_ID_LENGTH];
    bool ok = rplq::parseHexId(r.text, id, sizeof id);
    EXPECT_EQ(ok, r.ok) << r.text;
    if (ok && r.ok) {
      EXPECT_EQ(id[0], r.first) << r.text;
      EXPECT_EQ(id[1], r.second) << r.text;
      EXPECT_EQ(id[KX_MSG_ID_LENGTH - 1], r.last) << r.text;
    }
  }
}

TEST(RplqOptions, CommandLines) {
  struct Row {
    std::vector<const char*> words;
    const char* error;  // a part of the error, "" when accepted
  };
  const Row rows[] = {
      {{"QM1", "Q1"}, ""},
      {{"--count=5", "QM1", "Q1", "--from", "3"}, ""},
      {{"QM1", "Q1", "-o", "out.txt", "--oenc=IBM037"}, ""},
      {{"--type", "trans,restart,1", "QM1", "Q1"}, ""},
      {{"--", "-QM", "Q1"}, ""},
      {{"--help"}, ""},
      {{"--version"}, ""},
      {{}, "queue manager and the queue are missing"},
      {{"QM1"}, "queue is missing"},
      {{"QM1", "Q1", "Q2"}, "unexpected argument 'Q2'"},
      {{"QM1", "Q1", "--count"}, "needs a value"},
      {{"QM1", "Q1", "--count", "-3"}, "--count takes"},
      {{"QM1", "Q1", "--from=0"}, "--from takes"},
      {{"QM1", "Q1", "--from=1x"}, "--from takes"},
      {{"QM1", "Q1", "--follow=yes"}, "takes no value"},
      {{"QM1", "Q1", "--type=trans,,restart"}, "unknown message type ''"},
      {{"QM1", "Q1", "--since=2026-01-02", "--until=2026-01-01"}, "--since is after --until"},
      {{"QM1", "Q1", "--summary", "--drain"}, "cannot be combined"},
      {{"QM1", "Q1", "--summary", "--follow"}, "cannot be combined"},
      {{"QM1", "Q1", "-o="}, "unknown option -o="},
      {{"QM1", "Q1", "--output="}, "needs a file name"},
      {{"QM1", "Q1", "--oenc", ""}, "needs an encoding name"},
      {{"QM1", "Q1", "-x"}, "unknown option -x"},
      {{"A23456789012345678901234567890123456789012345678X", "Q1"}, "longer than 48"},
  };
  for (const Row& r : rows) {
    Options o;
    std::string err = parse(r.words, o);
    std::string shown;
    for (const char* w : r.words) shown += std::string(w) + " ";
    if (r.error[0] == '\0')
      EXPECT_EQ(err, "") << shown;
    else
      EXPECT_NE(err.find(r.error), std::string::npos) << shown << "-> " << err;
  }
}

TEST(RplqOptions, ValuesLandInTheirFields) {
  Options o;
  ASSERT_EQ(parse({"--count", "7", "--from=12", "--type=trans,32", "--msgid=0a0b", "--since",
                   "2026-11-23T10:00:00+01:00", "--drain", "-o", "x.txt", "QMA", "QB"},
                  o),
            "");
  EXPECT_EQ(o.qmgr, "QMA");
  EXPECT_EQ(o.queue, "QB");
  EXPECT_EQ(o.count, 7);
  EXPECT_EQ(o.from, 12);
  EXPECT_TRUE(o.typeFilter);
  EXPECT_TRUE(o.types.test(128));
  EXPECT_TRUE(o.types.test(32));
  EXPECT_EQ(o.types.count(), 2u);
  EXPECT_TRUE(o.matchMsgId);
  EXPECT_FALSE(o.matchCorrelId);
  EXPECT_EQ(o.msgId[0], 0x0a);
  EXPECT_EQ(o.msgId[1], 0x0b);
  EXPECT_EQ(o.msgId[2], 0x00);
  EXPECT_TRUE(o.hasSince);
  EXPECT_EQ(rplq::isoTime(o.since), "2026-11-23T09:00:00.000000Z");
  EXPECT_TRUE(o.drain);
  EXPECT_EQ(o.outputFile, "x.txt");
}

}  // namespace
