// rplq: shows, selects, summarizes, follows or drains the messages of one replication queue, each
// message decoded as rplqmfmt prints it.
//
// The queue is browsed from its head. A message is shown when it matches every selection option;
// subscription schema messages met on the way are decoded into the schema cache whether shown or
// not, so that the rows of a later transaction print with their column names. With --drain a
// shown message is then taken off the queue under syncpoint (matched by its MsgId and CorrelId)
// and committed only once its report has been written out.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <unicode/ucnv.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "driver/kxbind.h"
#include "driver/message_printer.h"
#include "driver/printers.h"
#include "driver/xml_printer.h"
#include "qmsg/compact.h"
#include "qmsg/header.h"
#include "qmsg/scan.h"
#include "qmsg/schema.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"
#include "runtime/trace.h"
#include "tools/rplq/json_line.h"
#include "tools/rplq/options.h"
#include "tools/rplq/typed.h"
#include "qmsg/json.h"
#include "tools/rplq/summary.h"
#include "version.h"

namespace {

using namespace rplq;

constexpr int kProgramId = 13;
// Output written in large blocks. The buffer is given to setvbuf: without one of its own the
// C library keeps the device's block size (4 KiB) whatever size is asked for.
constexpr size_t kOutputBufferSize = 1 << 20;
static char g_outputBuffer[kOutputBufferSize];
constexpr size_t kFirstBufferSize = 64 * 1024;
// A following get waits this long at a time, so that SIGINT and SIGTERM end the run promptly.
constexpr KXLONG kFollowWaitMs = 250;
// A queue manager that stays unavailable is tried for about two seconds, not ten.
constexpr int kConnectRetryDelayMs = 200;

volatile std::sig_atomic_t g_stopRequested = 0;

void onStopSignal(int) { g_stopRequested = 1; }

void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::fputs("rplq: ", stderr);
  std::vfprintf(stderr, fmt, ap);
  std::fputc('\n', stderr);
  va_end(ap);
}

// ---- Reasons in words ---------------------------------------------------------------------------

struct Reason {
  KXLONG code;
  const char* name;
};

constexpr Reason kReasonNames[] = {
    {KXRC_BACKED_OUT, "KXRC_BACKED_OUT"},
    {KXRC_NO_MSG_AVAILABLE, "KXRC_NO_MSG_AVAILABLE"},
    {KXRC_NOT_AUTHORIZED, "KXRC_NOT_AUTHORIZED"},
    {KXRC_OBJECT_IN_USE, "KXRC_OBJECT_IN_USE"},
    {KXRC_OPTIONS_ERROR, "KXRC_OPTIONS_ERROR"},
    {KXRC_Q_DELETED, "KXRC_Q_DELETED"},
    {KXRC_Q_MGR_NAME_ERROR, "KXRC_Q_MGR_NAME_ERROR"},
    {KXRC_Q_MGR_NOT_AVAILABLE, "KXRC_Q_MGR_NOT_AVAILABLE"},
    {KXRC_STORAGE_NOT_AVAILABLE, "KXRC_STORAGE_NOT_AVAILABLE"},
    {KXRC_TRUNCATED_MSG_FAILED, "KXRC_TRUNCATED_MSG_FAILED"},
    {KXRC_UNKNOWN_OBJECT_NAME, "KXRC_UNKNOWN_OBJECT_NAME"},
    {KXRC_RESOURCE_PROBLEM, "KXRC_RESOURCE_PROBLEM"},
    {KXRC_UNEXPECTED_ERROR, "KXRC_UNEXPECTED_ERROR"},
};

std::string reasonTag(KXLONG reason) {
  for (const Reason& r : kReasonNames)
    if (r.code == reason) return std::to_string(reason) + " " + r.name;
  return std::to_string(reason);
}

bool clientMode() {
  const char* v = std::getenv(rplkx::kClientVariable);
  return v != nullptr && strcasecmp(v, "TRUE") == 0;
}

// Where the client library looks for a queue manager: KXSERVER, else the queue manager's line
// (or the first '*' line) of the client configuration file, else the default server.
std::string serverOf(const std::string& qmgr) {
  const char* server = std::getenv("KXSERVER");
  if (server != nullptr && server[0] != '\0') return server;
  std::string path;
  if (const char* conf = std::getenv("KXCLIENTCONF"); conf != nullptr && conf[0] != '\0')
    path = conf;
  else if (const char* home = std::getenv("HOME"); home != nullptr)
    path = std::string(home) + "/.kx/client.conf";
  std::ifstream in(path);
  std::string line, star;
  while (std::getline(in, line)) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string name, address;
    if (!(words >> name >> address)) continue;
    if (name == qmgr) return address;
    if (name == "*" && star.empty()) star = address;
  }
  return star.empty() ? "127.0.0.1:6379" : star;
}

// " on HOST:PORT" in client mode, nothing for the local queue manager.
std::string where(const std::string& qmgr) {
  return clientMode() ? " on " + serverOf(qmgr) : std::string();
}

