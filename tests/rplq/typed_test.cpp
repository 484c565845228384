// Typed selection over the JSON rendering: values that read a text, rows that match, LSN
// ranges, subscriptions learnt from a schema's text, per-subscription counts.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/rplq/typed.h"

namespace {

using nlohmann::json;

TEST(RplqTyped, ValueReads) {
  struct Row {
    const char* value;  // JSON text
    const char* want;
    bool reads;
  };
  const Row rows[] = {
      {R"("N")", "N", true},
      {R"("N   ")", "N", true},          // CHAR padding
      {R"("N")", "N  ", true},          // blanks typed after the value
      {R"("  N")", "N", false},         // leading blanks count
      {R"("n")", "N", false},           // values keep their case
      {"1000", "1000", true},
      {"1000", "1000.0", false},
      {"-5", "-5", true},
      {"0.1", "0.1", true},
      {R"("1234.50")", "1234.50", true},  // DECIMAL as rendered
      {R"("1234.50")", "1234.5", false},
      {"null", "NULL", true},
      {"null", "null", true},
      {"null", "", false},
      {"true", "true", true},
      {"false", "true", false},
      {R"({"lobDataLen":3,"data":"abc"})", "abc", true},
      {R"({"lobDataLen":3,"data":null})", "NULL", true},
      {"[1,2]", "1", false},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(rplq::valueReads(json::parse(r.value), r.want), r.reads) << r.value << " / " << r.want;
    // The light pass's reading of the same text agrees.
    if (r.value[0] != '{' && r.value[0] != '[') {
      EXPECT_EQ(rplq::renderedValueReads(r.value, r.want), r.reads) << r.value << " / " << r.want;
    }
  }
}

// The rendered text of a value is read as the parsed value is: escapes, numbers the parser
// writes otherwise, integers too long for the short path.
TEST(RplqTyped, RenderedValueReadsAsTheParsedValue) {
  const char* const values[] = {
      R"("a\"b  ")", R"("\u00e9t\u00e9")", "0.10000000000000001", "1e+20", "100",
      "-0.5", "12345678901234567890", "-9223372036854775808", R"("")", R"("  ")"};
  const char* const wants[] = {"a\"b", "été", "0.1", "1e+20", "100", "-0.5",
                               "12345678901234567890", "-9223372036854775808", "", "x"};
  for (const char* v : values)
    for (const char* w : wants)
      EXPECT_EQ(rplq::renderedValueReads(v, w), rplq::valueReads(json::parse(v), w)) << v << " / " << w;
}

const char* const kTransaction = R"({
  "msgtype_code": 128, "commit_LSN": "0000:0000:0000:1234:0000:0000:0000:5600",
  "commit_time": "2025-11-21T04:40:00.125000Z",
  "rows": [
    {"operation": "INSERT", "sub_id": 1, "key_after": {"ORDER_ID": 1000}, "cols_after": {"STATUS": "N"}},
    {"operation": "UPDATE", "sub_id": 1, "key_before": {"ORDER_ID": 1000}, "cols_before": {"STATUS": "N"},
     "key_after": {"ORDER_ID": 1000}, "cols_after": {"STATUS": "S"}},
    {"operation": "DELETE", "sub_id": 2, "key_before": {"ORDER_ID": 7}, "cols_before": {"STATUS": "S  "}},
    {"operation": "KEY UPDATE", "sub_id": 2, "key_before": {"ORDER_ID": 8}, "key_after": {"ORDER_ID": 9}},
    {"operation": "RPLKX_ROWOP_MASSIVE_STMT", "sub_id": 3}
  ]})";

