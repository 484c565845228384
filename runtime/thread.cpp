// Thread frames, the process's thread list and the recovery point that fatal signals return to.
#include "runtime/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "runtime/catalog.h"
#include "runtime/trace.h"

sigjmp_buf g_recoveryPoint;
volatile sig_atomic_t g_recoveryArmed = 0;
volatile int32_t g_recoveryCount = 0;

namespace {

// Trace function ids of the thread frame (component 11) and of main (component 13).
constexpr int kFnPrologue = 30;
constexpr int kFnFrameSetup = 7;
constexpr int kFnStart = 31;
constexpr int kFnMain = 11;

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// The process list of thread frames ("RplThreadIDList").
RplLatch g_listLatch;
std::vector<rplThread*>* g_threadList = nullptr;

std::atomic<int32_t> g_failNextPrologue{0};
thread_local rplThread* t_current = nullptr;
thread_local bool t_altStack = false;

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Returns to the recovery point when `main` armed it; otherwise the signal takes its default
// action, as it would have without the handler.
void fatalSignal(int sig, siginfo_t*, void*) {
  if (g_recoveryArmed) siglongjmp(g_recoveryPoint, sig);
  struct sigaction dfl;
  std::memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(sig, &dfl, nullptr);
  raise(sig);
}

// A stack of its own for the handler, so that a stack overflow can still return.
int32_t installAltStack() {
  if (t_altStack) return 0;
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
    t_altStack = true;  // the thread already has one (a sanitizer's, for instance)
    return 0;
  }
  size_t size = 64 * 1024;
  void* mem = std::malloc(size);
  if (mem == nullptr) return ENOMEM;
  stack_t ss;
  std::memset(&ss, 0, sizeof ss);
  ss.ss_sp = mem;
  ss.ss_size = size;
  if (sigaltstack(&ss, nullptr) != 0) {
    int e = errno;
    std::free(mem);
    return e;
  }
  t_altStack = true;  // the stack stays with the thread for its whole life
  return 0;
}

struct StartArgs {
  rplThread* frame;
  void* (*entry)(void*);
  void* arg;
};

void* startTrampoline(void* p) {
  StartArgs a = *static_cast<StartArgs*>(p);
  delete static_cast<StartArgs*>(p);
  t_current = a.frame;
  return a.entry(a.arg);
}

}  // namespace

int32_t installRecoveryHandlers() {
  int32_t rc = installAltStack();
  if (rc != 0) return rc;
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = fatalSignal;
  sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  sigemptyset(&sa.sa_mask);
  for (int sig : kFatalSignals)
    if (sigaction(sig, &sa, nullptr) != 0) return errno;
  return 0;
}

int32_t recoverFromFault(rplThread& frame, void (*cleanup)()) {
  if (g_recoveryCount > 2) return kRcRecoveredLater;
  g_recoveryCount = g_recoveryCount + 1;
  int32_t code = g_recoveryCount == 1 ? kRcRecoveredFirst : kRcRecoveredLater;
  frame.setRc(code);
  if (cleanup != nullptr) cleanup();
  traceExit(kCompDriver, kFnMain, kTraceU32, static_cast<uint32_t>(code));
  reportFailure("threadPrologue", "setRecoveryPoint", code);
  return code;
}

rplThread::rplThread(const char* name) {
  std::snprintf(name_, sizeof name_, "%s", name != nullptr ? name : "");
}

rplThread::~rplThread() {
  if (registered_) {
    std::lock_guard<RplLatch> hold(g_listLatch);
    if (g_threadList != nullptr) {
      for (auto it = g_threadList->begin(); it != g_threadList->end(); ++it) {
        if (*it == this) {
          g_threadList->erase(it);
          break;
        }
      }
    }
  }
  if (t_current == this) t_current = nullptr;
}

int32_t rplThread::prologue() {
  RPL_TRACE(kCompThread, kFnPrologue);
  state_ = kThreadStarting;
  traceLevel_ = rplTrace_.level();
  if (traceLevel_ & kTraceValues) {
    TraceItem item{kTraceText, 15, "Init thread    "};
    traceData(kCompThread, kFnFrameSetup, "Init thread", kTraceValues, &item, 1);
  }

  int32_t injected = g_failNextPrologue.exchange(0);
  if (injected != 0) return rplTrace_.ret(injected);

  tid_ = currentTid();
  handle_ = static_cast<uint64_t>(pthread_self());
  if (!registered_) {
    std::lock_guard<RplLatch> hold(g_listLatch);
    if (g_threadList == nullptr) g_threadList = new (std::nothrow) std::vector<rplThread*>();
    if (g_threadList == nullptr) return rplTrace_.ret(ENOMEM);
    g_threadList->push_back(this);
    registered_ = true;
  }
  t_current = this;

  int32_t rc = installRecoveryHandlers();
  if (rc != 0) return rplTrace_.ret(rc);

  state_ = kThreadReady;
  return rplTrace_.ret(0);
}

int32_t rplThread::start(void* (*entry)(void*), void* arg) {
  RPL_TRACE(kCompThread, kFnStart);
  RPL_TRACE_TEXT(kCompThread, kFnStart, "Start thread", kTraceValues, "%s", name_);
  StartArgs* a = new (std::nothrow) StartArgs{this, entry, arg};
  if (a == nullptr) return rplTrace_.ret(ENOMEM);
  pthread_t t;
  int rc = pthread_create(&t, nullptr, startTrampoline, a);
  if (rc != 0) {
    delete a;
    errno = rc;
    std::perror("rplThread::start");
    return rplTrace_.ret(rc);
  }
  handle_ = static_cast<uint64_t>(t);
  pthread_detach(t);
  RPL_TRACE_TEXT(kCompThread, kFnStart, "Thread started", kTraceValues, "%s", name_);
  return rplTrace_.ret(0);
}

void rplThread::print() const {
  static const char kPrefix[] = "rplThread::print ";
  std::printf("%s Thread with name %s", kPrefix, name_);
  std::printf("%s and state %d", kPrefix, static_cast<int>(state_));
  std::printf("%s and RC %d", kPrefix, static_cast<int>(rc_));
  std::printf("%s and RESTART %s", kPrefix, restart_ ? "TRUE" : "FALSE");
  std::printf("%s and handle %016llx\n", kPrefix, static_cast<unsigned long long>(handle_));
  std::fflush(stdout);
}

rplThread* rplThread::current() { return t_current; }

int rplThread::registeredCount() {
  std::lock_guard<RplLatch> hold(g_listLatch);
  return g_threadList != nullptr ? static_cast<int>(g_threadList->size()) : 0;
}

void rplThread::failNextPrologue(int32_t rc) { g_failNextPrologue.store(rc); }
