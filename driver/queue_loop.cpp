// The queue reading loop.
#include "driver/queue_loop.h"

#include <sys/mman.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "driver/message_printer.h"
#include "runtime/catalog.h"
#include "runtime/conv.h"
#include "runtime/trace.h"

namespace {

constexpr const char* kStep = "rplqmfmt:processQueue";
constexpr int kFnProcessQueue = 12;
constexpr size_t kFirstBufferSize = 4096;

// Open options: browse, or browse plus input-shared for "-delmsg".
constexpr KXLONG kOpenBrowse = KXOO_BROWSE;
constexpr KXLONG kOpenDelete = KXOO_BROWSE | KXOO_INPUT_SHARED;
// Get options: browse-next or a destructive get, never under syncpoint, failing if quiescing.
constexpr KXLONG kGetBrowse = KXGMO_BROWSE_NEXT | KXGMO_NO_SYNCPOINT | KXGMO_FAIL_IF_QUIESCING;
constexpr KXLONG kGetDelete = KXGMO_NO_SYNCPOINT | KXGMO_FAIL_IF_QUIESCING;

bool g_outputFailed = false;

// The receive buffer for a message of n bytes. A big one is aligned to huge pages and asks the
// kernel for them: a 64 MiB message then costs 32 page faults instead of 16,384, which were
// most of the time of taking it in. Freed with free() like any other.
void* allocReceive(size_t n) {
  constexpr size_t kHugePage = 2u << 20;
  if (n < 4 * kHugePage) return std::malloc(n);
  size_t rounded = (n + kHugePage - 1) / kHugePage * kHugePage;
  void* p = std::aligned_alloc(kHugePage, rounded);
  if (p != nullptr) madvise(p, rounded, MADV_HUGEPAGE);
  return p;
}

}  // namespace

int32_t checkOutput(FILE* out, bool flush, const char* step) {
  if (g_outputFailed) return kRcOutputFailed;
  int err = 0;
  if (std::ferror(out)) {
    err = errno != 0 ? errno : EIO;
    std::clearerr(out);
    if (std::fflush(out) != 0 && errno != 0) err = errno;
  } else if (flush && std::fflush(out) != 0) {
    err = errno != 0 ? errno : EIO;
  }
  if (err == 0) return 0;
  g_outputFailed = true;
  reportFailuref(step, "fwrite", kRcOutputFailed,
                 "The output cannot be written (%s); the run stops.", std::strerror(err));
  return kRcOutputFailed;
}

int32_t processQueue(KXHCONN* hconn, const QueueRun& run, FILE* out) {
  RPL_TRACE(kCompDriver, kFnProcessQueue);
  const char* queueName = run.queueName;
  const bool deleteMsgs = run.deleteMsgs;

  // The receive buffer: `bufLen` bytes are offered to a get; at least one more byte is
  // allocated once a message has filled it, for the zero stored after the data.
  size_t allocated = kFirstBufferSize;
  KXLONG bufLen = static_cast<KXLONG>(kFirstBufferSize);
  uint8_t* buf = static_cast<uint8_t*>(std::malloc(allocated));
  if (buf == nullptr) {
    reportFailuref(kStep, "malloc", 1,
                   "Memory allocation for KXGET on queue %s failed, tried to allocate %d bytes.",
                   queueName, bufLen);
    return rplTrace_.ret(1);
  }

  MessagePrinter printer(queueName, run.encodingName, run.print);
  if (printer.start() != 0) {
    std::free(buf);
    return rplTrace_.ret(-1);
  }

  KXOD od = KXOD_DEFAULT;
  kxSetName(od.ObjectName, sizeof od.ObjectName, queueName);
  KXHOBJ hobj = 0;
  KXLONG cc = 0;
  KXLONG reason = 0;
  rplkx::KXOPEN(*hconn, &od, deleteMsgs ? kOpenDelete : kOpenBrowse, &hobj, &cc, &reason);
  if (cc != KXCC_OK) {
    reportFailuref(kStep, "KXOPEN", -1, "Open queue %s failed, Velora cc=%d, rc=%d.", queueName, cc,
                   reason);
    std::free(buf);
    return rplTrace_.ret(-1);
  }

  KXMD md = KXMD_DEFAULT;
  KXGMO gmo = KXGMO_DEFAULT;
  gmo.Options = deleteMsgs ? kGetDelete : kGetBrowse;
  gmo.WaitInterval = 0;
  gmo.MatchOptions = KXMO_NONE;
  gmo.ReturnedLength = -1;

  int32_t counter = 0;
  int32_t skipped = 0;
  int32_t result = 0;
  // The run ends when the counter reaches limit + skip (32-bit arithmetic, so a negative
  // limit reads to the end of the queue).
  const int32_t target = static_cast<int32_t>(static_cast<uint32_t>(run.limit) + static_cast<uint32_t>(run.skip));

  while (counter != target) {
    KXLONG dataLen = 0;
    rplkx::KXGET(*hconn, hobj, &md, &gmo, bufLen, buf, &dataLen, &cc, &reason);
    if (cc != KXCC_OK) {
      if (reason == KXRC_NO_MSG_AVAILABLE) break;
      if (reason == KXRC_TRUNCATED_MSG_FAILED && dataLen >= 0) {
        // The message stays where it is: get it again into a buffer of its size.
        std::free(buf);
        allocated = static_cast<size_t>(dataLen) + 1;
        buf = static_cast<uint8_t*>(allocReceive(allocated));
        if (buf == nullptr) {
          reportFailuref(kStep, "malloc", 1,
                         "Memory allocation for KXGET on queue %s failed, tried to allocate %d bytes.",
                         queueName, dataLen);
          result = 1;
          break;
        }
        bufLen = dataLen;
        continue;
      }
      reportFailuref(kStep, "KXGET", 1, "KXGET on queue %s failed, Velora cc=%d, rc=%d.\n",
                     queueName, cc, reason);
      result = 1;
      break;
    }
    // A conforming library never returns more than it was offered; hold it to that.
    if (dataLen < 0)
      dataLen = 0;
    else if (dataLen > bufLen)
      dataLen = bufLen;

    // A message that filled the buffer: make room for the zero after the data.
    if (static_cast<size_t>(dataLen) + 1 > allocated) {
      uint8_t* bigger = static_cast<uint8_t*>(std::realloc(buf, static_cast<size_t>(dataLen) + 1));
      if (bigger == nullptr) {
        reportFailuref(kStep, "malloc", 1,
                       "Memory allocation for KXGET on queue %s failed, tried to allocate %d bytes.",
                       queueName, dataLen);
        result = 1;
        break;
      }
      buf = bigger;
      allocated = static_cast<size_t>(dataLen) + 1;
    }

    if (skipped < run.skip) {
      ++skipped;
      ++counter;
      continue;
    }

    bool stop = false;
    int32_t rc = printer.print(md, buf, static_cast<size_t>(dataLen), counter, out, stop);
    if (rc != 0) result = rc;

    // With "-delmsg" the message is already gone from the queue: its report is written out
    // before the next one is taken.
    if (checkOutput(out, deleteMsgs, kStep) != 0) {
      result = kRcOutputFailed;
      break;
    }
    if (stop) break;
  }

  rplkx::KXCLOSE(*hconn, &hobj, KXCO_NONE, &cc, &reason);
  std::free(buf);
  if (cc != KXCC_OK) {
    reportFailuref(kStep, "processQueue", -1, "KXCLOSE on queue %s failed, Velora KX cc=%d, rc=%d.",
                   queueName, cc, reason);
    return rplTrace_.ret(-1);
  }
  return rplTrace_.ret(result);
}
