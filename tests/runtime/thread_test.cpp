// Thread frame, thread list and the recovery point: each fatal case runs in a child process
// that starts up the way the tool's main does.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "runtime/catalog.h"
#include "runtime/thread.h"
#include "runtime/trace.h"

namespace {

struct ChildResult {
  int status;
  std::string out;
  std::string err;
};

std::string drain(int fd) {
  std::string s;
  char buf[512];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
  close(fd);
  return s;
}

// Runs body() in a child; its standard output and error are collected.
template <typename F>
ChildResult inChild(F body) {
  int out[2], err[2];
  EXPECT_EQ(pipe(out), 0);
  EXPECT_EQ(pipe(err), 0);
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    close(out[0]);
    close(err[0]);
    body();
    fflush(stdout);
    fflush(stderr);
    _exit(0);
  }
  close(out[1]);
  close(err[1]);
  ChildResult r;
  r.err = drain(err[0]);
  r.out = drain(out[0]);
  waitpid(pid, &r.status, 0);
  return r;
}

int count(const std::string& s, const std::string& what) {
  int n = 0;
  for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
  return n;
}

int g_cleanupCalls = 0;
bool g_faultInCleanup = false;

void cleanupAfterFault() {
  ++g_cleanupCalls;
  if (g_faultInCleanup) {
    g_faultInCleanup = false;
    raise(SIGSEGV);
  }
}

// The start-up order of the tool's main: logger and catalog, trace anchor, thread prologue,
// recovery point, then the work. Prints the code the run ends with.
void miniMain(void (*work)()) {
  msgLogger* logger = msgLogger::create(13, 0);
  logger->loadCatalog(kRplCatalog);
  setRplLogger(logger);
  traceInit();
  static rplThread frame("main");
  int32_t rc = frame.prologue();
  if (rc != 0) {
    reportFailure("threadPrologue", "rplThread::prologue", rc);
    printf("ended %d\n", static_cast<int>(rc));
    return;
  }
  if (RPL_SET_RECOVERY_POINT() != 0) {
    rc = recoverFromFault(frame, cleanupAfterFault);
    printf("ended %d after %d clean-ups, frame rc %d\n", static_cast<int>(rc), g_cleanupCalls,
           static_cast<int>(frame.rc()));
    return;
  }
  work();
  printf("ended 0\n");
}

void nullWrite() {
  // A store to the unmapped first page (not null itself, so that no sanitizer stops it first).
  static volatile uintptr_t badAddress = 8;  // read at run time so the compiler cannot see it
  volatile int* p = reinterpret_cast<volatile int*>(badAddress);
  *p = 1;
}
void divideByZero() { raise(SIGFPE); }
void callAbort() { abort(); }
int deepen(int n) {
  if (n > 10000000) return 0;  // far beyond any stack
  volatile char pad[4096];
  pad[0] = static_cast<char>(n);
  return deepen(n + 1) + pad[0];
}
void overflowStack() { printf("%d\n", deepen(0)); }

TEST(Recovery, FatalSignalInCalleeEndsWith2009AndOneReport) {
  for (void (*work)() : {nullWrite, divideByZero, callAbort, overflowStack}) {
    ChildResult r = inChild([work] { miniMain(work); });
    ASSERT_TRUE(WIFEXITED(r.status)) << r.status;
    EXPECT_EQ(r.out, "ended 2009 after 1 clean-ups, frame rc 2009\n");
    EXPECT_EQ(count(r.err, "\n"), 1) << r.err;
    EXPECT_NE(r.err.find("rplqmfmt RPL0589E \"threadPrologue\" : \"setRecoveryPoint\" : The step "
                         "failed with return code \"2009\"."),
              std::string::npos)
        << r.err;
  }
}

