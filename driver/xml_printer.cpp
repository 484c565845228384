// XML message output on the Xerces-C DOM parser and its LS serializer, both kept for the run.
#include "driver/xml_printer.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/framework/XMLFormatter.hpp>
#include <xercesc/internal/XMLReader.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/EntityResolver.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "driver/printers.h"
#include "runtime/trace.h"

using namespace xercesc;

namespace {

constexpr int kFnXml = 22;
constexpr const char* kSourceName = "KXCAPXMLFORMATTER";

// Transcoded 8-bit copy of a library string, released with the object.
class Narrow {
 public:
  explicit Narrow(const XMLCh* s) : p_(s != nullptr ? XMLString::transcode(s) : nullptr) {}
  ~Narrow() { XMLString::release(&p_); }
  Narrow(const Narrow&) = delete;
  Narrow& operator=(const Narrow&) = delete;
  const char* c_str() const { return p_ != nullptr ? p_ : ""; }

 private:
  char* p_;
};

// Parser errors: printed on standard error, and remembered so that the message is not printed.
class ParseErrors : public ErrorHandler {
 public:
  bool sawErrors() const { return seen_; }
  void warning(const SAXParseException&) override {}
  void error(const SAXParseException& e) override { report("Error", e); }
  void fatalError(const SAXParseException& e) override { report("Fatal Error", e); }
  void resetErrors() override { seen_ = false; }

 private:
  void report(const char* kind, const SAXParseException& e) {
    seen_ = true;
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "%s at line %llu, column %llu\n   Message: %s\n", kind,
                 static_cast<unsigned long long>(e.getLineNumber()),
                 static_cast<unsigned long long>(e.getColumnNumber()), msg.c_str());
  }
  bool seen_ = false;
};

// External entities (a DTD, an entity or a schema named by the document) are read as empty
// documents: a message on a queue never makes the tool read a file, a device or the network (a
// document naming /dev/stdin or a pipe would otherwise wait forever). A document that needs
// them is reported by the validation instead.
class NoExternalEntities : public EntityResolver {
 public:
  InputSource* resolveEntity(const XMLCh* const /*publicId*/, const XMLCh* const systemId) override {
    static const XMLByte kEmpty[] = {0};
    return new MemBufInputSource(kEmpty, 0, systemId != nullptr ? systemId : u"", false);
  }
};

// Serializer errors: printed on standard error; the serializer goes on where it can.
class WriteErrors : public DOMErrorHandler {
 public:
  bool handleError(const DOMError& e) override {
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "An error occurred while writing the XML document. Msg is:%s\n", msg.c_str());
    return e.getSeverity() != DOMError::DOM_SEVERITY_FATAL_ERROR;
  }
};

// The serializer's bytes go to the output stream unchanged. The serializer hands over a few
// bytes at a time: they are gathered here and written in blocks.
class StreamTarget : public XMLFormatTarget {
 public:
  explicit StreamTarget(FILE* out) : out_(out) {}
  ~StreamTarget() override { flush(); }
  void writeChars(const XMLByte* toWrite, XMLSize_t count, XMLFormatter*) override {
    if (count > sizeof buf_ - used_) {
      flush();
      if (count > sizeof buf_) {
        fwrite_unlocked(toWrite, 1, count, out_);
        return;
      }
    }
    std::memcpy(buf_ + used_, toWrite, count);
    used_ += count;
  }
  void flush() override {
    if (used_ > 0) fwrite_unlocked(buf_, 1, used_, out_);
    used_ = 0;
  }

 private:
  FILE* out_;
  size_t used_ = 0;
  char buf_[64 * 1024];
};

// Entity amplification: a few hundred bytes of entities that expand into one another would grow
// into gigabytes, and a queue of such messages would hold an operator's run for minutes. The
// parse is refused early, with a parse error like any other, on either of two limits:
//  - the entities opened for one document (general and parameter entities, in content, attribute
//    values, default attribute values and the DTD; each opening costs the parser a reader of 160
//    KiB). Real messages open a handful: the documents of the tests and of the seed corpus (the
//    nested-entity seed aside) open at most two, and the generated traffic carries no XML.
//  - the text the document builds (character data, whitespace, comments, processing
//    instructions and attribute values, defaults included) against the document's own size:
//    without entities or defaults it is never larger than the document (those documents build
//    0.3 characters per byte at most).
constexpr XMLSize_t kMaxEntityExpansions = kXmlMaxEntityExpansions;
constexpr XMLSize_t kTextPerDocumentByte = kXmlTextPerDocumentByte;
constexpr XMLSize_t kTextAllowance = kXmlTextAllowance;

