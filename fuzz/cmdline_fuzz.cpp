// Fuzz target: the command-line parser. Input: the words after the program name, separated by
// zero bytes (the last word ends at the end of the input).
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "driver/run.h"
#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    fuzzSink();
    // The usage text goes to standard output.
    return std::freopen("/dev/null", "w", stdout) != nullptr;
  }();
  (void)quiet;
  std::vector<std::string> words{"rplqmfmt"};
  std::string word;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word.push_back(static_cast<char>(data[i]));
    }
  }
  if (size > 0) words.push_back(word);
  // Each word in a block of its own exact size, so that a read past its zero is caught.
  std::vector<std::vector<char>> blocks;
  for (const std::string& w : words) blocks.emplace_back(w.c_str(), w.c_str() + w.size() + 1);
  std::vector<char*> argv;
  for (std::vector<char>& b : blocks) argv.push_back(b.data());
  argv.push_back(nullptr);
  RunOptions options;
  if (parseCommandLine(static_cast<int>(words.size()), argv.data(), options)) {
    // What the rest of the run relies on: terminated names that fit their rooms.
    if (std::strlen(options.queueName) >= sizeof options.queueName ||
        std::strlen(options.qmgrName) >= sizeof options.qmgrName ||
        std::strlen(options.outputFile) >= sizeof options.outputFile ||
        std::strlen(options.encodingName) >= sizeof options.encodingName)
      __builtin_trap();
  }
  return 0;
}