TEST(Recovery, FaultDuringCleanupEndsWith2010) {
  ChildResult r = inChild([] {
    g_faultInCleanup = true;
    miniMain(nullWrite);
  });
  ASSERT_TRUE(WIFEXITED(r.status));
  EXPECT_EQ(r.out, "ended 2010 after 2 clean-ups, frame rc 2010\n");
  EXPECT_EQ(count(r.err, "RPL0589E"), 1) << r.err;
  EXPECT_NE(r.err.find("\"setRecoveryPoint\" : The step failed with return code \"2010\"."),
            std::string::npos) << r.err;
}

TEST(Recovery, BeyondThreeReturnsEndsWithoutReport) {
  ChildResult r = inChild([] {
    g_recoveryCount = 3;
    miniMain(nullWrite);
  });
  ASSERT_TRUE(WIFEXITED(r.status));
  EXPECT_EQ(r.out, "ended 2010 after 0 clean-ups, frame rc 0\n");
  EXPECT_EQ(r.err, "");
}

TEST(Recovery, UnarmedFaultKeepsItsDefaultAction) {
  ChildResult r = inChild([] {
    installRecoveryHandlers();
    g_recoveryArmed = 0;
    nullWrite();
  });
  ASSERT_TRUE(WIFSIGNALED(r.status));
  EXPECT_EQ(WTERMSIG(r.status), SIGSEGV);
}

TEST(Recovery, FailingPrologueIsReportedBeforeAnyWork) {
  ChildResult r = inChild([] {
    rplThread::failNextPrologue(77);
    miniMain([] { printf("work ran\n"); });
  });
  ASSERT_TRUE(WIFEXITED(r.status));
  EXPECT_EQ(r.out, "ended 77\n");
  EXPECT_EQ(count(r.err, "\n"), 1) << r.err;
  EXPECT_NE(r.err.find("RPL0589E \"threadPrologue\" : \"rplThread::prologue\" : The step failed "
                       "with return code \"77\"."),
            std::string::npos)
      << r.err;
}

TEST(ThreadFrame, PrologueRegistersAndPrints) {
  ChildResult r = inChild([] {
    int before = rplThread::registeredCount();
    {
      rplThread frame("worker");
      if (frame.prologue() != 0 || frame.state() != kThreadReady) printf("bad prologue\n");
      if (rplThread::current() != &frame) printf("bad current\n");
      if (rplThread::registeredCount() != before + 1) printf("bad count\n");
      frame.prologue();  // a second prologue does not register twice
      if (rplThread::registeredCount() != before + 1) printf("registered twice\n");
      frame.setRc(-4);
      frame.print();
    }
    if (rplThread::registeredCount() != before) printf("not unregistered\n");
    if (rplThread::current() != nullptr) printf("current not cleared\n");
  });
  ASSERT_TRUE(WIFEXITED(r.status));
  const std::string prefix = "rplThread::print  Thread with name workerrplThread::print  and "
                             "state 1rplThread::print  and RC -4rplThread::print  and RESTART "
                             "FALSErplThread::print  and handle ";
  ASSERT_EQ(r.out.rfind(prefix, 0), 0u) << r.out;
  std::string handle = r.out.substr(prefix.size());
  EXPECT_EQ(handle.size(), 17u) << handle;  // 16 hex digits and the line end
  EXPECT_EQ(handle.back(), '\n');
}

TEST(ThreadFrame, StartRunsTheEntryInTheFrame) {
  static rplThread frame("second");
  static rplThread* seen = nullptr;
  static int32_t prologueRc = -1;
  static std::atomic<bool> done{false};
  ASSERT_EQ(frame.start(
                [](void*) -> void* {
                  seen = rplThread::current();
                  prologueRc = seen->prologue();
                  done = true;
                  return nullptr;
                },
                nullptr),
            0);
  for (int i = 0; i < 5000 && !done; ++i) usleep(1000);
  ASSERT_TRUE(done);
  EXPECT_EQ(seen, &frame);
  EXPECT_EQ(prologueRc, 0);
  EXPECT_EQ(frame.state(), kThreadReady);
}

}  // namespace
