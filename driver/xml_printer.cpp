// XML message output on the Xerces-C validating parser, kept for the run. The document is written
// straight from the parser's events by our own writer, which prints what the library's LS
// serializer prints for the document's tree; the few documents it does not cover are built as a
// tree and written by that serializer.
#include "driver/xml_printer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

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
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/TranscodingException.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "driver/printers.h"
#include "qmsg/compact.h"
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
// When a document is parsed a second time (for its tree), the errors the first parse printed are
// not printed again.
class ParseErrors : public ErrorHandler {
 public:
  bool sawErrors() const { return seen_; }
  void warning(const SAXParseException&) override {}
  void error(const SAXParseException& e) override { report("Error", e); }
  void fatalError(const SAXParseException& e) override { report("Fatal Error", e); }
  void resetErrors() override {
    seen_ = false;
    reported_ = 0;
  }
  // The next parse leaves out the first `n` reports (the parser resets the errors when it starts).
  void mute(int n) { mute_ = n; }
  int reported() const { return reported_; }

 private:
  void report(const char* kind, const SAXParseException& e) {
    seen_ = true;
    ++reported_;
    if (mute_ > 0) {
      --mute_;
      return;
    }
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "%s at line %llu, column %llu\n   Message: %s\n", kind,
                 static_cast<unsigned long long>(e.getLineNumber()),
                 static_cast<unsigned long long>(e.getColumnNumber()), msg.c_str());
  }
  bool seen_ = false;
  int reported_ = 0;
  int mute_ = 0;
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

// ---------------------------------------------------------------------------------------------
// The document writer: what the library's serializer prints for the tree the parser would build
// (pretty print, split CDATA sections, default content discarded, no byte-order mark), written
// straight from the parser's events into a memory buffer. The buffer reaches the output stream
// only when the whole document parsed without errors, as with the tree. A document the writer
// does not cover (a document type declaration, a version other than 1.0, markup the output
// encoding cannot represent) asks for the tree instead: the parse is stopped and done again with
// the tree and the library's serializer.

// Raised inside the parse when the document needs the tree; the scanner ends the parse on it
// like on a first fatal error, without a report.
constexpr XMLErrs::Codes kNeedTree = XMLErrs::NoError;

// Bytes of one document's output.
class ByteBuf {
 public:
  void clear() { used_ = 0; }
  size_t size() const { return used_; }
  const char* data() const { return buf_.get(); }
  char* room(size_t n) {
    if (cap_ - used_ < n) grow(n);
    return buf_.get() + used_;
  }
  void commit(size_t n) { used_ += n; }
  void append(const char* s, size_t n) {
    std::memcpy(room(n), s, n);
    used_ += n;
  }
  // Gives back the memory of an unusually big document.
  void trim() {
    if (cap_ > kKeep) {
      buf_.reset();
      cap_ = used_ = 0;
    }
  }

 private:
  static constexpr size_t kKeep = 1 << 20;
  void grow(size_t n) {
    size_t cap = cap_ == 0 ? 64 * 1024 : cap_;
    while (cap - used_ < n) cap *= 2;
    std::unique_ptr<char[]> b(new char[cap]);
    if (used_ > 0) std::memcpy(b.get(), buf_.get(), used_);
    buf_ = std::move(b);
    cap_ = cap;
  }
  std::unique_ptr<char[]> buf_;
  size_t cap_ = 0;
  size_t used_ = 0;
};

// The formatter's bytes into the document's buffer.
class BufTarget : public XMLFormatTarget {
 public:
  explicit BufTarget(ByteBuf* buf) : buf_(buf) {}
  void writeChars(const XMLByte* toWrite, XMLSize_t count, XMLFormatter*) override {
    buf_->append(reinterpret_cast<const char*>(toWrite), count);
  }

 private:
  ByteBuf* buf_;
};

using Text = std::u16string;

bool same(const XMLCh* a, const XMLCh* b) { return XMLString::equals(a, b); }

// XML white space: the text nodes made of it carry the document's own line breaks and indentation.
bool allSpaces(const Text& t) {
  for (XMLCh c : t)
    if (c != 0x20 && c != 0x09 && c != 0x0A && c != 0x0D) return false;
  return true;
}

