// Copies of the short pieces text and JSON lines are made of (labels, keys, values, a column's
// kept descriptor lines), moved inline without a call to the library's copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A piece taken from a small buffer only ever takes the branch of its length, which the
// compiler cannot see when it follows the other branches into that buffer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#pragma GCC diagnostic ignored "-Wstringop-overread"
inline constexpr size_t kBlockCopyMax = 256;
inline void copy16(char* to, const char* from) {
  char block[16];
  std::memcpy(block, from, 16);
  std::memcpy(to, block, 16);
}
// n bytes from `from` to `to`, which do not overlap. Pieces up to a few hundred bytes (labels,
// a column's kept descriptor lines) are moved in 16-byte blocks, the last one overlapping the
// ones before, without a call to the library's copy.
inline void copyShort(char* to, const char* from, size_t n) {
  if (n > 16 && n <= kBlockCopyMax) {
    for (size_t at = 0; at + 16 < n; at += 16) copy16(to + at, from + at);
    copy16(to + n - 16, from + n - 16);
  } else if (n >= 8 && n <= 16) {
    uint64_t a, b;
    std::memcpy(&a, from, 8);
    std::memcpy(&b, from + n - 8, 8);
    std::memcpy(to, &a, 8);
    std::memcpy(to + n - 8, &b, 8);
  } else if (n >= 4 && n < 8) {
    uint32_t a, b;
    std::memcpy(&a, from, 4);
    std::memcpy(&b, from + n - 4, 4);
    std::memcpy(to, &a, 4);
    std::memcpy(to + n - 4, &b, 4);
  } else if (n < 4) {
    for (size_t i = 0; i < n; ++i) to[i] = from[i];
  } else {
    std::memcpy(to, from, n);
  }
}
#pragma GCC diagnostic pop