TEST(RplqTyped, MatchingRows) {
  struct Row {
    const char* column;
    const char* value;
    std::set<int64_t> subs;  // empty: any subscription
    std::vector<int> rows;
  };
  const Row rows[] = {
      {"ORDER_ID", "1000", {}, {1, 2}},
      {"order_id", "1000", {}, {1, 2}},   // column names in any case
      {"STATUS", "S", {}, {2, 3}},        // after value of row 2, padded before value of row 3
      {"STATUS", "N", {}, {1, 2}},        // before value of row 2
      {"ORDER_ID", "8", {}, {4}},
      {"ORDER_ID", "9", {}, {4}},
      {"ORDER_ID", "9", {1}, {}},
      {"STATUS", "S", {2}, {3}},
      {"", "", {2, 3}, {3, 4, 5}},        // every row of those subscriptions
      {"NO_SUCH", "1", {}, {}},
      {"operation", "INSERT", {}, {}},    // row header fields are not column values
  };
  const json msg = json::parse(kTransaction);
  for (const Row& r : rows) {
    std::vector<int> got =
        rplq::matchingRows(msg, r.column, r.value, r.subs.empty() ? nullptr : &r.subs);
    EXPECT_EQ(got, r.rows) << r.column << "=" << r.value;
  }
  EXPECT_TRUE(rplq::matchingRows(json::parse(R"({"msgtype_code": 3})"), "A", "1", nullptr).empty());
  EXPECT_TRUE(rplq::ofSubscriptions(msg, {3}));
  EXPECT_FALSE(rplq::ofSubscriptions(msg, {4}));
  EXPECT_TRUE(rplq::ofSubscriptions(json::parse(R"({"sub_id": 4})"), {4}));

  // The one row of a spilled-row message is its row 1.
  const json spilled = json::parse(
      R"({"msgtype_code": 33, "row": {"operation": "INSERT", "sub_id": 2, "key_after": {"ORDER_ID": 8}}})");
  EXPECT_EQ(rplq::matchingRows(spilled, "ORDER_ID", "8", nullptr), std::vector<int>{1});
  EXPECT_TRUE(rplq::matchingRows(spilled, "ORDER_ID", "9", nullptr).empty());
  EXPECT_TRUE(rplq::ofSubscriptions(spilled, {2}));
  EXPECT_FALSE(rplq::ofSubscriptions(spilled, {1}));
}

TEST(RplqTyped, LsnRanges) {
  struct Row {
    const char* text;
    bool ok;
    const char* from;
    const char* to;
  };
  const Row rows[] = {
      {"0000:00AB", true, "0000:00ab", "0000:00ab"},
      {"0000:0001..0000:0009", true, "0000:0001", "0000:0009"},
      {"0000:0001..", true, "0000:0001", ""},
      {"..0000:0009", true, "", "0000:0009"},
      {"..", false, "", ""},
      {"", false, "", ""},
      {"0000:0001..01", false, "", ""},   // ends of different forms cannot be ordered
      {"00g0", false, "", ""},
      {":0001", false, "", ""},
  };
  for (const Row& r : rows) {
    std::string from, to;
    bool ok = rplq::parseLsnRange(r.text, from, to);
    EXPECT_EQ(ok, r.ok) << r.text;
    if (ok && r.ok) {
      EXPECT_EQ(from, r.from) << r.text;
      EXPECT_EQ(to, r.to) << r.text;
    }
  }
}

TEST(RplqTyped, WhereForms) {
  struct Row {
    const char* text;
    bool ok;
    const char* column;
    const char* value;
  };
  const Row rows[] = {
      {"ORDER_ID=1234567", true, "ORDER_ID", "1234567"},
      {"NOTE=a=b", true, "NOTE", "a=b"},
      {"NOTE=", true, "NOTE", ""},
      {" NOTE =x ", true, "NOTE", "x "},
      {"=1", false, "", ""},
      {"ORDER_ID", false, "", ""},
  };
  for (const Row& r : rows) {
    std::string column, value;
    bool ok = rplq::parseWhere(r.text, column, value);
    EXPECT_EQ(ok, r.ok) << r.text;
    if (ok && r.ok) {
      EXPECT_EQ(column, r.column) << r.text;
      EXPECT_EQ(value, r.value) << r.text;
    }
  }
}

