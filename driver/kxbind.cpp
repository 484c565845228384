// The Velora KX binding: run-time loading of the middleware library and the operation wrappers.
#include "driver/kxbind.h"

#include <dlfcn.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "runtime/catalog.h"
#include "runtime/thread.h"
#include "runtime/trace.h"

namespace rplkx {
namespace {

// Entries in the order they are resolved.
enum Entry {
  kConn, kPut, kGet, kOpen, kClose, kDisc, kSet, kPut1, kBack, kCmit, kInq, kConnx, kBegin,
  kEntryCount
};

constexpr const char* kEntryNames[kEntryCount] = {
    "KXCONN", "KXPUT", "KXGET", "KXOPEN", "KXCLOSE", "KXDISC", "KXSET",
    "KXPUT1", "KXBACK", "KXCMIT", "KXINQ", "KXCONNX", "KXBEGIN"};

// Trace ids of the wrappers ("RPLKXLOD:<operation>"), one function id per entry.
constexpr int kTraceFirstWrapper = 60;

constexpr const char* kMissingText = "KX library/dll is not found (or) KX function address is NULL";

struct Binding {
  void* library = nullptr;
  void* entries[kEntryCount] = {};
  bool loaded = false;
  bool quiet = false;
  bool initialised = false;
  const char* serverName = kServerLibrary;
  const char* clientName = kClientLibrary;
  int retryDelayMs = kConnectRetryDelayMs;
};

Binding g_bind;
RplLatch* g_latch = nullptr;  // set up by init(); loading works without it in tests

void sleepMs(int ms) {
  timespec ts{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

// Loads the library and resolves the entries. True when every entry was resolved.
bool load() {
  const char* fn = "RPLKXLOD:KXCONN";
  // The variable is upper-cased in place, as later readers of the environment see it.
  char* choice = std::getenv(kClientVariable);
  bool client = false;
  if (choice != nullptr) {
    for (char* c = choice; *c != '\0'; ++c) *c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    client = std::strcmp(choice, "TRUE") == 0;
  }
  const char* name = client ? g_bind.clientName : g_bind.serverName;
  const char* choiceText = choice != nullptr ? choice : "";

  {
    errno = 0;
    void* lib = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
      int code = errno;
      const char* why = dlerror();
      if (!g_bind.quiet) {
        char codeText[16];
        std::snprintf(codeText, sizeof codeText, "0x%X", static_cast<unsigned>(code));
        logRplMsg(kRplMsgLoadFailed, fn, {name, codeText, why != nullptr ? why : "", choiceText});
      }
      return false;
    }
    // A second load of the same library only adds a reference: drop the earlier one.
    if (g_bind.library != nullptr) dlclose(g_bind.library);
    g_bind.library = lib;
    if (!g_bind.quiet) logRplMsg(kRplMsgLoaded, fn, {name, choiceText});
  }

  for (int i = 0; i < kEntryCount; ++i) {
    dlerror();
    errno = 0;
    void* p = dlsym(g_bind.library, kEntryNames[i]);
    if (p == nullptr) {
      int code = errno;
      const char* why = dlerror();
      if (!g_bind.quiet) {
        char codeText[16];
        std::snprintf(codeText, sizeof codeText, "0x%X", static_cast<unsigned>(code));
        logRplMsg(kRplMsgNoEntry, fn, {kEntryNames[i], codeText, why != nullptr ? why : ""});
      }
      // The entries found so far keep their pointers, unused while the loaded flag is clear;
      // the next call loads the library again from the start.
      return false;
    }
    g_bind.entries[i] = p;
  }
  return true;
}

// Loads when needed and returns the entry, or null after setting 2 / 2195 and reporting.
void* entry(Entry e, KXLONG* compCode, KXLONG* reason) {
  if (!g_bind.loaded) {
    if (g_latch != nullptr) g_latch->lock();
    if (!g_bind.loaded) g_bind.loaded = load();
    if (g_latch != nullptr) g_latch->unlock();
  }
  void* p = g_bind.loaded ? g_bind.entries[e] : nullptr;
  if (p == nullptr) {
    *compCode = KXCC_FAILED;
    *reason = KXRC_UNEXPECTED_ERROR;
    if (!g_bind.quiet) {
      char step[32];
      std::snprintf(step, sizeof step, "RPLKXLOD:%s", kEntryNames[e]);
      reportFailure(step, kEntryNames[e], KXRC_UNEXPECTED_ERROR, kMissingText);
    }
  }
  return p;
}

template <typename F>
F as(void* p) {
  return reinterpret_cast<F>(p);
}

// Connect rules: 2391 (already connected) is a success; 2059 (queue manager not available)
// is retried, ten calls in all, with the thread shown as waiting during each pause.
template <typename Call>
void connectWithRetry(Call call, KXLONG* compCode, KXLONG* reason) {
  bool announced = false;
  for (int attempt = 1;; ++attempt) {
    call();
    if (*reason == KXRC_CONN_ALREADY_EXISTS) {
      *compCode = KXCC_OK;
      return;
    }
    if (*reason != KXRC_Q_MGR_NOT_AVAILABLE || attempt >= kConnectAttempts) return;

    rplThread* self = rplThread::current();
    int32_t previous = self != nullptr ? self->state() : 0;
    if (self != nullptr && previous != kThreadStopping) self->setState(kThreadWaiting);
    sleepMs(g_bind.retryDelayMs);
    if (self != nullptr) self->setState(previous);
    if (!announced) {
      announced = true;
      if (!g_bind.quiet) logRplMsg(kRplMsgQmgrRetry, "RPLKXLOD:KXCONN", {});
    }
  }
}

}  // namespace

int32_t init() {
  if (!g_bind.initialised) {
    static RplLatch latch(4000);
    g_latch = &latch;
    g_bind.initialised = true;
  }
  return 0;
}

void setQuiet(bool q) { g_bind.quiet = q; }
bool quiet() { return g_bind.quiet; }
bool loaded() { return g_bind.loaded; }

void cleanup() {
  g_bind.loaded = false;
  for (void*& p : g_bind.entries) p = nullptr;
  if (g_bind.library != nullptr) {
    dlclose(g_bind.library);
    g_bind.library = nullptr;
  }
}

void setLibraryNames(const char* server, const char* client) {
  g_bind.serverName = server != nullptr ? server : kServerLibrary;
  g_bind.clientName = client != nullptr ? client : kClientLibrary;
}

void setRetryDelayMs(int ms) { g_bind.retryDelayMs = ms; }

void KXCONN(KXCHAR* qmgrName, KXHCONN* hconn, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kConn);
  void* p = entry(kConn, compCode, reason);
  if (p == nullptr) return;
  connectWithRetry([&] { as<PKXCONN>(p)(qmgrName, hconn, compCode, reason); }, compCode, reason);
}

void KXCONNX(KXCHAR* qmgrName, KXCNO* opts, KXHCONN* hconn, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kConnx);
  void* p = entry(kConnx, compCode, reason);
  if (p == nullptr) return;
  connectWithRetry([&] { as<PKXCONNX>(p)(qmgrName, opts, hconn, compCode, reason); }, compCode,
                   reason);
}