class DocWriter {
 public:
  // How characters are escaped: none (markup), as character data (& < >) or as an attribute value
  // (& < " and the line breaks and tabs as character references).
  enum class Esc { None, Char, Attr };

  // Prepares the writer for an output encoding; false when the library has no transcoder for it
  // (the tree's serializer reports that).
  bool setEncoding(const char* name) {
    if (name_ == name && (utf8_ || formatter_)) return true;
    name_ = name;
    formatter_.reset();
    XMLCh* wide = XMLString::transcode(name);
    encoding_.assign(wide);
    XMLString::release(&wide);
    Text upper = encoding_;
    for (XMLCh& c : upper)
      if (c >= u'a' && c <= u'z') c = static_cast<XMLCh>(c - u'a' + u'A');
    utf8_ = upper == u"UTF-8" || upper == u"UTF8";
    if (utf8_) return true;
    try {
      formatter_ = std::make_unique<XMLFormatter>(encoding_.c_str(), XMLUni::fgVersion1_0, &target_,
                                                  XMLFormatter::NoEscapes, XMLFormatter::UnRep_CharRef);
    } catch (const XMLException&) {
      name_.clear();
      return false;
    }
    if (stateful()) {
      formatter_.reset();
      name_.clear();
      return false;
    }
    return true;
  }

  // Whether the encoding keeps a shift state between writes (ISO-2022 and the like): the library's
  // serializer writes piece by piece, and such an encoding marks the pieces' ends, so the tree's
  // serializer writes those documents.
  bool stateful() {
    XMLTranscoder* t = formatter_->getTranscoder();
    static const XMLCh kProbe[] = {0x00E9, 0x0416, 0x65E5, 0xAC00, 0x30A2, 0x20AC};
    for (XMLCh c : kProbe) {
      if (!t->canTranscodeTo(c)) continue;
      const XMLCh pair[] = {c, u'a'};
      XMLByte whole[64], piece[64];
      XMLSize_t eaten = 0;
      const XMLSize_t n = t->transcodeTo(pair, 2, whole, sizeof whole, eaten, XMLTranscoder::UnRep_RepChar);
      XMLSize_t m = t->transcodeTo(pair, 1, piece, sizeof piece, eaten, XMLTranscoder::UnRep_RepChar);
      m += t->transcodeTo(pair + 1, 1, piece + m, sizeof piece - m, eaten, XMLTranscoder::UnRep_RepChar);
      if (n != m || std::memcmp(whole, piece, n) != 0) return true;
    }
    return false;
  }

  // --- events of one document, in the parser's order -------------------------------------------
  // `length`: the document's size; the pretty-printed text is about a third larger.
  void startDocument(size_t length) {
    out_.clear();
    out_.room(length + length / 2 + 4096);
    depth_ = 0;
    spaces_.clear();
    text_.clear();
    inText_ = false;
    version_ = u"1.0";
    standalone_ = false;
    declWritten_ = false;
    line_ = 0;
    lineFeedInText_ = false;
    lastWhiteSpace_ = 0;
  }
  void xmlDecl(const XMLCh* version, const XMLCh* standalone) {
    if (!same(version, XMLUni::fgVersion1_0)) throw kNeedTree;
    version_ = version;
    standalone_ = same(standalone, XMLUni::fgYesString);
  }
  void characters(const XMLCh* chars, XMLSize_t length, bool cdata) {
    if (depth_ == 0) return;  // outside the root element
    if (cdata) {
      endText();
      child(Node{Kind::CData, Text(chars, length), Text()});
      return;
    }
    text_.append(chars, length);
    inText_ = true;
  }
  void comment(const XMLCh* value) {
    endText();
    if (depth_ == 0) {
      declaration();
      writeComment(value, 0, true);
      return;
    }
    Frame& f = frames_[depth_ - 1];
    if (f.deferring) {
      f.deferred.push_back(Node{Kind::Comment, value, Text()});
    } else if (f.seenElement) {
      writeComment(value, f.level + 1, true);
    } else {
      // Whether it stands on a line of its own depends on an element among its later siblings.
      f.deferring = true;
      f.deferred.push_back(Node{Kind::Comment, value, Text()});
    }
  }
  void pi(const XMLCh* target, const XMLCh* data) {
    endText();
    if (depth_ == 0) {
      declaration();
      writePi(target, data, 0);
      return;
    }
    child(Node{Kind::Pi, target, data != nullptr ? Text(data) : Text()});
  }