void sayConnectFailure(const std::string& qmgr, KXLONG reason) {
  const std::string at = where(qmgr);
  const std::string tag = reasonTag(reason);
  switch (reason) {
    case KXRC_Q_MGR_NAME_ERROR:
      say("queue manager %s not found%s (%s)", qmgr.c_str(), at.c_str(), tag.c_str());
      break;
    case KXRC_Q_MGR_NOT_AVAILABLE:
      say("queue manager %s not available%s (%s)", qmgr.c_str(), at.c_str(), tag.c_str());
      break;
    case KXRC_NOT_AUTHORIZED:
      say("not authorised to connect to queue manager %s%s (%s)", qmgr.c_str(), at.c_str(),
          tag.c_str());
      break;
    case KXRC_UNEXPECTED_ERROR:
      if (!rplkx::loaded()) {
        say("cannot load the middleware library %s (%s)",
            clientMode() ? rplkx::kClientLibrary : rplkx::kServerLibrary, tag.c_str());
        break;
      }
      [[fallthrough]];
    default:
      say("cannot connect to queue manager %s%s (%s)", qmgr.c_str(), at.c_str(), tag.c_str());
  }
}

void sayQueueFailure(const Options& o, const char* doing, KXLONG reason) {
  const std::string at = where(o.qmgr);
  const std::string tag = reasonTag(reason);
  if (reason == KXRC_UNKNOWN_OBJECT_NAME)
    say("queue %s not found on queue manager %s%s (%s)", o.queue.c_str(), o.qmgr.c_str(),
        at.c_str(), tag.c_str());
  else
    say("cannot %s queue %s on queue manager %s%s (%s)", doing, o.queue.c_str(), o.qmgr.c_str(),
        at.c_str(), tag.c_str());
}

// ---- Decoder reports ----------------------------------------------------------------------------

// The decoder issues its failure reports through the catalog logger; rplq collects them per
// message and says them in one line.
class ReportCapture {
 public:
  ReportCapture() { open(); }
  ~ReportCapture() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(text_);
  }
  // The texts issued since the last call, joined by "; " (empty when none).
  std::string take() {
    std::fflush(stream_);
    if (size_ == 0) return {};
    std::string joined;
    std::istringstream lines(std::string(text_, size_));
    std::string line;
    while (std::getline(lines, line)) {
      // "<time stamp> <program> RPLnnnnX <text>": the text after the message id.
      size_t at = line.find(" RPL");
      std::string text = at != std::string::npos && line.size() > at + 9 ? line.substr(at + 10) : line;
      if (text.empty()) continue;
      if (!joined.empty()) joined += "; ";
      joined += text;
    }
    std::fclose(stream_);
    std::free(text_);
    text_ = nullptr;
    size_ = 0;
    open();
    return joined;
  }

 private:
  void open() {
    stream_ = open_memstream(&text_, &size_);
    rplLogger()->setOutput(stream_ != nullptr ? stream_ : stderr);
  }
  FILE* stream_ = nullptr;
  char* text_ = nullptr;
  size_t size_ = 0;
};

// ---- Output -------------------------------------------------------------------------------------

enum class Written { Ok, ReaderGone, Failed };

// True when the output is a pipe whose reader has gone. The errno of a failed buffered write
// may be overwritten by the middleware's own calls before the check (a socket's EAGAIN), so
// the pipe itself is asked: its write end polls as an error once no reader is left.
bool readerGone(FILE* out) {
  struct pollfd p = {fileno(out), 0, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & POLLERR) != 0;
}

// Checks the output after a message; with `flush` its text is written out now.
Written checkWritten(FILE* out, bool flush, int& err) {
  err = 0;
  if (std::ferror(out)) {
    err = errno != 0 ? errno : EIO;
    std::clearerr(out);
    errno = 0;
    if (std::fflush(out) != 0 && errno != 0) err = errno;
  } else if (flush) {
    errno = 0;
    if (std::fflush(out) != 0) err = errno != 0 ? errno : EIO;
  }
  if (err == 0) return Written::Ok;
  return err == EPIPE || readerGone(out) ? Written::ReaderGone : Written::Failed;
}

// The --oenc name as ICU knows it: the name typed when ICU opens it cleanly, else its canonical
// name (a warning, such as an ambiguous alias, is not a failure). Empty when ICU has no such
// converter.
std::string resolveEncoding(const std::string& typed) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* conv = ucnv_open(typed.c_str(), &status);
  if (U_FAILURE(status) || conv == nullptr) return {};
  std::string name = typed;
  if (status != U_ZERO_ERROR) {
    UErrorCode s2 = U_ZERO_ERROR;
    const char* canonical = ucnv_getName(conv, &s2);
    if (U_SUCCESS(s2) && canonical != nullptr) name = canonical;
  }
  ucnv_close(conv);
  return name;
}

bool formatIs(const KXMD& md, const char* name) { return std::memcmp(md.Format, name, 8) == 0; }

std::string formatText(const KXMD& md) {
  std::string f(md.Format, sizeof md.Format);
  while (!f.empty() && (f.back() == ' ' || f.back() == '\0')) f.pop_back();
  for (char& c : f)
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '?';
  return f;
}

