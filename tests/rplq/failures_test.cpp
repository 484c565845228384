// Messages whose values cannot be decoded, put on a queue of the local queue manager: the
// summary (table and JSON) lists exactly the messages whose --json object holds an "error",
// each with the reason that error gives, and --where passes over them without harm.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
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
using rplqtest::Ran;
using rplqtest::run;
using rplqtest::Sender;

// The columns of the orders table: every value form whose reading can fail.
SchemaMsgDef ordersSchema(uint32_t subId, int32_t textCcsid) {
  SchemaMsgDef d;
  d.subId = subId;
  d.subname = "ORDERS" + std::to_string(subId);
  d.nColsInKey = 1;
  d.columns = {
      {"ORDER_ID", 496, 4, 0},
      {"NAME", 452 | 1, 10, textCcsid},
      {"NOTE", 448 | 1, 40, textCcsid},
      {"AMOUNT", 484, 0, 0, 7, 2},
      {"RATE", 480 | 1, 8, 0},
      {"REMARKS", 408 | 1, 1000, textCcsid},
      {"QTY", 500, 2, 0},
      {"TOTAL", 492, 8, 0},
      {"PRICE", 996, 16, 0},
      {"LABEL", 464 | 1, 20, 1200},
  };
  return d;
}

enum Col { kName, kNote, kAmount, kRate, kRemarks, kQty, kTotal, kPrice, kLabel };

std::vector<ColValue> goodCols(const Sender& s) {
  Bytes remark = valText("Deliver to the back door", s.ccsid).data;
  return {valText("N", s.ccsid),
          valVarchar("first", s.ccsid, s.order),
          valDecimal("1234.50", 7, 2),
          valDouble(0.1, s.order),
          valLobRef(1, 6, static_cast<uint32_t>(remark.size()), s.order, remark),
          valSmallint(-3, s.order),
          valBigint(12345678901234LL, s.order),
          valDecfloat("12345", -2, false, 16, s.order),
          valVargraphic("ab", s.order)};
}

ColValue raw(Bytes data) { return ColValue{0, false, std::move(data)}; }

// A u16 count in the sender's order, then the bytes given.
ColValue counted(uint16_t count, const Sender& s, Bytes rest) {
  Bytes b = s.order == ByteOrder::Big ? Bytes{static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)}
                                      : Bytes{static_cast<uint8_t>(count), static_cast<uint8_t>(count >> 8)};
  b.insert(b.end(), rest.begin(), rest.end());
  return raw(b);
}

// Whether the rendering reads the message. A value past the schema's columns is described by
// whatever bytes follow the schema's column array: read or not, as they happen to be.
enum Outcome { kReads, kFails, kEither };

struct Case {
  const char* what;
  // Turns the good row into the case's; the key is the order id.
  std::function<void(RowDef&, const Sender&)> spoil;
  Outcome outcome;
  bool spilled = false;
  bool cut = false;        // the message ends three bytes early
  bool keyCutBefore = false;  // a row whose key is two bytes comes first
};