  void startElement(XMLScanner& scanner, const XMLElementDecl& decl, unsigned int uriId,
                    const XMLCh* elemPrefix, const RefVectorOf<XMLAttr>& attrs, XMLSize_t attrCount) {
    endText();
    int level = 0;
    if (depth_ == 0) {
      declaration();
    } else {
      Frame& parent = frames_[depth_ - 1];
      if (parent.deferring) replay(parent, true);
      parent.seenElement = true;
      open(parent);
      level = parent.level + 1;
    }

    // The element's name, prefix and namespace as the tree holds them.
    const unsigned int none = scanner.getEmptyNamespaceId();
    const bool prefixed = elemPrefix != nullptr && *elemPrefix != 0;
    if (prefixed && (same(elemPrefix, XMLUni::fgXMLNSString) || same(elemPrefix, XMLUni::fgXMLString)))
      throw kNeedTree;
    // Frames are kept from one document to the next, with the room of their names.
    if (depth_ == frames_.size()) frames_.emplace_back();
    Frame& f = frames_[depth_];
    f.level = level;
    f.open = false;
    f.seenElement = false;
    f.deferring = false;
    f.nsMark = spaces_.size();
    f.name.clear();
    const XMLCh* uri = nullptr;
    if (uriId != none) {
      uri = scanner.getURIText(uriId);
      if (prefixed) {
        f.name = elemPrefix;
        f.name += u':';
      }
    }
    f.name += decl.getBaseName();
    const XMLCh* const prefix = uri != nullptr && prefixed ? elemPrefix : u"";

    if (!lineFeedInText_)
      newLine();
    else
      lineFeedInText_ = false;
    indent(level);
    f.startLine = line_;
    ascii("<", 1);
    put(f.name, Esc::None, true);

    if ((uri != nullptr && *uri != 0) || (*prefix == 0 && defaultSpaceDeclared())) {
      if (!bindingActive(prefix, uri)) {
        bind(prefix, uri, f.nsMark);
        ascii(" xmlns", 6);
        if (*prefix != 0) {
          ascii(":", 1);
          putZ(prefix, Esc::None);
        }
        ascii("=\"", 2);
        putZ(uri, Esc::Attr);
        ascii("\"", 1);
      }
    }

    // Attributes in the order of the tree's attribute map (by qualified name); the ones the
    // grammar supplied are default content and left out.
    order_.clear();
    for (XMLSize_t i = 0; i < attrCount; ++i) {
      const XMLAttr* a = attrs.elementAt(i);
      if (a->getSpecified()) order_.push_back(a);
    }
    if (order_.size() > 1)
      std::sort(order_.begin(), order_.end(), [](const XMLAttr* x, const XMLAttr* y) {
        return XMLString::compareString(x->getQName(), y->getQName()) < 0;
      });
    for (const XMLAttr* a : order_) {
      const XMLCh* qname = a->getQName();
      const XMLCh* local = a->getName();
      unsigned int attrUri = a->getURIId();
      const bool xmlnsAlone = same(qname, XMLUni::fgXMLNSString);
      if (same(local, XMLUni::fgXMLNSString)) {
        if (!xmlnsAlone) throw kNeedTree;
        attrUri = scanner.getXMLNSNamespaceId();
      }
      if (attrUri != none) {
        const XMLCh* ns = scanner.getURIText(attrUri);
        if (same(ns, XMLUni::fgXMLNSURIName)) {
          const XMLCh* nsPrefix = xmlnsAlone ? u"" : local;
          if (declaredHere(nsPrefix, f.nsMark)) continue;
          bind(local, a->getValue(), f.nsMark);
        } else if (!same(ns, XMLUni::fgXMLURIName)) {
          const XMLCh* p = a->getPrefix();
          if (p != nullptr && *p != 0 && !bindingActive(p, ns)) {
            bind(p, ns, f.nsMark);
            ascii(" xmlns:", 7);
            putZ(p, Esc::None);
            ascii("=\"", 2);
            putZ(ns, Esc::Attr);
            ascii("\"", 1);
          }
        }
      }
      ascii(" ", 1);
      putZ(qname, Esc::None);
      ascii("=\"", 2);
      putZ(a->getValue(), Esc::Attr);
      ascii("\"", 1);
    }
    ++depth_;
  }