TEST(RplqTyped, SubscriptionsByNameAndTable) {
  rplq::SubDirectory dir;
  dir.learn(1, "ORDERS0001", "SHOP", "ORDERS");
  dir.learn(2, "ITEMS", "SHOP", "ITEMS");
  dir.learn(3, "ORDERS_EU", "SHOP", "ORDERS");
  dir.learn(4, "  PADDED  ", "SHOP  ", "  ORDERS ");
  dir.learn(5, "Bestellungen\xc3\x84", "Lager", "Kunden.\xc3\x96st");  // UTF-8: Ä, Ö
  dir.learn(-7, "HIGH BIT", "A", "B");
  struct Row {
    const char* what;
    bool byTable;
    const char* text;
    std::set<int64_t> ids;
  } rows[] = {
      {"name, case ignored", false, "orders0001", {1}},
      {"name padded in the schema", false, "PADDED", {4}},
      {"name padded on the command line", false, " ITEMS ", {2}},
      {"name folded beyond ASCII", false, "BESTELLUNGEN\xc3\xa4", {5}},
      {"name with a blank inside", false, "high bit", {-7}},
      {"part of a name", false, "ORDERS", {}},
      {"table of two subscriptions and a padded one", true, "shop.orders", {1, 3, 4}},
      {"table with a dot in its name, folded", true, "LAGER.KUNDEN.\xc3\xb6ST", {5}},
      {"owner alone", true, "SHOP", {}},
  };
  for (const Row& r : rows)
    EXPECT_EQ(r.byTable ? dir.idsOfTable(r.text) : dir.idsNamed(r.text), r.ids) << r.what;
  // A later schema of the same subscription replaces its names; the table shows them as given.
  dir.learn(2, "ITEMS2", "SHOP", "ITEMS2");
  ASSERT_NE(dir.find(2), nullptr);
  EXPECT_EQ(dir.find(2)->table, "SHOP.ITEMS2");
  EXPECT_EQ(dir.find(4)->table, "SHOP  .  ORDERS ");
  EXPECT_EQ(rplq::tableCell("TWO\nLINES\t"), "TWO?LINES?");
}

TEST(RplqTyped, SummaryBySubscription) {
  rplq::SubSummary summary;
  summary.add(json::parse(kTransaction));
  json later = json::parse(kTransaction);
  later["commit_LSN"] = "0000:0000:0000:1234:0000:0000:0000:5601";
  later["commit_time"] = "2025-11-21T04:41:00.000000Z";
  summary.add(later);
  summary.add(json::parse(R"({"msgtype_code": 3})"));  // no rows: not counted

  rplq::SubDirectory dir;
  dir.learn(1, "S1", "A", "B");
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  summary.writeJson(out, dir);
  std::fclose(out);
  // The member after a comma: `,"subscriptions":[...]`.
  json subs = json::parse("{" + std::string(text + 1, size - 1) + "}").at("subscriptions");
  std::free(text);

  ASSERT_EQ(subs.size(), 3u);
  EXPECT_EQ(subs[0]["sub_id"], 1);
  EXPECT_EQ(subs[0]["table"], "A.B");
  EXPECT_EQ(subs[0]["transactions"], 2);
  EXPECT_EQ(subs[0]["rows"]["insert"], 2);
  EXPECT_EQ(subs[0]["rows"]["update"], 2);
  EXPECT_EQ(subs[0]["first_commit_LSN"], "0000:0000:0000:1234:0000:0000:0000:5600");
  EXPECT_EQ(subs[0]["last_commit_time"], "2025-11-21T04:41:00.000000Z");
  EXPECT_EQ(subs[1]["sub_id"], 2);
  EXPECT_TRUE(subs[1]["table"].is_null());  // no schema met
  EXPECT_EQ(subs[1]["rows"]["delete"], 2);
  EXPECT_EQ(subs[1]["rows"]["update"], 2);  // KEY UPDATE counts as an update
  EXPECT_EQ(subs[2]["rows"]["other"], 2);
}

