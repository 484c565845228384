// rplq's command line: `rplq [OPTIONS] QMGR QUEUE`, GNU-style long options (`--opt=value` or
// `--opt value`), and the value forms its options take (type names, hex ids, times).
#pragma once

#include <bitset>
#include <cstdint>
#include <string>

#include "kx/kxc.h"

namespace rplq {

// Exit codes, grep-like.
inline constexpr int kExitShown = 0;        // something was shown (or summarized)
inline constexpr int kExitNoMatch = 1;      // nothing matched the selection
inline constexpr int kExitUsage = 2;        // bad command line
inline constexpr int kExitUnavailable = 3;  // queue manager or queue unavailable
inline constexpr int kExitOutput = 4;       // the output could not be written

// A UTC instant in microseconds since 1970-01-01T00:00:00Z.
using Micros = int64_t;

struct Options {
  std::string qmgr;
  std::string queue;
  std::string outputFile;  // -o; empty: standard output
  std::string encoding;    // --oenc as typed; empty: the platform's default converter

  bool typeFilter = false;
  std::bitset<256> types;  // compact message types selected by --type

  bool matchMsgId = false;
  bool matchCorrelId = false;
  KXBYTE msgId[KX_MSG_ID_LENGTH] = {};
  KXBYTE correlId[KX_CORREL_ID_LENGTH] = {};

  bool hasSince = false;
  bool hasUntil = false;
  Micros since = 0;
  Micros until = 0;

  std::string sub;    // --sub: a subscription id or name
  std::string table;  // --table OWNER.NAME
  bool hasWhere = false;
  std::string whereColumn, whereValue;  // --where COL=VALUE
  bool hasLsn = false;
  std::string lsnFrom, lsnTo;  // --lsn FROM[..TO], comparable forms; empty: open

  int64_t from = 1;    // 1-based queue position of the first message that may be shown
  int64_t count = -1;  // messages shown at most; -1: no limit

  bool follow = false;
  bool drain = false;
  bool summary = false;
  bool json = false;

  bool help = false;
  bool version = false;
};

// Parses argv[1..argc). Returns an empty string on success, else the error in words (the caller
// prints it as `rplq: <error>` and exits with kExitUsage).
std::string parseOptions(int argc, const char* const* argv, Options& o);

// The usage text printed by --help.
const char* usageText();

// Value forms, each returning false on a malformed value.
// A compact message type by number (0..255) or name: the table's name ("RPLKX_TRANS_MSG"), or
// that name without the "RPLKX_" prefix and/or the "_MSG" suffix, in any case ("trans").
bool parseTypeName(const std::string& word, uint8_t& type);
// Up to 24 bytes as 2..48 hex digits (an even count), zero-padded on the right.
bool parseHexId(const std::string& text, KXBYTE* id, size_t room);
// ISO-8601: "YYYY-MM-DD", "YYYY-MM-DDTHH:MM[:SS[.fraction]]" (a blank may stand for the T),
// then "Z", "+HH:MM", "+HHMM", "+HH" or nothing (UTC).
bool parseIsoTime(const std::string& text, Micros& at);
// A message's put time from its descriptor (PutDate "YYYYMMDD", PutTime "HHMMSSTH", UTC);
// false when the descriptor holds no valid date.
bool putTimeOf(const KXMD& md, Micros& at);
// "2026-11-23T19:40:26.120000Z".
std::string isoTime(Micros at);

}  // namespace rplq
