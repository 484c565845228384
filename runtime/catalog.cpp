// Message logger: indexes the catalog, fills inserts, takes the severity from the id and
// issues one line per message; the failure report used by every failure path of the tool.
#include "runtime/catalog.h"

#include <sys/time.h>

#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

namespace {

constexpr char kEyeCatcher[8] = "RplOLE:";
constexpr int32_t kMaxInserts = 9;

struct ProgramName {
  int32_t id;
  const char* name;
};
constexpr ProgramName kProgramNames[] = {
    {13, "rplqmfmt"},
};

const char* programNameOf(int32_t id) {
  for (const ProgramName& p : kProgramNames)
    if (p.id == id) return p.name;
  return "rpl";
}

// "RPLnnnn" at the start of a catalog text, as a number; -1 when the text has no such id.
int32_t idNumber(const char* text) {
  if (std::strncmp(text, "RPL", 3) != 0) return -1;
  int32_t n = 0;
  for (int i = 3; i < 7; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return -1;
    n = n * 10 + (text[i] - '0');
  }
  return n;
}

// Copies at most `room - 1` bytes of s to out at *pos, keeping the text terminated.
void append(char* out, size_t room, size_t* pos, const char* s, size_t n) {
  if (*pos + 1 >= room) return;
  size_t take = room - 1 - *pos;
  if (n < take) take = n;
  std::memcpy(out + *pos, s, take);
  *pos += take;
  out[*pos] = '\0';
}

void stamp(char* buf, size_t size) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  time_t secs = tv.tv_sec;
  localtime_r(&secs, &tmv);
  size_t n = strftime(buf, size, "%Y-%m-%d-%H.%M.%S", &tmv);
  snprintf(buf + n, size - n, ".%06d", static_cast<int>(tv.tv_usec));
}

std::atomic<msgLogger*> g_logger{nullptr};
msgLogger* g_fallback = nullptr;
std::once_flag g_fallbackOnce;

// The process-wide logger, or one made on first use so that a report is never lost in
// libraries and tests that created none.
msgLogger* activeLogger() {
  msgLogger* l = g_logger.load(std::memory_order_acquire);
  if (l != nullptr) return l;
  std::call_once(g_fallbackOnce, [] {
    g_fallback = msgLogger::create(13, 0);
    if (g_fallback != nullptr) g_fallback->loadCatalog(kRplCatalog);
  });
  return g_fallback;
}

}  // namespace

msgLogger* msgLogger::create(int32_t programId, int32_t options) {
  msgLogger* l = new (std::nothrow) msgLogger();
  if (l == nullptr) return nullptr;
  snprintf(l->program_, sizeof l->program_, "%s", programNameOf(programId));
  l->options_ = options;
  return l;
}

msgLogger::~msgLogger() {
  for (Entry*& head : buckets_) {
    while (head != nullptr) {
      Entry* next = head->next;
      delete head;
      head = next;
    }
  }
}

int32_t msgLogger::loadCatalog(const char* const* texts) {
  if (texts == nullptr) return 0;
  Entry* tails[100] = {};
  for (int b = 0; b < 100; ++b)
    for (Entry* e = buckets_[b]; e != nullptr; e = e->next) tails[b] = e;
  for (const char* const* t = texts; *t != nullptr; ++t) {
    int32_t n = idNumber(*t);
    if (n < 1 || n > 9998) continue;
    Entry* e = new (std::nothrow) Entry{n, *t, nullptr};
    if (e == nullptr) return -1;
    int b = n % 100;
    if (tails[b] == nullptr) buckets_[b] = e; else tails[b]->next = e;
    tails[b] = e;
  }
  return 0;
}

const char* msgLogger::lookup(int32_t number) const {
  if (number < 1 || number > 9998) return nullptr;
  char key[16];
  snprintf(key, sizeof key, "RPL%04d", static_cast<int>(number));
  for (Entry* e = buckets_[number % 100]; e != nullptr; e = e->next)
    if (std::strncmp(e->text, key, 7) == 0) return e->text;
  return nullptr;
}

