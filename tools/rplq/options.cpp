// rplq's command line and the value forms of its options.
#include "tools/rplq/options.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "qmsg/compact.h"
#include "tools/rplq/typed.h"

namespace rplq {

namespace {

const char* const kUsage =
    "usage: rplq [OPTIONS] QMGR QUEUE\n"
    "\n"
    "Shows the messages of QUEUE on queue manager QMGR as rplqmfmt prints them, selected,\n"
    "summarized, followed or drained. Options take their value as --opt=VALUE or --opt VALUE.\n"
    "\n"
    "Selection (a message is shown when it matches every option given):\n"
    "  --type LIST        compact message types, names or numbers, comma-separated\n"
    "                     (RPLKX_TRANS_MSG, TRANS_MSG, trans, 128)\n"
    "  --sub ID|NAME      messages of this subscription (its own or its rows')\n"
    "  --table OWNER.NAME messages with rows of this table's subscriptions\n"
    "  --where COL=VALUE  messages with a row whose before or after value of COL reads\n"
    "                     VALUE (as --json gives it; trailing blanks ignored); the matching\n"
    "                     rows are named after the message\n"
    "  --lsn FROM[..TO]   transactions whose commit LSN (printed form) is in the range\n"
    "  --msgid HEX        the message with this MsgId (matched by the queue manager)\n"
    "  --correlid HEX     messages with this CorrelId (matched by the queue manager)\n"
    "  --since TIME       committed (compact messages with a commit time) or else put at or\n"
    "                     after TIME (ISO-8601, UTC unless an offset is given)\n"
    "  --until TIME       committed or put at or before TIME\n"
    "  --from N           start at queue position N (1-based); the subscription schemas\n"
    "                     before it are still read, so rows print with their column names\n"
    "  --count N          show at most N messages\n"
    "\n"
    "What is done with them:\n"
    "  (default)          print each message as rplqmfmt does, banner included\n"
    "  --summary          one table: messages and bytes per type, other formats, put times,\n"
    "                     decoding failures; transactions and rows per subscription\n"
    "  --json             JSON Lines: one object per message, its descriptor under \"kxmd\"\n"
    "                     (docs/json.md); with --summary one JSON object\n"
    "  --follow           after the last message, wait for new ones until SIGINT or SIGTERM\n"
    "  --drain            remove the messages shown, each one only after its report was\n"
    "                     written out; the others stay in their order\n"
    "\n"
    "Output:\n"
    "  -o, --output FILE  write to FILE instead of standard output\n"
    "  --oenc NAME        output encoding (UTF-8, ISO-8859-1, windows-1252, Shift_JIS, IBM037,\n"
    "                     ...); default: the platform's\n"
    "  -h, --help         this text\n"
    "  --version          the version\n"
    "\n"
    "Client mode: RPLUSEKXCLIENT=TRUE reaches the queue manager through libkxic.so (server from\n"
    "KXSERVER or the client configuration file).\n"
    "\n"
    "Exit status: 0 something shown, 1 nothing matched, 2 usage, 3 queue manager or queue\n"
    "unavailable, 4 output failed.\n";

bool parseCount(const std::string& s, int64_t min, int64_t& out) {
  if (s.empty() || !std::isdigit(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < min) return false;
  out = v;
  return true;
}

std::string upper(std::string_view s) {
  std::string u(s);
  for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

// Digits of a fixed count at `p`; advances `p`.
bool digits(const char*& p, int count, int& value) {
  value = 0;
  for (int i = 0; i < count; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(p[i]))) return false;
    value = value * 10 + (p[i] - '0');
  }
  p += count;
  return true;
}

int daysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

bool utcMicros(int year, int month, int day, int hour, int minute, int second, int64_t micros,
               Micros& at) {
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 60)
    return false;
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  at = static_cast<Micros>(timegm(&tm)) * 1000000 + micros;
  return true;
}

}  // namespace

const char* usageText() { return kUsage; }

bool parseTypeName(const std::string& word, uint8_t& type) {
  if (word.empty()) return false;
  if (std::isdigit(static_cast<unsigned char>(word[0]))) {
    int64_t v = 0;
    if (!parseCount(word, 0, v) || v > 255) return false;
    type = static_cast<uint8_t>(v);
    return true;
  }
  const std::string want = upper(word);
  for (int code = 0; code < 256; ++code) {
    std::string_view name = compactTypeName(static_cast<uint8_t>(code));
    if (name.rfind("RPLKX_", 0) != 0) continue;  // no type of this code
    std::string_view bare = name.substr(std::strlen("RPLKX_"));
    std::string_view shortest = bare;
    if (shortest.size() > 4 && shortest.substr(shortest.size() - 4) == "_MSG")
      shortest.remove_suffix(4);
    if (want == name || want == bare || want == shortest) {
      type = static_cast<uint8_t>(code);
      return true;
    }
  }
  return false;
}

