// Message catalog and diagnostic log: numbered messages with inserts, and the failure report.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>

// Result code of a read that found fewer bytes left in a message than it needed.
inline constexpr int32_t kRcShortRead = 801;

// Catalog numbers the tool issues.
inline constexpr int32_t kRplMsgShortRead = 543;    // bounded read found too few bytes
inline constexpr int32_t kRplMsgLoadFailed = 584;   // middleware library not loaded
inline constexpr int32_t kRplMsgLoaded = 585;       // middleware library loaded
inline constexpr int32_t kRplMsgNoEntry = 586;      // entry not found in the library
inline constexpr int32_t kRplMsgQmgrRetry = 587;    // queue manager not available, retrying
inline constexpr int32_t kRplMsgFailure = 589;      // failure report: step, function, code
inline constexpr int32_t kRplMsgFreeText = 8999;    // free text; its only insert ($1) is the text

// One issued message, as built by msgLogger::getRplMsg.
struct rplMsgRecord {
  char eyeCatcher[8];    // "RplOLE:"
  int32_t number;        // internal number asked for
  char severity;         // 'E', 'W', 'I', 'D', or ' ' when the id is not in the text
  char timeStamp[40];    // "%Y-%m-%d-%H.%M.%S.%06d"
  char program[31];
  char function[16];
  char* text;            // finished text, NUL-terminated
  size_t textSize;
  int32_t flags;
};

class msgLogger {
 public:
  // Creates the logger for a program id (the tool passes 13); null when out of memory.
  static msgLogger* create(int32_t programId, int32_t options);
  ~msgLogger();

  // Indexes a null-terminated list of catalog texts into 100 buckets by number mod 100.
  int32_t loadCatalog(const char* const* texts);

  // Builds, formats and issues one message. "$1" is the program name, "$2" the function
  // name, "$3" onward the inserts in order (nine inserts at most in all). Message 8999 is
  // the exception: its "$1" is the first insert, the free text.
  // The issued form is one line: "<time stamp> <program> RPLnnnnX <text>".
  void putRplMsg(int32_t number, const char* function, std::initializer_list<const char*> inserts);

  // The same, but returns the finished record (release it with freeRecord) instead of issuing it.
  rplMsgRecord* getRplMsg(int32_t number, const char* function,
                          std::initializer_list<const char*> inserts, size_t textSize = 1024);
  static void freeRecord(rplMsgRecord* rec);

  // Where issued messages go; standard error unless changed (tests capture it).
  void setOutput(FILE* out) { output_ = out; }
  FILE* output() const { return output_; }
  const char* programName() const { return program_; }

 private:
  msgLogger() = default;
  const char* lookup(int32_t number) const;
  void issue(const rplMsgRecord& rec) const;

  struct Entry { int32_t number; const char* text; Entry* next; };
  Entry* buckets_[100] = {};
  char program_[31] = {};
  int32_t options_ = 0;
  FILE* output_ = stderr;
};

// The static catalog of message texts, null-terminated; kRplCatalogSize texts before the null.
extern const char* const kRplCatalog[];
extern const size_t kRplCatalogSize;

// The process-wide logger. Until the program sets its own, one is made on first use (writing
// to standard error), so that libraries and tests never meet a missing logger and no report
// is ever lost.
msgLogger* rplLogger();
void setRplLogger(msgLogger* logger);

// Issues one catalog message through the process-wide logger.
void logRplMsg(int32_t number, const char* function, std::initializer_list<const char*> inserts);

// The failure report: message 589 with the failed step, the function and the return code,
// then, when a text is given, message 8999 with that text.
void reportFailure(const char* step, const char* function, int32_t rc, const char* text = nullptr);
// The same with a printf-style text.
void reportFailuref(const char* step, const char* function, int32_t rc, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Message 543: a read of `wanted` bytes named `readName` found too few bytes left.
void reportShortRead(uint64_t wanted, const char* readName);
