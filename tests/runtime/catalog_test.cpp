// Catalog indexing, inserts, severities and the failure report's lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "runtime/catalog.h"

namespace {

struct RecordPtr {
  rplMsgRecord* r;
  ~RecordPtr() { msgLogger::freeRecord(r); }
  rplMsgRecord* operator->() const { return r; }
};

msgLogger* toolLogger() {
  static msgLogger* l = [] {
    msgLogger* m = msgLogger::create(13, 0);
    m->loadCatalog(kRplCatalog);
    return m;
  }();
  return l;
}

// Runs f with the logger writing into a temporary file and returns what was written.
template <typename F>
std::string captured(msgLogger* l, F f) {
  FILE* tmp = tmpfile();
  FILE* old = l->output();
  l->setOutput(tmp);
  f();
  l->setOutput(old);
  std::string out;
  rewind(tmp);
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, tmp)) > 0) out.append(buf, n);
  fclose(tmp);
  return out;
}

TEST(Catalog, HoldsEveryIdOnceWithAliasesAndToolMessages) {
  std::set<std::string> ids;
  int aliases = 0;
  for (size_t i = 0; i < kRplCatalogSize; ++i) {
    std::string t = kRplCatalog[i];
    ASSERT_GE(t.size(), 9u) << t;
    EXPECT_TRUE(ids.insert(t.substr(0, 7)).second) << "duplicate " << t;
    if (t[7] == '~') ++aliases;
  }
  EXPECT_EQ(aliases, 74);
  EXPECT_EQ(kRplCatalogSize, 222u);  // 142 own, 74 aliases, 6 issued by the tool
  EXPECT_EQ(kRplCatalog[kRplCatalogSize], nullptr);
  for (const char* id : {"RPL0543", "RPL0584", "RPL0585", "RPL0586", "RPL0587", "RPL0589",
                         "RPL8999", "RPL9005", "RPL7908"})
    EXPECT_TRUE(ids.count(id)) << id;
  EXPECT_STREQ(kRplCatalog[kRplCatalogSize - 1 - 0], "RPL7908I  \"$1\" : \"$2\" : The program is in the phase \"$3\".");
}

TEST(Catalog, AliasIsShownUnderItsPublishedId) {
  RecordPtr r{toolLogger()->getRplMsg(9005, "fn", {"Q1", "COL", "TAB"})};
  ASSERT_NE(r.r, nullptr);
  EXPECT_EQ(r->number, 9005);
  EXPECT_EQ(r->severity, 'E');
  EXPECT_STREQ(r->text,
               "RPL0576E  \"rplqmfmt\" : \"fn\" : The program cannot access the Velora KX queue "
               "\"Q1\". The queue name was specified in column \"COL\" of control table \"TAB\".");
  EXPECT_STREQ(r->eyeCatcher, "RplOLE:");
  EXPECT_STREQ(r->program, "rplqmfmt");
}

TEST(Catalog, SeverityLetterIsTakenFromTheIdAndUpperCased) {
  const char* const texts[] = {"RPL0100e  lower error", "RPL0101w  lower warning",
                               "RPL0102i  lower info",  "RPL0103D  diag",
                               "RPL0104X  other",       "RPL0105", nullptr};
  msgLogger* l = msgLogger::create(13, 0);
  l->loadCatalog(texts);
  struct Case { int32_t n; char sev; const char* text; };
  for (const Case& c : {Case{100, 'E', "RPL0100E  lower error"}, Case{101, 'W', "RPL0101W  lower warning"},
                        Case{102, 'I', "RPL0102I  lower info"}, Case{103, 'D', "RPL0103D  diag"},
                        Case{104, 'D', "RPL0104X  other"}}) {
    RecordPtr r{l->getRplMsg(c.n, "f", {})};
    EXPECT_EQ(r->severity, c.sev) << c.n;
    EXPECT_STREQ(r->text, c.text);
  }
  // A number with no text: the placeholder has no id, so no severity.
  RecordPtr missing{l->getRplMsg(4242, "f", {})};
  EXPECT_EQ(missing->severity, ' ');
  delete l;
}

