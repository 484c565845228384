// One message printed by its Format (see message_printer.h).
#include "driver/message_printer.h"

#include <unicode/ucnv.h>

#include <cinttypes>
#include <cstring>

#include "driver/printers.h"
#include "driver/xml_printer.h"
#include "qmsg/compact.h"
#include "qmsg/forms.h"
#include "runtime/catalog.h"

namespace {

constexpr const char* kStep = "rplqmfmt:processQueue";
constexpr int32_t kLoopComponent = 6;

// Result of the compact decoder when a transaction names a subscription with no schema.
constexpr int32_t kRcNoSchema = -200;

bool formatIs(const KXMD& md, const char* name) { return std::memcmp(md.Format, name, 8) == 0; }

// The output CCSID: the CCSID of the "-oenc" converter, or of the platform's default one.
int32_t outputCcsid(const char* encodingName, int32_t& ccsid) {
  const char* name = encodingName[0] != '\0' ? encodingName : ucnv_getDefaultName();
  UErrorCode status = U_ZERO_ERROR;
  UConverter* conv = ucnv_open(name, &status);
  if (status != U_ZERO_ERROR) {
    if (conv != nullptr) ucnv_close(conv);
    reportFailuref(kStep, "ucnv_open", -1, "Cannot open the converter %s, ICU rc=%d.", name,
                   static_cast<int>(status));
    return -1;
  }
  ccsid = ucnv_getCCSID(conv, &status);
  if (status != U_ZERO_ERROR) {
    ucnv_close(conv);
    reportFailuref(kStep, "ucnv_getCCSID", -1, "Cannot get the CCSID of the converter %s, ICU rc=%d.\n",
                   name, static_cast<int>(status));
    return -1;
  }
  ucnv_close(conv);
  return 0;
}

// The banner of a message that is not compact (the compact decoder writes its own): the
// number line alone, its size line follows in the message's own form.
void banner(FILE* out, int32_t& counter) {
  printBanner(out, ++counter, 0, false);
}

}  // namespace

MessagePrinter::MessagePrinter(const char* queueName, char* encodingName, PrintOptions options)
    : queueName_(queueName), encodingName_(encodingName), options_(options),
      cm_(kLoopComponent, kStep) {}

int32_t MessagePrinter::start() { return outputCcsid(encodingName_, outCcsid_); }

int32_t MessagePrinter::print(const KXMD& md, uint8_t* data, size_t length, int32_t& counter,
                              FILE* out, bool& stop) {
  stop = false;
  if (options_.fullDescriptor)
    printDescriptor(md, out, counter, false);
  else if (options_.headerOnly)
    printDescriptor(md, out, counter, true);

  if (length == 0) {
    banner(out, counter);
    std::fputs("**** Message size:   0\n\n", out);
    return 0;
  }
  if (options_.hex) {
    banner(out, counter);
    std::fputs("**** Message Descriptor: \n", out);
    dumpHex(sizeof md, reinterpret_cast<const uint8_t*>(&md), out, true);
    std::fputc('\n', out);
    std::fprintf(out, "**** Message Content: size:   %d\n", static_cast<int32_t>(length));
    std::fputc('\n', out);
    dumpHex(length, data, out, true);
    return 0;
  }

  enc_.setup(md.CodedCharSetId);
  enc_.outCcsid = outCcsid_;
  enc_.flags = littleEndianEncoding(md.Encoding) ? kEncMachineOrder : 0;

  if (formatIs(md, KXFMT_STRING) && data[0] != '<') {
    banner(out, counter);
    std::fprintf(out, "**** Message size:   %" PRIu64 "\n", static_cast<uint64_t>(length) + kDescriptorSize);
    std::fputc('\n', out);
    std::fprintf(out, "%.*s\n", static_cast<int>(length), reinterpret_cast<const char*>(data));
    return 0;
  }
  if (formatIs(md, KXFMT_STRING)) {
    data[length] = 0;
    printXmlMsg(reinterpret_cast<const char*>(data), static_cast<uint32_t>(length), queueName_, out,
                encodingName_, &counter, 0);
    return 0;
  }
  if (formatIs(md, KXFMT_RFH2)) {
    data[length] = 0;
    std::fputs("\nRFH2 Header\n", out);
    size_t body = 0;
    int32_t rc = processRFH2(data, length, enc_, cm_, out, &body);
    if (rc != 0) {
      reportFailure(kStep, "processRFH2", rc, "Cannot decode RFH2 header");
      stop = true;
      return rc;
    }
    printXmlMsg(reinterpret_cast<const char*>(data + body), static_cast<uint32_t>(length - body),
                queueName_, out, encodingName_, &counter, 0);
    return 0;
  }
  if (formatIs(md, KXFMT_COMPACT)) {
    int32_t rc = processCompactMsg(data, length, queueName_, out, &counter, &enc_, &cm_, false,
                                   false, options_.headerOnly);
    if (rc == kRcNoSchema)
      reportFailure(kStep, "processCompactMsg", kRcNoSchema,
                    "Cannot decode transaction message, no subscription schema message was in the queue.");
    if (rc != 0) stop = true;
    return rc;
  }
  // Not counted: such messages do not count toward the limit.
  reportFailure(kStep, "processQueue", 0, "Unknown message format. Message won't be displayed.");
  return 0;
}
