// A light pass over a transaction message (type 128), a streamed transaction message (type 130)
// or a spilled-row message (type 33) for selecting and counting: what the JSON rendering would
// say of the transaction (commit time and LSN, unit of work) and of each row (operation,
// subscription, the values of one named column), read without rendering the rest. The
// message's other fields and values are walked over, not formatted.
//
//   ScanResult res;
//   int32_t rc = scanCompactMsg(data, length, enc, cm, "ORDER_ID", res);
//
// Like renderCompactJson, the buffer is read-write (integers are swapped in place): scan a copy
// when the message is to be rendered afterwards. A return other than 0 means the message could
// not be walked to its end; its rendering then tells what failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "qmsg/sink.h"
#include "runtime/conv.h"

// The field sink of the light pass: it keeps the transaction's commit time, commit LSN and
// unit of work as the JSON rendering writes them, and drops every other field unformatted.
class ScanSink : public TopFieldSink<ScanSink> {
 public:
  // What was kept of the message's own fields (empty when the rendering has none or null).
  std::string commitTime;  // ISO-8601, as "commit_time" reads
  std::string commitLsn;   // as "commit_LSN" reads
  std::string uow;         // "uow_id" (type 128) or "uowID" (type 130), as hex

 private:
  // Compared up to the first difference: a shorter key is never read past its end.
  static bool is(const char* key, const char* name) { return std::strcmp(key, name) == 0; }
  friend TopFieldSink<ScanSink>;
  template <typename T>
  void keepTop(const char* key, const T& v) {
    if constexpr (std::is_same_v<T, std::string>) {
      if (is(key, "commit_LSN")) commitLsn = v;
    } else if constexpr (std::is_same_v<T, UtcTime>) {
      if (is(key, "commit_time")) keepTime(v);
    } else if constexpr (std::is_same_v<T, HexBytes>) {
      if (is(key, "uow_id") || is(key, "uowID")) keepHex(v);
    }
  }
  void keepTime(const UtcTime& t);
  void keepHex(const HexBytes& h);
};

// One row of the message, in its order.
struct ScanRow {
  int32_t subId = 0;
  const char* operation = "";  // as "operation" reads ("INSERT", "KEY UPDATE", ...)
  uint32_t firstValue = 0;     // its values of the named column in ScanResult::values
  uint32_t valueCount = 0;
};

struct ScanResult {
  ScanSink fields;
  std::vector<ScanRow> rows;
  // The named column's values of every row, before and after, each as the JSON rendering
  // writes it (`"text"`, `12`, `null`; a LOB value as its "data"; empty when it cannot be read).
  std::vector<std::string> values;

  // A spilled-row message (type 33): one row, without a transaction header of its own.
  bool spilled = false;
  // Values of the named column that could not be rendered (they read as empty, and their
  // failures were reported).
  bool unreadValues = false;

  void clear() {
    fields = ScanSink{};
    spilled = false;
    unreadValues = false;
    rows.clear();
    valuesUsed = 0;
  }
  std::string_view value(size_t i) const { return values[i]; }
  size_t valuesUsed = 0;  // values[0, valuesUsed) belong to this message (the rest are kept for reuse)
};

// Walks a transaction, streamed transaction or spilled-row message: its header through `fields`
// and each row's header and column sets; with `column` (not null, not empty) the values of the
// column of that name (case ignored) are rendered, as the JSON rendering keys them: by the
// schema's column name, or by position from 1 without a cached schema. With `checkValues`, every
// value is checked as the value printers check it (lengths, forms, text conversion), without
// formatting, so that 0 means the full rendering reads the whole message. Returns 0, a reader's
// result code, or kRcUnknownType for any other message type and for what is left to the full
// rendering (a value that may not read, a row part the pass does not walk).
int32_t scanCompactMsg(uint8_t* msg, size_t length, const encodingInfo& enc, ConvMgr& cm,
                       const char* column, ScanResult& out, bool checkValues = false);

// The value forms of the columns named `column` (case ignored) in every cached schema, their
// names converted with the context of a message from `enc`: kForm* bits. Returns 0 or the
// result code of a schema that cannot be read.
inline constexpr unsigned kFormInt16 = 1, kFormInt32 = 2, kFormInt64 = 4, kFormOther = 8;
int32_t namedColumnForms(const encodingInfo& enc, ConvMgr& cm, const char* column, unsigned& forms);
