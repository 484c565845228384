// dumpfile.cpp - writing and reading the portable queue file (layout in dumpfile.h).
#include "tools/kxq/dumpfile.h"

#include <cstring>

namespace kxq {

bool DumpWriter::u32(uint32_t v) {
  unsigned char b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
  return fwrite(b, 4, 1, f_) == 1;
}

bool DumpWriter::u64(uint64_t v) { return u32(uint32_t(v)) && u32(uint32_t(v >> 32)); }

bool DumpWriter::header() {
  return fwrite(kDumpMagic, 8, 1, f_) == 1 && u32(kDumpVersion) && u32(sizeof(KXMD)) && u64(0);
}

bool DumpWriter::message(const KXMD* md, const void* data, uint32_t length) {
  return u32(sizeof(KXMD)) && fwrite(md, sizeof(KXMD), 1, f_) == 1 && u32(length) &&
         (length == 0 || fwrite(data, length, 1, f_) == 1);
}

bool DumpWriter::trailer(uint64_t count) {
  if (!u32(kDumpEnd) || !u64(count)) return false;
  if (fflush(f_) != 0) return false;
  // Standard output or a pipe cannot be rewound: the header keeps 0 (unknown).
  if (fseek(f_, 16, SEEK_SET) == 0) {
    if (!u64(count)) return false;
    fseek(f_, 0, SEEK_END);
  }
  return true;
}

bool DumpReader::u32(uint32_t* v) {
  unsigned char b[4];
  if (fread(b, 4, 1, f_) != 1) return false;
  *v = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
  return true;
}

bool DumpReader::u64(uint64_t* v) {
  uint32_t lo, hi;
  if (!u32(&lo) || !u32(&hi)) return false;
  *v = uint64_t(hi) << 32 | lo;
  return true;
}

bool DumpReader::header(std::string& why) {
  char magic[8];
  uint32_t version, mdLength;
  if (fread(magic, 8, 1, f_) != 1 || memcmp(magic, kDumpMagic, 8) != 0) {
    why = "not a kxq dump file (no KXQDUMP1 header)";
    return false;
  }
  if (!u32(&version) || !u32(&mdLength) || !u64(&count_)) {
    why = "the header is cut short";
    return false;
  }
  if (version != kDumpVersion || mdLength != sizeof(KXMD)) {
    why = "dump format version " + std::to_string(version) + " with " + std::to_string(mdLength) +
          "-byte descriptors is not supported";
    return false;
  }
  return true;
}

int DumpReader::message(KXMD* md, std::vector<char>& data, std::string& why) {
  std::string where = "message " + std::to_string(index_ + 1);
  uint32_t mdLength, length;
  if (!u32(&mdLength)) {
    why = "the file ends before its end marker (after " + std::to_string(index_) + " messages)";
    return -1;
  }
  if (mdLength == kDumpEnd) {
    if (!u64(&endCount_)) {
      why = "the end marker is cut short";
      return -1;
    }
    return 0;
  }
  if (mdLength != sizeof(KXMD)) {
    why = where + " has a descriptor length of " + std::to_string(mdLength) + ", not 364";
    return -1;
  }
  if (fread(md, sizeof(KXMD), 1, f_) != 1 || !u32(&length)) {
    why = where + " is cut short in its descriptor";
    return -1;
  }
  if (length > 0x7fffffffu) {
    why = where + " has a data length of " + std::to_string(length);
    return -1;
  }
  data.resize(length);
  if (length && fread(data.data(), length, 1, f_) != 1) {
    why = where + " is cut short in its data (" + std::to_string(length) + " bytes announced)";
    return -1;
  }
  ++index_;
  return 1;
}

bool DumpReader::complete(uint64_t read, std::string& why) const {
  if (endCount_ != read || (count_ != 0 && count_ != read)) {
    why = "the file announces " + std::to_string(endCount_) + " messages but holds " +
          std::to_string(read);
    return false;
  }
  return true;
}

bool DumpReader::atEnd(std::string& why) {
  int c = fgetc(f_);
  if (c != EOF) {
    why = "bytes follow the end marker (after " + std::to_string(index_) +
          " messages): the file is not a dump as written";
    return false;
  }
  if (ferror(f_)) {
    why = "reading after the end marker failed";
    return false;
  }
  return true;
}

}  // namespace kxq
