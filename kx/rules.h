// The rules every KX queue manager library applies the same way, whatever keeps its messages:
// which options are known, the checks on a get's and a put's arguments, new message ids and the
// put date and time. Shared by the local queue manager (libkxm) and the client (libkxic).
#pragma once

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "kx/kxc.h"

namespace kxrules {

constexpr KXLONG kOpenInputOptions = KXOO_INPUT_AS_Q_DEF | KXOO_INPUT_SHARED | KXOO_INPUT_EXCLUSIVE;
constexpr KXLONG kOpenKnownOptions = kOpenInputOptions | KXOO_BROWSE | KXOO_OUTPUT | KXOO_INQUIRE |
                                     KXOO_SET | KXOO_FAIL_IF_QUIESCING;
constexpr KXLONG kGetKnownOptions = KXGMO_WAIT | KXGMO_SYNCPOINT | KXGMO_NO_SYNCPOINT |
                                    KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT |
                                    KXGMO_ACCEPT_TRUNCATED_MSG | KXGMO_FAIL_IF_QUIESCING;
constexpr KXLONG kPutKnownOptions = KXPMO_SYNCPOINT | KXPMO_NO_SYNCPOINT | KXPMO_NEW_MSG_ID |
                                    KXPMO_SET_ALL_CONTEXT | KXPMO_FAIL_IF_QUIESCING;

inline bool strucIdIs(const char* id, const char* want) { return memcmp(id, want, 4) == 0; }

inline bool allZero(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i]) return false;
  return true;
}

// A get's arguments against the options its object was opened with; 0 or the reason.
inline KXLONG checkGet(KXLONG openOptions, const KXMD* md, const KXGMO* gmo, KXLONG bufferLength,
                       const void* buffer, const KXLONG* dataLength) {
  if (!md || !strucIdIs(md->StrucId, "MD  ")) return KXRC_MD_ERROR;
  if (!gmo || !strucIdIs(gmo->StrucId, "GMO ") || gmo->Version < 1) return KXRC_GMO_ERROR;
  KXLONG opts = gmo->Options;
  if (opts & ~kGetKnownOptions) return KXRC_OPTIONS_ERROR;
  if ((opts & KXGMO_SYNCPOINT) && (opts & KXGMO_NO_SYNCPOINT)) return KXRC_OPTIONS_ERROR;
  bool browse = opts & (KXGMO_BROWSE_FIRST | KXGMO_BROWSE_NEXT);
  if ((opts & KXGMO_BROWSE_FIRST) && (opts & KXGMO_BROWSE_NEXT)) return KXRC_OPTIONS_ERROR;
  if (browse && (opts & KXGMO_SYNCPOINT)) return KXRC_OPTIONS_ERROR;
  if (gmo->MatchOptions & ~(KXMO_MATCH_MSG_ID | KXMO_MATCH_CORREL_ID)) return KXRC_OPTIONS_ERROR;
  if ((opts & KXGMO_WAIT) && gmo->WaitInterval < 0 && gmo->WaitInterval != KXWI_UNLIMITED)
    return KXRC_WAIT_INTERVAL_ERROR;
  if (browse && !(openOptions & KXOO_BROWSE)) return KXRC_NOT_OPEN_FOR_BROWSE;
  if (!browse && !(openOptions & kOpenInputOptions)) return KXRC_NOT_OPEN_FOR_INPUT;
  if (bufferLength < 0) return KXRC_BUFFER_LENGTH_ERROR;
  if (bufferLength > 0 && !buffer) return KXRC_BUFFER_ERROR;
  if (!dataLength) return KXRC_DATA_LENGTH_ERROR;
  return 0;
}

// A put's arguments against its object's open options and the queue's maximum message length;
// 0 or the reason.
inline KXLONG checkPut(KXLONG openOptions, int64_t maxLength, const KXMD* md, const KXPMO* pmo,
                       KXLONG length, const void* buffer) {
  if (!md || !strucIdIs(md->StrucId, "MD  ")) return KXRC_MD_ERROR;
  if (!pmo || !strucIdIs(pmo->StrucId, "PMO ")) return KXRC_PMO_ERROR;
  KXLONG opts = pmo->Options;
  if (opts & ~kPutKnownOptions) return KXRC_OPTIONS_ERROR;
  if ((opts & KXPMO_SYNCPOINT) && (opts & KXPMO_NO_SYNCPOINT)) return KXRC_OPTIONS_ERROR;
  if (!(openOptions & KXOO_OUTPUT)) return KXRC_NOT_OPEN_FOR_OUTPUT;
  if (length < 0) return KXRC_BUFFER_LENGTH_ERROR;
  if (length > 0 && !buffer) return KXRC_BUFFER_ERROR;
  if (length > maxLength) return KXRC_MSG_TOO_BIG_FOR_Q;
  return 0;
}

