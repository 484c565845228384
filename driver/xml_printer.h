// XML message output: a document body is parsed and written back pretty-printed in the output
// encoding. Parse and serializer errors go to standard error; none of them ends the run.
#pragma once

#include <cstdint>
#include <cstdio>

// Room of the output encoding name ("-oenc"), terminating zero included.
inline constexpr size_t kEncodingNameRoom = 101;

// Limits of a document's entity amplification (a refusal is a parse error): entities opened per
// document, and the text the document builds at most this many characters per byte of the
// document plus an allowance.
inline constexpr uint64_t kXmlMaxEntityExpansions = 256;
inline constexpr uint64_t kXmlTextPerDocumentByte = 10;
inline constexpr uint64_t kXmlTextAllowance = 64 * 1024;

// Parses `length` bytes (a zero byte follows them) and prints the banner, the size line
// (unless noSizeLine) and the document. An empty `encodingName` becomes "UTF-8" for the rest of
// the run. The counter advances only for a document that parsed.
void printXmlMsg(const char* doc, uint32_t length, const char* queueName, FILE* out,
                 char* encodingName, int32_t* msgCounter, int32_t noSizeLine);

// What the last document parsed opened and built: entities (general and parameter, external
// ones included) and text characters, counted up to the refusal when it was refused; and whether
// it was built as the library's tree (documents with a type declaration, for one) rather than
// written straight from the parse.
struct XmlDocumentCounts {
  uint64_t entities = 0;
  uint64_t text = 0;
  bool tree = false;
};
XmlDocumentCounts xmlLastDocumentCounts();

// With `on`, every document is built as the library's tree and written by its serializer, as the
// printer's own writer is meant to print them (tests compare the two).
void xmlWriteThroughLibrary(bool on);

// Releases the XML library at the end of the run.
void xmlShutdown();
