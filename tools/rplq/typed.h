// Selection and counting on the typed fields of compact messages, read from their JSON
// rendering: subscriptions and their tables (learnt from the schema messages met), rows whose
// column reads a value, LSN ranges, commit times, and per-subscription counts.
#pragma once

#include <cstdint>
#include <map>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/rplq/options.h"

namespace rplq {

// A subscription as its schema message names it, each text as the JSON rendering of the
// schema gives it (nothing trimmed).
struct SubInfo {
  std::string name;   // "ORDERS0001"
  std::string owner;  // "SHOP"
  std::string table;  // the source table as owner.name: "SHOP.ORDERS"
};

// The subscriptions whose schemas were met so far, by subscription id.
class SubDirectory {
 public:
  // Learns (or, for a later schema of the same subscription, replaces) a subscription's names.
  void learn(int64_t subId, const std::string& name, const std::string& owner, const std::string& tableName);
  const SubInfo* find(int64_t subId) const;
  // The ids of the subscriptions named `subName`, or of source table `table` (OWNER.NAME). Case
  // is ignored (in every script ICU folds), and so are blanks at the ends of the name, of the
  // owner and of the table name, on either side: `--sub ORDERS` finds a subscription whose
  // schema pads its name as "ORDERS  ".
  std::set<int64_t> idsNamed(const std::string& subName) const;
  std::set<int64_t> idsOfTable(const std::string& table) const;
  size_t size() const { return subs_.size(); }

 private:
  std::map<int64_t, SubInfo> subs_;
};

// A subscription's name or table as the summary's table shows it: control characters (a line
// end in a name) as '?', so that each subscription keeps its one line.
std::string tableCell(const std::string& text);

// --where COL=VALUE: false when there is no '=' or no column name.
bool parseWhere(const std::string& text, std::string& column, std::string& value);
// --lsn FROM[..TO], FROM.., ..TO: LSNs in their printed form (hex groups joined by ':').
bool parseLsnRange(const std::string& text, std::string& from, std::string& to);
// The LSN in a form that orders as the number does (lower-case, groups as printed).
std::string lsnKey(const std::string& printed);

// True when a column value, as the JSON rendering gives it, reads `want`: strings compared
// with their trailing blanks ignored, numbers and booleans by their JSON text, null as "NULL"
// or "null". A LOB value reads as its data.
bool valueReads(const nlohmann::json& value, const std::string& want);
// The same for a value's JSON text as the rendering writes it.
bool renderedValueReads(std::string_view json, const std::string& want);

// The 1-based indexes of the rows of `msg` ("rows" array, or the one "row" of a spilled row)
// that have column `column` (case ignored) reading `value` in a before or an after value set;
// when `subs` is given, only rows of those subscriptions. An empty `column` matches every row
// of those subscriptions.
std::vector<int> matchingRows(const nlohmann::json& msg, const std::string& column,
                              const std::string& value, const std::set<int64_t>* subs);
// True when the message is of one of `subs`: its own "sub_id", or a row's.
bool ofSubscriptions(const nlohmann::json& msg, const std::set<int64_t>& subs);

// Per-subscription counts for --summary.
struct SubTally {
  uint64_t transactions = 0;
  uint64_t inserts = 0, updates = 0, deletes = 0, others = 0;
  std::string firstCommit, lastCommit;  // ISO-8601 as rendered
  std::string firstLsn, lastLsn;        // printed form
  std::string firstLsnKey, lastLsnKey;  // their lsnKey
};

class SubSummary {
 public:
  // Counts the rows of one message by subscription and operation.
  void add(const nlohmann::json& msg);
  // The same from the message's JSON text, read in one pass (no document is built). False when
  // the text is not balanced JSON.
  bool addRendered(std::string_view text);
  void writeTable(FILE* out, const SubDirectory& dir) const;
  // Members "subscriptions": [...] (with a leading comma) for the summary object.
  void writeJson(FILE* out, const SubDirectory& dir) const;

  struct RowKey {
    int64_t sub;
    std::string operation;
  };
  // The rows of one message; `unit` is its unit of work as hex ("uow_id", "uowID"): the
  // messages of one unit of work count as one transaction of each subscription they hold rows
  // of. Without a unit of work (empty or all zeros) the message counts as a transaction, unless
  // it is no `transaction` at all: the row of a spilled-row message belongs to a transaction
  // that its own transaction message counts.
  void add(const std::string& commit, const std::string& lsn, const std::vector<RowKey>& rows,
           const std::string& unit = {}, bool transaction = true);

  // Units of work remembered to count each once: the most recent this many.
  static constexpr size_t kUnitsRemembered = 8192;

 private:
  // True the first time `sub` is met in unit of work `unit`.
  bool firstInUnit(const std::string& unit, int64_t sub);

  std::map<int64_t, SubTally> subs_;
  // The (unit of work, subscription) pairs counted, as 64-bit hashes, oldest first in the queue.
  std::unordered_set<uint64_t> units_;
  std::deque<uint64_t> unitOrder_;
};

}  // namespace rplq
