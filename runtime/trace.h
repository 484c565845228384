// Trace points: entry, exit and data probes tested against the process-wide trace anchor.
// With no trace attached every probe is one inline load and compare and writes nothing.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t kTraceAttached = 0x4B5A6978;  // "xiZK" in memory order
inline constexpr uint32_t kTraceInactive = 0x11111111;
inline constexpr int kTraceComponents = 61;
inline constexpr int kTraceFunctions = 350;

// Level bits.
inline constexpr int kTraceFlow = 1;
inline constexpr int kTraceValues = 2;
inline constexpr int kTraceDumps = 4;

// Mask table supplied by an attached trace (read only here).
struct TraceMasks {
  uint16_t global;
  uint16_t component[kTraceComponents];
  uint16_t function[kTraceComponents][kTraceFunctions];
};

// Where an attached trace receives its records. Supplied by the attaching trace; null otherwise.
struct TraceSink {
  virtual ~TraceSink() = default;
  virtual void write(const void* record, size_t length) = 0;
};

struct TraceAnchor {
  uint32_t marker;
  const TraceMasks* masks;
  TraceSink* sink;
  int32_t processId;
};

extern TraceAnchor* g_traceAnchor;

// Points the anchor at the inactive static block. Called once at start-up.
void traceInit();
// Attaches a trace (used by the trace command and by tests); pass nulls to detach.
void traceAttach(const TraceMasks* masks, TraceSink* sink);

int traceLevelSlow(int component, int function);

// Effective level for (component, function): 0 unless a trace is attached.
inline int traceLevel(int component, int function) {
  const TraceAnchor* a = g_traceAnchor;
  if (a == nullptr || a->marker != kTraceAttached) return 0;
  return traceLevelSlow(component, function);
}

// Exit value kinds.
enum TraceValueKind { kTraceNone = 0, kTraceU16 = 1, kTraceU32 = 2, kTracePtr = 3 };
// Data item types.
enum TraceItemType { kTraceRaw = 0, kTraceText = 3 };

struct TraceItem {
  int type;
  size_t length;
  const void* address;
};

// Record written to the sink for every probe:
//
//   +----------------+-----------+----------+------+-----------+------------+-----------+-------+
//   | utcMicros (8)  | comp (2)  | func (2) | kind | valueType | itemCount  | labelLen  | len   |
//   |                |           |          | (1)  | (1)       | (2)        | (2)       | (4)   |
//   +----------------+-----------+----------+------+-----------+------------+-----------+-------+
//   exit:  the value, 2, 4 or 8 bytes by valueType (13, 17, 18)
//   data:  label bytes (labelLen, not terminated), then per item: type (4), length (4), bytes
enum TraceProbeKind : uint8_t { kProbeEntry = 1, kProbeExit = 2, kProbeData = 3 };
inline constexpr uint8_t kTraceTypeU16 = 13;
inline constexpr uint8_t kTraceTypeU32 = 17;
inline constexpr uint8_t kTraceTypePtr = 18;
inline constexpr size_t kTraceMaxItems = 32;

struct TraceRecordHeader {
  uint64_t utcMicros;   // microseconds since the epoch, UTC
  uint16_t component;
  uint16_t function;
  uint8_t kind;         // TraceProbeKind
  uint8_t valueType;    // exit records: 13, 17, 18, or 0 for no value
  uint16_t itemCount;   // data records: items kept (32 at most)
  uint16_t labelLength;
  uint16_t reserved;
  uint32_t length;      // whole record, header included
};
struct TraceItemHeader {
  uint32_t type;
  uint32_t length;
};

void traceWriteEntry(int component, int function);
void traceWriteExit(int component, int function, int kind, uint64_t value);
int traceWriteData(int component, int function, const char* label, int level,
                   const TraceItem* items, size_t count);

inline int traceEntry(int component, int function) {
  int level = traceLevel(component, function);
  if (level & kTraceFlow) traceWriteEntry(component, function);
  return level;
}

inline void traceExit(int component, int function, int kind, uint64_t value) {
  if (traceLevel(component, function) & kTraceFlow) traceWriteExit(component, function, kind, value);
}

// Records a labelled data point when `requiredLevel` shares a bit with the effective level;
// at most 32 items are kept. Returns the effective level.
inline int traceData(int component, int function, const char* label, int requiredLevel,
                     const TraceItem* items, size_t count) {
  int level = traceLevel(component, function);
  if (level & requiredLevel) traceWriteData(component, function, label, requiredLevel, items, count);
  return level;
}

// A data point whose single item is a printf-style text (item type 3). The text is formatted
// only when `requiredLevel` shares a bit with the effective level. Returns the effective level.
int traceWriteText(int component, int function, const char* label, int requiredLevel,
                   const char* fmt, ...) __attribute__((format(printf, 5, 6)));
#define RPL_TRACE_TEXT(component, function, label, requiredLevel, ...)                        \
  do {                                                                                         \
    if (traceLevel((component), (function)) & (requiredLevel))                                 \
      traceWriteText((component), (function), (label), (requiredLevel), __VA_ARGS__);          \
  } while (0)

// A data point holding a hex dump of raw bytes (item type 0) at the dump level.
inline void traceHex(int component, int function, const char* label, const void* p, size_t n) {
  TraceItem item{kTraceRaw, n, p};
  traceData(component, function, label, kTraceDumps, &item, 1);
}

// Entry and exit probes of one function, placed with RPL_TRACE(component, function).
class TraceScope {
 public:
  TraceScope(int component, int function) : c_(component), f_(function) {
    level_ = traceEntry(component, function);
  }
  ~TraceScope() {
    if (level_ & kTraceFlow) traceWriteExit(c_, f_, kTraceU32, static_cast<uint32_t>(rc_));
  }
  int level() const { return level_; }
  int32_t ret(int32_t rc) { rc_ = rc; return rc; }

 private:
  int c_, f_, level_;
  int32_t rc_ = 0;
};

#define RPL_TRACE(component, function) TraceScope rplTrace_((component), (function))

// Component ids.
inline constexpr int kCompThread = 11;
inline constexpr int kCompDriver = 13;
inline constexpr int kCompPrinters = 38;
inline constexpr int kCompConv = 42;
