// Fuzz target: the XML message printer over arbitrary text (parse, then pretty-print). The
// printer's own writer and the library's serializer must print the same text for every input
// (a difference aborts the run).
// Input: one byte choosing the output encoding, then the document.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "driver/xml_printer.h"
#include "fuzz/fuzz_common.h"

namespace {

// What the printer writes to the output for the document, through the writer or the library.
std::string print(const std::vector<char>& doc, const char* encoding, bool sizeLine, bool library,
                  int32_t& counter) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  char encodingName[kEncodingNameRoom];
  std::snprintf(encodingName, sizeof encodingName, "%s", encoding);
  xmlWriteThroughLibrary(library);
  printXmlMsg(doc.data(), static_cast<uint32_t>(doc.size() - 1), "FUZZQ", out, encodingName, &counter,
              sizeLine ? 0 : 1);
  xmlWriteThroughLibrary(false);
  std::fclose(out);
  std::string text(buf, len);
  std::free(buf);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* sink = fuzzSink();
  if (size < 1) return 0;
  static constexpr const char* kEncodings[] = {"", "UTF-8", "ISO-8859-1", "UTF-16", "IBM037", "US-ASCII",
                                               "no-such-encoding", "UTF-16BE"};
  const char* encoding = kEncodings[data[0] & 7];
  // The read loop stores a zero after the data.
  std::vector<char> doc(data + 1, data + size);
  doc.push_back('\0');
  int32_t ours = 0;
  int32_t reference = 0;
  const std::string written = print(doc, encoding, (data[0] & 8) == 0, false, ours);
  const std::string serialized = print(doc, encoding, (data[0] & 8) == 0, true, reference);
  std::fwrite(written.data(), 1, written.size(), sink);
  if (written != serialized || ours != reference) {
    std::fprintf(stderr, "the writer printed\n%s\nthe library's serializer printed\n%s\n", written.c_str(),
                 serialized.c_str());
    std::abort();
  }
  return 0;
}
