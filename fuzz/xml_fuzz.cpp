// Fuzz target: the XML message printer over arbitrary text (parse, then pretty-print).
// Input: one byte choosing the output encoding, then the document.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "driver/xml_printer.h"
#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* sink = fuzzSink();
  if (size < 1) return 0;
  static constexpr const char* kEncodings[] = {"", "UTF-8", "ISO-8859-1", "UTF-16", "IBM037", "US-ASCII",
                                               "no-such-encoding", "UTF-16BE"};
  char encodingName[kEncodingNameRoom];
  std::snprintf(encodingName, sizeof encodingName, "%s", kEncodings[data[0] & 7]);
  // The read loop stores a zero after the data.
  std::vector<char> doc(data + 1, data + size);
  doc.push_back('\0');
  int32_t counter = 0;
  printXmlMsg(doc.data(), static_cast<uint32_t>(doc.size() - 1), "FUZZQ", sink, encodingName, &counter,
              (data[0] & 8) != 0);
  return 0;
}
