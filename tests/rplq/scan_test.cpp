// The light pass reads what the JSON rendering says: commit time, commit LSN, unit of work, each
// row's operation and subscription, and the values of a named column, for every sender.
#include <gtest/gtest.h>
#include <strings.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "qmsg/compact.h"
#include "qmsg/header.h"
#include "qmsg/json.h"
#include "qmsg/scan.h"
#include "runtime/catalog.h"
#include "tools/gen/encode_data.h"

namespace {

using nlohmann::json;

struct Sender {
  ByteOrder order;
  int32_t ccsid;
  const char* tag;
};
constexpr Sender kSenders[] = {
    {ByteOrder::Little, 1208, "little-endian UTF-8"},
    {ByteOrder::Big, 1208, "big-endian UTF-8"},
    {ByteOrder::Big, 37, "big-endian EBCDIC"},
};

encodingInfo contextOf(const Sender& s) {
  encodingInfo enc;
  enc.setup(s.ccsid);
  enc.outCcsid = 1208;
  enc.flags = s.order == ByteOrder::Little ? kEncMachineOrder : 0;
  return enc;
}

ConvMgr& converters() {
  ConvMgr::init();
  static ConvMgr cm(6, "rplq:scan-test");
  if (rplLogger() == nullptr) {
    msgLogger* logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    setRplLogger(logger);
  }
  // The reports of the cut messages are expected: kept out of the test's output.
  static FILE* quiet = std::fopen("/dev/null", "w");
  if (quiet != nullptr) rplLogger()->setOutput(quiet);
  return cm;
}

json rendered(Bytes msg, const Sender& s) {
  JsonOut out;
  EXPECT_EQ(renderCompactJson(msg.data(), msg.size(), contextOf(s), converters(), out), 0) << s.tag;
  return json::parse(out.str());
}

SchemaMsgDef orderSchema(int32_t ccsid) {
  SchemaMsgDef d;
  d.subId = 1;
  d.nColsInKey = 1;
  d.columns = {
      {"ORDER_ID", 496, 4, 0},
      {"NAME", 452 | 1, 10, ccsid},
      {"NOTE", 448 | 1, 40, ccsid},
      {"AMOUNT", 484, 0, 0, 7, 2},
      {"RATE", 480 | 1, 8, 0},
      {"REMARKS", 408 | 1, 1000, ccsid},
      {"QTY", 500, 2, 0},
      {"TOTAL", 492, 8, 0},
  };
  return d;
}

std::vector<ColValue> orderCols(const Sender& s, const std::string& name, const std::string& note) {
  Bytes remark = valText("Deliver to the back door", s.ccsid).data;
  return {valText(name, s.ccsid),
          note.empty() ? marker(0x8001) : valVarchar(note, s.ccsid, s.order),
          valDecimal("1234.50", 7, 2),
          valDouble(0.1, s.order),
          valLobRef(1, 6, static_cast<uint32_t>(remark.size()), s.order, remark),
          valSmallint(-3, s.order),
          valBigint(12345678901234LL, s.order)};
}

// The rows of one transaction: inserts, an update with before and after values, a delete, a
// suppressed and a long-offset value, and a row of a subscription without a schema.
std::vector<RowDef> orderRows(const Sender& s) {
  std::vector<RowDef> rows;
  RowDef insert;
  insert.operation = 16;
  insert.keyAfter = std::vector<ColValue>{valInteger(1000, s.order)};
  insert.colsAfter = orderCols(s, "N", "first");
  rows.push_back(insert);
  RowDef update;
  update.operation = 32;
  update.keyBefore = std::vector<ColValue>{valInteger(1000, s.order)};
  update.colsBefore = orderCols(s, "N", "");
  update.keyAfter = std::vector<ColValue>{valInteger(1001, s.order)};
  std::vector<ColValue> after = orderCols(s, "SHIPPED", "second");
  after[0] = marker(kMarkerSuppressed);
  after[1].longOffset = true;
  update.colsAfter = after;
  rows.push_back(update);
  RowDef unknown;
  unknown.operation = 64;
  unknown.subId = 9;
  unknown.keyBefore = std::vector<ColValue>{valInteger(7, s.order), valText("ab", s.ccsid)};
  rows.push_back(unknown);
  RowDef keyUpdate;
  keyUpdate.operation = 128;
  keyUpdate.keyBefore = std::vector<ColValue>{valInteger(1001, s.order)};
  keyUpdate.keyAfter = std::vector<ColValue>{valInteger(1002, s.order)};
  rows.push_back(keyUpdate);
  return rows;
}

// The values of `column` (case ignored) in the row's before and after sets, as the rendering
// holds them; a LOB value as its data.
std::vector<json> renderedValues(const json& row, const std::string& column) {
  std::vector<json> values;
  for (const char* set : {"key_before", "cols_before", "key_after", "cols_after"}) {
    if (!row.contains(set)) continue;
    for (auto it = row[set].begin(); it != row[set].end(); ++it) {
      if (strcasecmp(it.key().c_str(), column.c_str()) != 0) continue;
      values.push_back(it->is_object() ? (*it)["data"] : *it);
    }
  }
  return values;
}

void expectScanReadsAsRendered(const Bytes& msg, const Sender& s, const char* what) {
  json doc = rendered(msg, s);
  // A spilled row's one row reads as a list of one.
  if (doc.contains("row")) doc["rows"] = json::array({doc["row"]});
  {
    // Every value reads, so the checks that the summary makes leave nothing to the rendering.
    Bytes copy = msg;
    ScanResult res;
    EXPECT_EQ(scanCompactMsg(copy.data(), copy.size(), contextOf(s), converters(), nullptr, res, true), 0)
        << what << " (" << s.tag << "), values checked";
    EXPECT_EQ(res.spilled, doc.contains("row")) << what << " (" << s.tag << ")";
  }
  for (const char* column : {"ORDER_ID", "name", "NOTE", "AMOUNT", "RATE", "REMARKS", "QTY", "TOTAL", "2", "NOSUCH"}) {
    Bytes copy = msg;
    ScanResult res;
    ASSERT_EQ(scanCompactMsg(copy.data(), copy.size(), contextOf(s), converters(), column, res), 0)
        << what << " (" << s.tag << ")";
    const std::string where = std::string(what) + " (" + s.tag + "), column " + column;
    EXPECT_EQ(res.fields.commitTime, doc.value("commit_time", std::string())) << where;
    EXPECT_EQ(res.fields.commitLsn, doc.value("commit_LSN", std::string())) << where;
    EXPECT_EQ(res.fields.uow, doc.value("uow_id", doc.value("uowID", std::string()))) << where;
    ASSERT_EQ(res.rows.size(), doc["rows"].size()) << where;
    size_t compared = 0;
    for (size_t i = 0; i < res.rows.size(); ++i) {
      const json& row = doc["rows"][i];
      EXPECT_EQ(res.rows[i].subId, row["sub_id"].get<int32_t>()) << where;
      EXPECT_EQ(res.rows[i].operation, row["operation"].get<std::string>()) << where;
      std::vector<json> scanned;
      for (uint32_t v = 0; v < res.rows[i].valueCount; ++v)
        scanned.push_back(json::parse(res.value(res.rows[i].firstValue + v)));
      EXPECT_EQ(scanned, renderedValues(row, column)) << where << ", row " << i + 1;
      compared += scanned.size();
    }
    // Every column but the missing one is met somewhere in a transaction's rows.
    const bool missing = std::string(column) == "NOSUCH";
    if (!doc.contains("row") || missing) {
      EXPECT_EQ(compared == 0, missing) << where;
    }
  }
}

TEST(RplqScan, ReadsWhatTheRenderingSays) {
  for (const Sender& s : kSenders) {
    releaseSchemaCache();
    rendered(encodeSchemaMsg(orderSchema(s.ccsid), s.order, s.ccsid), s);  // into the schema cache

    TransMsgDef trans;
    trans.seconds = 1763700000;
    trans.micros = 125000;
    trans.rows = orderRows(s);
    expectScanReadsAsRendered(encodeTransMsg(trans, s.order, s.ccsid), s, "transaction");

    for (uint16_t version : {uint16_t{5}, uint16_t{6}, uint16_t{7}}) {
      TransMsgDef older = trans;
      older.version = version;
      for (RowDef& r : older.rows) r.encodeVer = version >= 7 ? 4 : 3;
      expectScanReadsAsRendered(encodeTransMsg(older, s.order, s.ccsid), s, "older transaction");
    }

    StreamedTransMsgDef streamed;
    streamed.transType = 4;  // continuation
    streamed.rows = orderRows(s);
    expectScanReadsAsRendered(encodeStreamedTransMsg(streamed, s.order, s.ccsid), s, "streamed transaction");

    for (const RowDef& row : orderRows(s))
      for (uint16_t version : {uint16_t{1}, uint16_t{5}, uint16_t{7}, uint16_t{9}}) {
        RowDef spilled = row;
        if (version < 7) spilled.encodeVer = 3;
        expectScanReadsAsRendered(encodeSpilledRowMsg(version, spilled, s.order, s.ccsid), s, "spilled row");
      }
  }
  releaseSchemaCache();
}

// The forms of a column name over the schemas met, which decide whether --where may look for
// an integer's bytes in a message instead of reading it.
TEST(RplqScan, FormsOfANamedColumn) {
  for (const Sender& s : kSenders) {
    releaseSchemaCache();
    rendered(encodeSchemaMsg(orderSchema(s.ccsid), s.order, s.ccsid), s);
    SchemaMsgDef other;
    other.subId = 2;
    other.columns = {{"ORDER_ID", 492, 8, 0}, {"QTY", 452, 4, s.ccsid}};
    rendered(encodeSchemaMsg(other, s.order, s.ccsid), s);
    struct Row {
      const char* column;
      unsigned forms;
    };
    const Row rows[] = {
        {"ORDER_ID", kFormInt32 | kFormInt64},  // INTEGER in one schema, BIGINT in the other
        {"order_id", kFormInt32 | kFormInt64},
        {"TOTAL", kFormInt64},
        {"QTY", kFormInt16 | kFormOther},        // CHAR in the other schema
        {"NAME", kFormOther},
        {"NOSUCH", 0},
    };
    for (const Row& r : rows) {
      unsigned forms = 99;
      ASSERT_EQ(namedColumnForms(contextOf(s), converters(), r.column, forms), 0);
      EXPECT_EQ(forms, r.forms) << r.column << " (" << s.tag << ")";
    }
  }
  releaseSchemaCache();
}

// A value of the named column that cannot be rendered reads as nothing, and the rows after it
// are still read; with the values checked, the message is left to the full rendering.
TEST(RplqScan, UnreadableValuesReadAsNothing) {
  struct Row {
    const char* column;
    size_t index;  // in orderCols
    Bytes bad;
  };
  const Row rows[] = {
      {"NOTE", 1, {0x00, 0x50, 0x41}},      // VARCHAR count past its value
      {"AMOUNT", 2, {0x12, 0xA4, 0x50, 0x0C}},  // a half-byte that is no digit
      {"REMARKS", 4, {0, 0, 0, 1, 0, 6}},   // LOB reference cut short
      {"QTY", 5, {7}},                      // SMALLINT of one byte
  };
  for (const Sender& s : kSenders) {
    releaseSchemaCache();
    rendered(encodeSchemaMsg(orderSchema(s.ccsid), s.order, s.ccsid), s);
    for (const Row& r : rows) {
      TransMsgDef trans;
      RowDef bad;
      bad.keyAfter = std::vector<ColValue>{valInteger(1, s.order)};
      bad.colsAfter = orderCols(s, "N", "first");
      (*bad.colsAfter)[r.index] = ColValue{0, false, r.bad};
      RowDef good = bad;
      good.colsAfter = orderCols(s, "N", "first");
      trans.rows = {bad, good};
      const Bytes msg = encodeTransMsg(trans, s.order, s.ccsid);
      const std::string where = std::string(r.column) + " (" + s.tag + ")";

      TransMsgDef alone;
      alone.rows = {good};
      const json doc = rendered(encodeTransMsg(alone, s.order, s.ccsid), s);
      Bytes copy = msg;
      ScanResult res;
      ASSERT_EQ(scanCompactMsg(copy.data(), copy.size(), contextOf(s), converters(), r.column, res), 0) << where;
      EXPECT_TRUE(res.unreadValues) << where;
      ASSERT_EQ(res.rows.size(), 2u) << where;
      ASSERT_EQ(res.rows[0].valueCount, 1u) << where;
      EXPECT_EQ(res.value(res.rows[0].firstValue), "") << where;
      ASSERT_EQ(res.rows[1].valueCount, 1u) << where;
      EXPECT_EQ(json::parse(res.value(res.rows[1].firstValue)), renderedValues(doc["rows"][0], r.column)[0])
          << where;

      copy = msg;
      EXPECT_EQ(scanCompactMsg(copy.data(), copy.size(), contextOf(s), converters(), nullptr, res, true),
                kRcUnknownType)
          << where << ", values checked";
    }
  }
  releaseSchemaCache();
}

// Whatever the bytes, a message the checks pass is one the full rendering reads: corrupted
// copies of generated messages (bytes changed at random places, the seed fixed) never slip
// through to a summary that would not list them.
TEST(RplqScan, ChecksPassOnlyWhatTheRenderingReads) {
  uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return seed >> 8;
  };
  for (const Sender& s : kSenders) {
    releaseSchemaCache();
    rendered(encodeSchemaMsg(orderSchema(s.ccsid), s.order, s.ccsid), s);
    TransMsgDef trans;
    trans.rows = orderRows(s);
    std::vector<RowDef> spilledRows = orderRows(s);
    const Bytes originals[] = {encodeTransMsg(trans, s.order, s.ccsid),
                               encodeSpilledRowMsg(9, spilledRows[1], s.order, s.ccsid)};
    size_t passed = 0, failed = 0;
    for (const Bytes& original : originals) {
      for (int round = 0; round < 1500; ++round) {
        Bytes msg = original;
        const int changes = 1 + static_cast<int>(next() % 3);
        for (int k = 0; k < changes; ++k) {
          const size_t at = kHeaderSize + next() % (msg.size() - kHeaderSize);
          msg[at] = static_cast<uint8_t>(next() % 4 == 0 ? msg[at] ^ 0x80 : next());
        }
        Bytes copy = msg;
        ScanResult res;
        const int32_t scanned = scanCompactMsg(copy.data(), copy.size(), contextOf(s), converters(), nullptr, res, true);
        copy = msg;
        JsonOut out;
        const int32_t whole = renderCompactJson(copy.data(), copy.size(), contextOf(s), converters(), out);
        if (scanned == 0) {
          EXPECT_EQ(whole, 0) << s.tag << ", round " << round << ": " << out.str();
          ++passed;
        }
        failed += whole != 0;
      }
    }
    // Both kinds were met.
    EXPECT_GT(passed, 100u) << s.tag;
    EXPECT_GT(failed, 100u) << s.tag;
  }
  releaseSchemaCache();
}

// A message the pass cannot walk says so; other message types are not its business.
TEST(RplqScan, RefusesWhatItCannotWalk) {
  const Sender s = kSenders[1];
  TransMsgDef trans;
  trans.rows = orderRows(s);
  Bytes msg = encodeTransMsg(trans, s.order, s.ccsid);
  for (size_t cut : {size_t{4}, size_t{100}, msg.size() - 9}) {
    Bytes part(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(cut));
    ScanResult res;
    EXPECT_NE(scanCompactMsg(part.data(), part.size(), contextOf(s), converters(), "ORDER_ID", res), 0)
        << "cut at " << cut;
  }
  Bytes schema = encodeSchemaMsg(orderSchema(s.ccsid), s.order, s.ccsid);
  ScanResult res;
  EXPECT_EQ(scanCompactMsg(schema.data(), schema.size(), contextOf(s), converters(), nullptr, res),
            kRcUnknownType);
}

}  // namespace