bool parseHexId(const std::string& text, KXBYTE* id, size_t room) {
  size_t n = text.size();
  if (n == 0 || n % 2 != 0 || n > room * 2) return false;
  std::memset(id, 0, room);
  for (size_t i = 0; i < n; i += 2) {
    int value = 0;
    for (size_t k = i; k < i + 2; ++k) {
      char c = text[k];
      int d = c >= '0' && c <= '9'   ? c - '0'
              : c >= 'a' && c <= 'f' ? c - 'a' + 10
              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                     : -1;
      if (d < 0) return false;
      value = value * 16 + d;
    }
    id[i / 2] = static_cast<KXBYTE>(value);
  }
  return true;
}

bool parseIsoTime(const std::string& text, Micros& at) {
  const char* p = text.c_str();
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  int64_t micros = 0;
  if (!digits(p, 4, year) || *p++ != '-' || !digits(p, 2, month) || *p++ != '-' ||
      !digits(p, 2, day))
    return false;
  if (*p == 'T' || *p == 't' || *p == ' ') {
    ++p;
    if (!digits(p, 2, hour) || *p++ != ':' || !digits(p, 2, minute)) return false;
    if (*p == ':') {
      ++p;
      if (!digits(p, 2, second)) return false;
      if (*p == '.' || *p == ',') {
        ++p;
        int64_t scale = 100000;
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        while (std::isdigit(static_cast<unsigned char>(*p))) {
          micros += (*p - '0') * scale;
          scale /= 10;
          ++p;
        }
      }
    }
  }
  int64_t offsetMinutes = 0;
  if (*p == 'Z' || *p == 'z') {
    ++p;
  } else if (*p == '+' || *p == '-') {
    int sign = *p++ == '-' ? -1 : 1;
    int oh = 0, om = 0;
    if (!digits(p, 2, oh)) return false;
    if (*p == ':') ++p;
    if (*p != '\0' && !digits(p, 2, om)) return false;
    if (oh > 23 || om > 59) return false;
    offsetMinutes = sign * (oh * 60 + om);
  }
  if (*p != '\0') return false;
  if (!utcMicros(year, month, day, hour, minute, second, micros, at)) return false;
  at -= offsetMinutes * 60 * 1000000;
  return true;
}

bool putTimeOf(const KXMD& md, Micros& at) {
  const char* d = md.PutDate;
  const char* t = md.PutTime;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, hundredths = 0;
  if (!digits(d, 4, year) || !digits(d, 2, month) || !digits(d, 2, day)) return false;
  if (!digits(t, 2, hour) || !digits(t, 2, minute) || !digits(t, 2, second) ||
      !digits(t, 2, hundredths))
    return false;
  return utcMicros(year, month, day, hour, minute, second, int64_t(hundredths) * 10000, at);
}

std::string isoTime(Micros at) {
  time_t seconds = static_cast<time_t>(at >= 0 ? at / 1000000 : (at - 999999) / 1000000);
  int64_t micros = at - int64_t(seconds) * 1000000;
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  char text[48];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<long long>(micros));
  return text;
}