// The kind of a message of another format, as the summary names it.
std::string otherKind(const KXMD& md, const uint8_t* data, size_t length) {
  if (formatIs(md, KXFMT_STRING)) return length > 0 && data[0] == '<' ? "XML (KXSTR)" : "text (KXSTR)";
  if (formatIs(md, KXFMT_RFH2)) return "header folders (KXHRF2)";
  return "other format '" + formatText(md) + "'";
}

// ---- The run ------------------------------------------------------------------------------------

std::string wherePrefilter(const Options& o);

class Run {
 public:
  Run(const Options& o, FILE* out, char* encodingName)
      : o_(o), out_(out), printer_(o.queue.c_str(), encodingName, PrintOptions{}) {}
  ~Run() {
    std::free(buf_);
    std::free(takeBuf_);
    if (nullOut_ != nullptr) std::fclose(nullOut_);
  }

  // Returns the exit code.
  int go(KXHCONN hconn);

 private:
  int open(KXHCONN hconn);
  int browse(KXHCONN hconn);
  bool grow(size_t need);
  // Whether the message matches every selection option; renders its typed fields when an
  // option needs them (typed_, and matchedRows_ for --where).
  bool selected(const KXMD& md, const uint8_t* data, size_t length);
  std::set<int64_t> selectedSubs() const;
  void renderTyped(const KXMD& md, const uint8_t* data, size_t length);
  // The light pass over a transaction, streamed transaction or spilled-row message (scanned_);
  // false when it could not walk the message, or (for the summary) cannot tell that the whole
  // rendering reads it, which is then rendered as a whole instead.
  bool scan(const KXMD& md, const uint8_t* data, size_t length);
  // False when the message cannot hold a row that --where selects: the value is an integer,
  // every column of that name in the schemas met is an integer column, and the message holds
  // none of the value's byte forms (integers travel as they are, in the sender's byte order).
  bool mayMatch(const KXMD& md, const uint8_t* data, size_t length);
  // The rows of the scanned message that --where and the subscriptions select, 1-based.
  std::vector<int> scannedMatches(const std::set<int64_t>* subs, bool byValue) const;
  bool parseTyped();
  // Decodes a subscription schema message into the schema cache and learns its names.
  void learnSchema(const KXMD& md, const uint8_t* data, size_t length);
  // A copy of the message for the decoder (which swaps integers in place, while the message
  // may still be printed from the original), and its sender's context with UTF-8 as output.
  uint8_t* workCopy(const KXMD& md, const uint8_t* data, size_t length, encodingInfo& enc);
  // Prints one selected message; returns false when the run must end (exit code set).
  bool show(KXHCONN hconn, const KXMD& md, uint8_t* data, size_t length);
  // Takes the message just browsed off the queue under syncpoint. 1 taken, 0 gone meanwhile
  // (not shown), -1 failure (exit code set).
  int take(KXHCONN hconn, const KXMD& md, const uint8_t* data, size_t length);
  void endUnit(KXHCONN hconn, bool commit);
  void summarize(const KXMD& md, uint8_t* data, size_t length);

  const Options& o_;
  FILE* out_;
  MessagePrinter printer_;
  ReportCapture reports_;
  Summary summary_;
  std::string line_;  // the JSON line of the message in hand, with the rows --where found
  JsonOut jsonLine_;  // the JSON line of the message in hand, as rendered
  std::vector<uint8_t> work_;  // a copy of the message for the typed rendering
  JsonOut typedText_;          // the JSON rendering of the message in hand
  nlohmann::json typed_;       // its typed fields, once read
  bool parsed_ = false;
  bool haveTyped_ = false;
  ScanResult scan_;            // the light pass's reading of the message in hand
  bool scanned_ = false;
  // The --where pre-check: the schemas it was worked out for (their count of changes) and the
  // sender's code page and byte order, whether it applies, and the value's byte forms.
  uint64_t schemaChanges_ = 0;
  uint64_t precheckChanges_ = ~uint64_t{0};
  int32_t precheckCcsid_ = 0;
  bool precheckLittle_ = false;
  bool precheckActive_ = false;
  std::vector<std::string> wireForms_;
  std::string prefilter_ = wherePrefilter(o_);
  int32_t typedRc_ = 0;
  std::string typedWhy_;
  std::vector<int> matchedRows_;
  SubDirectory directory_;
  SubSummary subSummary_;
  FILE* nullOut_ = nullptr;
  KXHOBJ hobj_ = 0;
  uint8_t* buf_ = nullptr;
  size_t allocated_ = 0;
  uint8_t* takeBuf_ = nullptr;
  size_t takeAllocated_ = 0;
  int64_t position_ = 0;
  int64_t shown_ = 0;
  int exit_ = kExitShown;
  bool ended_ = false;  // the output's reader went away or a failure ended the run
};