  void endElement() {
    endText();
    Frame& f = frames_[depth_ - 1];
    if (f.deferring) replay(f, false);
    if (f.open) {
      if (f.startLine != line_) {
        if (!lineFeedInText_)
          newLine();
        else
          lineFeedInText_ = false;
        indent(f.level);
      }
      ascii("</", 2);
      put(f.name, Esc::None, true);
      ascii(">", 1);
    } else {
      ascii("/>", 2);
    }
    spaces_.resize(f.nsMark);
    --depth_;
  }

  void endDocument() {
    declaration();
    newLine();
  }

  // The document's bytes, complete after endDocument().
  const ByteBuf& bytes() const { return out_; }
  void trim() { out_.trim(); }

 private:
  enum class Kind { Text, CData, Comment, Pi };
  struct Node {
    Kind kind;
    Text a;  // text, section, comment or target
    Text b;  // data of an instruction
  };
  struct Frame {
    Text name;
    int level = 0;
    int startLine = 0;
    bool open = false;         // ">" written: the element has children
    bool seenElement = false;  // an element child came already
    bool deferring = false;    // children held until the comments among them are placed
    std::vector<Node> deferred;
    size_t nsMark = 0;  // first binding made on this element
  };
  // A namespace binding made while writing (prefix to namespace; a binding without a namespace
  // hides none of the outer ones when looked up).
  struct Binding {
    Text prefix;
    Text uri;
    bool hasUri;
  };

  void declaration() {
    if (declWritten_) return;
    declWritten_ = true;
    ascii("<?xml version=\"", 15);
    put(version_, Esc::None, false);
    ascii("\" encoding=\"", 12);
    put(encoding_, Esc::None, false);
    ascii("\" standalone=\"", 14);
    if (standalone_)
      ascii("yes", 3);
    else
      ascii("no", 2);
    ascii("\" ?>", 4);
  }

  // Character data ends at the next event that is not character data.
  void endText() {
    if (!inText_) return;
    inText_ = false;
    Frame& f = frames_[depth_ - 1];
    if (f.deferring)
      f.deferred.push_back(Node{Kind::Text, text_, Text()});
    else
      writeText(f, text_);
    text_.clear();
  }

  void child(Node&& n) {
    Frame& f = frames_[depth_ - 1];
    if (f.deferring)
      f.deferred.push_back(std::move(n));
    else
      write(f, n, true);
  }

  void replay(Frame& f, bool pretty) {
    f.deferring = false;
    std::vector<Node> nodes = std::move(f.deferred);
    f.deferred.clear();
    for (const Node& n : nodes) write(f, n, pretty);
  }

  void write(Frame& f, const Node& n, bool pretty) {
    switch (n.kind) {
      case Kind::Text:
        writeText(f, n.a);
        break;
      case Kind::CData:
        open(f);
        // A parsed section never holds "]]>", so it stays one section.
        ascii("<![CDATA[", 9);
        put(n.a, Esc::None, true);
        ascii("]]>", 3);
        break;
      case Kind::Comment:
        open(f);
        writeComment(n.a.c_str(), f.level + 1, pretty);
        break;
      case Kind::Pi:
        open(f);
        writePi(n.a.c_str(), n.b.c_str(), f.level + 1);
        break;
    }
  }

