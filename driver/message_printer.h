// One message got from a queue, printed by its Format: the descriptor lines asked for, then the
// hex dump, or the text, the XML document, the KXHRF2 folders and their document, or the compact
// message field by field. The queue reading loop of rplqmfmt and rplq's text output share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "driver/kxbind.h"
#include "runtime/conv.h"

// What is printed of each message.
struct PrintOptions {
  bool hex = false;             // descriptor and content as hex rows, nothing decoded
  bool fullDescriptor = false;  // every descriptor field before the message
  bool headerOnly = false;      // MsgId and CorrelId before the message; compact headers only
};

class MessagePrinter {
 public:
  // `encodingName` is the output encoding's name (kEncodingNameRoom bytes; empty: the
  // platform's default converter, becoming "UTF-8" after the first XML document). Both
  // pointers must outlive the printer.
  MessagePrinter(const char* queueName, char* encodingName, PrintOptions options);
  MessagePrinter(const MessagePrinter&) = delete;
  MessagePrinter& operator=(const MessagePrinter&) = delete;

  // Opens the output encoding's converter to learn its CCSID. Returns 0, or -1 after reporting
  // a converter that cannot be opened.
  int32_t start();

  // Prints the message of `length` bytes at `data`, which has room for one byte more (a zero
  // is stored after XML documents). `counter` counts the messages printed so far and names the
  // next one in its banner. Returns 0 or the code of a message that cannot be printed, which
  // ends the run when `stop` comes back set.
  int32_t print(const KXMD& md, uint8_t* data, size_t length, int32_t& counter, FILE* out,
                bool& stop);

  // The conversion manager of the run (its converters are kept from message to message).
  ConvMgr& converters() { return cm_; }

 private:
  const char* queueName_;
  char* encodingName_;
  PrintOptions options_;
  int32_t outCcsid_ = 0;
  encodingInfo enc_;
  ConvMgr cm_;
};