int Run::go(KXHCONN hconn) {
  if (printer_.start() != 0) {
    say("cannot open the output encoding's converter");
    return kExitUsage;
  }
  nullOut_ = std::fopen("/dev/null", "w");
  if (nullOut_ != nullptr) std::setvbuf(nullOut_, nullptr, _IOFBF, 1 << 16);
  if (!grow(kFirstBufferSize)) return kExitUnavailable;
  if (int rc = open(hconn); rc != 0) return rc;
  int rc = browse(hconn);
  KXLONG cc = 0, reason = 0;
  rplkx::KXCLOSE(hconn, &hobj_, KXCO_NONE, &cc, &reason);
  if (rc != kExitShown) return rc;
  if (cc != KXCC_OK) {
    sayQueueFailure(o_, "close", reason);
    return kExitUnavailable;
  }
  if (o_.summary) {
    if (o_.json) {
      summary_.writeJson(out_, o_.qmgr, o_.queue);
      subSummary_.writeJson(out_, directory_);
      std::fputs("}\n", out_);
    } else {
      summary_.writeTable(out_, o_.qmgr, o_.queue);
      subSummary_.writeTable(out_, directory_);
    }
    return summary_.messages() > 0 ? kExitShown : kExitNoMatch;
  }
  if (o_.follow) return kExitShown;
  return shown_ > 0 ? kExitShown : kExitNoMatch;
}

int Run::open(KXHCONN hconn) {
  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, o_.queue.c_str());
  KXLONG options = KXOO_BROWSE | KXOO_FAIL_IF_QUIESCING;
  if (o_.drain) options |= KXOO_INPUT_SHARED;
  KXLONG cc = 0, reason = 0;
  rplkx::KXOPEN(hconn, &od, options, &hobj_, &cc, &reason);
  if (cc != KXCC_OK) {
    sayQueueFailure(o_, "open", reason);
    return kExitUnavailable;
  }
  return 0;
}

bool Run::grow(size_t need) {
  if (need <= allocated_) return true;
  uint8_t* bigger = static_cast<uint8_t*>(std::realloc(buf_, need));
  if (bigger == nullptr) {
    say("out of memory for a message of %zu bytes", need);
    return false;
  }
  buf_ = bigger;
  allocated_ = need;
  return true;
}

bool Run::selected(const KXMD& md, const uint8_t* data, size_t length) {
  matchedRows_.clear();
  haveTyped_ = false;
  scanned_ = false;
  typedText_.clear();
  typedRc_ = 0;
  if (position_ < o_.from) return false;
  const bool compact = formatIs(md, KXFMT_COMPACT) && length >= kHeaderSize;
  if (o_.typeFilter && (!compact || !o_.types.test(data[4]))) return false;
  const bool rowOptions = o_.hasWhere || !o_.sub.empty() || !o_.table.empty() || o_.hasLsn;
  if (rowOptions && !compact) return false;
  const bool byTime = o_.hasSince || o_.hasUntil;
  if (compact && (rowOptions || byTime || o_.summary)) {
    const uint8_t type = data[4];
    if (type == kTypeTransMsg || type == kTypeStreamedTransMsg || type == kTypeSpillRow) {
      if (o_.hasWhere && !mayMatch(md, data, length)) return false;
      // Rows are read by the light pass; a message it cannot walk is rendered whole.
      if (!scan(md, data, length)) {
        renderTyped(md, data, length);
        if (!o_.summary && !prefilter_.empty() && typedText_.str().find(prefilter_) == std::string::npos)
          return false;
        if (rowOptions || byTime) parseTyped();
      }
    } else if (o_.hasWhere || o_.hasLsn) {
      // Only transaction and spilled-row messages have rows, only transactions a commit LSN.
      return false;
    } else if (rowOptions || o_.summary) {
      // Other messages name their subscription, or are checked for the summary, in their
      // rendering. A commit time is a transaction's: the others are placed by their put time.
      renderTyped(md, data, length);
      if (rowOptions) parseTyped();
    }
  }

  if (byTime) {
    Micros at = 0;
    bool known = false;
    if (scanned_) {
      known = !scan_.fields.commitTime.empty() && parseIsoTime(scan_.fields.commitTime, at);
    } else if (haveTyped_) {
      auto commit = typed_.find("commit_time");
      known = commit != typed_.end() && commit->is_string() &&
              parseIsoTime(commit->get<std::string>(), at);
    }
    if (!known && !putTimeOf(md, at)) return false;
    if (o_.hasSince && at < o_.since) return false;
    if (o_.hasUntil && at > o_.until) return false;
  }
  if (!rowOptions) return true;
  if (!haveTyped_ && !scanned_) return false;

  if (o_.hasLsn) {
    std::string printed;
    if (scanned_) {
      printed = scan_.fields.commitLsn;
    } else {
      auto lsn = typed_.find("commit_LSN");
      if (lsn == typed_.end() || !lsn->is_string()) return false;
      printed = lsn->get<std::string>();
    }
    if (printed.empty()) return false;
    const std::string key = lsnKey(printed);
    if (!o_.lsnFrom.empty() && key < o_.lsnFrom) return false;
    if (!o_.lsnTo.empty() && key > o_.lsnTo) return false;
  }
  const bool bySub = !o_.sub.empty() || !o_.table.empty();
  std::set<int64_t> subs;
  if (bySub) subs = selectedSubs();
  if (scanned_) {
    if (!o_.hasWhere && !bySub) return true;
    matchedRows_ = scannedMatches(bySub ? &subs : nullptr, o_.hasWhere);
    const bool any = !matchedRows_.empty();
    if (!o_.hasWhere) matchedRows_.clear();
    return any;
  }
  if (o_.hasWhere) {
    matchedRows_ = matchingRows(typed_, o_.whereColumn, o_.whereValue, bySub ? &subs : nullptr);
    return !matchedRows_.empty();
  }
  return !bySub || ofSubscriptions(typed_, subs);
}