// Size of a reader allocation: every entity the parser opens gets a reader of its own, allocated
// through the parser's memory manager (behind the library's object header).
const XMLSize_t kReaderBlock =
    sizeof(XMLReader) + XMLPlatformUtils::alignPointerForNewBlockAllocation(sizeof(MemoryManager*));

// The parser's memory: counts the readers it opens and refuses the one past the limit with the
// scanner's own error. A refusal raised here leaves a block or two of the library behind (the
// input stream made for the entity), so every block is linked, and the blocks still held when the
// parser is gone are released with the parse.
class ParseMemory : public MemoryManager {
 public:
  ParseMemory() { head_.prev = head_.next = &head_; }
  ~ParseMemory() override { releaseAll(); }
  ParseMemory(const ParseMemory&) = delete;
  ParseMemory& operator=(const ParseMemory&) = delete;

  // Starts a document: the scanner that reports the refusal, and the counts at zero.
  void beginDocument(XMLScanner* scanner) {
    scanner_ = scanner;
    readers_ = 0;
    refused_ = false;
  }
  // Whether this parse raised the refusal (the parser is then not used again).
  bool refused() const { return refused_; }
  void endDocument() { scanner_ = nullptr; }
  // Entities opened by the document so far (its own reader is not one).
  uint64_t entities() const { return readers_ > 0 ? readers_ - 1 : 0; }

  // Frees the blocks nobody released (after the parser and its document are gone).
  void releaseAll() {
    while (head_.next != &head_) {
      Link* b = head_.next;
      unlink(b);
      std::free(b);
    }
  }

  MemoryManager* getExceptionMemoryManager() override { return XMLPlatformUtils::fgMemoryManager; }

  void* allocate(XMLSize_t size) override {
    if (size == kReaderBlock && scanner_ != nullptr && ++readers_ > kMaxEntityExpansions + 1) {
      XMLCh limit[24];
      XMLString::sizeToText(kMaxEntityExpansions, limit, 23, 10);
      refused_ = true;
      scanner_->emitError(XMLErrs::EntityExpansionLimitExceeded, limit);  // throws
    }
    auto* b = static_cast<Link*>(std::malloc(sizeof(Link) + size));
    if (b == nullptr) throw std::bad_alloc();
    b->next = head_.next;
    b->prev = &head_;
    head_.next->prev = b;
    head_.next = b;
    return b + 1;
  }

  void deallocate(void* p) override {
    if (p == nullptr) return;
    Link* b = static_cast<Link*>(p) - 1;
    unlink(b);
    std::free(b);
  }

 private:
  struct alignas(16) Link {
    Link* prev;
    Link* next;
  };
  static void unlink(Link* b) {
    b->prev->next = b->next;
    b->next->prev = b->prev;
  }

  Link head_;
  XMLScanner* scanner_ = nullptr;
  uint64_t readers_ = 0;
  bool refused_ = false;
};

// The DOM parser with the text of the document counted as it is built; past the limit the scanner
// reports a fatal error, which ends the parse.
class GuardedParser : public XercesDOMParser {
 public:
  explicit GuardedParser(ParseMemory* memory) : XercesDOMParser(nullptr, memory) {}

  void beginDocument(uint32_t length) {
    refused_ = false;
    text_ = 0;
    textLimit_ = kTextPerDocumentByte * length + kTextAllowance;
  }
  uint64_t text() const { return text_; }
  bool refused() const { return refused_; }
  XMLScanner* scanner() const { return getScanner(); }

