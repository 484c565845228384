// Value-to-name tables: {value, "NAME"} arrays kept beside the layout they name, and the two
// lookups every printer shares.
#pragma once

#include <cstdint>
#include <string>

struct ValueName {
  uint32_t value;
  const char* name;
};

// The name of `value` in `table`, or `unknown` when it has none.
template <size_t N>
constexpr const char* nameOf(const ValueName (&table)[N], uint32_t value, const char* unknown) {
  for (const ValueName& e : table)
    if (e.value == value) return e.name;
  return unknown;
}

// The texts of the bits set in `mask`, joined in table order (empty when none is set).
template <size_t N>
std::string joinFlags(const ValueName (&table)[N], uint32_t mask) {
  std::string s;
  for (const ValueName& e : table)
    if (mask & e.value) s += e.name;
  return s;
}
