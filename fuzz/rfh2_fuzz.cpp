// Fuzz target: the KXHRF2 header-folder walk, then the XML body after it, as the read loop
// does. Input: a mode byte (fuzz_common.h; the context is always given here), then the data.
#include <cstdint>
#include <cstring>
#include <vector>

#include "driver/printers.h"
#include "driver/xml_printer.h"
#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* sink = fuzzSink();
  ConvMgr& cm = fuzzConvMgr();
  if (size < 1) return 0;
  const FuzzMode mode = fuzzMode(data[0]);
  encodingInfo enc;
  fuzzContext(mode, enc);
  // The read loop keeps one byte after the data for a terminating zero.
  std::vector<uint8_t> msg(data + 1, data + size);
  msg.push_back(0);
  const size_t length = msg.size() - 1;
  size_t body = 0;
  if (processRFH2(msg.data(), length, enc, cm, sink, &body) == 0 && (mode.flags & 1) != 0) {
    char encodingName[kEncodingNameRoom] = "";
    int32_t counter = 0;
    printXmlMsg(reinterpret_cast<const char*>(msg.data() + body), static_cast<uint32_t>(length - body),
                "FUZZQ", sink, encodingName, &counter, 0);
  }
  return 0;
}
