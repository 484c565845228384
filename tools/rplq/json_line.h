// One message as one JSON line: its descriptor under "kxmd", then the message itself: the
// members of the compact JSON rendering, or for other formats "text", "xml", "folders" (the
// header folders as strings, then the document as "xml") or "hex".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kx/kxc.h"
#include "qmsg/json.h"
#include "runtime/conv.h"

namespace rplq {

// Writes the line (ending in a newline) into `line`, which is cleared first; keep `line` from
// message to message, so that its buffer keeps its room. Returns 0, or the decoder's result
// code for a compact message that could not be read to its end (the object then holds its
// "error"). The buffer is read-write: a compact message's integers are swapped in place.
int32_t messageJson(const KXMD& md, uint8_t* data, size_t length, int64_t position, ConvMgr& cm,
                    JsonOut& line);

// `length` bytes of text in code page `ccsid` (0: the queue manager's, UTF-8) as UTF-8; bytes
// that cannot be converted become U+FFFD.
std::string textToUtf8(const uint8_t* data, size_t length, int32_t ccsid);

}  // namespace rplq
