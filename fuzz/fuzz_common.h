// Shared set-up of the fuzz targets: the catalog logger writing to /dev/null, the conversion
// services, and the conversion context chosen by one input byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "runtime/catalog.h"
#include "runtime/conv.h"

// Reports and printed text go to /dev/null: the targets look for crashes, not for output.
// With RPL_FUZZ_SHOW set they go to standard error (to read what an input does).
inline FILE* fuzzSink() {
  static FILE* sink = [] {
    FILE* f = std::getenv("RPL_FUZZ_SHOW") != nullptr ? stderr : std::fopen("/dev/null", "w");
    msgLogger* logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    logger->setOutput(f);
    setRplLogger(logger);
    ConvMgr::init();
    return f;
  }();
  return sink;
}

inline ConvMgr& fuzzConvMgr() {
  static ConvMgr* cm = (fuzzSink(), new ConvMgr(6, "rplqmfmt:processQueue"));
  return *cm;
}

// The mode byte that starts every compact and KXHRF2 input:
//   bit 0     a conversion context is given (compact: else the message is read as it stands)
//   bit 1     big-endian sender (integers need swapping on this machine)
//   bits 2-3  the message's CCSID: 1208 UTF-8, 37 EBCDIC, 1200 UTF-16, 943 mixed double-byte
//   bit 4     output CCSID 819 instead of 1208
//   bits 5-7  decoder flags (compact: header only, no size line, no position and time lines)
struct FuzzMode {
  bool withContext;
  bool bigEndian;
  int32_t msgCcsid;
  int32_t outCcsid;
  uint8_t flags;
};

inline FuzzMode fuzzMode(uint8_t b) {
  static constexpr int32_t kCcsids[] = {1208, 37, 1200, 943};
  return FuzzMode{(b & 1) != 0, (b & 2) != 0, kCcsids[(b >> 2) & 3], (b & 16) != 0 ? 819 : 1208,
                  static_cast<uint8_t>(b >> 5)};
}

inline void fuzzContext(const FuzzMode& m, encodingInfo& enc) {
  enc.setup(m.msgCcsid);
  enc.flags = m.bigEndian ? 0 : kEncMachineOrder;
  enc.outCcsid = m.outCcsid;
}

// Mode byte of a seed: context given, the sender's byte order and code page.
inline uint8_t seedMode(bool bigEndian, int32_t ccsid) {
  uint8_t cp = ccsid == 37 ? 1 : ccsid == 1200 ? 2 : ccsid == 943 ? 3 : 0;
  return static_cast<uint8_t>(1 | (bigEndian ? 2 : 0) | (cp << 2));
}

// Separates the messages of one compact input (a schema message before the rows that need it).
inline constexpr uint8_t kFuzzSplit[4] = {0xFE, 0xFE, 0xFE, 0xFE};

// Where the message that starts at `start` ends: at the next separator, or at `size`. Byte by
// byte, not memcmp: the fuzzer's memcmp hook would cost more than the decoding.
inline size_t fuzzMessageEnd(const uint8_t* data, size_t start, size_t size) {
  size_t end = start;
  while (end + 4 <= size && !(data[end] == kFuzzSplit[0] && data[end + 1] == kFuzzSplit[1] &&
                              data[end + 2] == kFuzzSplit[2] && data[end + 3] == kFuzzSplit[3]))
    ++end;
  return end + 4 > size ? size : end;
}
