// The queue reading loop: opens the queue, gets its messages one by one into a buffer that
// grows to fit, prints each one by its Format, and closes the queue.
#pragma once

#include <cstdint>
#include <cstdio>

#include "driver/kxbind.h"
#include "driver/message_printer.h"

// Result of a run stopped because the output could not be written.
inline constexpr int32_t kRcOutputFailed = -1;

// Checks the output stream after a message. With `flush` the buffered text is written out now
// (so that nothing is removed from the queue whose report is not yet written). On failure
// reports "Cannot write the output: <reason>." and returns kRcOutputFailed.
int32_t checkOutput(FILE* out, bool flush, const char* step);

// One run of the loop over a queue.
struct QueueRun {
  const char* queueName = "";
  char* encodingName = nullptr;  // "-oenc" text (kEncodingNameRoom bytes, may be empty)
  bool deleteMsgs = false;       // "-delmsg": destructive gets instead of browsing
  PrintOptions print;            // "-hex", "-kxmd", "-msghdr"
  int32_t limit = -1;            // "-l"; -1: to the end of the queue
  int32_t skip = 0;              // "-s": messages read and not printed first
};

// Returns 0 at the end of the queue or at the limit, 1 after a get or allocation failure, -1
// after a converter, open or close failure or an output that cannot be written, or the compact
// decoder's result.
int32_t processQueue(KXHCONN* hconn, const QueueRun& run, FILE* out);
