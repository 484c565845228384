// Replays compact seeds through the decoder and prints everything it writes, reports included,
// so that two builds of the decoder can be compared byte for byte over the same inputs.
//
//   qmsg_replay <messages per type> <seed file>...
//
// A seed is a mode byte (the sender's byte order and code page, as the fuzz seeds keep it) and
// messages separated by FE FE FE FE; its type is the type of its last message (a schema comes
// before the rows that need it). Every seed is decoded under each run variant (the sender's
// context, the output code page 819, no context, header only, no size line, no position and
// time lines), repeated until every type has been decoded at least the given number of times,
// with one message counter for the run; the schema cache is emptied after each seed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "qmsg/compact.h"

namespace {

std::vector<uint8_t> readFile(const char* path) {
  std::vector<uint8_t> bytes;
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) return bytes;
  uint8_t buf[65536];
  size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  std::fclose(f);
  return bytes;
}

struct Variant {
  uint8_t setBits;  // mode bits added to the seed's own
  uint8_t clearBits;
};
// The seed as sent; to code page 819; without context; header only; no size line; no
// position and time lines.
constexpr Variant kVariants[] = {{0, 0}, {16, 0}, {0, 1}, {32, 0}, {64, 0}, {128, 0}};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: qmsg_replay <messages per type> <seed file>...\n");
    return 1;
  }
  long perType = std::strtol(argv[1], nullptr, 10);
  std::vector<std::vector<uint8_t>> seeds;
  for (int i = 2; i < argc; ++i) {
    seeds.push_back(readFile(argv[i]));
    if (seeds.back().empty()) {
      std::fprintf(stderr, "qmsg_replay: cannot read %s\n", argv[i]);
      return 1;
    }
  }
  // Reports go to the same stream as the text, in the order they happen.
  msgLogger* logger = msgLogger::create(13, 0);
  logger->loadCatalog(kRplCatalog);
  logger->setOutput(stdout);
  setRplLogger(logger);
  ConvMgr::init();
  ConvMgr cm(6, "rplqmfmt:processQueue");

  // Seeds of each type (the type byte of the seed's last message).
  auto typeOf = [](const std::vector<uint8_t>& seed) -> uint8_t {
    size_t last = 1;
    for (size_t i = 1; i + 4 <= seed.size(); ++i)
      if (seed[i] == 0xFE && seed[i + 1] == 0xFE && seed[i + 2] == 0xFE && seed[i + 3] == 0xFE) last = i + 4;
    return last + 4 < seed.size() ? seed[last + 4] : 0;
  };
  long seedsOfType[256] = {};
  for (const std::vector<uint8_t>& seed : seeds) ++seedsOfType[typeOf(seed)];
  constexpr long kVariantCount = sizeof kVariants / sizeof kVariants[0];

  int32_t counter = 0;
  long messages = 0;
  for (const std::vector<uint8_t>& seed : seeds) {
    const long per = seedsOfType[typeOf(seed)] * kVariantCount;
    const long rounds = (perType + per - 1) / per;
    for (long round = 0; round < rounds; ++round) {
      for (const Variant& v : kVariants) {
        const FuzzMode mode = fuzzMode(static_cast<uint8_t>((seed[0] | v.setBits) & ~v.clearBits));
        encodingInfo enc;
        fuzzContext(mode, enc);
        const uint8_t* data = seed.data() + 1;
        size_t size = seed.size() - 1, start = 0;
        while (start <= size) {
          size_t end = fuzzMessageEnd(data, start, size);
          std::vector<uint8_t> msg(data + start, data + end);
          int32_t rc = processCompactMsg(msg.data(), msg.size(), "REPLAYQ", stdout, &counter,
                                         mode.withContext ? &enc : nullptr, mode.withContext ? &cm : nullptr,
                                         (mode.flags & 2) != 0, (mode.flags & 4) != 0, (mode.flags & 1) != 0);
          std::fprintf(stdout, "[rc %d]\n", rc);
          ++messages;
          start = end + 4;
        }
      }
    }
    // Each seed starts without schemas, as a new run would.
    releaseSchemaCache();
  }
  std::fflush(stdout);
  std::fprintf(stderr, "qmsg_replay: %ld messages\n", messages);
  return 0;
}
