// Subscriptions found by the names their schema messages give, whatever those names hold:
// each case puts a schema and a transaction of its subscription on a queue of each sender
// (both byte orders, EBCDIC), then --sub NAME and --table OWNER.NAME must select exactly that
// pair, and the summary must name the subscription as the schema's --json rendering does.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/rplq/programs.h"
#include "tools/gen/encode_data.h"

namespace {

using nlohmann::json;
using rplqtest::bin;
using rplqtest::kSenders;
using rplqtest::QmgrTest;
using rplqtest::quoted;
using rplqtest::Ran;
using rplqtest::run;
using rplqtest::Sender;

struct Case {
  const char* what;
  const char* subname;
  const char* owner;
  const char* table;
  const char* sub;       // --sub as typed
  const char* tableArg;  // --table as typed
  bool cut = false;      // the schema message ends inside its column descriptors
};

const std::vector<Case>& cases() {
  static const std::vector<Case> kCases = {
      {"plain name", "ORDERS0001", "SHOP", "ORDERS", "orders0001", "shop.orders"},
      {"blanks at both ends", "  PADDED SUB  ", "INV ", " STOCK", "padded sub", "INV.STOCK"},
      {"blanks typed around the name", "ITEMS", "SHOP", "ITEMS", " ITEMS ", " SHOP.ITEMS "},
      {"quotes and a backslash", "Q\"U'O\\TE", "O'NEIL", "T\"1", "q\"u'o\\te", "o'neil.t\"1"},
      {"letters beyond ASCII, case folded", "K\xC3\x84SE_\xC3\x9C" "BER", "LAGER", "K\xC3\x84SE",
       "k\xC3\xA4se_\xC3\xBC" "ber", "lager.k\xC3\xA4se"},
      {"a line end and a label inside", "TWO\nschema.sub_id:    1", "A", "B.C",
       "TWO\nschema.sub_id:    1", "a.b.c"},
      {"schema cut short", "CUTSUB", "CUT", "TABLE", "CUTSUB", "CUT.TABLE", true},
  };
  return kCases;
}

constexpr uint32_t kSubBase = 40;

class RplqNames : public QmgrTest {
 protected:
  RplqNames() : QmgrTest("QMN") {}

  // Case i: its schema at position 2i+1, a transaction with one row of it at 2i+2.
  void putCases(const Sender& s) {
    ASSERT_EQ(run(dir_, bin("kxq") + " create-queue QMN " + s.queue).status, 0);
    std::string files;
    for (size_t i = 0; i < cases().size(); ++i) {
      const Case& c = cases()[i];
      const uint32_t sub = kSubBase + static_cast<uint32_t>(i);
      SchemaMsgDef schema;
      schema.subId = sub;
      schema.subname = c.subname;
      schema.srcOwner = c.owner;
      schema.srcName = c.table;
      schema.columns = {{"ORDER_ID", 496, 4, 0}, {"NOTE", 448 | 1, 40, s.ccsid}};
      Bytes first = encodeSchemaMsg(schema, s.order, s.ccsid);
      if (c.cut) first.resize(schemaArrayAt(schema.version) + 6);
      RowDef row;
      row.subId = sub;
      row.keyAfter = std::vector<ColValue>{valInteger(static_cast<int32_t>(1000 + i), s.order)};
      row.colsAfter = std::vector<ColValue>{valVarchar("note", s.ccsid, s.order)};
      TransMsgDef trans;
      trans.rows = {row};
      const Bytes second = encodeTransMsg(trans, s.order, s.ccsid);
      for (const Bytes* msg : {static_cast<const Bytes*>(&first), &second}) {
        const std::string file = dir_ + "/" + s.queue + std::to_string(files.size()) + ".bin";
        std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(msg->data()),
                                                    static_cast<std::streamsize>(msg->size()));
        files += " '" + file + "'";
      }
    }
    const Ran put = run(dir_, bin("kxq") + " put QMN " + s.queue + " --format COMPACT --ccsid " +
                                  std::to_string(s.ccsid) + " --encoding " +
                                  std::to_string(descriptorEncoding(s.order)) + files);
    ASSERT_EQ(put.status, 0) << put.err;
  }

  // The queue positions rplq --json shows with `options`, and its exit status.
  std::set<int64_t> shown(const Sender& s, const std::string& options, int& status) {
    const Ran r = run(dir_, bin("rplq") + " --json " + options + " QMN " + s.queue);
    status = r.status;
    std::set<int64_t> positions;
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) positions.insert(json::parse(line)["kxmd"]["position"].get<int64_t>());
    return positions;
  }
};

TEST_F(RplqNames, SubscriptionsFoundByTheirSchemasNames) {
  for (const Sender& s : kSenders) {
    putCases(s);
    const Ran summary = run(dir_, bin("rplq") + " --summary --json QMN " + s.queue);
    ASSERT_EQ(summary.status, 0) << summary.err;
    const json subs = json::parse(summary.out)["subscriptions"];
    for (size_t i = 0; i < cases().size(); ++i) {
      const Case& c = cases()[i];
      const std::string where = std::string(s.queue) + ": " + c.what;
      const int64_t schemaAt = 2 * static_cast<int64_t>(i) + 1;
      const std::set<int64_t> pair = {schemaAt, schemaAt + 1};
      int status = -1;
      EXPECT_EQ(shown(s, "--sub " + quoted(c.sub), status), c.cut ? std::set<int64_t>{} : pair) << where;
      EXPECT_EQ(status, c.cut ? 1 : 0) << where;
      EXPECT_EQ(shown(s, "--table " + quoted(c.tableArg), status), c.cut ? std::set<int64_t>{} : pair) << where;
      // Both options together, and the subscription's id, select the same.
      EXPECT_EQ(shown(s, "--sub " + quoted(c.sub) + " --table " + quoted(c.tableArg), status),
                c.cut ? std::set<int64_t>{} : pair)
          << where;
      const int64_t sub = kSubBase + static_cast<int64_t>(i);
      EXPECT_EQ(shown(s, "--sub " + std::to_string(sub), status).count(schemaAt + 1), 1u) << where;

      // The summary names the subscription as the schema's rendering does, untrimmed.
      json named;
      for (const json& one : subs)
        if (one["sub_id"] == sub) named = one;
      ASSERT_TRUE(named.is_object()) << where;
      if (c.cut) {
        EXPECT_TRUE(named["subname"].is_null()) << where;
        continue;
      }
      const Ran schema = run(dir_, bin("rplq") + " --json --from " + std::to_string(schemaAt) + " --count 1 QMN " + s.queue);
      const json doc = json::parse(schema.out);
      EXPECT_EQ(doc["subname"], c.subname) << where;
      EXPECT_EQ(named["subname"], doc["subname"]) << where;
      EXPECT_EQ(named["table"], doc["src_owner"].get<std::string>() + "." + doc["src_name"].get<std::string>()) << where;
    }
    // The schema that cannot be read is reported where it is met, and the run goes on.
    const Ran text = run(dir_, bin("rplq") + " --type trans QMN " + s.queue);
    EXPECT_EQ(text.status, 0) << s.queue;
    EXPECT_NE(text.err.find("rplq: message 13: subscription schema not readable, rows of its subscription print "
                            "without column names: "),
              std::string::npos)
        << s.queue << ": " << text.err;
  }
}

}  // namespace
