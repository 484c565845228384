// Fuzz target: the compact decoder over arbitrary bytes.
//
// Input: a mode byte (fuzz_common.h: context or none, byte order, code pages, decoder flags),
// then one or more messages separated by FE FE FE FE. The messages are decoded in order with
// one schema cache, so a schema message placed first meets the rows and LOBs that follow.
// Each message gets its own heap block of exactly its length, so a read past its end is caught.
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "qmsg/compact.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* sink = fuzzSink();
  ConvMgr& cm = fuzzConvMgr();
  if (size < 1) return 0;
  const FuzzMode mode = fuzzMode(data[0]);
  ++data;
  --size;

  encodingInfo enc;
  fuzzContext(mode, enc);
  encodingInfo* encp = mode.withContext ? &enc : nullptr;
  ConvMgr* cmp = mode.withContext ? &cm : nullptr;

  int32_t counter = 0;
  size_t start = 0;
  while (start <= size) {
    size_t end = fuzzMessageEnd(data, start, size);
    std::vector<uint8_t> msg(data + start, data + end);
    msg.shrink_to_fit();
    processCompactMsg(msg.data(), msg.size(), "FUZZQ", sink, &counter, encp, cmp,
                      (mode.flags & 2) != 0, (mode.flags & 4) != 0, (mode.flags & 1) != 0);
    start = end + 4;
  }
  releaseSchemaCache();
  return 0;
}