  void writeText(Frame& f, const Text& t) {
    open(f);
    lineFeedInText_ = false;
    lastWhiteSpace_ = 0;
    if (allSpaces(t)) {
      size_t pos = t.rfind(u'\n');
      if (pos == Text::npos) pos = t.rfind(u'\r');
      if (pos != Text::npos) {
        lineFeedInText_ = true;
        lastWhiteSpace_ = static_cast<unsigned>(t.size() - pos);
      }
    }
    put(t, Esc::Char, false);
  }

  void open(Frame& f) {
    if (f.open) return;
    f.open = true;
    ascii(">", 1);
  }

  void writeComment(const XMLCh* value, int level, bool pretty) {
    if (pretty) {
      newLine();
      indent(level);
    }
    ascii("<!--", 4);
    putZ(value, Esc::None, true);
    ascii("-->", 3);
  }

  void writePi(const XMLCh* target, const XMLCh* data, int level) {
    newLine();
    indent(level);
    ascii("<?", 2);
    putZ(target, Esc::None, true);
    if (data != nullptr && *data != 0) {
      ascii(" ", 1);
      putZ(data, Esc::None, true);
    }
    ascii("?>", 2);
  }

  void newLine() {
    ++line_;
    ascii("\n", 1);
  }

  // Two spaces a level, less the indentation that the document's own white space wrote already.
  void indent(int level) {
    if (lastWhiteSpace_ != 0) {
      const int written = static_cast<int>(lastWhiteSpace_ / 2);
      lastWhiteSpace_ = 0;
      level = written < level ? level - written : 0;
    }
    static const char kSpaces[] = "                                                                ";
    size_t n = 2 * static_cast<size_t>(level);
    while (n > 0) {
      const size_t k = n < sizeof kSpaces - 1 ? n : sizeof kSpaces - 1;
      ascii(kSpaces, k);
      n -= k;
    }
  }

  // --- namespace bindings, looked up like the serializer's stack of per-element maps ----------
  bool declaredHere(const XMLCh* prefix, size_t mark) const {
    for (size_t i = mark; i < spaces_.size(); ++i)
      if (same(spaces_[i].prefix.c_str(), prefix)) return true;
    return false;
  }
  void bind(const XMLCh* prefix, const XMLCh* uri, size_t mark) {
    for (size_t i = mark; i < spaces_.size(); ++i)
      if (same(spaces_[i].prefix.c_str(), prefix)) {
        spaces_[i].uri = uri != nullptr ? uri : u"";
        spaces_[i].hasUri = uri != nullptr;
        return;
      }
    spaces_.push_back(Binding{prefix != nullptr ? Text(prefix) : Text(), uri != nullptr ? Text(uri) : Text(), uri != nullptr});
  }
  // Whether `prefix` is bound to `uri` by the innermost binding of it that has a namespace.
  bool bindingActive(const XMLCh* prefix, const XMLCh* uri) const {
    for (size_t i = spaces_.size(); i > 0; --i) {
      const Binding& b = spaces_[i - 1];
      if (b.hasUri && same(b.prefix.c_str(), prefix)) return same(b.uri.c_str(), uri);
    }
    return false;
  }
  bool defaultSpaceDeclared() const {
    for (const Binding& b : spaces_)
      if (b.hasUri && b.prefix.empty()) return true;
    return false;
  }

  // --- output -------------------------------------------------------------------------------------
  void ascii(const char* s, size_t n) {
    if (utf8_) {
      out_.append(s, n);
      return;
    }
    XMLCh wide[64];
    while (n > 0) {
      const size_t k = n < 64 ? n : 64;
      for (size_t i = 0; i < k; ++i) wide[i] = static_cast<XMLCh>(s[i]);
      format(wide, k, Esc::None, true);
      s += k;
      n -= k;
    }
  }
  void put(const Text& t, Esc esc, bool failUnrep) { put(t.data(), t.size(), esc, failUnrep); }
  void putZ(const XMLCh* s, Esc esc, bool failUnrep = false) {
    if (s != nullptr) put(s, XMLString::stringLen(s), esc, failUnrep);
  }
  // `failUnrep`: a character the output encoding cannot represent is an error of the
  // serializer here (markup), not a character reference.
  void put(const XMLCh* s, size_t n, Esc esc, bool failUnrep) {
    if (utf8_)
      utf8(s, n, esc);
    else
      format(s, n, esc, failUnrep);
  }

