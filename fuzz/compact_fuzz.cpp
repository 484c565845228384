// Fuzz target: the compact decoder over arbitrary bytes. The first input byte chooses the
// conversion context (none, little-endian UTF-8, big-endian UTF-8, big-endian EBCDIC); a
// schema message found in the input is decoded first so that rows and LOBs meet a cache.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "qmsg/compact.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FILE* sink = std::fopen("/dev/null", "w");
  static ConvMgr* cm = [] {
    msgLogger* logger = msgLogger::create(13, 0);
    logger->loadCatalog(kRplCatalog);
    logger->setOutput(sink);
    setRplLogger(logger);
    ConvMgr::init();
    return new ConvMgr(6, "rplqmfmt:processQueue");
  }();
  if (size < 1) return 0;
  uint8_t mode = data[0];
  ++data;
  --size;

  encodingInfo enc;
  encodingInfo* encp = &enc;
  switch (mode & 3) {
    case 0: encp = nullptr; break;
    case 1: enc.setup(1208); enc.flags = kEncMachineOrder; break;
    case 2: enc.setup(1208); enc.flags = 0; break;
    case 3: enc.setup(37); enc.flags = 0; break;
  }
  enc.outCcsid = 1208;

  // Split the input at the first 0xFE 0xFE 0xFE 0xFE marker into a schema message and a message.
  size_t split = size;
  for (size_t i = 0; i + 4 <= size; ++i)
    if (data[i] == 0xFE && data[i + 1] == 0xFE && data[i + 2] == 0xFE && data[i + 3] == 0xFE) {
      split = i;
      break;
    }
  int32_t counter = 0;
  if (split < size) {
    std::vector<uint8_t> schema(data, data + split);
    processCompactMsg(schema.data(), schema.size(), "FUZZQ", sink, &counter, encp, cm, false, false, false);
    data += split + 4;
    size -= split + 4;
  }
  std::vector<uint8_t> msg(data, data + size);
  processCompactMsg(msg.data(), msg.size(), "FUZZQ", sink, &counter, encp, cm, false, false, mode & 4);
  releaseSchemaCache();
  return 0;
}
