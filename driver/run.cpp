// rplqmfmt: command line, start-up and run control.
#include "driver/run.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "driver/kxbind.h"
#include "driver/queue_loop.h"
#include "qmsg/compact.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"
#include "runtime/thread.h"
#include "runtime/trace.h"

namespace {

constexpr const char* kMain = "rplqmfmt:main";
constexpr int kFnMain = 11;
constexpr int kProgramId = 13;
// Output written in large blocks: a queue of many small messages prints quickly. The buffers
// are given to setvbuf: without one of its own the C library keeps the device's block size
// (4 KiB) whatever size is asked for.
constexpr size_t kOutputBufferSize = 1 << 20;
char g_stdoutBuffer[kOutputBufferSize];
char g_fileBuffer[kOutputBufferSize];

// Words that count as an option (an option's value may not be one of them).
constexpr const char* kOptionWords[] = {"-help", "-hex",    "-o",    "-l",     "-s",
                                        "-kxmd", "-delmsg", "-oenc", "-msghdr"};

bool isOptionWord(const char* w) {
  for (const char* o : kOptionWords)
    if (std::strcmp(w, o) == 0) return true;
  return false;
}

void copyCapped(char* to, size_t room, const char* from) {
  size_t n = std::strlen(from);
  if (n > room - 1) n = room - 1;
  std::memcpy(to, from, n);
  to[n] = '\0';
}

bool fail(RunOptions& o, const char* text) {
  reportFailure(kMain, kMain, -1, text);
  printUsage();
  o.exitCode = -1;
  return false;
}

// "-o" and "-oenc": the next word is the value.
bool takeName(RunOptions& o, const char* option, const char* value, char* to, size_t room,
              const char* missingFormat) {
  char text[1100];
  if (value == nullptr || value[0] == '\0' || isOptionWord(value)) {
    std::snprintf(text, sizeof text, missingFormat, option);
    return fail(o, text);
  }
  copyCapped(to, room, value);
  if (to[0] == '-') {
    // Names the option, not its value: a value that looks like an option is refused as such.
    std::snprintf(text, sizeof text, "Unknown option %s.", option);
    return fail(o, text);
  }
  return true;
}

// "-l" and "-s": a missing value gives `missing` and consumes nothing. Returns 0 when the
// value was not consumed, 1 when it was, -1 on error.
int takeNumber(RunOptions& o, const char* value, int32_t& to, int32_t missing, const char* badFormat) {
  if (value == nullptr || value[0] == '\0' || isOptionWord(value)) {
    to = missing;
    return 0;
  }
  char* end = nullptr;
  long v = std::strtol(value, &end, 10);
  if (*end != '\0') {
    char text[1055];
    std::snprintf(text, sizeof text, badFormat, value);
    fail(o, text);
    return -1;
  }
  to = static_cast<int32_t>(v);
  return 1;
}

// Process-wide run state, reachable from the recovery path.
rplThread* g_frame = nullptr;
FILE* g_out = nullptr;
KXHCONN g_hconn = 0;
KXLONG g_compCode = 0;
KXLONG g_reason = 0;

void finishCleanup() {
  releaseSchemaCache();
  xmlShutdown();
  ConvMgr::cleanup();
}

int runTool(int argc, char** argv) {
  RunOptions o;
  if (!parseCommandLine(argc, argv, o)) return o.exitCode;

  // Connect.
  KXCHAR qmgr[KX_Q_MGR_NAME_LENGTH];
  kxSetName(qmgr, sizeof qmgr, o.qmgrName);
  rplkx::KXCONN(qmgr, &g_hconn, &g_compCode, &g_reason);
  if (g_compCode != KXCC_OK) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "Connection to the queue manager %s failed, Velora KX cc=%d, rc=%d.", o.qmgrName,
                  g_compCode, g_reason);
    std::printf("%s\n", text);
    std::fflush(stdout);
    reportFailure(kMain, "KXCONN", -1, text);
    return -1;
  }

  // Output stream.
  FILE* out = nullptr;
  if (!o.outputNamed) {
    if (fcntl(STDOUT_FILENO, F_GETFL) == -1) {
      reportFailure(kMain, kMain, -1, "Cannot open a file descriptor to stdout.");
      o.exitCode = -1;
    } else {
      out = stdout;
    }
  } else {
    out = std::fopen(o.outputFile, "w");
    if (out == nullptr) {
      reportFailuref(kMain, kMain, -1, "Output file %s cannot be opened.", o.outputFile);
      o.exitCode = -1;
    } else {
      std::setvbuf(out, g_fileBuffer, _IOFBF, sizeof g_fileBuffer);
    }
  }

  if (out != nullptr) {
    g_out = out;
    QueueRun run;
    run.queueName = o.queueName;
    run.encodingName = o.encodingName;
    run.deleteMsgs = o.deleteMsgs;
    run.print = PrintOptions{o.hex, o.fullDescriptor, o.headerOnly};
    run.limit = o.limit;
    run.skip = o.skip;
    o.exitCode = processQueue(&g_hconn, run, out);
    // What is still buffered is written before the run is called a success.
    if (checkOutput(out, true, kMain) != 0 && o.exitCode == 0) o.exitCode = kRcOutputFailed;
  }

  // Disconnect.
  rplkx::KXDISC(&g_hconn, &g_compCode, &g_reason);
  if (g_compCode != KXCC_OK) {
    reportFailuref(kMain, "KXDISC", -1,
                   "Disconnect from queue manager %s failed, Velora KX cc=%d, rc=%d.", o.qmgrName,
                   g_compCode, g_reason);
    o.exitCode = -1;
  }

  if (out != nullptr && out != stdout) {
    g_out = nullptr;
    if (std::fclose(out) != 0 && o.exitCode == 0) {
      reportFailuref(kMain, kMain, -1, "Output file %s cannot be written.", o.outputFile);
      o.exitCode = kRcOutputFailed;
    }
  }
  return o.exitCode;
}

}  // namespace

