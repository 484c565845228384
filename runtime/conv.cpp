// Conversion manager: the CCSID composition table, the process-wide ICU converter cache and
// the conversions through Unicode, with the shift bytes of mixed EBCDIC data.
#include "runtime/conv.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>
#include <unicode/utf16.h>
#include <unicode/utypes.h>
#include <unicode/uvernum.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "runtime/catalog.h"
#include "runtime/thread.h"
#include "runtime/trace.h"

namespace {

// Trace function ids of the conversion manager (component 42).
constexpr int kFnInit = 10;
constexpr int kFnOpenConverter = 11;
constexpr int kFnGetConverter = 12;
constexpr int kFnLookupAddConv = 13;
constexpr int kFnCpcvb = 18;
constexpr int kFnGetName = 19;
constexpr int kFnCleanup = 20;

constexpr char kShiftOut = 0x0E;
constexpr char kShiftIn = 0x0F;

// ---------------------------------------------------------------------------------------------
// Code-page composition: CCSID -> (single-byte component, double-byte component). CCSIDs not in
// the table are their own components. A single-byte component of 0 marks a pure double-byte
// code page. Sorted by CCSID.
struct CompositionRow {
  int32_t ccsid;
  int32_t sbcs;
  int32_t dbcs;
  const char* name;  // ICU's converter name where the table records one
};

constexpr CompositionRow kComposition[] = {
    {37, 37, 1200, "ibm-37_P100-1995"},
    {273, 273, 1200, nullptr},
    {277, 277, 1200, nullptr},
    {278, 278, 1200, nullptr},
    {280, 280, 1200, nullptr},
    {284, 284, 1200, nullptr},
    {285, 285, 1200, nullptr},
    {297, 297, 1200, nullptr},
    {300, 0, 300, nullptr},
    {301, 0, 301, nullptr},
    {367, 367, 1200, nullptr},
    {420, 420, 1200, nullptr},
    {423, 423, 1200, nullptr},
    {424, 424, 1200, nullptr},
    {425, 425, 1200, nullptr},
    {437, 437, 1200, nullptr},
    {500, 500, 1200, "ibm-500_P100-1995"},
    {737, 737, 1200, nullptr},
    {803, 803, 1200, nullptr},
    {806, 806, 1200, nullptr},
    {808, 866, 866, nullptr},
    {813, 813, 1200, nullptr},
    {819, 819, 1200, nullptr},
    {833, 833, 1200, nullptr},
    {834, 0, 933, nullptr},
    {835, 0, 835, nullptr},
    {836, 836, 1200, nullptr},
    {837, 0, 837, nullptr},
    {838, 838, 1200, nullptr},
    {848, 1125, 1125, nullptr},
    {849, 1131, 1131, nullptr},
    {850, 850, 1200, nullptr},
    {852, 852, 1200, nullptr},
    {855, 855, 1200, nullptr},
    {856, 856, 1200, nullptr},
    {857, 857, 1200, nullptr},
    {858, 850, 850, nullptr},
    {860, 860, 1200, nullptr},
    {862, 862, 1200, nullptr},
    {863, 863, 1200, nullptr},
    {864, 864, 1200, nullptr},
    {865, 865, 1200, nullptr},
    {866, 866, 1200, nullptr},
    {867, 862, 862, nullptr},
    {869, 869, 1200, nullptr},
    {870, 870, 1200, nullptr},
    {871, 871, 1200, nullptr},
    {872, 855, 855, nullptr},
    {874, 874, 1200, nullptr},
    {875, 875, 1200, nullptr},
    {878, 878, 1200, nullptr},
    {891, 0, 891, nullptr},
    {895, 0, 895, nullptr},
    {897, 897, 1200, nullptr},
    {901, 921, 921, nullptr},
    {902, 922, 922, nullptr},
    {903, 1042, 1042, nullptr},
    {904, 1043, 1043, nullptr},
    {912, 912, 1200, nullptr},
    {915, 915, 1200, nullptr},
    {916, 916, 1200, nullptr},
    {920, 920, 1200, nullptr},
    {921, 921, 1200, nullptr},
    {922, 922, 1200, nullptr},
    {923, 923, 1200, nullptr},
    {924, 924, 1200, nullptr},
    {926, 0, 926, nullptr},
    {927, 0, 927, nullptr},
    {928, 0, 928, nullptr},
    {930, 1390, 1390, nullptr},
    {932, 942, 942, nullptr},
    {934, 934, 926, nullptr},
    {935, 1388, 1388, nullptr},
    {936, 936, 928, nullptr},
    {937, 937, 835, nullptr},
    {938, 948, 948, nullptr},
    {939, 1399, 1399, nullptr},
    {941, 0, 941, nullptr},
    {942, 942, 301, nullptr},
    {943, 943, 941, nullptr},
    {944, 944, 926, nullptr},
    {946, 946, 928, nullptr},
    {947, 0, 947, nullptr},
    {948, 948, 927, nullptr},
    {949, 949, 951, nullptr},
    {950, 950, 947, nullptr},
    {951, 0, 951, nullptr},
    {954, 954, 13488, nullptr},
    {964, 964, 13488, nullptr},
    {970, 970, 971, nullptr},
    {971, 0, 971, nullptr},
    {1004, 1252, 1252, nullptr},
    {1008, 1008, 1200, nullptr},
    {1025, 1025, 1200, nullptr},
    {1026, 1026, 1200, nullptr},
    {1027, 1027, 1200, nullptr},
    {1040, 1040, 1200, nullptr},
    {1041, 1041, 1200, nullptr},
    {1042, 1042, 1200, nullptr},
    {1043, 0, 1043, nullptr},
    {1046, 1046, 1200, nullptr},
    {1047, 1047, 1200, "ibm-1047_P100-1995"},
    {1051, 1051, 1200, nullptr},
    {1089, 1089, 1200, nullptr},
    {1112, 1112, 1200, nullptr},
    {1114, 1114, 1200, nullptr},
    {1115, 0, 1115, nullptr},
    {1122, 1122, 1200, nullptr},
    {1123, 1123, 1200, nullptr},
    {1124, 1124, 1200, nullptr},
    {1125, 1125, 1200, nullptr},
    {1126, 1126, 1200, nullptr},
    {1129, 1129, 1200, nullptr},
    {1130, 1130, 1200, nullptr},
    {1131, 1131, 1200, nullptr},
    {1137, 1137, 1200, nullptr},
    {1140, 37, 37, nullptr},
    {1141, 273, 273, nullptr},
    {1142, 277, 277, nullptr},
    {1143, 278, 278, nullptr},
    {1144, 280, 280, nullptr},
    {1145, 284, 284, nullptr},
    {1146, 285, 285, nullptr},
    {1147, 297, 297, nullptr},
    {1148, 500, 500, nullptr},
    {1149, 871, 871, nullptr},
    {1153, 870, 870, nullptr},
    {1154, 1025, 1025, nullptr},
    {1155, 1026, 1026, nullptr},
    {1156, 1112, 1112, nullptr},
    {1157, 1122, 1122, nullptr},
    {1158, 1123, 1123, nullptr},
    {1159, 37, 37, nullptr},
    {1160, 838, 838, nullptr},
    {1161, 874, 874, nullptr},
    {1162, 874, 874, nullptr},
    {1163, 1129, 1129, nullptr},
    {1164, 1130, 1130, nullptr},
    {1167, 1167, 1200, nullptr},
    {1168, 1168, 1200, nullptr},
    {1200, 0, 1200, nullptr},
    {1202, 0, 1202, nullptr},
    {1208, 1208, 1200, "UTF-8"},
    {1232, 1232, 1200, nullptr},
    {1234, 1234, 1200, nullptr},
    {1250, 1250, 1200, nullptr},
    {1251, 1251, 1200, nullptr},
    {1252, 5348, 1200, nullptr},
    {1253, 1253, 1200, nullptr},
    {1254, 1254, 1200, nullptr},
    {1255, 1255, 1200, nullptr},
    {1256, 1256, 1200, nullptr},
    {1257, 1257, 1200, nullptr},
    {1258, 1258, 1200, nullptr},
    {1275, 1275, 1200, nullptr},
    {1280, 1280, 1200, nullptr},
    {1281, 1281, 1200, nullptr},
    {1282, 1282, 1200, nullptr},
    {1283, 1283, 1200, nullptr},
    {1351, 0, 1351, nullptr},
    {1362, 0, 1362, nullptr},
    {1363, 1363, 1362, nullptr},
    {1364, 1364, 834, nullptr},
    {1370, 950, 950, nullptr},
    {1371, 937, 937, nullptr},
    {1380, 0, 1380, nullptr},
    {1381, 1381, 1380, nullptr},
    {1382, 0, 1382, nullptr},
    {1383, 1383, 1382, nullptr},
    {1385, 0, 1385, nullptr},
    {1386, 1386, 1385, nullptr},
    {1388, 1388, 837, nullptr},
    {1390, 1390, 300, nullptr},
    {1392, 5488, 5488, nullptr},
    {1393, 0, 1393, nullptr},
    {1394, 1394, 1200, nullptr},
    {1399, 1399, 300, nullptr},
    {4369, 4369, 1200, nullptr},
    {4396, 0, 300, nullptr},
    {4899, 803, 803, nullptr},
    {4909, 813, 813, nullptr},
    {4930, 834, 834, nullptr},
    {4933, 837, 837, nullptr},
    {4971, 875, 875, nullptr},
    {5026, 1390, 1390, nullptr},
    {5035, 1399, 1399, nullptr},
    {5039, 5039, 1351, nullptr},
    {5104, 1008, 1008, nullptr},
    {5123, 1027, 1027, nullptr},
    {5210, 1114, 1114, nullptr},
    {5222, 1126, 1126, nullptr},
    {5346, 1250, 1250, nullptr},
    {5347, 1251, 1251, nullptr},
    {5348, 5348, 5348, nullptr},
    {5349, 1253, 1253, nullptr},
    {5350, 1254, 1254, nullptr},
    {5351, 1255, 1255, nullptr},
    {5352, 1256, 1256, nullptr},
    {5353, 1257, 1257, nullptr},
    {5354, 1258, 1258, nullptr},
    {5488, 5488, 1200, nullptr},
    {8482, 290, 290, nullptr},
    {8612, 8612, 1200, nullptr},
    {8616, 424, 424, nullptr},
    {9027, 835, 835, nullptr},
    {9044, 852, 852, nullptr},
    {9048, 856, 856, nullptr},
    {9049, 857, 857, nullptr},
    {9061, 869, 869, nullptr},
    {9238, 1046, 1046, nullptr},
    {12712, 424, 424, nullptr},
    {13121, 833, 833, nullptr},
    {13124, 836, 836, nullptr},
    {13488, 0, 13488, nullptr},
    {13490, 0, 13490, nullptr},
    {16684, 300, 300, nullptr},
    {16804, 420, 420, nullptr},
    {17248, 864, 864, nullptr},
    {17584, 13488, 13488, nullptr},
    {17586, 13490, 13490, nullptr},
    {21427, 947, 947, nullptr},
    {28709, 37, 37, nullptr},
    {62227, 1089, 1089, nullptr},
    {62228, 1256, 1256, nullptr},
    {62251, 425, 425, nullptr},
    {65535, 0, 1200, nullptr},
};

constexpr bool sortedByCcsid() {
  for (size_t i = 1; i < std::size(kComposition); ++i)
    if (kComposition[i - 1].ccsid >= kComposition[i].ccsid) return false;
  return true;
}
static_assert(sortedByCcsid(), "the composition table must stay sorted by CCSID");

const CompositionRow* findComposition(int32_t ccsid) {
  const CompositionRow* end = kComposition + std::size(kComposition);
  const CompositionRow* it = std::lower_bound(
      kComposition, end, ccsid, [](const CompositionRow& r, int32_t c) { return r.ccsid < c; });
  return it != end && it->ccsid == ccsid ? it : nullptr;
}

// ---------------------------------------------------------------------------------------------
// ICU tables for the CCSIDs whose own CCSID numbering does not reach the right table.
struct TableName {
  int32_t ccsid;
  const char* table;
};
constexpr TableName kTableNames[] = {
    {932, "ibm-942"},   {942, "ibm-942"},   {301, "ibm-942"},
    {933, "ibm-933"},   {834, "ibm-933"},
    {941, "ibm-943"},   {943, "ibm-943"},   {897, "ibm-943"},   {1351, "ibm-943"},
    {5039, "ibm-943"},
    {947, "ibm-950"},   {950, "ibm-950"},   {1114, "ibm-950"},
    {949, "ibm-949"},   {951, "ibm-949"},
    {954, "ibm-33722"},
    {964, "ibm-964"},
    {970, "ibm-970"},   {971, "ibm-970"},
    {1362, "ibm-1363"}, {1363, "ibm-1363"},
    {1370, "ibm-1373_P100-2002"}, {1373, "ibm-1373_P100-2002"},
    {1380, "ibm-1381"}, {1381, "ibm-1381"},
    {1382, "ibm-1383"}, {1383, "ibm-1383"},
    {1385, "ibm-1386"}, {1386, "ibm-1386"},
    {1392, "ibm-1392"},
    {300, "ibm-16684"}, {4396, "ibm-16684"},
};
// The custom Arabic table preferred for 864 when the ICU data carries it.
constexpr const char* kCustom864 = "ibm-864_X120-2012";

const char* tableNameOf(int32_t ccsid) {
  for (const TableName& t : kTableNames)
    if (t.ccsid == ccsid) return t.table;
  return nullptr;
}

bool isUtf16(int32_t ccsid) { return ccsid == kCcsidUtf16 || ccsid == kCcsidUtf16Alt; }

// ---------------------------------------------------------------------------------------------
// The process-wide cache.
struct ConvListItem {
  int32_t ccsid;
  bool lowFirst;  // UTF-16 only: the little-endian form
  UConverter* conv;
  ConvListItem* next;
};

RplLatch stateGuard;
std::atomic<bool> g_initialised{false};
ConvListItem* g_list = nullptr;
std::atomic<int32_t> g_opens{0};
std::atomic<bool> g_stopOnSubstitution{false};
// Bumped by cleanup so that the per-thread clones of closed converters are dropped.
std::atomic<uint32_t> g_generation{1};

void traceIcuError(int function, const char* call, int32_t ccsid, UErrorCode err) {
  RPL_TRACE_TEXT(kCompConv, function, call, kTraceValues, "ccsid: %d, ICU error: %s",
                 static_cast<int>(ccsid), u_errorName(err));
}

void setCallbacks(UConverter* c, bool stop) {
  UErrorCode err = U_ZERO_ERROR;
  if (stop) {
    ucnv_setToUCallBack(c, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &err);
    ucnv_setFromUCallBack(c, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &err);
  } else {
    ucnv_setToUCallBack(c, UCNV_TO_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &err);
    ucnv_setFromUCallBack(c, UCNV_FROM_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &err);
  }
}

// Opens the ICU converter for a CCSID; null with rc 5000 when ICU cannot.
UConverter* openConverter(int32_t ccsid, bool lowFirst, int32_t& rc) {
  RPL_TRACE_TEXT(kCompConv, kFnOpenConverter, "inputs", kTraceValues,
                 "ccsid: %d, encoding: %d", static_cast<int>(ccsid), lowFirst ? 1 : 0);
  g_opens.fetch_add(1, std::memory_order_relaxed);
  UErrorCode err = U_ZERO_ERROR;
  UConverter* c = nullptr;
  if (isUtf16(ccsid)) {
    c = ucnv_open(lowFirst ? "UTF-16LE" : "UTF-16BE", &err);
  } else if (const char* table = tableNameOf(ccsid)) {
    c = ucnv_open(table, &err);
  } else if (ccsid == 864) {
    c = ucnv_open(kCustom864, &err);
    if (U_FAILURE(err)) {
      err = U_ZERO_ERROR;
      c = ucnv_openCCSID(864, UCNV_IBM, &err);
    } else {
      RPL_TRACE_TEXT(kCompConv, kFnOpenConverter, "info", kTraceValues,
                     "Custom convertor for 864 (%s) was found and will be used instead of the "
                     "default.", kCustom864);
    }
  } else {
    c = ucnv_openCCSID(ccsid, UCNV_IBM, &err);
  }
  RPL_TRACE_TEXT(kCompConv, kFnOpenConverter, "ICU return code", kTraceValues, "%s",
                 u_errorName(err));
  if (U_FAILURE(err) || c == nullptr) {
    traceIcuError(kFnOpenConverter, "ucnv_open", ccsid, err);
    if (c != nullptr) ucnv_close(c);
    rc = kRcConvOpen;
    return nullptr;
  }
  if (g_stopOnSubstitution.load(std::memory_order_relaxed)) setCallbacks(c, true);
  rc = 0;
  return c;
}

// The cached converter for (ccsid, byte order), opened on first use. Called under stateGuard.
ConvListItem* findOrOpen(int32_t ccsid, bool lowFirst, int32_t& rc) {
  if (!isUtf16(ccsid)) lowFirst = false;
  ConvListItem* last = nullptr;
  for (ConvListItem* it = g_list; it != nullptr; it = it->next) {
    if (it->ccsid == ccsid && it->lowFirst == lowFirst) {
      rc = 0;
      return it;
    }
    last = it;
  }
  UConverter* c = openConverter(ccsid, lowFirst, rc);
  if (c == nullptr) return nullptr;
  ConvListItem* item = static_cast<ConvListItem*>(std::malloc(sizeof(ConvListItem)));
  if (item == nullptr) {
    ucnv_close(c);
    rc = kRcConvOpen;
    return nullptr;
  }
  *item = ConvListItem{ccsid, lowFirst, c, nullptr};
  if (last == nullptr) g_list = item; else last->next = item;
  return item;
}

UConverter* cloneOf(UConverter* c, int32_t ccsid) {
  UErrorCode err = U_ZERO_ERROR;
  // ucnv_clone is ICU's name, from ICU 71 on, for a safe clone into memory it allocates.
#if U_ICU_VERSION_MAJOR_NUM >= 71
  UConverter* clone = ucnv_clone(c, &err);
#else
  UConverter* clone = ucnv_safeClone(c, nullptr, nullptr, &err);
#endif
  if (U_FAILURE(err) || clone == nullptr) {
    RPL_TRACE_TEXT(kCompConv, kFnGetConverter, "error", kTraceValues,
                   "no clone returned by ICU !! ccsid: %d, %s", static_cast<int>(ccsid),
                   u_errorName(err));
    if (clone != nullptr) ucnv_close(clone);
    return nullptr;
  }
  return clone;
}

UConverter* cloneCached(int32_t ccsid, bool lowFirst, int32_t& rc) {
  if (!g_initialised) {
    RPL_TRACE_TEXT(kCompConv, kFnGetConverter, "error", kTraceValues,
                   "static ConvMgr not initialized");
    rc = kRcConvOpen;
    return nullptr;
  }
  std::lock_guard<RplLatch> hold(stateGuard);
  ConvListItem* item = findOrOpen(ccsid, lowFirst, rc);
  if (item == nullptr) return nullptr;
  UConverter* clone = cloneOf(item->conv, ccsid);
  if (clone == nullptr) rc = kRcConvOpen;
  return clone;
}

// Each thread keeps its own clones of the converters it uses, so that a conversion takes the
// cache latch only the first time a thread meets a CCSID.
class ThreadConverters {
 public:
  ~ThreadConverters() {
    for (Slot& s : slots_)
      if (s.conv != nullptr) ucnv_close(s.conv);
  }