std::vector<int> Run::scannedMatches(const std::set<int64_t>* subs, bool byValue) const {
  std::vector<int> hits;
  int index = 0;
  for (const ScanRow& row : scan_.rows) {
    ++index;
    if (subs != nullptr && subs->count(row.subId) == 0) continue;
    bool hit = !byValue;
    for (uint32_t v = 0; v < row.valueCount && !hit; ++v)
      hit = renderedValueReads(scan_.value(row.firstValue + v), o_.whereValue);
    if (hit) hits.push_back(index);
  }
  return hits;
}

// The value as an integer when its text is the one the JSON rendering gives that integer.
bool canonicalInteger(const std::string& text, int64_t& value) {
  if (text.empty() || text.size() > 20) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || std::to_string(v) != text) return false;
  value = v;
  return true;
}

bool Run::mayMatch(const KXMD& md, const uint8_t* data, size_t length) {
  const bool little = littleEndianEncoding(md.Encoding);
  if (precheckChanges_ != schemaChanges_ || precheckCcsid_ != md.CodedCharSetId || precheckLittle_ != little) {
    precheckChanges_ = schemaChanges_;
    precheckCcsid_ = md.CodedCharSetId;
    precheckLittle_ = little;
    precheckActive_ = false;
    wireForms_.clear();
    int64_t value = 0;
    const std::string& column = o_.whereColumn;
    // A name of digits also names the values of rows without a schema, by position.
    const bool positional = column.find_first_not_of("0123456789") == std::string::npos;
    if (positional || !canonicalInteger(o_.whereValue, value)) return true;
    encodingInfo enc;
    enc.setup(md.CodedCharSetId);
    enc.flags = little ? kEncMachineOrder : 0;
    unsigned forms = 0;
    if (namedColumnForms(enc, printer_.converters(), column.c_str(), forms) != 0) {
      reports_.take();  // the rows' own reading reports the schema
      return true;
    }
    if (forms & kFormOther) return true;
    auto add = [&](size_t width, int64_t low, int64_t high) {
      if (value < low || value > high) return;
      std::string bytes(width, '\0');
      for (size_t i = 0; i < width; ++i) {
        const size_t shift = 8 * (little ? i : width - 1 - i);
        bytes[i] = static_cast<char>(static_cast<uint64_t>(value) >> shift);
      }
      wireForms_.push_back(bytes);
    };
    if (forms & kFormInt16) add(2, INT16_MIN, INT16_MAX);
    if (forms & kFormInt32) add(4, INT32_MIN, INT32_MAX);
    if (forms & kFormInt64) add(8, INT64_MIN, INT64_MAX);
    precheckActive_ = true;
  }
  if (!precheckActive_) return true;
  for (const std::string& form : wireForms_)
    if (memmem(data, length, form.data(), form.size()) != nullptr) return true;
  return false;
}

bool Run::scan(const KXMD& md, const uint8_t* data, size_t length) {
  encodingInfo enc;
  uint8_t* copy = nullptr;
  if (littleEndianEncoding(md.Encoding) == (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)) {
    // In the machine's byte order nothing is swapped in place: the message is read as it is.
    enc.setup(md.CodedCharSetId);
    enc.outCcsid = 1208;
    enc.flags = littleEndianEncoding(md.Encoding) ? kEncMachineOrder : 0;
    copy = const_cast<uint8_t*>(data);
  } else {
    copy = workCopy(md, data, length, enc);
  }
  const char* column = o_.hasWhere ? o_.whereColumn.c_str() : nullptr;
  // The summary lists the messages whose rendering fails: their values are checked too.
  int32_t rc = scanCompactMsg(copy, length, enc, printer_.converters(), column, scan_, o_.summary);
  // The whole rendering reports what failed.
  if (rc != 0 || o_.summary || scan_.unreadValues) reports_.take();
  if (rc != 0) return false;
  scanned_ = true;
  return true;
}

std::set<int64_t> Run::selectedSubs() const {
  std::set<int64_t> subs;
  if (!o_.sub.empty()) {
    char* end = nullptr;
    long long id = std::strtoll(o_.sub.c_str(), &end, 10);
    if (*end == '\0')
      subs.insert(id);
    else
      subs = directory_.idsNamed(o_.sub);
  }
  if (!o_.table.empty()) {
    std::set<int64_t> ofTable = directory_.idsOfTable(o_.table);
    if (o_.sub.empty()) return ofTable;
    std::set<int64_t> both;
    for (int64_t id : subs)
      if (ofTable.count(id) != 0) both.insert(id);
    return both;
  }
  return subs;
}

uint8_t* Run::workCopy(const KXMD& md, const uint8_t* data, size_t length, encodingInfo& enc) {
  if (work_.size() < length + 1) work_.resize(length + 1);
  std::memcpy(work_.data(), data, length);
  enc.setup(md.CodedCharSetId);
  enc.outCcsid = 1208;
  enc.flags = littleEndianEncoding(md.Encoding) ? kEncMachineOrder : 0;
  return work_.data();
}