rplMsgRecord* msgLogger::getRplMsg(int32_t number, const char* function,
                                   std::initializer_list<const char*> inserts, size_t textSize) {
  if (textSize < 16) textSize = 16;
  rplMsgRecord* rec = static_cast<rplMsgRecord*>(std::calloc(1, sizeof(rplMsgRecord)));
  char* text = rec != nullptr ? static_cast<char*>(std::malloc(textSize)) : nullptr;
  if (text == nullptr) {
    std::free(rec);
    fprintf(stderr, "%s : Failed to log rplMsgId '%d' due to insufficient memory.\n",
            "msgLogger::getRplMsg", static_cast<int>(number));
    fflush(stdout);
    return nullptr;
  }
  std::memcpy(rec->eyeCatcher, kEyeCatcher, sizeof rec->eyeCatcher);
  rec->number = number;
  rec->text = text;
  rec->textSize = textSize;
  stamp(rec->timeStamp, sizeof rec->timeStamp);
  snprintf(rec->program, sizeof rec->program, "%s", program_);
  if (function == nullptr) function = "";
  snprintf(rec->function, sizeof rec->function, "%s", function);

  // Insert values: $1 the program, $2 the function, $3.. the caller's values. The free-text
  // diagnostic 8999 has the caller's text as its only insert.
  const char* values[kMaxInserts] = {};
  int32_t count = 0;
  if (number != kRplMsgFreeText) {
    values[count++] = program_;
    values[count++] = function;
  }
  for (const char* v : inserts) {
    if (count == kMaxInserts) break;
    values[count++] = v != nullptr ? v : "";
  }

  const char* src = lookup(number);
  char missing[64];
  if (src == nullptr) {
    snprintf(missing, sizeof missing, "Message number \"%d\" is not in the catalog.",
             static_cast<int>(number));
    src = missing;
  }
  // An alias entry is shown under its published id: skip "RPLnnnn~ ".
  int32_t shownId = number;
  if (std::strlen(src) > 9 && src[7] == '~' && src[8] == ' ') {
    src += 9;
    int32_t pub = idNumber(src);
    if (pub > 0) shownId = pub;
  }

  size_t pos = 0;
  text[0] = '\0';
  while (*src != '\0') {
    const char* dollar = std::strchr(src, '$');
    if (dollar == nullptr) {
      append(text, textSize, &pos, src, std::strlen(src));
      break;
    }
    append(text, textSize, &pos, src, static_cast<size_t>(dollar - src));
    char d = dollar[1];
    if (d >= '1' && d <= '9') {
      int idx = d - '1';
      const char* v = idx < count ? values[idx] : "";
      append(text, textSize, &pos, v, std::strlen(v));
      src = dollar + 2;
    } else {
      append(text, textSize, &pos, "$", 1);
      src = dollar + 1;
    }
  }

  // Severity: the letter after the id; a lower-case letter is put right in the text itself.
  char key[16];
  snprintf(key, sizeof key, "RPL%04d", static_cast<int>(shownId));
  char* at = std::strstr(text, key);
  if (at == nullptr) {
    rec->severity = ' ';
  } else {
    char& s = at[7];
    if (s == 'e' || s == 'i' || s == 'w') s = static_cast<char>(std::toupper(s));
    rec->severity = (s == 'E' || s == 'I' || s == 'W') ? s : 'D';
  }
  return rec;
}

void msgLogger::freeRecord(rplMsgRecord* rec) {
  if (rec == nullptr) return;
  std::free(rec->text);
  std::free(rec);
}

void msgLogger::issue(const rplMsgRecord& rec) const {
  FILE* out = output_ != nullptr ? output_ : stderr;
  // One line: time stamp, program, then the message id and its text with single blanks.
  const char* t = rec.text;
  const char* id = std::strstr(t, "RPL");
  if (id == t && std::strlen(t) >= 8) {
    const char* rest = t + 8;
    while (*rest == ' ') ++rest;
    fprintf(out, "%s %s %.8s %s\n", rec.timeStamp, rec.program, t, rest);
  } else {
    fprintf(out, "%s %s %s\n", rec.timeStamp, rec.program, t);
  }
  fflush(out);
}

void msgLogger::putRplMsg(int32_t number, const char* function,
                          std::initializer_list<const char*> inserts) {
  rplMsgRecord* rec = getRplMsg(number, function, inserts);
  if (rec == nullptr) return;
  issue(*rec);
  freeRecord(rec);
}

msgLogger* rplLogger() { return activeLogger(); }

void setRplLogger(msgLogger* logger) { g_logger.store(logger, std::memory_order_release); }

void logRplMsg(int32_t number, const char* function, std::initializer_list<const char*> inserts) {
  msgLogger* l = activeLogger();
  if (l == nullptr) {
    fprintf(stderr, "%s : Failed to log rplMsgId '%d' due to insufficient memory.\n",
            "msgLogger::getRplMsg", static_cast<int>(number));
    return;
  }
  l->putRplMsg(number, function, inserts);
}

void reportFailure(const char* step, const char* function, int32_t rc, const char* text) {
  char rcText[16];
  snprintf(rcText, sizeof rcText, "%d", static_cast<int>(rc));
  logRplMsg(kRplMsgFailure, step, {function != nullptr ? function : "", rcText});
  if (text != nullptr) logRplMsg(kRplMsgFreeText, function, {text});
}

void reportFailuref(const char* step, const char* function, int32_t rc, const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  reportFailure(step, function, rc, text);
}

void reportShortRead(uint64_t wanted, const char* readName) {
  char size[24];
  snprintf(size, sizeof size, "%" PRIu64, wanted);
  logRplMsg(kRplMsgShortRead, "boundedRead", {size, readName != nullptr ? readName : ""});
}