void printUsage() {
  std::fputs(
      "Usage: rplqmfmt <qname> <qmgr name> [-o <output file name>|-oenc <output encoding name>|"
      "-l <number>|-help|-hex|-kxmd|-delmsg|-msghdr]\n"
      "-o  :    Redirect output to a file.\n"
      "-l  :    Limit output messages as specified.\n"
      "-hex:    See hex dump of the messages.\n"
      "-kxmd:   Display KX descriptor.\n"
      "-oenc:   Output encoding name.\n"
      "-delmsg: Delete messages after formatting.\n"
      "-msghdr: Display message header only.\n"
      "-help:   Display this help.\n",
      stdout);
}

bool parseCommandLine(int argc, char** argv, RunOptions& o) {
  if (argc < 2 || std::strcmp(argv[1], "-help") == 0) {
    printUsage();
    o.exitCode = 0;
    return false;
  }
  if (argc < 3)
    return fail(o, "One or all of these required parameters are missing: queue name and queue manager name.");
  copyCapped(o.queueName, sizeof o.queueName, argv[1]);
  copyCapped(o.qmgrName, sizeof o.qmgrName, argv[2]);

  for (int i = 3; i < argc; ++i) {
    const char* w = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
    if (std::strcmp(w, "-o") == 0) {
      if (!takeName(o, w, next, o.outputFile, sizeof o.outputFile,
                    "Option %s must be followed by a file name."))
        return false;
      o.outputNamed = true;
      ++i;
    } else if (std::strcmp(w, "-oenc") == 0) {
      if (!takeName(o, w, next, o.encodingName, sizeof o.encodingName,
                    "Option %s must be followed by an encoding name."))
        return false;
      ++i;
    } else if (std::strcmp(w, "-l") == 0) {
      int taken = takeNumber(o, next, o.limit, 1, "Limit %s specified is not valid.");
      if (taken < 0) return false;
      i += taken;
    } else if (std::strcmp(w, "-s") == 0) {
      int taken = takeNumber(o, next, o.skip, 0, "SkipNum %s specified is not valid.");
      if (taken < 0) return false;
      i += taken;
    } else if (std::strcmp(w, "-hex") == 0) {
      o.hex = true;
    } else if (std::strcmp(w, "-kxmd") == 0) {
      o.fullDescriptor = true;
    } else if (std::strcmp(w, "-msghdr") == 0) {
      o.headerOnly = true;
    } else if (std::strcmp(w, "-delmsg") == 0) {
      o.deleteMsgs = true;
    } else if (std::strcmp(w, "-help") == 0) {
      printUsage();
      o.exitCode = 0;
      return false;
    } else {
      char text[1100];
      std::snprintf(text, sizeof text, "Unknown option %s.", w);
      return fail(o, text);
    }
  }
  return true;
}

int rplqmfmtMain(int argc, char** argv) {
  // A closed pipe is an output error to report, not a reason to die silently.
  std::signal(SIGPIPE, SIG_IGN);
  if (!isatty(STDOUT_FILENO)) std::setvbuf(stdout, g_stdoutBuffer, _IOFBF, sizeof g_stdoutBuffer);

  msgLogger* logger = msgLogger::create(kProgramId, 0);
  if (logger == nullptr) {
    std::printf("Program cannot run");
    return -1;
  }
  logger->loadCatalog(kRplCatalog);
  setRplLogger(logger);
  traceInit();
  TraceScope trace(kCompDriver, kFnMain);

  static rplThread frame("main");
  g_frame = &frame;
  int32_t rc = frame.prologue();
  if (rc != 0) {
    reportFailure("threadPrologue", "rplThread::prologue", rc);
    return rc;
  }

  if (RPL_SET_RECOVERY_POINT() != 0) {
    // A fatal error in any callee comes back here: report it and end in order.
    int32_t code = recoverFromFault(*g_frame, rplkx::cleanup);
    if (g_out != nullptr) std::fflush(g_out);
    return code;
  }
  rplkx::init();
  ConvMgr::init();

  int code = runTool(argc, argv);
  finishCleanup();
  std::fflush(stdout);
  return code;
}