  void format(const XMLCh* s, size_t n, Esc esc, bool failUnrep) {
    if (n == 0) return;
    const XMLFormatter::EscapeFlags flags = esc == Esc::None   ? XMLFormatter::NoEscapes
                                            : esc == Esc::Char ? XMLFormatter::CharEscapes
                                                               : XMLFormatter::AttrEscapes;
    if (failUnrep) {
      // The serializer reports such markup and stops: the tree's serializer writes it.
      XMLTranscoder* t = formatter_->getTranscoder();
      for (size_t i = 0; i < n; ++i)
        if (!t->canTranscodeTo(s[i])) throw kNeedTree;
    }
    try {
      formatter_->formatBuf(s, n, flags, failUnrep ? XMLFormatter::UnRep_Fail : XMLFormatter::UnRep_CharRef);
    } catch (const TranscodingException&) {
      throw kNeedTree;
    }
  }

  void utf8(const XMLCh* s, size_t n, Esc esc) {
    // At most 6 bytes a character ("&quot;", "&#xA;"); 4 for a pair of surrogates.
    char* p = out_.room(6 * n);
    char* const start = p;
    for (size_t i = 0; i < n; ++i) {
      const XMLCh c = s[i];
      if (c < 0x80) {
        if (esc != Esc::None) {
          const char* ref = nullptr;
          switch (c) {
            case u'&': ref = "&amp;"; break;
            case u'<': ref = "&lt;"; break;
            case u'>': ref = esc == Esc::Char ? "&gt;" : nullptr; break;
            case u'"': ref = esc == Esc::Attr ? "&quot;" : nullptr; break;
            case u'\n': ref = esc == Esc::Attr ? "&#xA;" : nullptr; break;
            case u'\r': ref = "&#xD;"; break;
            case u'\t': ref = esc == Esc::Attr ? "&#x9;" : nullptr; break;
            default: break;
          }
          if (ref != nullptr) {
            const size_t k = std::strlen(ref);
            std::memcpy(p, ref, k);
            p += k;
            continue;
          }
        }
        *p++ = static_cast<char>(c);
      } else if (c < 0x800) {
        *p++ = static_cast<char>(0xC0 | (c >> 6));
        *p++ = static_cast<char>(0x80 | (c & 0x3F));
      } else if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
        const uint32_t u = 0x10000 + ((static_cast<uint32_t>(c) - 0xD800) << 10) + (s[i + 1] - 0xDC00);
        ++i;
        *p++ = static_cast<char>(0xF0 | (u >> 18));
        *p++ = static_cast<char>(0x80 | ((u >> 12) & 0x3F));
        *p++ = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (u & 0x3F));
      } else {
        *p++ = static_cast<char>(0xE0 | (c >> 12));
        *p++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *p++ = static_cast<char>(0x80 | (c & 0x3F));
      }
    }
    out_.commit(static_cast<size_t>(p - start));
  }

  std::string name_;  // the output encoding as given
  Text encoding_;
  bool utf8_ = false;
  ByteBuf out_;
  BufTarget target_{&out_};
  std::unique_ptr<XMLFormatter> formatter_;

  std::vector<Frame> frames_;  // the open elements: the first depth_
  size_t depth_ = 0;
  std::vector<Binding> spaces_;
  std::vector<const XMLAttr*> order_;
  Text text_;
  bool inText_ = false;
  Text version_;
  bool standalone_ = false;
  bool declWritten_ = false;

  // The serializer's pretty-print state: lines it started, whether the last text node ended in a
  // line break of the document's own, and the white space after that break.
  int line_ = 0;
  bool lineFeedInText_ = false;
  unsigned lastWhiteSpace_ = 0;
};

// The parser with the text of the document counted as it is built; past the limit the scanner
// reports a fatal error, which ends the parse. With a writer its events go to the writer and no
// tree is built; without one the library's tree is built.
class GuardedParser : public XercesDOMParser {
 public:
  explicit GuardedParser(ParseMemory* memory) : XercesDOMParser(nullptr, memory) {}