void Run::renderTyped(const KXMD& md, const uint8_t* data, size_t length) {
  encodingInfo enc;
  uint8_t* copy = workCopy(md, data, length, enc);
  typedText_.clear();
  typedRc_ = renderCompactJson(copy, length, enc, printer_.converters(), typedText_);
  typedWhy_ = reports_.take();
  parsed_ = false;
}

bool Run::parseTyped() {
  if (!parsed_) {
    parsed_ = true;
    typed_ = nlohmann::json::parse(typedText_.str(), nullptr, false);
    haveTyped_ = !typed_.is_discarded() && typed_.is_object();
    if (!haveTyped_ && typedRc_ == 0) typedRc_ = -1;
  }
  return haveTyped_;
}

// The text a --where value must appear as in the rendering of a matching message, when that
// can be told without reading it: a word or an integer, nothing escaped, no number whose
// JSON text could be written otherwise. Empty: every message is read.
std::string wherePrefilter(const Options& o) {
  if (!o.hasWhere) return {};
  std::string v = o.whereValue;
  while (!v.empty() && v.back() == ' ') v.pop_back();
  if (v.empty() || v == "NULL" || v == "null" || v == "true" || v == "false") return {};
  const bool numberLike = v[0] == '-' || std::isdigit(static_cast<unsigned char>(v[0]));
  for (char c : v) {
    // No '.', so no fraction; an exponent could be written another way.
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != ':' && c != ' ')
      return {};
    if (numberLike && (c == 'e' || c == 'E')) return {};
  }
  return v;
}

void Run::learnSchema(const KXMD& md, const uint8_t* data, size_t length) {
  ++schemaChanges_;
  encodingInfo enc;
  uint8_t* copy = workCopy(md, data, length, enc);
  SchemaNamesSink names;
  const int32_t rc = learnSchemaMsg(copy, length, &enc, &printer_.converters(), names);
  if (rc == 0 && names.hasSubId) directory_.learn(names.subId, names.subname, names.srcOwner, names.srcName);
  std::string why = reports_.take();
  if (rc != 0)
    say("message %lld: subscription schema not readable, rows of its subscription print "
        "without column names: %s",
        static_cast<long long>(position_), why.empty() ? "decoding failed" : why.c_str());
}

void Run::summarize(const KXMD& md, uint8_t* data, size_t length) {
  Micros at = 0;
  if (putTimeOf(md, at)) summary_.addPutTime(at);
  if (!formatIs(md, KXFMT_COMPACT) || length == 0) {
    summary_.addOther(otherKind(md, data, length), length);
    return;
  }
  if (length < kHeaderSize) {
    summary_.addOther("compact, shorter than its header", length);
    summary_.addFailure(position_, "COMPACT", "message shorter than the 8-byte compact header");
    return;
  }
  uint8_t type = data[4];
  summary_.addCompact(type, length);
  if (scanned_) {
    thread_local std::vector<SubSummary::RowKey> rows;
    rows.clear();
    for (const ScanRow& row : scan_.rows) rows.push_back({row.subId, row.operation});
    subSummary_.add(scan_.fields.commitTime, scan_.fields.commitLsn, rows, scan_.fields.uow,
                    !scan_.spilled);
    return;
  }
  if (haveTyped_)
    subSummary_.add(typed_);
  else if (!subSummary_.addRendered(typedText_.str()) && typedRc_ == 0)
    typedRc_ = -1;
  if (typedRc_ == 0) return;
  std::string reason;
  if (parseTyped()) {
    auto error = typed_.find("error");
    if (error != typed_.end() && error->is_object()) {
      reason = error->value("text", std::string());
      if (error->contains("offset"))
        reason += " (" + error->value("field", std::string()) + " at offset " +
                  std::to_string(error->value("offset", 0)) + ")";
      else if (error->contains("field"))
        reason += " (" + error->value("field", std::string()) + ")";
    }
  }
  if (reason.empty()) reason = typedWhy_.empty() ? "decoding failed" : typedWhy_;
  summary_.addFailure(position_, typeName(type), reason);
}

int Run::take(KXHCONN hconn, const KXMD& md, const uint8_t* data, size_t length) {
  if (length + 1 > takeAllocated_) {
    uint8_t* bigger = static_cast<uint8_t*>(std::realloc(takeBuf_, length + 1));
    if (bigger == nullptr) {
      say("out of memory for a message of %zu bytes", length);
      exit_ = kExitUnavailable;
      return -1;
    }
    takeBuf_ = bigger;
    takeAllocated_ = length + 1;
  }
  KXMD got = KXMD_DEFAULT;
  std::memcpy(got.MsgId, md.MsgId, sizeof got.MsgId);
  std::memcpy(got.CorrelId, md.CorrelId, sizeof got.CorrelId);
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = KXGMO_SYNCPOINT | KXGMO_FAIL_IF_QUIESCING;
  gmo.MatchOptions = KXMO_MATCH_MSG_ID | KXMO_MATCH_CORREL_ID;
  KXLONG dataLen = 0, cc = 0, reason = 0;
  rplkx::KXGET(hconn, hobj_, &got, &gmo, static_cast<KXLONG>(length), takeBuf_, &dataLen, &cc,
               &reason);
  if (cc == KXCC_OK && static_cast<size_t>(dataLen) == length &&
      std::memcmp(takeBuf_, data, length) == 0)
    return 1;
  if (cc != KXCC_OK && reason == KXRC_NO_MSG_AVAILABLE) return 0;  // taken by another reader
  if (cc == KXCC_OK || reason == KXRC_TRUNCATED_MSG_FAILED) {
    if (cc == KXCC_OK) endUnit(hconn, false);
    say("message %lld was not removed: another message has the same MsgId and CorrelId",
        static_cast<long long>(position_));
    exit_ = kExitUnavailable;
    return -1;
  }
  sayQueueFailure(o_, "remove a message from", reason);
  exit_ = kExitUnavailable;
  return -1;
}