std::string parseOptions(int argc, const char* const* argv, Options& o) {
  std::string positional[2];
  int positionals = 0;
  bool optionsEnded = false;

  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (optionsEnded || word.empty() || word[0] != '-' || word == "-") {
      if (positionals == 2) return "unexpected argument '" + word + "'";
      positional[positionals++] = word;
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = word;
    std::string value;
    bool inlineValue = false;
    if (word.rfind("--", 0) == 0) {
      size_t eq = word.find('=');
      if (eq != std::string::npos) {
        name = word.substr(0, eq);
        value = word.substr(eq + 1);
        inlineValue = true;
      }
    }
    // The value of an option that takes one: after '=' or the next word.
    auto take = [&](std::string& to) -> std::string {
      if (inlineValue) {
        to = value;
        return {};
      }
      if (i + 1 >= argc) return "option " + name + " needs a value";
      to = argv[++i];
      return {};
    };
    auto flag = [&](bool& to) -> std::string {
      if (inlineValue) return "option " + name + " takes no value";
      to = true;
      return {};
    };

    std::string err;
    std::string v;
    if (name == "-h" || name == "--help") {
      err = flag(o.help);
    } else if (name == "--version") {
      err = flag(o.version);
    } else if (name == "-o" || name == "--output") {
      err = take(o.outputFile);
      if (err.empty() && o.outputFile.empty()) err = "option " + name + " needs a file name";
    } else if (name == "--oenc") {
      err = take(o.encoding);
      if (err.empty() && o.encoding.empty()) err = "option --oenc needs an encoding name";
    } else if (name == "--type") {
      err = take(v);
      if (err.empty()) {
        size_t start = 0;
        while (err.empty()) {
          size_t comma = v.find(',', start);
          std::string item = v.substr(start, comma == std::string::npos ? std::string::npos
                                                                        : comma - start);
          uint8_t type = 0;
          if (!parseTypeName(item, type))
            err = "unknown message type '" + item + "' (a name such as TRANS_MSG, or a number)";
          else
            o.types.set(type);
          if (comma == std::string::npos) break;
          start = comma + 1;
        }
        o.typeFilter = true;
      }
    } else if (name == "--msgid" || name == "--correlid") {
      err = take(v);
      bool isMsgId = name == "--msgid";
      if (err.empty() && !parseHexId(v, isMsgId ? o.msgId : o.correlId, KX_MSG_ID_LENGTH))
        err = "option " + name + " takes 2 to 48 hex digits, an even count, not '" + v + "'";
      (isMsgId ? o.matchMsgId : o.matchCorrelId) = true;
    } else if (name == "--since" || name == "--until") {
      err = take(v);
      bool isSince = name == "--since";
      if (err.empty() && !parseIsoTime(v, isSince ? o.since : o.until))
        err = "option " + name + " takes an ISO-8601 time such as 2026-11-23T19:40:26Z, not '" +
              v + "'";
      (isSince ? o.hasSince : o.hasUntil) = true;
    } else if (name == "--sub") {
      err = take(o.sub);
      if (err.empty() && o.sub.empty()) err = "option --sub needs a subscription id or name";
    } else if (name == "--table") {
      err = take(o.table);
      if (err.empty() && (o.table.find('.') == std::string::npos || o.table.front() == '.' ||
                          o.table.back() == '.'))
        err = "option --table takes OWNER.NAME, not '" + o.table + "'";
    } else if (name == "--where") {
      err = take(v);
      if (err.empty() && !parseWhere(v, o.whereColumn, o.whereValue))
        err = "option --where takes COLUMN=VALUE, not '" + v + "'";
      o.hasWhere = true;
    } else if (name == "--lsn") {
      err = take(v);
      if (err.empty() && !parseLsnRange(v, o.lsnFrom, o.lsnTo))
        err = "option --lsn takes FROM[..TO] in the printed LSN form "
              "(0000:0000:0000:1234:0000:0000:0000:5600), not '" + v + "'";
      o.hasLsn = true;
    } else if (name == "--from") {
      err = take(v);
      if (err.empty() && !parseCount(v, 1, o.from))
        err = "option --from takes a queue position from 1, not '" + v + "'";
    } else if (name == "--count") {
      err = take(v);
      if (err.empty() && !parseCount(v, 0, o.count))
        err = "option --count takes a number of messages, not '" + v + "'";
    } else if (name == "--follow") {
      err = flag(o.follow);
    } else if (name == "--drain") {
      err = flag(o.drain);
    } else if (name == "--summary") {
      err = flag(o.summary);
    } else if (name == "--json") {
      err = flag(o.json);
    } else {
      err = "unknown option " + name;
    }
    if (!err.empty()) return err;
  }

  if (o.help || o.version) return {};
  if (positionals < 2)
    return positionals == 0 ? "the queue manager and the queue are missing (rplq [OPTIONS] QMGR QUEUE)"
                            : "the queue is missing (rplq [OPTIONS] QMGR QUEUE)";
  o.qmgr = positional[0];
  o.queue = positional[1];
  if (o.qmgr.size() > KX_Q_MGR_NAME_LENGTH) return "queue manager name longer than 48 characters";
  if (o.queue.size() > KX_Q_NAME_LENGTH) return "queue name longer than 48 characters";
  if (o.hasSince && o.hasUntil && o.since > o.until) return "--since is after --until";
  if (o.summary && o.drain) return "--summary and --drain cannot be combined";
  if (o.summary && o.follow) return "--summary and --follow cannot be combined";
  return {};
}

}  // namespace rplq