  void beginDocument(uint32_t length, DocWriter* writer) {
    refused_ = false;
    needTree_ = false;
    writer_ = writer;
    length_ = length;
    text_ = 0;
    textLimit_ = kTextPerDocumentByte * length + kTextAllowance;
  }
  uint64_t text() const { return text_; }
  bool refused() const { return refused_; }
  // Whether the writer stopped the parse for a document it does not cover.
  bool needTree() const { return needTree_; }
  XMLScanner* scanner() const { return getScanner(); }

  void resetDocument() override {
    if (writer_ == nullptr) XercesDOMParser::resetDocument();
  }
  void startDocument() override {
    if (writer_ == nullptr) return XercesDOMParser::startDocument();
    writer_->startDocument(length_);
  }
  void endDocument() override {
    if (writer_ == nullptr) return XercesDOMParser::endDocument();
    guard([&] { writer_->endDocument(); });
  }
  void XMLDecl(const XMLCh* const version, const XMLCh* const encoding, const XMLCh* const standalone,
               const XMLCh* const actualEncoding) override {
    if (writer_ == nullptr) return XercesDOMParser::XMLDecl(version, encoding, standalone, actualEncoding);
    guard([&] { writer_->xmlDecl(version, standalone); });
  }
  void docCharacters(const XMLCh* const chars, const XMLSize_t length, const bool cdata) override {
    add(length);
    if (writer_ == nullptr) return XercesDOMParser::docCharacters(chars, length, cdata);
    guard([&] { writer_->characters(chars, length, cdata); });
  }
  void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length, const bool cdata) override {
    add(length);
    if (writer_ == nullptr) return XercesDOMParser::ignorableWhitespace(chars, length, cdata);
    guard([&] { writer_->characters(chars, length, false); });
  }
  void docComment(const XMLCh* const comment) override {
    add(XMLString::stringLen(comment));
    if (writer_ == nullptr) return XercesDOMParser::docComment(comment);
    guard([&] { writer_->comment(comment); });
  }
  void docPI(const XMLCh* const target, const XMLCh* const data) override {
    add(XMLString::stringLen(target) + XMLString::stringLen(data));
    if (writer_ == nullptr) return XercesDOMParser::docPI(target, data);
    guard([&] { writer_->pi(target, data); });
  }
  void startElement(const XMLElementDecl& decl, const unsigned int uriId, const XMLCh* const prefix,
                    const RefVectorOf<XMLAttr>& attrs, const XMLSize_t attrCount, const bool isEmpty,
                    const bool isRoot) override {
    XMLSize_t length = 0;
    for (XMLSize_t i = 0; i < attrCount; ++i) length += XMLString::stringLen(attrs.elementAt(i)->getValue());
    add(length);
    if (writer_ == nullptr)
      return XercesDOMParser::startElement(decl, uriId, prefix, attrs, attrCount, isEmpty, isRoot);
    guard([&] {
      writer_->startElement(*getScanner(), decl, uriId, prefix, attrs, attrCount);
      if (isEmpty) writer_->endElement();
    });
  }
  void endElement(const XMLElementDecl& decl, const unsigned int uriId, const bool isRoot,
                  const XMLCh* const prefix) override {
    if (writer_ == nullptr) return XercesDOMParser::endElement(decl, uriId, isRoot, prefix);
    guard([&] { writer_->endElement(); });
  }
  // Entities and document types are kept in the tree (the serializer writes references and the
  // declaration from it).
  void startEntityReference(const XMLEntityDecl& decl) override {
    if (writer_ == nullptr) return XercesDOMParser::startEntityReference(decl);
    guard([] { throw kNeedTree; });
  }
  void doctypeDecl(const DTDElementDecl& decl, const XMLCh* const publicId, const XMLCh* const systemId,
                   const bool hasIntSubset, const bool hasExtSubset) override {
    if (writer_ == nullptr)
      return XercesDOMParser::doctypeDecl(decl, publicId, systemId, hasIntSubset, hasExtSubset);
    guard([] { throw kNeedTree; });
  }

 private:
  // Runs a writer step; a document the writer does not cover ends the parse quietly (the scanner
  // takes the code like a first fatal error) and is parsed again for its tree.
  template <class Step>
  void guard(Step step) {
    try {
      step();
    } catch (XMLErrs::Codes) {
      needTree_ = true;
      throw kNeedTree;
    }
  }

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

  DocWriter* writer_ = nullptr;
  uint32_t length_ = 0;
  uint64_t text_ = 0;
  uint64_t textLimit_ = 0;
  bool refused_ = false;
  bool needTree_ = false;
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
  DocWriter writer;
  DOMLSSerializer* serializer = nullptr;
  DOMLSOutput* output = nullptr;
};

