// Thread frame, latches and the recovery point that fatal signals return to.
#pragma once

#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <sys/types.h>

// Result codes of a run ended through the recovery point.
inline constexpr int32_t kRcRecoveredFirst = 2009;
inline constexpr int32_t kRcRecoveredLater = 2010;

// Thread states.
inline constexpr int32_t kThreadReady = 1;
inline constexpr int32_t kThreadStarting = 3;
inline constexpr int32_t kThreadWaiting = 5;
inline constexpr int32_t kThreadStopping = 8;

// The lock of the runtime services. The spin count is kept for callers that set one; the
// mutex spins as the platform decides.
class RplLatch {
 public:
  explicit RplLatch(int spinCount = 4000) : spinCount_(spinCount) {}
  void lock() { m_.lock(); }
  void unlock() { m_.unlock(); }

 private:
  std::mutex m_;
  int spinCount_;
};

class rplThread {
 public:
  explicit rplThread(const char* name);
  ~rplThread();

  // Prepares the calling thread's frame: registers it in the thread list and installs the
  // fatal-signal handling that returns to the recovery point. 0 or a result code.
  int32_t prologue();
  // Starts a new thread running entry(arg) in this frame; 0 or the system error.
  int32_t start(void* (*entry)(void*), void* arg);
  // " Thread with name %s and state %d and RC %d and RESTART %s and handle %016llx" on stdout.
  void print() const;

  const char* name() const { return name_; }
  int32_t state() const { return state_; }
  void setState(int32_t s) { state_ = s; }
  int32_t rc() const { return rc_; }
  void setRc(int32_t rc) { rc_ = rc; }

  // The frame of the calling thread, or null when it has none.
  static rplThread* current();
  // Number of frames in the thread list.
  static int registeredCount();

  // Test hook: makes the next prologue fail with the given code.
  static void failNextPrologue(int32_t rc);

 private:
  char name_[64];
  int32_t state_ = 0;
  int32_t rc_ = 0;
  bool restart_ = false;
  uint64_t handle_ = 0;
  pid_t tid_ = 0;
  RplLatch latch_;
  int traceLevel_ = 0;
  bool registered_ = false;
};

// The process-wide recovery point. `main` arms it with RPL_SET_RECOVERY_POINT(); the
// handlers of SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT return to it with a non-zero value.
extern sigjmp_buf g_recoveryPoint;
extern volatile sig_atomic_t g_recoveryArmed;
extern volatile int32_t g_recoveryCount;

#define RPL_SET_RECOVERY_POINT() (g_recoveryArmed = 1, sigsetjmp(g_recoveryPoint, 1))

// Installs the fatal-signal handlers (done by prologue; callable on its own).
int32_t installRecoveryHandlers();

// Called after a return through the recovery point. Returns the code to end the run with:
// 2009 on the first return, 2010 later (reported with "threadPrologue" / "setRecoveryPoint"
// after `cleanup` ran), or 2010 without report once the re-entry counter is above 2.
int32_t recoverFromFault(rplThread& frame, void (*cleanup)());
