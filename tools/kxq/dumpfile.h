// dumpfile.h - the portable file of a whole queue written by "kxq dump" and read by "kxq load".
//
//   offset  size  field
//        0     8  magic "KXQDUMP1"
//        8     4  format version, 1
//       12     4  descriptor length, 364
//       16     8  message count (0 when the file could not be rewound to fill it in)
//       24        messages, in queue order, each:
//                   4  descriptor length (364)
//                 364  the message descriptor as the queue manager returned it
//                   4  data length
//                   n  the data
//                 then the end marker:
//                   4  0xFFFFFFFF
//                   8  message count
//
// All integers are little-endian. The descriptor is stored as its bytes, so its own integers
// stay in the byte order of the machine that put the message.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kx/kxc.h"

namespace kxq {

constexpr char kDumpMagic[8] = {'K', 'X', 'Q', 'D', 'U', 'M', 'P', '1'};
constexpr uint32_t kDumpVersion = 1;
constexpr uint32_t kDumpEnd = 0xFFFFFFFFu;
constexpr size_t kDumpHeaderLength = 24;

class DumpWriter {
 public:
  explicit DumpWriter(FILE* f) : f_(f) {}
  bool header();
  bool message(const KXMD* md, const void* data, uint32_t length);
  // Writes the end marker and, when the file can be rewound, the count in the header.
  bool trailer(uint64_t count);

 private:
  bool u32(uint32_t v);
  bool u64(uint64_t v);
  FILE* f_;
};

class DumpReader {
 public:
  explicit DumpReader(FILE* f) : f_(f) {}
  bool header(std::string& why);
  // Message count from the header; 0 when unknown.
  uint64_t count() const { return count_; }
  // 1 with a message, 0 at the end marker, -1 when the file is damaged (why says where).
  int message(KXMD* md, std::vector<char>& data, std::string& why);
  // After the end marker: checks that the count read matches the file's.
  bool complete(uint64_t read, std::string& why) const;
  // After the end marker: checks that nothing follows it.
  bool atEnd(std::string& why);

 private:
  bool u32(uint32_t* v);
  bool u64(uint64_t* v);
  FILE* f_;
  uint64_t count_ = 0;
  uint64_t endCount_ = 0;
  uint64_t index_ = 0;
};

}  // namespace kxq