  void docCharacters(const XMLCh* const chars, const XMLSize_t length, const bool cdata) override {
    add(length);
    XercesDOMParser::docCharacters(chars, length, cdata);
  }
  void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length, const bool cdata) override {
    add(length);
    XercesDOMParser::ignorableWhitespace(chars, length, cdata);
  }
  void docComment(const XMLCh* const comment) override {
    add(XMLString::stringLen(comment));
    XercesDOMParser::docComment(comment);
  }
  void docPI(const XMLCh* const target, const XMLCh* const data) override {
    add(XMLString::stringLen(target) + XMLString::stringLen(data));
    XercesDOMParser::docPI(target, data);
  }
  void startElement(const XMLElementDecl& decl, const unsigned int uriId, const XMLCh* const prefix,
                    const RefVectorOf<XMLAttr>& attrs, const XMLSize_t attrCount, const bool isEmpty,
                    const bool isRoot) override {
    XMLSize_t length = 0;
    for (XMLSize_t i = 0; i < attrCount; ++i) length += XMLString::stringLen(attrs.elementAt(i)->getValue());
    add(length);
    XercesDOMParser::startElement(decl, uriId, prefix, attrs, attrCount, isEmpty, isRoot);
  }

 private:
  void add(XMLSize_t length) {
    text_ += length;
    if (text_ <= textLimit_) return;
    char text[160];
    std::snprintf(text, sizeof text,
                  "document text expands to more than '%llu' characters (%llu per byte of the document); "
                  "this is the limit imposed by the application",
                  static_cast<unsigned long long>(textLimit_), static_cast<unsigned long long>(kTextPerDocumentByte));
    refused_ = true;
    getScanner()->emitError(XMLErrs::XMLException_Fatal, text);  // throws
  }

  uint64_t text_ = 0;
  uint64_t textLimit_ = 0;
  bool refused_ = false;
};

// Counts of the last document parsed (tests read them).
XmlDocumentCounts g_lastCounts;

// The library stays initialised from the first message to the end of the run; each message
// adds and drops its own reference.
bool g_xmlBase = false;

// The parser and the serializer of the run, with their settings, made at the first message and
// kept for the next ones (a new document resets the parser; the serializer holds nothing of the
// document it wrote). A document with errors (among them the refusals of the amplification
// limits) or a library exception drops them: the next message starts from new ones, and the
// blocks the library left behind go with the parse memory.
class XmlSession {
 public:
  XmlSession() : parser(&memory) {
    limits.setEntityExpansionLimit(kMaxEntityExpansions);
    parser.setValidationScheme(XercesDOMParser::Val_Auto);
    parser.setDoNamespaces(true);
    parser.setDoSchema(true);
    parser.setValidationSchemaFullChecking(true);
    parser.setErrorHandler(&parseErrors);
    parser.setEntityResolver(&noExternal);
    parser.setSecurityManager(&limits);
  }
  ~XmlSession() {
    if (output != nullptr) output->release();
    if (serializer != nullptr) serializer->release();
  }
  XmlSession(const XmlSession&) = delete;
  XmlSession& operator=(const XmlSession&) = delete;

  // The serializer and its output, made once with the fixed features; throws the library's
  // exception when it cannot.
  void makeSerializer() {
    if (serializer != nullptr) return;
    static const XMLCh kLs[] = {chLatin_L, chLatin_S, chNull};
    auto* impl = static_cast<DOMImplementationLS*>(DOMImplementationRegistry::getDOMImplementation(kLs));
    serializer = impl->createLSSerializer();
    output = impl->createLSOutput();
    DOMConfiguration* config = serializer->getDomConfig();
    config->setParameter(XMLUni::fgDOMErrorHandler, &writeErrors);
    const XMLCh* features[] = {XMLUni::fgDOMWRTSplitCdataSections, XMLUni::fgDOMWRTDiscardDefaultContent,
                               XMLUni::fgDOMWRTFormatPrettyPrint};
    for (const XMLCh* f : features)
      if (config->canSetParameter(f, true)) config->setParameter(f, true);
    // The library's own pretty-print extension puts a blank line between elements; the
    // standard pretty print indents without it.
    if (config->canSetParameter(XMLUni::fgDOMWRTXercesPrettyPrint, false))
      config->setParameter(XMLUni::fgDOMWRTXercesPrettyPrint, false);
    if (config->canSetParameter(XMLUni::fgDOMWRTBOM, false)) config->setParameter(XMLUni::fgDOMWRTBOM, false);
  }