void Run::endUnit(KXHCONN hconn, bool commit) {
  KXLONG cc = 0, reason = 0;
  if (commit)
    rplkx::KXCMIT(hconn, &cc, &reason);
  else
    rplkx::KXBACK(hconn, &cc, &reason);
  if (cc != KXCC_OK) {
    sayQueueFailure(o_, commit ? "commit the removal of a message from" : "back out a get from",
                    reason);
    exit_ = kExitUnavailable;
    ended_ = true;
  }
}

bool Run::show(KXHCONN hconn, const KXMD& md, uint8_t* data, size_t length) {
  const bool known = o_.json || length == 0 || formatIs(md, KXFMT_COMPACT) ||
                     formatIs(md, KXFMT_STRING) || formatIs(md, KXFMT_RFH2);
  if (!known) {
    say("message %lld: format '%s' has no text rendering; not shown",
        static_cast<long long>(position_), formatText(md).c_str());
    return true;
  }
  if (o_.drain) {
    int taken = take(hconn, md, data, length);
    if (taken < 0) return false;
    if (taken == 0) return true;
  }

  int32_t rc = 0;
  if (o_.json) {
    rc = messageJson(md, data, length, position_, printer_.converters(), jsonLine_);
    std::string_view line = jsonLine_.str();
    if (!matchedRows_.empty()) {
      // The rows --where found, as 1-based indexes into "rows".
      line_.assign(line);
      std::string rows = ",\"matched_rows\":[";
      for (size_t i = 0; i < matchedRows_.size(); ++i)
        rows += (i != 0 ? "," : "") + std::to_string(matchedRows_[i]);
      rows += "]";
      size_t close = line_.rfind('}');
      if (close != std::string::npos) line_.insert(close, rows);
      line = line_;
    }
    std::fwrite(line.data(), 1, line.size(), out_);
  } else {
    int32_t counter = static_cast<int32_t>(position_ - 1);
    bool stop = false;
    rc = printer_.print(md, data, length, counter, out_, stop);
    if (!matchedRows_.empty()) {
      // After the message's text, which stays rplqmfmt's: the rows found, 1-based.
      std::fprintf(out_, "**** Rows with %s=%s:", o_.whereColumn.c_str(), o_.whereValue.c_str());
      for (int row : matchedRows_) std::fprintf(out_, " %d", row);
      std::fputc('\n', out_);
    }
  }
  std::string why = reports_.take();
  if (rc != 0 || !why.empty())
    say("message %lld: %s", static_cast<long long>(position_),
        why.empty() ? "decoding failed" : why.c_str());

  int err = 0;
  Written w = checkWritten(out_, o_.drain || o_.follow, err);
  if (w != Written::Ok) {
    if (o_.drain) endUnit(hconn, false);  // the message goes back to its place
    if (w == Written::Failed) {
      say("cannot write the output: %s%s", std::strerror(err),
          o_.drain ? " (the message was put back on the queue)" : "");
      exit_ = kExitOutput;
    }
    ended_ = true;
    return false;
  }
  if (o_.drain) {
    endUnit(hconn, true);
    if (ended_) return false;
  }
  ++shown_;
  return true;
}