std::unique_ptr<XmlSession> g_session;

// Every document through the tree and the library's serializer (the reference the writer is
// compared with).
bool g_libraryWriter = false;

// Parses the document once, with the writer or for the tree; false when the parse failed with
// an exception (printed here).
bool parseDocument(XmlSession& s, MemBufInputSource& source, uint32_t length, DocWriter* writer) {
  s.memory.beginDocument(s.parser.scanner());
  s.parser.beginDocument(length, writer);
  s.parseErrors.resetErrors();
  bool ok = true;
  try {
    s.parser.parse(source);
  } catch (const XMLException& e) {
    Narrow msg(e.getMessage());
    std::fprintf(stderr, "An error occurred during parsing\n   Message: %s\n", msg.c_str());
    ok = false;
  } catch (const DOMException& e) {
    // The source name is never set for in-memory documents: it prints empty.
    std::fprintf(stderr, "\nDOM Error during parsing: '%s'\nDOMException code is:  %d\n", "",
                 static_cast<int>(e.code));
    XMLCh text[2048];
    if (DOMImplementation::loadDOMExceptionMsg(e.code, text, 2047)) {
      Narrow msg(text);
      std::fprintf(stderr, "Message is: %s\n", msg.c_str());
    }
    ok = false;
  } catch (...) {
    std::fprintf(stderr, "An error occurred during parsing\n \n");
    ok = false;
  }
  s.memory.endDocument();
  return ok;
}

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

  MemBufInputSource source(reinterpret_cast<const XMLByte*>(doc), length, kSourceName, false);
  s.parseErrors.mute(0);
  DocWriter* writer = !g_libraryWriter && s.writer.setEncoding(encodingName) ? &s.writer : nullptr;
  bool failed = !parseDocument(s, source, length, writer);
  if (!failed && s.parser.needTree()) {
    // Parsed again for the tree; the errors printed so far come again in the same order.
    s.parseErrors.mute(s.parseErrors.reported());
    writer = nullptr;
    failed = !parseDocument(s, source, length, nullptr);
  }
  g_lastCounts = XmlDocumentCounts{s.memory.entities(), s.parser.text(), writer == nullptr};
  // Start the next message from a new parser and serializer.
  bool drop = failed || s.parseErrors.sawErrors() || s.memory.refused() || s.parser.refused();

  const bool clean = !failed && !s.parseErrors.sawErrors();
  DOMDocument* document = writer == nullptr ? s.parser.getDocument() : nullptr;
  if (clean && (writer != nullptr || document != nullptr)) {
    ++*msgCounter;
    printBanner(out, *msgCounter, length, noSizeLine == 0);
    std::fputc('\n', out);
  }
  if (clean && writer != nullptr) {
    const ByteBuf& bytes = writer->bytes();
    fwrite_unlocked(bytes.data(), 1, bytes.size(), out);
    writer->trim();
  } else if (clean && document != nullptr) {
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
    } catch (const DOMException&) {
      // The serializer stopped on a node it cannot write; its error handler reported it.
      target.flush();
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

void xmlWriteThroughLibrary(bool on) { g_libraryWriter = on; }

void xmlShutdown() {
  g_session.reset();
  if (g_xmlBase) {
    g_xmlBase = false;
    XMLPlatformUtils::Terminate();
  }
}
