// Reports of fields that cannot be read from a message.
#include "qmsg/reader.h"

#include <cstdio>

ReadFailure& lastReadFailure() {
  static thread_local ReadFailure failure;
  return failure;
}

void MsgReader::fail(size_t at, const char* field) const {
  const auto start = reinterpret_cast<uintptr_t>(data_);
  lastReadFailure() = ReadFailure{field, start + at, start};
}

int32_t MsgReader::shortRead(size_t at, size_t n, const char* field) const {
  fail(at, field);
  char what[256];
  std::snprintf(what, sizeof what, "%s (offset %zu, %zu bytes left of %zu)", field, at,
                at <= size_ ? size_ - at : size_t{0}, size_);
  reportShortRead(n, what);
  return kRcShortRead;
}

int32_t MsgReader::tooLong(size_t at, size_t len, size_t room, const char* field) const {
  fail(at, field);
  char what[256];
  std::snprintf(what, sizeof what, "%s (offset %zu: count %zu larger than its room of %zu)", field,
                at, len, room);
  reportShortRead(len, what);
  return kRcShortRead;
}
