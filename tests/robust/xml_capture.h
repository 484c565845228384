// Runs the XML message printer on one document and keeps what it wrote to the output and to
// standard error (the parser's reports), the message counter and the document's counts.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/xml_printer.h"

namespace {

struct Printed {
  std::string out;
  std::string err;
  int32_t counter = 0;
  XmlDocumentCounts counts;
};

inline Printed printXml(const std::string& doc, const char* encodingName = "UTF-8") {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  // The parser's errors go to standard error: catch them in a file.
  std::fflush(stderr);
  const int savedErr = dup(2);
  FILE* errFile = std::tmpfile();
  dup2(fileno(errFile), 2);
  char encoding[kEncodingNameRoom];
  std::snprintf(encoding, sizeof encoding, "%s", encodingName);
  Printed p;
  printXmlMsg(doc.c_str(), static_cast<uint32_t>(doc.size()), "Q1", out, encoding, &p.counter, 1);
  p.counts = xmlLastDocumentCounts();
  std::fflush(stderr);
  dup2(savedErr, 2);
  close(savedErr);
  std::fclose(out);
  p.out.assign(buf, len);
  std::free(buf);
  std::rewind(errFile);
  for (int c; (c = std::fgetc(errFile)) != EOF;) p.err += static_cast<char>(c);
  std::fclose(errFile);
  return p;
}

}  // namespace
