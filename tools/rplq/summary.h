// What --summary counts over the messages a run selects, and its two renderings: a table for
// people and one JSON object.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tools/rplq/options.h"

namespace rplq {

struct Tally {
  uint64_t messages = 0;
  uint64_t bytes = 0;
};

struct DecodeFailure {
  int64_t position;
  std::string what;  // the message type or format
  std::string reason;
};

class Summary {
 public:
  // Failures listed one by one; those beyond are only counted.
  static constexpr size_t kFailuresListed = 100;

  // A compact message of `type`, `bytes` long (the data, without the descriptor).
  void addCompact(uint8_t type, uint64_t bytes);
  // A message of another format; `kind` names it ("text", "XML", "KXHRF2", "other 'FMT'").
  void addOther(const std::string& kind, uint64_t bytes);
  // The put time of a selected message, when its descriptor holds one.
  void addPutTime(Micros at);
  void addFailure(int64_t position, const std::string& what, const std::string& reason);

  uint64_t messages() const { return total_.messages; }

  void writeTable(FILE* out, const std::string& qmgr, const std::string& queue) const;
  // The summary object without its closing brace (the caller may add members).
  void writeJson(FILE* out, const std::string& qmgr, const std::string& queue) const;

 private:
  Tally total_;
  Tally byType_[256];
  std::map<std::string, Tally> others_;
  bool hasPut_ = false;
  Micros oldest_ = 0;
  Micros newest_ = 0;
  uint64_t failureCount_ = 0;
  std::vector<DecodeFailure> failures_;
};

// The name of a compact message type ("RPLKX_TRANS_MSG"), or "type N" when it has none.
std::string typeName(uint8_t type);
// `text` as a JSON string, quotes included.
std::string jsonString(const std::string& text);

}  // namespace rplq