void KXDISC(KXHCONN* hconn, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kDisc);
  if (void* p = entry(kDisc, compCode, reason)) as<PKXDISC>(p)(hconn, compCode, reason);
}

void KXOPEN(KXHCONN hconn, KXOD* od, KXLONG options, KXHOBJ* hobj, KXLONG* compCode,
            KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kOpen);
  if (void* p = entry(kOpen, compCode, reason))
    as<PKXOPEN>(p)(hconn, od, options, hobj, compCode, reason);
}

void KXCLOSE(KXHCONN hconn, KXHOBJ* hobj, KXLONG options, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kClose);
  if (void* p = entry(kClose, compCode, reason))
    as<PKXCLOSE>(p)(hconn, hobj, options, compCode, reason);
}

void KXGET(KXHCONN hconn, KXHOBJ hobj, KXMD* md, KXGMO* gmo, KXLONG bufferLength, void* buffer,
           KXLONG* dataLength, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kGet);
  if (void* p = entry(kGet, compCode, reason))
    as<PKXGET>(p)(hconn, hobj, md, gmo, bufferLength, buffer, dataLength, compCode, reason);
}

void KXPUT(KXHCONN hconn, KXHOBJ hobj, KXMD* md, KXPMO* pmo, KXLONG bufferLength, void* buffer,
           KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kPut);
  if (void* p = entry(kPut, compCode, reason))
    as<PKXPUT>(p)(hconn, hobj, md, pmo, bufferLength, buffer, compCode, reason);
}

void KXPUT1(KXHCONN hconn, KXOD* od, KXMD* md, KXPMO* pmo, KXLONG bufferLength, void* buffer,
            KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kPut1);
  if (void* p = entry(kPut1, compCode, reason))
    as<PKXPUT1>(p)(hconn, od, md, pmo, bufferLength, buffer, compCode, reason);
}

void KXINQ(KXHCONN hconn, KXHOBJ hobj, KXLONG selectorCount, KXLONG* selectors,
           KXLONG intAttrCount, KXLONG* intAttrs, KXLONG charAttrLength, KXCHAR* charAttrs,
           KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kInq);
  if (void* p = entry(kInq, compCode, reason))
    as<PKXINQ>(p)(hconn, hobj, selectorCount, selectors, intAttrCount, intAttrs, charAttrLength,
                  charAttrs, compCode, reason);
}

void KXSET(KXHCONN hconn, KXHOBJ hobj, KXLONG selectorCount, KXLONG* selectors,
           KXLONG intAttrCount, KXLONG* intAttrs, KXLONG charAttrLength, KXCHAR* charAttrs,
           KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kSet);
  if (void* p = entry(kSet, compCode, reason))
    as<PKXSET>(p)(hconn, hobj, selectorCount, selectors, intAttrCount, intAttrs, charAttrLength,
                  charAttrs, compCode, reason);
}

void KXBEGIN(KXHCONN hconn, KXBO* opts, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kBegin);
  if (void* p = entry(kBegin, compCode, reason)) as<PKXBEGIN>(p)(hconn, opts, compCode, reason);
}

void KXCMIT(KXHCONN hconn, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kCmit);
  if (void* p = entry(kCmit, compCode, reason)) as<PKXCMIT>(p)(hconn, compCode, reason);
}

void KXBACK(KXHCONN hconn, KXLONG* compCode, KXLONG* reason) {
  RPL_TRACE(kCompDriver, kTraceFirstWrapper + kBack);
  if (void* p = entry(kBack, compCode, reason)) as<PKXBACK>(p)(hconn, compCode, reason);
}

}  // namespace rplkx