const std::vector<Case>& cases() {
  static const std::vector<Case> kCases = {
      {"every value readable", [](RowDef&, const Sender&) {}, kReads},
      {"INTEGER key of two bytes", [](RowDef& r, const Sender&) { (*r.keyAfter)[0] = raw({0, 7}); }, kFails},
      {"SMALLINT of one byte", [](RowDef& r, const Sender&) { (*r.colsAfter)[kQty] = raw({7}); }, kFails},
      {"BIGINT of four bytes", [](RowDef& r, const Sender&) { (*r.colsAfter)[kTotal] = raw({0, 0, 0, 7}); }, kFails},
      {"DOUBLE of six bytes", [](RowDef& r, const Sender&) { (*r.colsAfter)[kRate] = raw({1, 2, 3, 4, 5, 6}); }, kFails},
      {"DOUBLE of four bytes (single precision)",
       [](RowDef& r, const Sender& s) { (*r.colsAfter)[kRate] = valFloat(0.5f, s.order); }, kReads},
      {"DECIMAL digit out of range", [](RowDef& r, const Sender&) { (*r.colsAfter)[kAmount] = raw({0x12, 0xA4, 0x50, 0x0C}); }, kFails},
      {"DECIMAL sign in the middle", [](RowDef& r, const Sender&) { (*r.colsAfter)[kAmount] = raw({0x12, 0x3C, 0x50, 0x0C}); }, kFails},
      {"DECIMAL shorter than its precision", [](RowDef& r, const Sender&) { (*r.colsAfter)[kAmount] = raw({0x12, 0x3C}); }, kFails},
      {"DECIMAL negative", [](RowDef& r, const Sender&) { (*r.colsAfter)[kAmount] = raw({0x00, 0x12, 0x34, 0x5D}); }, kReads},
      {"DECFLOAT of five bytes", [](RowDef& r, const Sender&) { (*r.colsAfter)[kPrice] = raw({1, 2, 3, 4, 5}); }, kFails},
      {"VARCHAR count past the value",
       [](RowDef& r, const Sender& s) { (*r.colsAfter)[kNote] = counted(80, s, {0x41, 0x42}); }, kFails},
      {"VARCHAR without its count", [](RowDef& r, const Sender&) { (*r.colsAfter)[kNote] = raw({0x41}); }, kFails},
      {"VARCHAR count filling the value",
       [](RowDef& r, const Sender& s) { (*r.colsAfter)[kNote] = counted(2, s, {0x41, 0x42}); }, kReads},
      {"VARGRAPHIC count past the value",
       [](RowDef& r, const Sender& s) { (*r.colsAfter)[kLabel] = counted(3, s, {0, 0x41, 0, 0x42}); }, kFails},
      {"LOB reference cut short", [](RowDef& r, const Sender&) { (*r.colsAfter)[kRemarks] = raw({0, 0, 0, 1, 0, 6}); }, kFails},
      {"LOB reference without inline data",
       [](RowDef& r, const Sender& s) { (*r.colsAfter)[kRemarks] = valLobRef(2, 6, 500, s.order); }, kReads},
      {"text in a code page without a converter", [](RowDef& r, const Sender&) { r.subId = 2; }, kFails},
      {"NULL in a code page without a converter",
       [](RowDef& r, const Sender&) {
         r.subId = 2;
         (*r.colsAfter)[kName] = marker(kMarkerNull);
         (*r.colsAfter)[kNote] = marker(kMarkerNull);
         (*r.colsAfter)[kRemarks] = marker(kMarkerNull);
       },
       kReads},
      {"more values than the schema has columns",
       [](RowDef& r, const Sender& s) { r.colsAfter->push_back(valInteger(5, s.order)); }, kEither},
      {"spilled row with a DECIMAL digit out of range",
       [](RowDef& r, const Sender&) { (*r.colsAfter)[kAmount] = raw({0x12, 0xA4, 0x50, 0x0C}); }, kFails, true},
      {"spilled row, every value readable", [](RowDef&, const Sender&) {}, kReads, true},
      {"message cut inside its last value", [](RowDef&, const Sender&) {}, kFails, false, true},
      {"a row with an INTEGER key of two bytes before", [](RowDef&, const Sender&) {}, kFails, false, false, true},
  };
  return kCases;
}

constexpr int kOrderBase = 7000;
constexpr int kFirstCase = 3;  // queue position of the first case, after the two schemas

// The reason the summary gives for a failed rendering: the error's text, and the field and
// offset it names (a field of the cached schema has no offset in the message).
std::string reasonOf(const json& error) {
  std::string reason = error.value("text", std::string());
  if (error.contains("offset"))
    reason += " (" + error.value("field", std::string()) + " at offset " +
              std::to_string(error.value("offset", 0)) + ")";
  else if (error.contains("field"))
    reason += " (" + error.value("field", std::string()) + ")";
  return reason;
}

class RplqFailures : public QmgrTest {
 protected:
  RplqFailures() : QmgrTest("QMF") {}

  // Puts the schemas and one message per case on the sender's queue.
  void putCases(const Sender& s) {
    ASSERT_EQ(run(dir_, bin("kxq") + " create-queue QMF " + s.queue).status, 0);
    std::vector<Bytes> msgs = {encodeSchemaMsg(ordersSchema(1, s.ccsid), s.order, s.ccsid),
                               encodeSchemaMsg(ordersSchema(2, 9999), s.order, s.ccsid)};
    int order = kOrderBase;
    for (const Case& c : cases()) {
      RowDef row;
      row.operation = 16;
      row.keyAfter = std::vector<ColValue>{valInteger(order++, s.order)};
      row.colsAfter = goodCols(s);
      c.spoil(row, s);
      Bytes msg;
      if (c.spilled) {
        msg = encodeSpilledRowMsg(9, row, s.order, s.ccsid);
      } else {
        TransMsgDef trans;
        trans.rows = {row};
        if (c.keyCutBefore) {
          RowDef cutKey = row;
          (*cutKey.keyAfter)[0] = raw({0, 7});
          trans.rows.insert(trans.rows.begin(), cutKey);
        }
        msg = encodeTransMsg(trans, s.order, s.ccsid);
      }
      if (c.cut) msg.resize(msg.size() - 3);
      msgs.push_back(msg);
    }
    std::string files;
    for (size_t i = 0; i < msgs.size(); ++i) {
      const std::string file = dir_ + "/" + s.queue + std::to_string(i) + ".bin";
      std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(msgs[i].data()),
                                                  static_cast<std::streamsize>(msgs[i].size()));
      files += " '" + file + "'";
    }
    const Ran put = run(dir_, bin("kxq") + " put QMF " + s.queue + " --format COMPACT --ccsid " +
                                  std::to_string(s.ccsid) + " --encoding " +
                                  std::to_string(descriptorEncoding(s.order)) + files);
    ASSERT_EQ(put.status, 0) << put.err;
  }

  // The reason of each message whose --json object holds an "error", by queue position.
  std::map<int64_t, std::string> renderingErrors(const Sender& s) {
    const Ran all = run(dir_, bin("rplq") + " --json QMF " + s.queue);
    EXPECT_EQ(all.status, 0) << all.err;
    std::map<int64_t, std::string> errors;
    std::istringstream lines(all.out);
    std::string line;
    while (std::getline(lines, line)) {
      const json doc = json::parse(line);
      if (doc.contains("error"))
        errors[doc["kxmd"]["position"].get<int64_t>()] = reasonOf(doc["error"]);
    }
    for (size_t i = 0; i < cases().size(); ++i) {
      if (cases()[i].outcome == kEither) continue;
      EXPECT_EQ(errors.count(kFirstCase + static_cast<int64_t>(i)) != 0, cases()[i].outcome == kFails)
          << s.queue << ": " << cases()[i].what << " (the case is not what it says)";
    }
    return errors;
  }
};