TEST(Catalog, NumbersZeroAndOutOfRangeAreNeverIndexed) {
  const char* const texts[] = {"RPL0000E  zero", "RPL9999E  nine", "RPLx123E  bad", "XPL0001E  no",
                               "RPL0001E  one", "RPL9998W  last", nullptr};
  msgLogger* l = msgLogger::create(13, 0);
  l->loadCatalog(texts);
  for (int32_t n : {0, 9999}) {
    RecordPtr r{l->getRplMsg(n, "f", {})};
    EXPECT_EQ(std::strstr(r->text, "zero"), nullptr);
    EXPECT_EQ(std::strstr(r->text, "nine"), nullptr);
    EXPECT_EQ(r->severity, ' ');
  }
  RecordPtr one{l->getRplMsg(1, "f", {})};
  EXPECT_STREQ(one->text, "RPL0001E  one");
  RecordPtr last{l->getRplMsg(9998, "f", {})};
  EXPECT_STREQ(last->text, "RPL9998W  last");
  // 101 shares bucket 1 with 1 but is a different key.
  RecordPtr other{l->getRplMsg(101, "f", {})};
  EXPECT_EQ(std::strstr(other->text, "one"), nullptr);
  delete l;
}

TEST(Catalog, InsertsOneToNine) {
  const char* const texts[] = {"RPL0200I $1|$2|$3|$4|$5|$6|$7|$8|$9|$0|$", nullptr};
  msgLogger* l = msgLogger::create(13, 0);
  l->loadCatalog(texts);
  RecordPtr all{l->getRplMsg(200, "func", {"a", "b", "c", "d", "e", "f", "g", "extra"})};
  EXPECT_STREQ(all->text, "RPL0200I rplqmfmt|func|a|b|c|d|e|f|g|$0|$");
  RecordPtr few{l->getRplMsg(200, "func", {"a", nullptr})};
  EXPECT_STREQ(few->text, "RPL0200I rplqmfmt|func|a|||||||$0|$");
  // The text buffer bounds the result.
  RecordPtr small{l->getRplMsg(200, "func", {"a"}, 20)};
  EXPECT_EQ(std::strlen(small->text), 19u);
  delete l;
}

TEST(Catalog, FailureReportIssuesStepFunctionCodeAndText) {
  msgLogger* l = toolLogger();
  msgLogger* before = rplLogger();
  setRplLogger(l);
  std::string out = captured(l, [] {
    reportFailure("rplqmfmt:main", "KXCONN", -1, "cc=2, rc=2059");
    reportFailuref("qMsgHeader::printMe", "ConvMgr::cpcvc", 5001, "Cannot convert %s", "colName");
    reportFailure("s", "f", 0);
    reportShortRead(8, "qTransMsg.numRows at 12");
  });
  setRplLogger(before);
  // Drop the time stamps.
  std::string lines;
  size_t at = 0;
  while (at < out.size()) {
    size_t end = out.find('\n', at);
    std::string line = out.substr(at, end - at);
    lines += line.substr(line.find(' ') + 1) + "\n";
    at = end + 1;
  }
  EXPECT_EQ(lines,
            "rplqmfmt RPL0589E \"rplqmfmt:main\" : \"KXCONN\" : The step failed with return code \"-1\".\n"
            "rplqmfmt RPL8999D cc=2, rc=2059\n"
            "rplqmfmt RPL0589E \"qMsgHeader::printMe\" : \"ConvMgr::cpcvc\" : The step failed with return code \"5001\".\n"
            "rplqmfmt RPL8999D Cannot convert colName\n"
            "rplqmfmt RPL0589E \"s\" : \"f\" : The step failed with return code \"0\".\n"
            "rplqmfmt RPL0543E \"rplqmfmt\" : \"boundedRead\" : The message is shorter than the read "
            "\"qTransMsg.numRows at 12\" needs: \"8\" bytes are wanted but fewer are left. The rest of "
            "this message is not printed.\n");
  // The time stamp form: 2026-11-21-10.01.02.123456
  ASSERT_GE(out.size(), 26u);
  EXPECT_EQ(out[4], '-');
  EXPECT_EQ(out[10], '-');
  EXPECT_EQ(out[13], '.');
  EXPECT_EQ(out[19], '.');
  EXPECT_EQ(out[26], ' ');
}

}  // namespace