  ParseMemory memory;  // outlives the parser, whose blocks it holds
  NoExternalEntities noExternal;
  // The library's own count of general entities stops at the same limit (the parse memory
  // counts every kind).
  SecurityManager limits;
  ParseErrors parseErrors;
  GuardedParser parser;
  WriteErrors writeErrors;
  DOMLSSerializer* serializer = nullptr;
  DOMLSOutput* output = nullptr;
};

std::unique_ptr<XmlSession> g_session;

}  // namespace

void printXmlMsg(const char* doc, uint32_t length, const char* /*queueName*/, FILE* out,
                 char* encodingName, int32_t* msgCounter, int32_t noSizeLine) {
  RPL_TRACE(kCompDriver, kFnXml);
  try {
    XMLPlatformUtils::Initialize();
    if (!g_xmlBase) {
      XMLPlatformUtils::Initialize();
      g_xmlBase = true;
    }
  } catch (const XMLException& e) {
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "Error during Xerces-c Initialization.\n  Exception message:%s\n", msg.c_str());
    return;
  }

  if (encodingName[0] == '\0') std::snprintf(encodingName, kEncodingNameRoom, "%s", "UTF-8");
  XMLCh* encoding = XMLString::transcode(encodingName);

  if (!g_session) g_session = std::make_unique<XmlSession>();
  XmlSession& s = *g_session;
  bool drop = false;  // start the next message from a new parser and serializer

  bool failed = false;
  MemBufInputSource source(reinterpret_cast<const XMLByte*>(doc), length, kSourceName, false);
  s.parseErrors.resetErrors();
  s.memory.beginDocument(s.parser.scanner());
  s.parser.beginDocument(length);
  try {
    s.parser.parse(source);
  } catch (const XMLException& e) {
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "An error occurred during parsing\n   Message: %s\n", msg.c_str());
    failed = true;
  } catch (const DOMException& e) {
    // The source name is never set for in-memory documents: it prints empty.
    std::fprintf(stderr, "\nDOM Error during parsing: '%s'\nDOMException code is:  %d\n", "",
                 static_cast<int>(e.code));
    XMLCh text[2048];
    if (DOMImplementation::loadDOMExceptionMsg(e.code, text, 2047)) {
      Narrow msg(text);
      std::fprintf(stderr, "Message is: %s\n", msg.c_str());
    }
    failed = true;
  } catch (...) {
    std::fprintf(stderr, "An error occurred during parsing\n \n");
    failed = true;
  }
  s.memory.endDocument();
  g_lastCounts = XmlDocumentCounts{s.memory.entities(), s.parser.text()};
  drop = failed || s.parseErrors.sawErrors() || s.memory.refused() || s.parser.refused();

  DOMDocument* document = s.parser.getDocument();
  if (!failed && !s.parseErrors.sawErrors() && document != nullptr) {
    ++*msgCounter;
    std::fprintf(out, "\n\n**** Message number: %u\n", static_cast<unsigned>(*msgCounter));
    if (noSizeLine == 0)
      std::fprintf(out, "**** Message size:   %u\n", static_cast<unsigned>(length + kDescriptorSize));
    std::fputc('\n', out);

    StreamTarget target(out);
    try {
      s.makeSerializer();
      s.output->setEncoding(encoding);
      s.output->setByteStream(&target);
      s.serializer->write(document, s.output);
      target.flush();
    } catch (const XMLException& e) {
      Narrow msg(e.getMessage());
      std::fprintf(stderr, "An error occurred during creation of output transcoder. Msg is:%s\n",
                   msg.c_str());
      drop = true;
    }
    if (s.output != nullptr) s.output->setByteStream(nullptr);
  }
  s.parser.resetDocumentPool();  // the document goes here
  if (drop) g_session.reset();

  XMLString::release(&encoding);
  XMLPlatformUtils::Terminate();
}

XmlDocumentCounts xmlLastDocumentCounts() { return g_lastCounts; }

void xmlShutdown() {
  g_session.reset();
  if (g_xmlBase) {
    g_xmlBase = false;
    XMLPlatformUtils::Terminate();
  }
}
