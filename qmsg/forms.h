// Print forms shared by every printer: log positions, units of work, timestamps, hex dumps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "qmsg/reader.h"

// Ten-byte log position (versions below 6): "%02x%02x:%02x%02x:...", the bytes in stored order.
std::string formatPos10(const uint8_t* p);

// Hex pairs "%02x%02x" then ":%02x%02x" for each further pair, up to `len` bytes (an odd
// length prints its last byte alone). When the text does not fit `area` characters (the
// terminating zero counted) it is replaced by "...buffer full\n", or by nothing when the area
// is 16 characters or less.
std::string formatHexPairs(const uint8_t* p, size_t len, size_t area);
// The same text without the area check into `s`, which has room for len / 2 * 5 + 2
// characters; returns its length.
size_t hexPairChars(const uint8_t* p, size_t len, char* s);

// A hex byte run: two digits per byte ("%02x" or "%02X" each), no separators, into `s`, which
// has room for 2 * n characters; returns 2 * n.
size_t hexRun(const uint8_t* p, size_t n, bool upper, char* s);
// The same as a string.
std::string hexRunText(const uint8_t* p, size_t n, bool upper);

// Log position record (24 bytes: u8 flags, 3 reserved, u16 node at 4, u16 length at 6, up to
// 16 position bytes from 8). `fixRecord` swaps node and length in place; `formatLsnRecord`
// reads them in machine order and appends " (node %d)" when flag bit 0 is set and withNode.
// A length outside 0..16 is held to that range.
int32_t fixLsnRecord(MsgReader& r, size_t at, const char* field);
int32_t formatLsnRecord(const MsgReader& r, size_t at, bool withNode, std::string& out, const char* field);
// The position bytes alone (length and bytes given), as the record form prints them.
std::string formatLsnBytes(const uint8_t* p, size_t len);

// Unit of work: the hex-pair form above; the area is 50 characters in the transaction header
// and 100 elsewhere.
inline constexpr size_t kUowAreaTransHeader = 50;
inline constexpr size_t kUowArea = 100;
inline constexpr size_t kLsnArea = 100;

// UTC time: "Un-initialized" when the seconds are 0, else "%02d-%02d-%04d %02d:%02d:%02d"
// (month, day, year, ...) with ".%06d" microseconds when they are 0 or more.
std::string formatUtc(uint32_t seconds, int32_t micros);
// Local time: the same, in the machine's local time, with the fraction only when the
// microseconds are 1 or more.
std::string formatLocal(uint32_t seconds, int32_t micros);

// Hex dump in rows of 20 bytes: " %08lx " with the row's offset from `origin` when showAddress
// is set, the bytes as "%2.2X" with a space after every fourth, the short last row padded,
// one space and the bytes as characters ("." for anything not printable), a newline.
void dumpHex(size_t length, const uint8_t* bytes, FILE* out, bool showAddress = true,
             size_t origin = 0);
// One row of that dump (n bytes, 1 to 20) at `q`, which has room for kHexRowMax bytes;
// returns the row's length. `offset` is the printed offset of the row's first byte.
inline constexpr size_t kHexRowMax = 80;
size_t hexRow(char* q, const uint8_t* bytes, size_t n, bool showAddress, size_t offset);

// Local time in the capture side's stamp form "%Y-%m-%d-%H.%M.%S" (19 characters), as the
// restart, synchronisation, function-level and sequence-time lines print it.
std::string formatLocalStamp(uint32_t seconds);
// The same followed by ".%06d" with the microseconds, held to at most 999999.
std::string formatLocalStampMicros(uint32_t seconds, uint32_t micros);
