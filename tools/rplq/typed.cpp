// Typed selection and counting over the JSON rendering of compact messages (see typed.h).
#include "tools/rplq/typed.h"

#include <strings.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cctype>
#include <charconv>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string_view>

#include "tools/rplq/summary.h"

namespace rplq {

namespace {

using nlohmann::json;

std::string trimBlanks(std::string s) {
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
  size_t start = 0;
  while (start < s.size() && (s[start] == ' ' || s[start] == '\t')) ++start;
  return s.substr(start);
}

bool sameText(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// Two names (UTF-8) equal with case folded: ASCII directly, any other script through ICU.
bool sameName(const std::string& a, const std::string& b) {
  if (sameText(a, b)) return true;
  auto ascii = [](const std::string& s) {
    for (unsigned char c : s)
      if (c >= 0x80) return false;
    return true;
  };
  if (ascii(a) && ascii(b)) return false;
  return icu::UnicodeString::fromUTF8(a).caseCompare(icu::UnicodeString::fromUTF8(b), U_FOLD_CASE_DEFAULT) == 0;
}

// The before and after value sets of a row: objects under keys ending in "before" or "after".
template <typename F>
void forEachValueSet(const json& row, F&& f) {
  for (auto it = row.begin(); it != row.end(); ++it) {
    if (!it->is_object()) continue;
    const std::string& key = it.key();
    auto endsWith = [&](const char* tail) {
      size_t n = std::strlen(tail);
      return key.size() >= n && key.compare(key.size() - n, n, tail) == 0;
    };
    if (endsWith("before") || endsWith("after")) f(*it);
  }
}

int64_t subOf(const json& j) {
  auto it = j.find("sub_id");
  return it != j.end() && it->is_number_integer() ? it->get<int64_t>() : -1;
}

std::string stringMember(const json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

void SubDirectory::learn(int64_t subId, const std::string& name, const std::string& owner,
                         const std::string& tableName) {
  subs_[subId] = SubInfo{name, owner, owner + "." + tableName};
}

const SubInfo* SubDirectory::find(int64_t subId) const {
  auto it = subs_.find(subId);
  return it != subs_.end() ? &it->second : nullptr;
}

std::set<int64_t> SubDirectory::idsNamed(const std::string& subName) const {
  const std::string want = trimBlanks(subName);
  std::set<int64_t> ids;
  for (const auto& [id, info] : subs_)
    if (sameName(trimBlanks(info.name), want)) ids.insert(id);
  return ids;
}

std::set<int64_t> SubDirectory::idsOfTable(const std::string& table) const {
  const std::string want = trimBlanks(table);
  std::set<int64_t> ids;
  for (const auto& [id, info] : subs_) {
    // The table name is what follows the owner and its dot (a dot in either stays in place).
    const std::string name = info.table.substr(info.owner.size() + 1);
    if (sameName(trimBlanks(info.owner) + "." + trimBlanks(name), want)) ids.insert(id);
  }
  return ids;
}

std::string tableCell(const std::string& text) {
  std::string cell = text;
  for (char& c : cell)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  return cell;
}

bool parseWhere(const std::string& text, std::string& column, std::string& value) {
  size_t eq = text.find('=');
  if (eq == std::string::npos) return false;
  column = trimBlanks(text.substr(0, eq));
  value = text.substr(eq + 1);
  return !column.empty();
}

std::string lsnKey(const std::string& printed) {
  std::string k = printed;
  for (char& c : k)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return k;
}

bool parseLsnRange(const std::string& text, std::string& from, std::string& to) {
  auto valid = [](const std::string& s) {
    if (s.empty()) return true;
    for (char c : s)
      if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':') return false;
    return s.front() != ':' && s.back() != ':';
  };
  size_t dots = text.find("..");
  if (dots == std::string::npos) {
    from = to = lsnKey(text);
    return !text.empty() && valid(text);
  }
  from = lsnKey(text.substr(0, dots));
  to = lsnKey(text.substr(dots + 2));
  if (from.empty() && to.empty()) return false;
  return valid(from) && valid(to) && (from.empty() || to.empty() || from.size() == to.size());
}

bool valueReads(const json& value, const std::string& want) {
  switch (value.type()) {
    case json::value_t::string: {
      std::string s = value.get<std::string>();
      std::string w = want;
      while (!s.empty() && s.back() == ' ') s.pop_back();
      while (!w.empty() && w.back() == ' ') w.pop_back();
      return s == w;
    }
    case json::value_t::null:
      return want == "NULL" || want == "null";
    case json::value_t::object: {
      auto data = value.find("data");
      return data != value.end() && !data->is_object() && valueReads(*data, want);
    }
    case json::value_t::array:
    case json::value_t::discarded:
      return false;
    default:
      return value.dump() == want;
  }
}

bool renderedValueReads(std::string_view text, const std::string& want) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"' &&
      text.find('\\') == std::string_view::npos) {
    // A string without escapes reads as the characters between its quotes.
    std::string_view s = text.substr(1, text.size() - 2);
    std::string_view w = want;
    while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
    while (!w.empty() && w.back() == ' ') w.remove_suffix(1);
    return s == w;
  }
  if (text == "null") return want == "NULL" || want == "null";
  size_t digits = !text.empty() && text.front() == '-' ? 1 : 0;
  bool integer = text.size() > digits && text.size() < 19;
  for (size_t i = digits; i < text.size() && integer; ++i) integer = text[i] >= '0' && text[i] <= '9';
  // A short integer's JSON text is its one form; anything else is compared as the parser reads it.
  if (integer) return text == want;
  json value = json::parse(text, nullptr, false);
  return !value.is_discarded() && valueReads(value, want);
}

namespace {

// The rows of a message: its "rows" array, or the one "row" of a spilled row (as a list of
// one), or nothing.
const json& rowsOf(const json& msg, json& single) {
  static const json kNone = json::array();
  auto rows = msg.find("rows");
  if (rows != msg.end() && rows->is_array()) return *rows;
  auto row = msg.find("row");
  if (row == msg.end() || !row->is_object()) return kNone;
  single = json::array({*row});
  return single;
}

}  // namespace

std::vector<int> matchingRows(const json& msg, const std::string& column, const std::string& value,
                              const std::set<int64_t>* subs) {
  std::vector<int> hits;
  json single;
  int index = 0;
  for (const json& row : rowsOf(msg, single)) {
    ++index;
    if (!row.is_object()) continue;
    if (subs != nullptr && subs->count(subOf(row)) == 0) continue;
    bool hit = column.empty();
    if (!hit) {
      forEachValueSet(row, [&](const json& set) {
        for (auto it = set.begin(); it != set.end() && !hit; ++it)
          if (sameText(it.key(), column) && valueReads(*it, value)) hit = true;
      });
    }
    if (hit) hits.push_back(index);
  }
  return hits;
}

bool ofSubscriptions(const json& msg, const std::set<int64_t>& subs) {
  if (subs.count(subOf(msg)) != 0) return true;
  return !matchingRows(msg, "", "", &subs).empty();
}

void SubSummary::add(const json& msg) {
  json single;
  const json& rows = rowsOf(msg, single);
  if (rows.empty()) return;
  std::vector<RowKey> keys;
  for (const json& row : rows)
    if (row.is_object()) keys.push_back({subOf(row), stringMember(row, "operation")});
  std::string unit = stringMember(msg, "uow_id");
  if (unit.empty()) unit = stringMember(msg, "uowID");
  add(stringMember(msg, "commit_time"), stringMember(msg, "commit_LSN"), keys, unit, single.empty());
}

namespace {

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// Reads "commit_time" and "commit_LSN" of the message and "sub_id" and "operation" of each
// element of its "rows" array, or of its one "row" (`spilled`), from the JSON text in one pass,
// without building a document: strings are skipped by their quotes and escapes, containers
// counted by their brackets. False when the text is not balanced JSON.
bool scanRows(std::string_view text, std::string& commit, std::string& lsn, std::string& unit,
              std::vector<SubSummary::RowKey>& rows, bool& spilled) {
  const size_t n = text.size();
  int depth = 0;
  bool inRows = false;  // inside the top-level "rows" array (depth 2)
  int rowDepth = 0;     // inside a row object: the depth of its members (3 in "rows", 2 for "row")
  bool sawContainer = false;
  std::string key;
  size_t i = 0;
  auto inRow = [&] { return rowDepth != 0 && depth == rowDepth; };
  while (i < n) {
    const char c = text[i];
    if (isBlank(c) || c == ',') {
      ++i;
    } else if (c == '"') {
      size_t j = i + 1;
      while (j < n && text[j] != '"') j += text[j] == '\\' ? 2 : 1;
      if (j >= n) return false;
      std::string_view str(text.data() + i + 1, j - i - 1);
      i = j + 1;
      while (i < n && isBlank(text[i])) ++i;
      if (i < n && text[i] == ':') {
        key.assign(str);
        ++i;
        continue;
      }
      if (depth == 1 && key == "commit_time") commit.assign(str);
      else if (depth == 1 && key == "commit_LSN") lsn.assign(str);
      else if (depth == 1 && (key == "uow_id" || key == "uowID")) unit.assign(str);
      else if (inRow() && key == "operation") rows.back().operation.assign(str);
      key.clear();
    } else if (c == '{' || c == '[') {
      if (c == '[' && depth == 1 && key == "rows") inRows = true;
      if (c == '{' && inRows && depth == 2) {
        rows.push_back({-1, {}});
        rowDepth = 3;
      } else if (c == '{' && depth == 1 && key == "row") {
        rows.push_back({-1, {}});
        rowDepth = 2;
        spilled = true;
      }
      ++depth;
      sawContainer = true;
      key.clear();
      ++i;
    } else if (c == '}' || c == ']') {
      if (--depth < 0) return false;
      if (depth == 1) inRows = false;
      if (depth < rowDepth) rowDepth = 0;
      ++i;
    } else {
      size_t j = i;
      while (j < n && !isBlank(text[j]) && text[j] != ',' && text[j] != '}' && text[j] != ']') ++j;
      if (inRow() && key == "sub_id") {
        long long v = 0;
        auto [end, ec] = std::from_chars(text.data() + i, text.data() + j, v);
        if (ec == std::errc() && end == text.data() + j) rows.back().sub = v;
      }
      key.clear();
      i = j;
    }
  }
  return depth == 0 && sawContainer;
}

}  // namespace

bool SubSummary::addRendered(std::string_view text) {
  std::string commit, lsn, unit;
  std::vector<RowKey> rows;
  bool spilled = false;
  if (!scanRows(text, commit, lsn, unit, rows, spilled)) return false;
  if (!rows.empty()) add(commit, lsn, rows, unit, !spilled);
  return true;
}

bool SubSummary::firstInUnit(const std::string& unit, int64_t sub) {
  if (unit.find_first_not_of('0') == std::string::npos) return true;  // no unit of work
  const uint64_t pair = std::hash<std::string>{}(unit) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(sub);
  if (!units_.insert(pair).second) return false;
  unitOrder_.push_back(pair);
  if (unitOrder_.size() > kUnitsRemembered) {
    units_.erase(unitOrder_.front());
    unitOrder_.pop_front();
  }
  return true;
}

void SubSummary::add(const std::string& commit, const std::string& lsn,
                     const std::vector<RowKey>& rows, const std::string& unit, bool transaction) {
  // The subscriptions met in this message (few: a short list, not a set).
  thread_local std::vector<int64_t> seen;
  seen.clear();
  for (const RowKey& row : rows) {
    SubTally& t = subs_[row.sub];
    const std::string& op = row.operation;
    if (op == "INSERT")
      ++t.inserts;
    else if (op == "UPDATE" || op == "KEY UPDATE")
      ++t.updates;
    else if (op == "DELETE")
      ++t.deletes;
    else
      ++t.others;
    bool met = false;
    for (int64_t s : seen) met = met || s == row.sub;
    if (met) continue;
    seen.push_back(row.sub);
    if (transaction && firstInUnit(unit, row.sub)) ++t.transactions;
    if (!commit.empty()) {
      if (t.firstCommit.empty() || commit < t.firstCommit) t.firstCommit = commit;
      if (t.lastCommit.empty() || commit > t.lastCommit) t.lastCommit = commit;
    }
    if (!lsn.empty()) {
      const std::string key = lsnKey(lsn);
      if (t.firstLsn.empty() || key < t.firstLsnKey) {
        t.firstLsn = lsn;
        t.firstLsnKey = key;
      }
      if (t.lastLsn.empty() || key > t.lastLsnKey) {
        t.lastLsn = lsn;
        t.lastLsnKey = key;
      }
    }
  }
}

void SubSummary::writeTable(FILE* out, const SubDirectory& dir) const {
  if (subs_.empty()) return;
  std::fprintf(out, "\n%-8s %-18s %-24s %12s %10s %10s %10s %8s\n", "SUB_ID", "SUBSCRIPTION",
               "TABLE", "TRANSACTIONS", "INSERTS", "UPDATES", "DELETES", "OTHER");
  for (const auto& [id, t] : subs_) {
    const SubInfo* info = dir.find(id);
    std::fprintf(out, "%-8" PRId64 " %-18s %-24s %12" PRIu64 " %10" PRIu64 " %10" PRIu64
                      " %10" PRIu64 " %8" PRIu64 "\n",
                 id, info != nullptr ? tableCell(info->name).c_str() : "?",
                 info != nullptr ? tableCell(info->table).c_str() : "?", t.transactions, t.inserts,
                 t.updates, t.deletes, t.others);
  }
  for (const auto& [id, t] : subs_) {
    if (t.firstCommit.empty() && t.firstLsn.empty()) continue;
    std::fprintf(out, "sub %" PRId64 ": commits %s .. %s, LSN %s .. %s\n", id,
                 t.firstCommit.c_str(), t.lastCommit.c_str(), t.firstLsn.c_str(),
                 t.lastLsn.c_str());
  }
}

void SubSummary::writeJson(FILE* out, const SubDirectory& dir) const {
  json subs = json::array();
  for (const auto& [id, t] : subs_) {
    const SubInfo* info = dir.find(id);
    json s = {{"sub_id", id},
              {"subname", info != nullptr ? json(info->name) : json(nullptr)},
              {"table", info != nullptr ? json(info->table) : json(nullptr)},
              {"transactions", t.transactions},
              {"rows", {{"insert", t.inserts}, {"update", t.updates}, {"delete", t.deletes},
                        {"other", t.others}}},
              {"first_commit_time", t.firstCommit.empty() ? json(nullptr) : json(t.firstCommit)},
              {"last_commit_time", t.lastCommit.empty() ? json(nullptr) : json(t.lastCommit)},
              {"first_commit_LSN", t.firstLsn.empty() ? json(nullptr) : json(t.firstLsn)},
              {"last_commit_LSN", t.lastLsn.empty() ? json(nullptr) : json(t.lastLsn)}};
    subs.push_back(std::move(s));
  }
  std::fprintf(out, ",\"subscriptions\":%s", subs.dump().c_str());
}

}  // namespace rplq
