// XML bodies that try to make the printer read elsewhere or expand without end: a DTD or an
// entity naming a file, a device or standard input is read as empty, and entities expanding
// into one another stop at the limit. Ordinary documents with internal entities still print.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/xml_printer.h"

namespace {

struct Printed {
  std::string out;
  int32_t counter = 0;
  double seconds = 0;
};

Printed printXml(const std::string& doc) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  // The parser's errors go to standard error: keep them out of the test's output.
  std::fflush(stderr);
  const int savedErr = dup(2);
  FILE* sink = std::fopen("/dev/null", "w");
  dup2(fileno(sink), 2);
  char encoding[kEncodingNameRoom] = "UTF-8";
  Printed p;
  const auto start = std::chrono::steady_clock::now();
  printXmlMsg(doc.c_str(), static_cast<uint32_t>(doc.size()), "Q1", out, encoding, &p.counter, 1);
  p.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fflush(stderr);
  dup2(savedErr, 2);
  close(savedErr);
  std::fclose(sink);
  std::fclose(out);
  p.out.assign(buf, len);
  std::free(buf);
  return p;
}

TEST(XmlBody, ExternalEntitiesAreNeverRead) {
  // Standard input is a pipe that stays open and silent: reading it would wait forever.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int savedIn = dup(0);
  dup2(fds[0], 0);
  Printed dtd = printXml("<!DOCTYPE a SYSTEM \"/dev/stdin\"><a/>");
  Printed entity = printXml("<!DOCTYPE a [<!ELEMENT a (#PCDATA)><!ENTITY e SYSTEM \"/etc/hostname\">]><a>&e;</a>");
  Printed schema = printXml(
      "<a xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:noNamespaceSchemaLocation=\"/dev/stdin\"/>");
  dup2(savedIn, 0);
  close(savedIn);
  close(fds[0]);
  close(fds[1]);
  EXPECT_LT(dtd.seconds + entity.seconds + schema.seconds, 10.0);
  // Without its declarations the first document does not validate and is not printed; the
  // entity from a file stays a reference, with nothing read.
  EXPECT_EQ(dtd.counter, 0);
  EXPECT_EQ(entity.counter, 1);
  EXPECT_NE(entity.out.find("<a>&e;</a>"), std::string::npos) << entity.out;
}

TEST(XmlBody, EntitiesExpandingWithoutEndAreStopped) {
  std::string doc = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ELEMENT r (#PCDATA)><!ENTITY a \"aaaaaaaaaa\">";
  const char* names = "abcdefgh";
  for (int i = 1; i < 8; ++i) {
    doc += std::string("<!ENTITY ") + names[i] + " \"";
    for (int k = 0; k < 10; ++k) doc += std::string("&") + names[i - 1] + ";";
    doc += "\">";
  }
  doc += "]><r>&h;</r>";
  Printed p = printXml(doc);
  EXPECT_EQ(p.counter, 0);
  EXPECT_LT(p.seconds, 10.0);
  // A few expansions are ordinary.
  Printed small = printXml("<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!ENTITY e \"text\">]><r>&e;&e;</r>");
  EXPECT_EQ(small.counter, 1);
  EXPECT_NE(small.out.find("<r>&e;&e;</r>"), std::string::npos) << small.out;
}

}  // namespace