// An inquiry's arguments: the object opened for inquire, counts not negative, arrays present
// where a count asks for them; 0 or the reason.
inline KXLONG checkInquire(KXLONG openOptions, KXLONG selectorCount, const KXLONG* selectors,
                           KXLONG intAttrCount, const KXLONG* intAttrs, KXLONG charAttrLength,
                           const KXCHAR* charAttrs) {
  if (!(openOptions & KXOO_INQUIRE)) return KXRC_NOT_OPEN_FOR_INQUIRE;
  if (selectorCount < 0 || (selectorCount > 0 && !selectors)) return KXRC_SELECTOR_COUNT_ERROR;
  if (intAttrCount < 0 || (intAttrCount > 0 && !intAttrs)) return KXRC_INT_ATTR_COUNT_ERROR;
  if (charAttrLength < 0 || (charAttrLength > 0 && !charAttrs)) return KXRC_CHAR_ATTR_LENGTH_ERROR;
  return 0;
}

// A set's arguments: the maximum message length (0 through 999,000,000) and the back-out
// threshold (0, never, through 999,999,999) can be set; 0 or the reason.
inline KXLONG checkSet(KXLONG openOptions, KXLONG selectorCount, const KXLONG* selectors,
                       KXLONG intAttrCount, const KXLONG* intAttrs) {
  if (!(openOptions & KXOO_SET)) return KXRC_NOT_OPEN_FOR_SET;
  if (selectorCount < 0 || (selectorCount > 0 && !selectors)) return KXRC_SELECTOR_COUNT_ERROR;
  if (intAttrCount < selectorCount || (intAttrCount > 0 && !intAttrs)) return KXRC_INT_ATTR_COUNT_ERROR;
  for (KXLONG i = 0; i < selectorCount; ++i) {
    if (selectors[i] == KXIA_MAX_MSG_LENGTH) {
      if (intAttrs[i] < 0 || intAttrs[i] > 999000000) return KXRC_OPTIONS_ERROR;
    } else if (selectors[i] == KXIA_BACKOUT_THRESHOLD) {
      if (intAttrs[i] < 0 || intAttrs[i] > 999999999) return KXRC_OPTIONS_ERROR;
    } else {
      return KXRC_SELECTOR_ERROR;
    }
  }
  return 0;
}

// A new message id: the library's 4-character tag, microseconds since the epoch (big-endian),
// the process id and a per-process counter that starts at a random value, so that ids of
// several processes and machines do not meet.
inline void newMsgId(uint8_t* id, const char tag[4]) {
  static std::atomic<uint64_t> counter{0};
  static std::once_flag seeded;
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  uint64_t us = uint64_t(ts.tv_sec) * 1'000'000 + uint64_t(ts.tv_nsec) / 1000;
  std::call_once(seeded, [us] {
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) != sizeof seed) seed = us;
    counter = seed & 0x0000ffffffffffffull;
  });
  uint64_t n = ++counter;
  uint32_t pid = uint32_t(getpid());
  memcpy(id, tag, 4);
  for (int i = 0; i < 8; ++i) id[4 + i] = uint8_t(us >> (56 - 8 * i));
  for (int i = 0; i < 4; ++i) id[12 + i] = uint8_t(pid >> (24 - 8 * i));
  for (int i = 0; i < 8; ++i) id[16 + i] = uint8_t(n >> (56 - 8 * i));
}

// PutDate "YYYYMMDD" and PutTime "HHMMSSTH" in UTC.
inline void stampPutTime(KXMD& md) {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm;
  gmtime_r(&ts.tv_sec, &tm);
  char buf[64];
  snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d%02d", (tm.tm_year + 1900) % 10000,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
           int(ts.tv_nsec / 10'000'000));
  memcpy(md.PutDate, buf, 8);
  memcpy(md.PutTime, buf + 8, 8);
}

}  // namespace kxrules
