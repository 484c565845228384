// Printers of the queue reading loop: the message descriptor and the KXHRF2 header folders.
// (The hex dump is the shared one of qmsg/forms.h.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "driver/kxbind.h"
#include "runtime/conv.h"

// Size of the message descriptor, counted into every printed message size.
inline constexpr uint32_t kDescriptorSize = sizeof(KXMD);

// KXHRF2 header: StrucLength at offset 8 (the whole header with its folders); the folders
// begin at offset 36, each a 32-bit NameValueLength and that many bytes of NameValueData.
inline constexpr size_t kRfh2StrucLengthAt = 8;
inline constexpr size_t kRfh2FoldersAt = 36;

// "-kxmd" (full) and "-msghdr" (headerOnly: the MsgId and CorrelId lines) descriptor print.
// `counter` is the number of messages counted so far; the heading names the next one.
void printDescriptor(const KXMD& md, FILE* out, int32_t counter, bool headerOnly);

// True when the descriptor's Encoding says the integers are little-endian (546, or the
// integer part 2), which on this machine is the machine's order.
bool littleEndianEncoding(int32_t encoding);

// Walks the folders of a KXHRF2 header (after "\nRFH2 Header\n" was printed), converting each
// folder's text from the message's CCSID to the output CCSID. Every read stays inside `length`
// bytes; a StrucLength or folder that passes the end of the data is reported and ends the walk.
// On success *bodyOffset is where the body begins. Returns 0 or the failure's code.
int32_t processRFH2(const uint8_t* data, size_t length, const encodingInfo& enc, ConvMgr& cm,
                    FILE* out, size_t* bodyOffset);
