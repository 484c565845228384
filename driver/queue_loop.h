// The queue reading loop: opens the queue, gets its messages one by one into a buffer that
// grows to fit, prints each one by its Format, and closes the queue.
#pragma once

#include <cstdint>
#include <cstdio>

#include "driver/kxbind.h"

// Result of a run stopped because the output could not be written.
inline constexpr int32_t kRcOutputFailed = -1;

// Checks the output stream after a message. With `flush` the buffered text is written out now
// (so that nothing is removed from the queue whose report is not yet written). On failure
// reports "Cannot write the output: <reason>." and returns kRcOutputFailed.
int32_t checkOutput(FILE* out, bool flush, const char* step);

// Returns 0 at the end of the queue or at the limit, 1 after a get or allocation failure, -1
// after a converter, open or close failure or an output that cannot be written, or the compact
// decoder's result. `encodingName` is the "-oenc" text (kEncodingNameRoom bytes, may be empty).
int32_t processQueue(KXHCONN* hconn, const char* queueName, FILE* out, char* encodingName,
                     bool deleteMsgs, bool hex, bool fullDescriptor, bool headerOnly,
                     int32_t limit, int32_t skip);