int Run::browse(KXHCONN hconn) {
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = KXGMO_BROWSE_NEXT | KXGMO_NO_SYNCPOINT | KXGMO_FAIL_IF_QUIESCING;
  gmo.MatchOptions = (o_.matchMsgId ? KXMO_MATCH_MSG_ID : 0) |
                     (o_.matchCorrelId ? KXMO_MATCH_CORREL_ID : 0);
  gmo.WaitInterval = 0;
  bool waiting = false;

  while (!g_stopRequested) {
    if (o_.count >= 0 && (o_.summary ? static_cast<int64_t>(summary_.messages()) : shown_) >= o_.count)
      break;
    KXMD md = KXMD_DEFAULT;
    if (o_.matchMsgId) std::memcpy(md.MsgId, o_.msgId, sizeof md.MsgId);
    if (o_.matchCorrelId) std::memcpy(md.CorrelId, o_.correlId, sizeof md.CorrelId);
    KXLONG dataLen = 0, cc = 0, reason = 0;
    rplkx::KXGET(hconn, hobj_, &md, &gmo, static_cast<KXLONG>(allocated_ - 1), buf_, &dataLen,
                 &cc, &reason);
    if (cc != KXCC_OK) {
      if (reason == KXRC_NO_MSG_AVAILABLE) {
        if (!o_.follow) break;
        if (!waiting) {
          // Everything there was is shown: what comes now is written as it arrives.
          int err = 0;
          Written w = checkWritten(out_, true, err);
          if (w == Written::Failed) {
            say("cannot write the output: %s", std::strerror(err));
            return kExitOutput;
          }
          if (w == Written::ReaderGone) return kExitShown;
          gmo.Options |= KXGMO_WAIT;
          gmo.WaitInterval = kFollowWaitMs;
          waiting = true;
        }
        continue;
      }
      if (reason == KXRC_TRUNCATED_MSG_FAILED && dataLen >= 0) {
        if (!grow(static_cast<size_t>(dataLen) + 1)) return kExitUnavailable;
        continue;  // the cursor stays: the same message comes again
      }
      sayQueueFailure(o_, "browse", reason);
      return kExitUnavailable;
    }
    if (dataLen < 0) dataLen = 0;
    const size_t length = static_cast<size_t>(dataLen);
    ++position_;

    // Every schema is read on the way, shown or not: later rows print with column names.
    if (formatIs(md, KXFMT_COMPACT) && length >= kHeaderSize && buf_[4] == kTypeSchema)
      learnSchema(md, buf_, length);
    if (!selected(md, buf_, length)) continue;
    if (o_.summary) {
      summarize(md, buf_, length);
      continue;
    }
    if (!show(hconn, md, buf_, length)) return exit_;
  }
  return kExitShown;
}

int runTool(int argc, char** argv) {
  Options o;
  std::string err = parseOptions(argc, argv, o);
  if (!err.empty()) {
    say("%s (rplq --help shows the options)", err.c_str());
    return kExitUsage;
  }
  if (o.help) {
    std::fputs(usageText(), stdout);
    return std::fflush(stdout) == 0 ? kExitShown : kExitOutput;
  }
  if (o.version) {
    std::printf("rplq %s\n", RPL_VERSION);
    return std::fflush(stdout) == 0 ? kExitShown : kExitOutput;
  }

  char encodingName[kEncodingNameRoom] = {};
  if (!o.encoding.empty()) {
    std::string name = resolveEncoding(o.encoding);
    if (name.empty() || name.size() >= sizeof encodingName) {
      say("unknown output encoding '%s'", o.encoding.c_str());
      return kExitUsage;
    }
    std::memcpy(encodingName, name.c_str(), name.size() + 1);
  }

  FILE* out = stdout;
  if (!o.outputFile.empty()) {
    out = std::fopen(o.outputFile.c_str(), "w");
    if (out == nullptr) {
      say("cannot open the output file %s: %s", o.outputFile.c_str(), std::strerror(errno));
      return kExitOutput;
    }
  }
  std::setvbuf(out, g_outputBuffer, _IOFBF, sizeof g_outputBuffer);

  KXCHAR qmgr[KX_Q_MGR_NAME_LENGTH];
  kxSetName(qmgr, sizeof qmgr, o.qmgr.c_str());
  KXHCONN hconn = 0;
  KXLONG cc = 0, reason = 0;
  rplkx::KXCONN(qmgr, &hconn, &cc, &reason);
  if (cc == KXCC_FAILED) {
    sayConnectFailure(o.qmgr, reason);
    if (out != stdout) std::fclose(out);
    return kExitUnavailable;
  }

  int code = kExitShown;
  {
    Run run(o, out, encodingName);
    code = run.go(hconn);
  }
  rplkx::KXDISC(&hconn, &cc, &reason);

  int werr = 0;
  Written w = checkWritten(out, true, werr);
  if (w == Written::Failed && code != kExitOutput) {
    say("cannot write the output: %s", std::strerror(werr));
    code = kExitOutput;
  }
  if (out != stdout && std::fclose(out) != 0 && code != kExitOutput && w == Written::Ok) {
    say("cannot write the output file %s: %s", o.outputFile.c_str(), std::strerror(errno));
    code = kExitOutput;
  }
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away is seen as EPIPE on a write, and the run ends quietly.
  std::signal(SIGPIPE, SIG_IGN);
  struct sigaction stop {};
  stop.sa_handler = onStopSignal;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = 0;  // no restart: a waiting get comes back and the loop sees the request
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);

  msgLogger* logger = msgLogger::create(kProgramId, 0);
  if (logger == nullptr) {
    std::fputs("rplq: out of memory\n", stderr);
    return kExitUnavailable;
  }
  logger->loadCatalog(kRplCatalog);
  setRplLogger(logger);
  traceInit();
  rplkx::init();
  rplkx::setQuiet(true);
  rplkx::setRetryDelayMs(kConnectRetryDelayMs);
  ConvMgr::init();

  int code = runTool(argc, argv);

  releaseSchemaCache();
  xmlShutdown();
  ConvMgr::cleanup();
  rplkx::cleanup();
  // Standard output is already written or reported; a reader gone now changes nothing.
  std::fflush(stdout);
  return code;
}