  UConverter* get(int32_t ccsid, bool lowFirst, int32_t& rc) {
    if (!isUtf16(ccsid)) lowFirst = false;
    uint32_t gen = g_generation.load(std::memory_order_acquire);
    bool stop = g_stopOnSubstitution.load(std::memory_order_relaxed);
    for (Slot& s : slots_) {
      if (s.conv == nullptr || s.ccsid != ccsid || s.lowFirst != lowFirst) continue;
      if (s.generation != gen) {
        ucnv_close(s.conv);
        s.conv = nullptr;
        break;
      }
      if (s.stop != stop) {
        setCallbacks(s.conv, stop);
        s.stop = stop;
      }
      rc = 0;
      return s.conv;
    }
    UConverter* c = cloneCached(ccsid, lowFirst, rc);
    if (c == nullptr) return nullptr;
    setCallbacks(c, stop);
    Slot* victim = nullptr;
    for (Slot& s : slots_)
      if (s.conv == nullptr) { victim = &s; break; }
    if (victim == nullptr) {
      victim = &slots_[next_];
      next_ = (next_ + 1) % kSlots;
      ucnv_close(victim->conv);
    }
    *victim = Slot{ccsid, lowFirst, stop, gen, c};
    return c;
  }

 private:
  struct Slot {
    int32_t ccsid;
    bool lowFirst;
    bool stop;
    uint32_t generation;
    UConverter* conv;
  };
  static constexpr size_t kSlots = 8;
  Slot slots_[kSlots] = {};
  size_t next_ = 0;
};

thread_local ThreadConverters t_converters;
thread_local std::vector<UChar> t_unicode;       // "Unicode buffer"
thread_local std::vector<char> t_source;         // repaired or shift-wrapped source bytes
thread_local std::vector<char> t_direct;         // output of a direct conversion

// ---------------------------------------------------------------------------------------------
// Direct conversions to UTF-8 of the two commonest sources: UTF-16 (either byte order) and
// single-byte code pages. A single-byte code page maps each byte on its own, so its table
// is read from ICU once, byte by byte, with the stop callbacks: a byte that ICU maps to one
// BMP character is taken from the table, any other (unmappable, or a character outside the
// BMP) sends the whole text through ICU. UTF-16 that is not well formed (an odd length, a
// lone surrogate) goes through ICU too. So the bytes produced are always ICU's.
struct SbcsTable {
  int32_t ccsid = -1;  // the code page the table was read for
  uint32_t generation = 0;
  UChar map[256];
  bool direct[256];
};
thread_local SbcsTable t_sbcs[4];
thread_local size_t t_sbcsNext = 0;

const SbcsTable* sbcsTableOf(int32_t ccsid, UConverter* from, bool stop) {
  const uint32_t gen = g_generation.load(std::memory_order_acquire);
  for (SbcsTable& t : t_sbcs)
    if (t.ccsid == ccsid && t.generation == gen) return &t;
  SbcsTable& t = t_sbcs[t_sbcsNext];
  t_sbcsNext = (t_sbcsNext + 1) % std::size(t_sbcs);
  setCallbacks(from, true);
  for (int b = 0; b < 256; ++b) {
    const char byte = static_cast<char>(b);
    const char* in = &byte;
    UChar u[4];
    UChar* out = u;
    UErrorCode err = U_ZERO_ERROR;
    ucnv_toUnicode(from, &out, u + 4, &in, &byte + 1, nullptr, true, &err);
    t.direct[b] = U_SUCCESS(err) && out - u == 1 && !U16_IS_SURROGATE(u[0]);
    t.map[b] = t.direct[b] ? u[0] : 0;
    ucnv_resetToUnicode(from);
  }
  setCallbacks(from, stop);
  t.ccsid = ccsid;
  t.generation = gen;
  return &t;
}

inline char* putUtf8(char* q, uint32_t c) {
  if (c < 0x80) {
    *q++ = static_cast<char>(c);
  } else if (c < 0x800) {
    *q++ = static_cast<char>(0xC0 | (c >> 6));
    *q++ = static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    *q++ = static_cast<char>(0xE0 | (c >> 12));
    *q++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *q++ = static_cast<char>(0x80 | (c & 0x3F));
  } else {
    *q++ = static_cast<char>(0xF0 | (c >> 18));
    *q++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    *q++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *q++ = static_cast<char>(0x80 | (c & 0x3F));
  }
  return q;
}

// Converts [in, in + n) to UTF-8 into t_direct without ICU when the pair allows it; false
// sends the text through ICU. `units` is the number of UTF-16 units the text holds.
bool convertDirect(int32_t srcCcsid, UConverter* from, UConverter* to, const char* in, size_t n,
                   bool stop, size_t& produced, size_t& units) {
  if (ucnv_getType(to) != UCNV_UTF8) return false;
  const UConverterType type = ucnv_getType(from);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
  if (type == UCNV_UTF16_LittleEndian || type == UCNV_UTF16_BigEndian) {
    if (t_direct.size() < n / 2 * 3 + 1) t_direct.resize(n / 2 * 3 + 1);
    units = n / 2;
    return ConvMgr::utf16ToUtf8(in, n, type == UCNV_UTF16_LittleEndian, t_direct.data(), t_direct.size(), produced);
  }
  if (type == UCNV_SBCS) {
    const SbcsTable* t = sbcsTableOf(srcCcsid, from, stop);
    if (t_direct.size() < n * 3 + 1) t_direct.resize(n * 3 + 1);
    char* q = t_direct.data();
    for (size_t i = 0; i < n; ++i) {
      if (!t->direct[p[i]]) return false;
      q = putUtf8(q, t->map[p[i]]);
    }
    produced = static_cast<size_t>(q - t_direct.data());
    units = n;
    return true;
  }
  return false;
}

void resetBoth(UConverter* a, UConverter* b) {
  for (UConverter* c : {a, b}) {
    if (c == nullptr) continue;
    ucnv_resetToUnicode(c);
    ucnv_resetFromUnicode(c);
    ucnv_reset(c);
  }
}

int32_t icuFailure(UErrorCode err) {
  return err == U_BUFFER_OVERFLOW_ERROR ? kRcConvOverflow : kRcConvFailed;
}

void traceHexText(const char* title, const char* p, size_t n) {
  if ((traceLevel(kCompConv, kFnLookupAddConv) & kTraceDumps) == 0) return;
  char text[1024];
  int at = snprintf(text, sizeof text, "%s (%d):", title, static_cast<int>(n));
  for (size_t i = 0; i < n && at + 3 < static_cast<int>(sizeof text); ++i)
    at += snprintf(text + at, sizeof text - at, "%02X", static_cast<unsigned char>(p[i]));
  TraceItem item{kTraceText, static_cast<size_t>(at), text};
  traceData(kCompConv, kFnLookupAddConv, "SOSI", kTraceDumps, &item, 1);
}

// Korean mixed data whose last double-byte run lost its shift-in (the field was cut inside
// it): copies the source one byte longer, rounded up to an even size, and closes the run.
// Returns false when every shift-out already has a later shift-in.
bool repairKoreanRun(const char* p, size_t n, std::vector<char>& out, size_t& outLen) {
  bool open = false;
  for (size_t i = 0; i < n; ++i) {
    if (p[i] == kShiftOut) open = true;
    else if (p[i] == kShiftIn) open = false;
  }
  if (!open) return false;
  size_t size = (n + 1 + 1) & ~static_cast<size_t>(1);
  out.resize(size);
  std::memcpy(out.data(), p, n);
  out[n] = kShiftIn;
  if (size > n + 1) out[n + 1] = 0;
  outLen = n + 1;
  traceHexText("KOR: Data after adding SHIFT bytes", out.data(), outLen);
  return true;
}

void writeLength(char* at, size_t width, size_t value) {
  if (width == 4) {
    uint32_t v = static_cast<uint32_t>(value);
    std::memcpy(at, &v, sizeof v);
  } else {
    uint16_t v = static_cast<uint16_t>(value);
    std::memcpy(at, &v, sizeof v);
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
CcsidComposition composeCcsid(int32_t ccsid) {
  const CompositionRow* r = findComposition(ccsid);
  if (r == nullptr) return CcsidComposition{ccsid, ccsid, "unknown", 0};
  return CcsidComposition{r->sbcs, r->dbcs, r->name != nullptr ? r->name : "unknown",
                          r->sbcs == 0 ? kRcPureDbcs : 0};
}

int32_t encodingInfo::setup(int32_t ccsid) {
  CcsidComposition c = composeCcsid(ccsid);
  msgCcsid = ccsid;
  sbcsCcsid = c.sbcs;
  dbcsCcsid = c.dbcs;
  name = c.name;
  return c.rc;
}

int32_t encodingInfo::encoding() const {
  // The machine is little-endian: integers in machine order are integers low byte first.
  return (flags & kEncMachineOrder) != 0 ? kEncLowByteFirst : 0;
}

// ---------------------------------------------------------------------------------------------
ConvMgr::ConvMgr(int32_t component, const char* name) : component_(component), name_(name) {
  init();
}

void ConvMgr::init() {
  std::lock_guard<RplLatch> hold(stateGuard);
  if (!g_initialised) {
    g_initialised = true;
    RPL_TRACE_TEXT(kCompConv, kFnInit, "info", kTraceValues, "ConvMgr initialized");
  }
}

void ConvMgr::cleanup() {
  std::lock_guard<RplLatch> hold(stateGuard);
  ConvListItem* it = g_list;
  while (it != nullptr) {
    ConvListItem* next = it->next;
    ucnv_close(it->conv);
    std::free(it);
    it = next;
  }
  g_list = nullptr;
  g_generation.fetch_add(1, std::memory_order_acq_rel);
  RPL_TRACE_TEXT(kCompConv, kFnCleanup, "ConvMgr::cleanup", kTraceFlow,
                 "ConvMgr::stateGuard.unlock");
}

void ConvMgr::dumpList(FILE* out) {
  std::lock_guard<RplLatch> hold(stateGuard);
  if (g_list == nullptr) {
    fprintf(out, "No converters in the list.\n");
    return;
  }
  fprintf(out, "List:\n");
  for (ConvListItem* it = g_list; it != nullptr; it = it->next) {
    UErrorCode err = U_ZERO_ERROR;
    const char* name = ucnv_getName(it->conv, &err);
    fprintf(out, "  CCSID %d, converter %s\n", static_cast<int>(it->ccsid),
            U_FAILURE(err) ? "?" : name);
  }
}

int32_t ConvMgr::openCount() { return g_opens.load(std::memory_order_relaxed); }

void ConvMgr::setStopOnSubstitution(bool on) {
  g_stopOnSubstitution.store(on, std::memory_order_relaxed);
}

UConverter* ConvMgr::getConverter(int32_t ccsid, int32_t encoding, int32_t& rc) {
  return cloneCached(ccsid, (encoding & kEncLowByteFirst) != 0, rc);
}

const char* ConvMgr::getName(int32_t ccsid, int32_t& rc) {
  if (!g_initialised) {
    rc = kRcConvOpen;
    return nullptr;
  }
  std::lock_guard<RplLatch> hold(stateGuard);
  ConvListItem* item = findOrOpen(ccsid, false, rc);
  if (item == nullptr) return nullptr;
  UErrorCode err = U_ZERO_ERROR;
  const char* name = ucnv_getName(item->conv, &err);
  if (U_FAILURE(err)) {
    RPL_TRACE_TEXT(kCompConv, kFnGetName, "ConvMgr::getName", kTraceValues,
                   "ucnv_getName ccsid: %d, %s", static_cast<int>(ccsid), u_errorName(err));
    rc = kRcConvOpen;
    return nullptr;
  }
  rc = 0;
  return name;
}

bool ConvMgr::utf16ToUtf8(const char* in, size_t n, bool lowFirst, char* out, size_t room, size_t& produced) {
  if (n % 2 != 0 || room < n / 2 * 3) return false;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
  char* q = out;
  for (size_t i = 0; i < n; i += 2) {
    uint32_t u = lowFirst ? (p[i] | (p[i + 1] << 8)) : ((p[i] << 8) | p[i + 1]);
    if (U16_IS_SURROGATE(u)) {
      if (!U16_IS_SURROGATE_LEAD(u) || i + 4 > n) return false;
      uint32_t low = lowFirst ? (p[i + 2] | (p[i + 3] << 8)) : ((p[i + 2] << 8) | p[i + 3]);
      if (!U16_IS_TRAIL(low)) return false;
      u = U16_GET_SUPPLEMENTARY(u, low);
      i += 2;
    }
    q = putUtf8(q, u);
  }
  produced = static_cast<size_t>(q - out);
  return true;
}

int16_t ConvMgr::readShortPtr(const void* p, int32_t encoding) {
  const unsigned char* b = static_cast<const unsigned char*>(p);
  uint16_t v = (encoding & kEncLowByteFirst) ? static_cast<uint16_t>(b[0] | (b[1] << 8))
                                             : static_cast<uint16_t>((b[0] << 8) | b[1]);
  return static_cast<int16_t>(v);
}

int32_t ConvMgr::readIntPtr(const void* p, int32_t encoding) {
  const unsigned char* b = static_cast<const unsigned char*>(p);
  uint32_t v;
  if (encoding & kEncLowByteFirst)
    v = b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
  else
    v = (static_cast<uint32_t>(b[0]) << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
  return static_cast<int32_t>(v);
}

int32_t ConvMgr::lookupAddConv(int32_t srcCcsid, const char** src, const char* srcEnd,
                               int32_t tgtCcsid, char** tgt, char* tgtEnd, int32_t encoding,
                               bool graphic, bool lengthPrefixed, int32_t* outLen) {
  const int level = traceLevel(kCompConv, kFnLookupAddConv);
  const char* start = *src;
  size_t srcLen = srcEnd > start ? static_cast<size_t>(srcEnd - start) : 0;
  const bool provided = *tgt != nullptr;
  if (level & kTraceValues) {
    int shown = srcLen < 50 ? static_cast<int>(srcLen) : 50;
    traceWriteText(kCompConv, kFnLookupAddConv, "inputs", kTraceValues,
                   "src CCSID: %d, targ CCSID: %d, encoding: %d, *srcBuffer: %p, "
                   "srcBufferEnd: %p, *targBuffer: %p, targBufferEnd: %p, src[0..50] = "
                   "\"%.*s\", output provided: %c",
                   static_cast<int>(srcCcsid), static_cast<int>(tgtCcsid),
                   static_cast<int>(encoding), static_cast<const void*>(start),
                   static_cast<const void*>(srcEnd), static_cast<void*>(*tgt),
                   static_cast<void*>(tgtEnd), shown, start, provided ? 'Y' : 'N');
  }
  if (level & kTraceDumps) traceHex(kCompConv, kFnLookupAddConv, "cpcv hex input", start, srcLen);

  int32_t rc = 0;
  // Source converter: UTF-16 data is little-endian when the encoding says low byte first.
  UConverter* from = t_converters.get(srcCcsid, (encoding & kEncLowByteFirst) != 0, rc);
  if (from == nullptr) return rc;
  // Target converter: UTF-16 output is written in the machine's order.
  UConverter* to = t_converters.get(tgtCcsid, true, rc);
  if (to == nullptr) return rc;

  // The bytes actually converted: the source itself, a repaired Korean copy, or graphic data
  // given the shift bytes that a mixed EBCDIC converter needs around double-byte data.
  const char* in = start;
  size_t inLen = srcLen;
  if (srcCcsid == 933 && !graphic) {
    size_t fixedLen = 0;
    if (repairKoreanRun(start, srcLen, t_source, fixedLen)) {
      in = t_source.data();
      inLen = fixedLen;
    }
  } else if (graphic && srcLen > 0 && ucnv_getType(from) == UCNV_EBCDIC_STATEFUL) {
    t_source.resize(srcLen + 2);
    t_source[0] = kShiftOut;
    std::memcpy(t_source.data() + 1, start, srcLen);
    t_source[srcLen + 1] = kShiftIn;
    in = t_source.data();
    inLen = srcLen + 2;
    traceHexText("SOSI: Data after adding SHIFT bytes", in, inLen);
  }

  // Source to Unicode, or straight to UTF-8 where that gives ICU's bytes.
  const size_t unitWidth = graphic ? 4 : 2;
  size_t uCap = inLen * unitWidth / 2 + 2;
  size_t directLen = 0;
  size_t uLen = 0;
  const bool direct = convertDirect(srcCcsid, from, to, in, inLen,
                                    g_stopOnSubstitution.load(std::memory_order_relaxed), directLen, uLen);
  UChar* uStart = nullptr;
  UErrorCode err = U_ZERO_ERROR;
  if (!direct) {
    if (t_unicode.size() < uCap) t_unicode.resize(uCap);
    uStart = t_unicode.data();
    UChar* u = uStart;
    const char* inCur = in;
    ucnv_toUnicode(from, &u, uStart + uCap, &inCur, in + inLen, nullptr, true, &err);
    if (U_FAILURE(err)) {
      traceIcuError(kFnLookupAddConv, "ucnv_toUnicode", ucnv_getCCSID(from, &err), err);
      int32_t fail = icuFailure(err);
      resetBoth(from, to);
      return fail;
    }
    uLen = static_cast<size_t>(u - uStart);
  }

  // Target buffer: the caller's, or one sized here.
  const size_t prefix = lengthPrefixed ? (graphic ? 4 : 2) : 0;
  const int8_t minChar = ucnv_getMinCharSize(to);
  const size_t zeroUnit = minChar > 0 ? static_cast<size_t>(minChar) : 1;
  const size_t padTo = tgtCcsid == 834 ? srcLen / 2 * 3 : 0;
  char* base = *tgt;
  char* limit = tgtEnd;
  if (!provided) {
    size_t need = UCNV_GET_MAX_BYTES_FOR_STRING(uLen, ucnv_getMaxCharSize(to));
    need = std::max(need, padTo) + prefix + zeroUnit;
    base = static_cast<char*>(std::malloc(need));
    if (base == nullptr) {
      resetBoth(from, to);
      return kRcConvFailed;
    }
    limit = base + need;
  } else if (limit == nullptr || limit < base) {
    limit = base;
  }
  auto fail = [&](int32_t code) {
    resetBoth(from, to);
    if (!provided) {
      std::free(base);
      *tgt = nullptr;
    }
    return code;
  };
  if (static_cast<size_t>(limit - base) < prefix) return fail(kRcConvOverflow);

  // Unicode to target. Mixed EBCDIC targets emit their own shift-out and shift-in around
  // double-byte runs.
  char* data = base + prefix;
  char* t = data;
  if (direct) {
    if (static_cast<size_t>(limit - data) < directLen) return fail(kRcConvOverflow);
    std::memcpy(data, t_direct.data(), directLen);
    t = data + directLen;
  } else {
    const UChar* uCur = uStart;
    err = U_ZERO_ERROR;
    ucnv_fromUnicode(to, &t, limit, &uCur, uStart + uLen, nullptr, true, &err);
    if (U_FAILURE(err)) {
      UErrorCode e2 = U_ZERO_ERROR;
      traceIcuError(kFnLookupAddConv, "ucnv_fromUnicode", ucnv_getCCSID(to, &e2), err);
      return fail(icuFailure(err));
    }
  }
  size_t produced = static_cast<size_t>(t - data);
  if (ucnv_getType(to) == UCNV_EBCDIC_STATEFUL)
    traceHexText("SOSI: Data after adding SHIFT bytes", data, produced);

  // A pure double-byte target is blank-padded to three bytes for every two source bytes.
  if (produced < padTo) {
    if (static_cast<size_t>(limit - t) < padTo - produced) return fail(kRcConvOverflow);
    std::memset(t, 0x20, padTo - produced);
    t += padTo - produced;
    produced = padTo;
  }
  if (static_cast<size_t>(limit - t) >= zeroUnit) std::memset(t, 0, zeroUnit);

  if (lengthPrefixed) writeLength(base, prefix, produced);
  if (outLen != nullptr) *outLen = static_cast<int32_t>(produced);
  if (level & kTraceDumps) traceHex(kCompConv, kFnLookupAddConv, "cpcv hex output", data, produced);

  *src = start + srcLen;
  // A buffer allocated here is handed back from its start; a caller's buffer is advanced.
  *tgt = provided ? t : base;
  return 0;
}

int32_t ConvMgr::cpcvb(int32_t srcCcsid, int32_t tgtCcsid, const char* src, int32_t len,
                       ConvOutBuf& out, int32_t encoding) {
  RPL_TRACE(kCompConv, kFnCpcvb);
  if (len < 0) len = 0;
  if (out.free < static_cast<size_t>(len) + 2) return rplTrace_.ret(kRcOutputFull);
  char* at = out.start + out.used;
  if (ckcpcv(srcCcsid, tgtCcsid, encoding) != kRcConvNeeded) {
    std::memcpy(at, src, static_cast<size_t>(len));
    out.used += static_cast<size_t>(len);
    out.free -= static_cast<size_t>(len);
    return rplTrace_.ret(0);
  }
  const char* s = src;
  char* t = at;
  int32_t produced = 0;
  int32_t rc = lookupAddConv(srcCcsid, &s, src + len, tgtCcsid, &t, at + out.free, encoding,
                             false, false, &produced);
  if (rc == kRcConvOverflow) return rplTrace_.ret(kRcOutputFull);
  if (rc != 0) {
    reportFailure("ConvMgr::cpcvb", "ConvMgr::cpcv", rc, "do conversion");
    return rplTrace_.ret(rc);
  }
  out.used += static_cast<size_t>(produced);
  out.free -= static_cast<size_t>(produced);
  return rplTrace_.ret(0);
}
