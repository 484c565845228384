// Trace anchor: inert probes, the effective-level rule and the records written when attached.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "runtime/trace.h"

namespace {

struct RecordingSink : TraceSink {
  std::vector<std::vector<unsigned char>> records;
  void write(const void* record, size_t length) override {
    const unsigned char* p = static_cast<const unsigned char*>(record);
    records.emplace_back(p, p + length);
  }
  TraceRecordHeader header(size_t i) const {
    TraceRecordHeader h;
    std::memcpy(&h, records.at(i).data(), sizeof h);
    return h;
  }
};

class Attached : public ::testing::Test {
 protected:
  void SetUp() override {
    masks_ = std::make_unique<TraceMasks>();
    std::memset(masks_.get(), 0, sizeof(TraceMasks));
    traceInit();
  }
  void TearDown() override { traceAttach(nullptr, nullptr); }
  void attach() { traceAttach(masks_.get(), &sink_); }

  std::unique_ptr<TraceMasks> masks_;
  RecordingSink sink_;
};

TEST_F(Attached, NothingAttachedEveryProbeReturnsZero) {
  g_traceAnchor = nullptr;  // before traceInit
  EXPECT_EQ(traceLevel(kCompConv, 13), 0);
  traceInit();
  ASSERT_NE(g_traceAnchor, nullptr);
  EXPECT_EQ(g_traceAnchor->marker, kTraceInactive);
  EXPECT_EQ(g_traceAnchor->masks, nullptr);
  EXPECT_GT(g_traceAnchor->processId, 0);
  TraceItem item{kTraceText, 3, "abc"};
  for (int c : {0, kCompConv, 60, 61, 1000, -1}) {
    for (int f : {0, 13, 349, 350, -5}) {
      EXPECT_EQ(traceEntry(c, f), 0);
      traceExit(c, f, kTraceU32, 7);
      EXPECT_EQ(traceData(c, f, "inputs", kTraceValues | kTraceDumps, &item, 1), 0);
      EXPECT_EQ(traceLevelSlow(c, f), 0);
    }
  }
  // A mask table without the attached marker is not read either.
  masks_->global = kTraceFlow;
  TraceAnchor fake{kTraceInactive, masks_.get(), &sink_, 1};
  g_traceAnchor = &fake;
  EXPECT_EQ(traceEntry(kCompConv, 13), 0);
  traceInit();
  EXPECT_TRUE(sink_.records.empty());
}

TEST_F(Attached, EffectiveLevelRule) {
  masks_->global = kTraceFlow;
  masks_->component[kCompConv] = 0x8000 | kTraceValues;
  masks_->function[kCompConv][13] = 0x8000;  // explicit level 0 overrides the component
  masks_->function[kCompConv][14] = 0x8000 | kTraceDumps | kTraceFlow;
  masks_->function[kCompConv][15] = kTraceDumps;  // bit 15 clear: defers to the component
  masks_->component[kCompDriver] = kTraceDumps;   // bit 15 clear: defers to the global mask
  masks_->function[kCompThread][349] = 0x8000 | 0x7;
  attach();
  EXPECT_EQ(traceLevel(kCompConv, 13), 0);
  EXPECT_EQ(traceLevel(kCompConv, 14), kTraceDumps | kTraceFlow);
  EXPECT_EQ(traceLevel(kCompConv, 15), kTraceValues);
  EXPECT_EQ(traceLevel(kCompConv, 0), kTraceValues);
  EXPECT_EQ(traceLevel(kCompDriver, 11), kTraceFlow);
  EXPECT_EQ(traceLevel(kCompThread, 349), 7);
  EXPECT_EQ(traceLevel(kCompThread, 350), 0);
  EXPECT_EQ(traceLevel(61, 0), 0);
  EXPECT_EQ(traceLevel(-1, 0), 0);
  EXPECT_EQ(traceEntry(kCompConv, 13), 0);
  EXPECT_TRUE(sink_.records.empty());
}

TEST_F(Attached, EntryAndExitRecords) {
  masks_->global = kTraceFlow;
  attach();
  {
    RPL_TRACE(kCompPrinters, 5);
    rplTrace_.ret(-3);
  }
  traceExit(kCompPrinters, 6, kTraceU16, 0x12345);
  traceExit(kCompPrinters, 7, kTracePtr, 0x1122334455667788ull);
  traceExit(kCompPrinters, 8, kTraceNone, 99);
  ASSERT_EQ(sink_.records.size(), 5u);
  TraceRecordHeader e = sink_.header(0);
  EXPECT_EQ(e.kind, kProbeEntry);
  EXPECT_EQ(e.component, kCompPrinters);
  EXPECT_EQ(e.function, 5);
  EXPECT_EQ(e.length, sizeof(TraceRecordHeader));
  EXPECT_GT(e.utcMicros, 1600000000ull * 1000000ull);

  struct Exit { size_t index; uint8_t type; size_t size; uint64_t value; };
  for (const Exit& x : {Exit{1, kTraceTypeU32, 4, 0xFFFFFFFDull}, Exit{2, kTraceTypeU16, 2, 0x2345},
                        Exit{3, kTraceTypePtr, 8, 0x1122334455667788ull}, Exit{4, 0, 0, 0}}) {
    TraceRecordHeader h = sink_.header(x.index);
    EXPECT_EQ(h.kind, kProbeExit);
    EXPECT_EQ(h.valueType, x.type);
    ASSERT_EQ(h.length, sizeof h + x.size);
    uint64_t v = 0;
    std::memcpy(&v, sink_.records[x.index].data() + sizeof h, x.size);
    EXPECT_EQ(v, x.value);
  }
}

TEST_F(Attached, DataPointKeepsAtMost32Items) {
  masks_->global = kTraceValues;
  attach();
  std::vector<TraceItem> items;
  std::vector<uint32_t> values(40);
  for (uint32_t i = 0; i < 40; ++i) {
    values[i] = i;
    items.push_back(TraceItem{kTraceRaw, sizeof(uint32_t), &values[i]});
  }
  // Flow-only points and dump-level data write nothing at the values level.
  EXPECT_EQ(traceEntry(kCompConv, 16), kTraceValues);
  EXPECT_EQ(traceData(kCompConv, 16, "dump", kTraceDumps, items.data(), 40), kTraceValues);
  EXPECT_TRUE(sink_.records.empty());

  EXPECT_EQ(traceData(kCompConv, 16, "inputs", kTraceValues, items.data(), items.size()),
            kTraceValues);
  ASSERT_EQ(sink_.records.size(), 1u);
  TraceRecordHeader h = sink_.header(0);
  EXPECT_EQ(h.kind, kProbeData);
  EXPECT_EQ(h.itemCount, 32);
  EXPECT_EQ(h.labelLength, 6);
  const std::vector<unsigned char>& r = sink_.records[0];
  EXPECT_EQ(h.length, r.size());
  EXPECT_EQ(std::string(r.begin() + sizeof h, r.begin() + sizeof h + 6), "inputs");
  size_t at = sizeof h + 6;
  for (uint32_t i = 0; i < 32; ++i) {
    TraceItemHeader ih;
    std::memcpy(&ih, r.data() + at, sizeof ih);
    EXPECT_EQ(ih.type, static_cast<uint32_t>(kTraceRaw));
    ASSERT_EQ(ih.length, 4u);
    uint32_t v;
    std::memcpy(&v, r.data() + at + sizeof ih, 4);
    EXPECT_EQ(v, i);
    at += sizeof ih + 4;
  }
  EXPECT_EQ(at, r.size());

  RPL_TRACE_TEXT(kCompConv, 16, "inputs", kTraceValues, "src CCSID: %d", 37);
  ASSERT_EQ(sink_.records.size(), 2u);
  const std::vector<unsigned char>& t = sink_.records[1];
  std::string tail(t.end() - 13, t.end());
  EXPECT_EQ(tail, "src CCSID: 37");
}

}  // namespace
