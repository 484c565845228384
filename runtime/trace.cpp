// Trace anchor, effective-level lookup and the records written to an attached trace.
#include "runtime/trace.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// The inactive block the anchor points at until a trace attaches.
TraceAnchor g_inactive{kTraceInactive, nullptr, nullptr, 0};
// The block an attached trace is described by.
TraceAnchor g_attached{kTraceInactive, nullptr, nullptr, 0};

uint64_t utcMicros() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

// Records are built in a per-thread buffer and handed to the sink in one write.
std::vector<unsigned char>& scratch() {
  thread_local std::vector<unsigned char> buf;
  return buf;
}

TraceRecordHeader header(int component, int function, TraceProbeKind kind) {
  TraceRecordHeader h{};
  h.utcMicros = utcMicros();
  h.component = static_cast<uint16_t>(component);
  h.function = static_cast<uint16_t>(function);
  h.kind = kind;
  return h;
}

TraceSink* sinkOf() {
  const TraceAnchor* a = g_traceAnchor;
  if (a == nullptr || a->marker != kTraceAttached) return nullptr;
  return a->sink;
}

void put(std::vector<unsigned char>& b, const void* p, size_t n) {
  const unsigned char* c = static_cast<const unsigned char*>(p);
  b.insert(b.end(), c, c + n);
}

void finish(std::vector<unsigned char>& b, TraceSink* sink) {
  uint32_t len = static_cast<uint32_t>(b.size());
  std::memcpy(b.data() + offsetof(TraceRecordHeader, length), &len, sizeof len);
  sink->write(b.data(), b.size());
}

}  // namespace

TraceAnchor* g_traceAnchor = nullptr;

void traceInit() {
  g_inactive.marker = kTraceInactive;
  g_inactive.masks = nullptr;
  g_inactive.sink = nullptr;
  g_inactive.processId = static_cast<int32_t>(getpid());
  g_traceAnchor = &g_inactive;
}

void traceAttach(const TraceMasks* masks, TraceSink* sink) {
  if (masks == nullptr) {
    g_inactive.processId = static_cast<int32_t>(getpid());
    g_traceAnchor = &g_inactive;
    g_attached.marker = kTraceInactive;
    return;
  }
  g_attached.masks = masks;
  g_attached.sink = sink;
  g_attached.processId = static_cast<int32_t>(getpid());
  g_attached.marker = kTraceAttached;
  g_traceAnchor = &g_attached;
}

int traceLevelSlow(int component, int function) {
  const TraceAnchor* a = g_traceAnchor;
  if (a == nullptr || a->marker != kTraceAttached || a->masks == nullptr) return 0;
  if (component < 0 || component >= kTraceComponents || function < 0 ||
      function >= kTraceFunctions)
    return 0;
  const TraceMasks& m = *a->masks;
  uint16_t fm = m.function[component][function];
  if (fm & 0x8000) return fm & 0xF;
  uint16_t cm = m.component[component];
  if (cm & 0x8000) return cm & 0xF;
  return m.global;
}

void traceWriteEntry(int component, int function) {
  TraceSink* sink = sinkOf();
  if (sink == nullptr) return;
  std::vector<unsigned char>& b = scratch();
  b.clear();
  TraceRecordHeader h = header(component, function, kProbeEntry);
  put(b, &h, sizeof h);
  finish(b, sink);
}

void traceWriteExit(int component, int function, int kind, uint64_t value) {
  TraceSink* sink = sinkOf();
  if (sink == nullptr) return;
  std::vector<unsigned char>& b = scratch();
  b.clear();
  TraceRecordHeader h = header(component, function, kProbeExit);
  switch (kind) {
    case kTraceU16: h.valueType = kTraceTypeU16; break;
    case kTraceU32: h.valueType = kTraceTypeU32; break;
    case kTracePtr: h.valueType = kTraceTypePtr; break;
    default: break;
  }
  put(b, &h, sizeof h);
  if (h.valueType == kTraceTypeU16) {
    uint16_t v = static_cast<uint16_t>(value);
    put(b, &v, sizeof v);
  } else if (h.valueType == kTraceTypeU32) {
    uint32_t v = static_cast<uint32_t>(value);
    put(b, &v, sizeof v);
  } else if (h.valueType == kTraceTypePtr) {
    uintptr_t v = static_cast<uintptr_t>(value);
    put(b, &v, sizeof v);
  }
  finish(b, sink);
}

int traceWriteData(int component, int function, const char* label, int level,
                   const TraceItem* items, size_t count) {
  TraceSink* sink = sinkOf();
  if (sink == nullptr) return 0;
  if (count > kTraceMaxItems) count = kTraceMaxItems;
  if (items == nullptr) count = 0;
  std::vector<unsigned char>& b = scratch();
  b.clear();
  TraceRecordHeader h = header(component, function, kProbeData);
  size_t labelLen = label != nullptr ? std::strlen(label) : 0;
  if (labelLen > 0xFFFF) labelLen = 0xFFFF;
  h.labelLength = static_cast<uint16_t>(labelLen);
  h.itemCount = static_cast<uint16_t>(count);
  put(b, &h, sizeof h);
  if (labelLen > 0) put(b, label, labelLen);
  for (size_t i = 0; i < count; ++i) {
    size_t n = items[i].address != nullptr ? items[i].length : 0;
    if (n > 0xFFFFFFFFu) n = 0xFFFFFFFFu;
    TraceItemHeader ih{static_cast<uint32_t>(items[i].type), static_cast<uint32_t>(n)};
    put(b, &ih, sizeof ih);
    if (n > 0) put(b, items[i].address, n);
  }
  finish(b, sink);
  return traceLevel(component, function);
}

int traceWriteText(int component, int function, const char* label, int requiredLevel,
                   const char* fmt, ...) {
  int level = traceLevel(component, function);
  if ((level & requiredLevel) == 0) return level;
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) n = 0;
  if (static_cast<size_t>(n) >= sizeof text) n = sizeof text - 1;
  TraceItem item{kTraceText, static_cast<size_t>(n), text};
  traceWriteData(component, function, label, requiredLevel, &item, 1);
  return level;
}