// A unit of work sent in several messages (a streamed transaction's begin, continuation and
// commit) is one transaction of each subscription it holds rows of; without a unit of work
// each message is one.
TEST(RplqTyped, TransactionsCountOncePerUnitOfWork) {
  struct Message {
    const char* unit;
    std::vector<int64_t> subs;
    bool transaction = true;  // false: a spilled row
  };
  struct Case {
    const char* what;
    std::vector<Message> messages;
    std::map<int64_t, uint64_t> transactions;
  };
  const Case cases[] = {
      {"one message each", {{"0a01", {1}}, {"0a02", {1}}, {"0a03", {2}}}, {{1, 2}, {2, 1}}},
      {"begin, continue, commit", {{"0b01", {4}}, {"0b01", {4}}, {"0b01", {4}}}, {{4, 1}}},
      {"a later message adds a subscription", {{"0c01", {1}}, {"0c01", {1, 2}}}, {{1, 1}, {2, 1}}},
      {"interleaved units", {{"0d01", {1}}, {"0d02", {1}}, {"0d01", {1}}, {"0d02", {1}}}, {{1, 2}}},
      {"no unit of work", {{"", {1}}, {"", {1}}, {"0000", {1}}}, {{1, 3}}},
      {"two rows of one subscription", {{"0e01", {3, 3}}}, {{3, 1}}},
      {"spilled rows", {{"", {5}, false}, {"", {5}, false}}, {{5, 0}}},
      {"a spilled row and a transaction", {{"", {5}, false}, {"0f01", {5}}}, {{5, 1}}},
  };
  for (const Case& c : cases) {
    rplq::SubSummary summary;
    for (const Message& m : c.messages) {
      std::vector<rplq::SubSummary::RowKey> rows;
      for (int64_t sub : m.subs) rows.push_back({sub, "INSERT"});
      summary.add("", "", rows, m.unit, m.transaction);
    }
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    summary.writeJson(out, rplq::SubDirectory{});
    std::fclose(out);
    json subs = json::parse("{" + std::string(text + 1, size - 1) + "}").at("subscriptions");
    std::free(text);
    std::map<int64_t, uint64_t> got;
    for (const json& s : subs) got[s["sub_id"].get<int64_t>()] = s["transactions"].get<uint64_t>();
    EXPECT_EQ(got, c.transactions) << c.what;
  }
}

// The one-pass reading of the rendering counts as the document does.
TEST(RplqTyped, SummaryFromTheTextEqualsTheDocument) {
  auto written = [](const rplq::SubSummary& summary) {
    rplq::SubDirectory dir;
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    summary.writeJson(out, dir);
    std::fclose(out);
    std::string s(text, size);
    std::free(text);
    return s;
  };
  const char* const messages[] = {
      kTransaction,
      R"({"msgtype_code": 3, "sub_id": 9})",
      R"({"rows": [], "commit_LSN": "01"})",
      R"({"commit_time": "2025-01-01T00:00:00.000000Z", "rows": [{"operation": "DELETE", "sub_id": 4,
          "cols_before": {"rows": [{"operation": "INSERT", "sub_id": 5}], "sub_id": 6}}]})",
      // Quotes, brackets and keys inside strings, and an array of objects after the rows.
      R"({"rows": [{"sub_id": 7, "cols_after": {"A": "x\"}],{\"operation\":", "B": "]"},
          "operation": "UPDATE"}], "columns": [{"sub_id": 8, "operation": "INSERT"}]})",
      // A spilled row: its row counted, no transaction.
      R"({"msgtype_code": 33, "row": {"operation": "INSERT", "sub_id": 11,
          "cols_after": {"operation": "DELETE", "sub_id": 12}}})",
  };
  rplq::SubSummary byDocument, byStream;
  for (const char* m : messages) {
    byDocument.add(json::parse(m));
    EXPECT_TRUE(byStream.addRendered(m)) << m;
  }
  EXPECT_EQ(written(byStream), written(byDocument));
  const std::string text = written(byDocument);
  const json subs = json::parse("{" + text.substr(1) + "}").at("subscriptions");
  const json spilledSub = subs.back();
  EXPECT_EQ(spilledSub["sub_id"], 11);
  EXPECT_EQ(spilledSub["transactions"], 0);
  EXPECT_EQ(spilledSub["rows"]["insert"], 1);
  for (const char* bad : {R"({"rows": [)", R"({"a": "b)", "}{", ""})
    EXPECT_FALSE(byStream.addRendered(bad)) << bad;
}

}  // namespace
