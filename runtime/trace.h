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
