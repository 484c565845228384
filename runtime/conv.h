// Code-page conversion manager: a process-wide cache of ICU converters keyed by CCSID,
// conversions through Unicode, shift bytes of mixed EBCDIC, and integer reads by encoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct UConverter;

// Result codes of the conversion services.
inline constexpr int32_t kRcConvNeeded = 5005;   // answer of ckcpcv, not an error
inline constexpr int32_t kRcConvOpen = 5000;     // converter not opened, cloned or named
inline constexpr int32_t kRcConvFailed = 5001;   // invalid or unmappable input, other ICU error
inline constexpr int32_t kRcConvOverflow = 5003; // target too small
inline constexpr int32_t kRcOutputFull = 6024;   // cpcvb: the growing output buffer is full
inline constexpr int32_t kRcPureDbcs = 823;      // composition: no single-byte component

inline constexpr int32_t kCcsidUtf16 = 1200;
inline constexpr int32_t kCcsidUtf16Alt = 13488;
inline constexpr int32_t kCcsidUtf8 = 1208;

// Encoding flag bit 0: multi-byte integers of the data are stored low byte first.
inline constexpr int32_t kEncLowByteFirst = 1;
// encodingInfo flags bit 0: the message's integers are already in the machine's order.
inline constexpr int32_t kEncMachineOrder = 1;

// Per-message conversion context built by the read loop, and the code-page composition of a
// CCSID (its single-byte and double-byte components).
struct encodingInfo {
  int32_t flags = 0;       // kEncMachineOrder
  int32_t outCcsid = 0;    // output CCSID
  int32_t msgCcsid = 0;    // the message's CCSID
  int32_t sbcsCcsid = 0;   // single-byte component of msgCcsid
  int32_t dbcsCcsid = 0;   // double-byte component of msgCcsid (used for DBCLOB and GRAPHIC data)
  const char* name = "unknown";

  // Fills msgCcsid and its components from the composition table; returns 0, or 823 for a
  // pure double-byte code page (information, not failure).
  int32_t setup(int32_t ccsid);

  // The integer encoding value that goes with this context for ConvMgr calls:
  // kEncLowByteFirst when the message's integers are low byte first on this machine.
  int32_t encoding() const;
};

// Composition of one CCSID: (single-byte component, double-byte component, name).
struct CcsidComposition {
  int32_t sbcs;
  int32_t dbcs;
  const char* name;
  int32_t rc;  // 0 or kRcPureDbcs
};
CcsidComposition composeCcsid(int32_t ccsid);

// A growing output buffer for cpcvb.
struct ConvOutBuf {
  char* start;
  size_t used;
  size_t free;
};

class ConvMgr {
 public:
  // A manager handle for one component (the read loop uses 6, "rplqmfmt:processQueue").
  // All handles share the process-wide converter cache.
  ConvMgr(int32_t component, const char* name);
  ~ConvMgr() = default;

  // Prepares the process-wide cache (called once at start-up; further calls do nothing).
  static void init();
  // Closes every cached converter and frees the cache.
  static void cleanup();
  // Prints "List:" and one line per cached converter, or "No converters in the list.\n".
  static void dumpList(FILE* out);
  // Number of ICU opens made so far (for tests and benchmarks).
  static int32_t openCount();

  // 0 when the bytes are to be copied as they stand, kRcConvNeeded when they must be converted
  // (asked for every character value printed, so it is inline).
  static int32_t ckcpcv(int32_t srcCcsid, int32_t tgtCcsid, int32_t encoding) {
    if (srcCcsid == 0) return 0;
    if (srcCcsid != tgtCcsid) return kRcConvNeeded;
    if ((srcCcsid == kCcsidUtf16 || srcCcsid == kCcsidUtf16Alt) && (encoding & kEncLowByteFirst) == 0)
      return kRcConvNeeded;
    return 0;
  }

  // A private clone of the cached converter for the CCSID (opened and cached on first use).
  // The caller closes it with ucnv_close. rc 5000 on failure.
  UConverter* getConverter(int32_t ccsid, int32_t encoding, int32_t& rc);
  // ICU's name of the converter for the CCSID, or null with rc 5000.
  const char* getName(int32_t ccsid, int32_t& rc);

  // Converts [*src, srcEnd) from srcCcsid to tgtCcsid, advancing *src past the source.
  // Into a caller's buffer [*tgt, tgtEnd), *tgt is advanced past the length word and the data.
  // When *tgt is null the manager allocates the result with malloc and sets *tgt to its start
  // (the caller frees it; on failure nothing is left allocated and *tgt stays null); tgtEnd
  // is ignored. Graphic data tagged with a mixed EBCDIC CCSID gets its shift bytes before it
  // is read; UTF-16 source follows the encoding's byte order, UTF-16 output is low byte first. With lengthPrefixed a length word (2 bytes, 4 for graphic data) in the
  // machine's order precedes the data and holds the number of bytes produced; otherwise that
  // number is stored in *outLen. A terminating zero unit follows the data when room remains.
  // Returns 0, 5000, 5001 or 5003.
  int32_t lookupAddConv(int32_t srcCcsid, const char** src, const char* srcEnd,
                        int32_t tgtCcsid, char** tgt, char* tgtEnd, int32_t encoding,
                        bool graphic, bool lengthPrefixed, int32_t* outLen);

  // Appends the converted text to a growing output buffer; 6024 when fewer than len + 2 bytes
  // are free (or the target overflows).
  int32_t cpcvb(int32_t srcCcsid, int32_t tgtCcsid, const char* src, int32_t len,
                ConvOutBuf& out, int32_t encoding);

  // Drops expired cached converters before a message is decoded (the cache has no expiry:
  // converters live for the whole run, so this keeps everything).
  void dropExpired() {}

  // UTF-16 (low byte first or not) to UTF-8 without ICU, as ICU writes it, into `room`
  // bytes at `out` (three for every two bytes of input suffice). False, with nothing
  // promised about `out`, when the text is not well formed (an odd length, a lone surrogate)
  // or the room is short: ICU must convert it then.
  static bool utf16ToUtf8(const char* in, size_t n, bool lowFirst, char* out, size_t room, size_t& produced);

  // Integers from unaligned bytes, low byte first when encoding bit 0 is set.
  static int16_t readShortPtr(const void* p, int32_t encoding);
  static int32_t readIntPtr(const void* p, int32_t encoding);

  // Fails conversions on unmappable input instead of substituting (the stop callbacks).
  static void setStopOnSubstitution(bool on);

  int32_t component() const { return component_; }
  const char* name() const { return name_; }

 private:
  int32_t component_;
  const char* name_;
};