TEST_F(RplqFailures, SummaryListsWhatTheRenderingCannotRead) {
  for (const Sender& s : kSenders) {
    putCases(s);
    const std::string queue = std::string(" QMF ") + s.queue;

    const std::map<int64_t, std::string> errors = renderingErrors(s);

    const Ran summary = run(dir_, bin("rplq") + " --summary --json" + queue);
    ASSERT_EQ(summary.status, 0) << summary.err;
    const json sum = json::parse(summary.out);
    std::map<int64_t, std::string> listed;
    for (const json& f : sum["failures"])
      listed[f["position"].get<int64_t>()] = f["reason"].get<std::string>();
    EXPECT_EQ(listed, errors) << s.queue;
    EXPECT_EQ(sum["decoding_failures"].get<size_t>(), errors.size()) << s.queue;
    // Every row is counted, those of failed messages too (as far as their rendering reads).
    EXPECT_EQ(sum["messages"].get<size_t>(), 2 + cases().size()) << s.queue;

    const Ran table = run(dir_, bin("rplq") + " --summary" + queue);
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_NE(table.out.find("Decoding failures: " + std::to_string(errors.size()) + "\n"), std::string::npos)
        << s.queue;
    std::map<int64_t, std::string> inTable;
    std::istringstream lines(table.out);
    std::string line;
    while (std::getline(lines, line)) {
      long long position = 0;
      char type[64];
      int used = 0;
      if (std::sscanf(line.c_str(), "  position %lld (%63[^)]): %n", &position, type, &used) < 2 || used == 0)
        continue;
      const bool spilled = cases()[static_cast<size_t>(position - kFirstCase)].spilled;
      EXPECT_STREQ(type, spilled ? "RPLKX_SPILLROW" : "RPLKX_TRANS_MSG") << s.queue << ": " << line;
      inTable[position] = line.substr(static_cast<size_t>(used));
    }
    EXPECT_EQ(inTable, errors) << s.queue;
  }
}

// --where reads only the named column's values: a message whose other values fail is still
// found by its key, shown as far as it can be printed and named on standard error; a key that
// cannot be read is not found, and the rows after it are still searched. Nothing ends the run.
TEST_F(RplqFailures, WherePassesOverUnreadableValues) {
  for (const Sender& s : kSenders) {
    putCases(s);
    const std::map<int64_t, std::string> errors = renderingErrors(s);
    for (size_t i = 0; i < cases().size(); ++i) {
      const Case& c = cases()[i];
      const int64_t position = kFirstCase + static_cast<int64_t>(i);
      const bool fails = errors.count(position) != 0;
      const std::string id = std::to_string(kOrderBase + static_cast<int>(i));
      const std::string where = std::string(s.queue) + ": " + c.what;
      const Ran text = run(dir_, bin("rplq") + " --where ORDER_ID=" + id + " QMF " + s.queue);
      const bool keyUnreadable = std::string(c.what) == "INTEGER key of two bytes" || c.cut;
      if (keyUnreadable) {
        EXPECT_EQ(text.status, 1) << where << ": " << text.err;
        continue;
      }
      ASSERT_EQ(text.status, 0) << where << ": " << text.err;
      EXPECT_NE(text.out.find("**** Message number: " + std::to_string(position) + "\n"), std::string::npos) << where;
      const int row = c.keyCutBefore ? 2 : 1;
      EXPECT_NE(text.out.find("**** Rows with ORDER_ID=" + id + ": " + std::to_string(row) + "\n"),
                std::string::npos)
          << where;
      EXPECT_EQ(text.err.find("rplq: message " + std::to_string(position) + ": ") != std::string::npos, fails)
          << where << ": " << text.err;
      // The message is reported as when it is shown without --where: once, the same words.
      const Ran alone = run(dir_, bin("rplq") + " --from " + std::to_string(position) + " --count 1 QMF " + s.queue);
      EXPECT_EQ(text.err, alone.err) << where;
      const Ran js = run(dir_, bin("rplq") + " --json --where ORDER_ID=" + id + " QMF " + s.queue);
      ASSERT_EQ(js.status, 0) << where;
      const json doc = json::parse(js.out);
      EXPECT_EQ(doc["matched_rows"], json::array({row})) << where;
      EXPECT_EQ(doc.contains("error"), fails) << where;
    }
  }
}

}  // namespace
