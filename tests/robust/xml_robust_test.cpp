// XML bodies that try to make the printer read elsewhere or expand without end: a DTD or an
// entity naming a file, a device or standard input is read as empty, and a document opening too
// many entities or building too much text from a little is refused with a parse error. Ordinary
// documents with internal entities still print.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "driver/xml_printer.h"
#include "tests/robust/xml_capture.h"

namespace {

std::string repeat(const std::string& s, int n) {
  std::string r;
  for (int i = 0; i < n; ++i) r += s;
  return r;
}

// Entities a..: `a` holds `base`, each next one `width` references to the one before; the last
// one is referenced by `use` (where "%s" stands for its name).
std::string entityChain(int levels, int width, const std::string& base, const char* kind = "") {
  std::string dtd;
  const std::string mark = kind;  // "" general entities, "% " parameter entities
  const std::string refOpen = mark.empty() ? "&" : "&#37;";
  for (int i = 0; i < levels; ++i) {
    const std::string name(1, static_cast<char>('a' + i));
    const std::string value = i == 0 ? base : repeat(refOpen + static_cast<char>('a' + i - 1) + ";", width);
    dtd += "<!ENTITY " + mark + name + " \"" + value + "\">";
  }
  return dtd;
}

std::string last(int levels) { return std::string(1, static_cast<char>('a' + levels - 1)); }

std::string corpusSeed(const char* name) {
  std::ifstream in(std::string(CORPUS_DIR) + "/xml/" + name, std::ios::binary);
  std::string seed((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return seed.empty() ? seed : seed.substr(1);  // the first byte chooses the fuzz target's encoding
}

const std::string kEntityLimit = "more than '" + std::to_string(kXmlMaxEntityExpansions) + "' entity expansions";
const std::string kTextLimit = "document text expands to more than";

struct Refusal {
  const char* name;
  std::string doc;
  const std::string* report;  // the refusal's words on standard error
  bool atEntityLimit;         // refused at the entity just past the limit
};

TEST(XmlBody, AmplifyingDocumentsAreRefusedEarly) {
  const std::string r = "<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!ATTLIST r a CDATA #IMPLIED>";
  const Refusal rows[] = {
      {"seed of the fuzz corpus", corpusSeed("doc6"), &kEntityLimit, true},
      {"deeper", r + entityChain(9, 10, "aaaaaaaaaa") + "]><r>&" + last(9) + ";</r>", &kEntityLimit, true},
      {"wider", r + entityChain(3, 200, "a") + "]><r>&c;</r>", &kEntityLimit, true},
      {"one entity used often", r + "<!ENTITY e \"x\">]><r>" + repeat("&e;", 257) + "</r>", &kEntityLimit, true},
      {"parameter entities between declarations",
       r + entityChain(8, 10, "", "% ") + "%" + last(8) + ";]><r/>", &kEntityLimit, true},
      {"parameter entities of comments",
       r + entityChain(7, 10, "<!-- c -->", "% ") + "%" + last(7) + ";]><r/>", &kEntityLimit, true},
      {"attribute value", r + entityChain(6, 10, "aaaaaaaaaa") + "]><r a=\"&f;\"/>", &kEntityLimit, true},
      {"default attribute value",
       "<!DOCTYPE r [<!ELEMENT r (#PCDATA)>" + entityChain(6, 10, "aaaaaaaaaa") + "<!ATTLIST r a CDATA \"&f;\">]><r/>",
       &kEntityLimit, true},
      {"text from few entities", r + entityChain(2, 100, std::string(2000, 'x')) + "]><r>&b;</r>", &kTextLimit,
       false},
      {"text from default attributes",
       "<!DOCTYPE r [<!ELEMENT r (e*)><!ELEMENT e EMPTY><!ATTLIST e a CDATA \"" + std::string(4000, 'd') +
           "\">]><r>" + repeat("<e/>", 200) + "</r>",
       &kTextLimit, false},
  };
  for (const Refusal& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_FALSE(row.doc.empty());
    Printed p = printXml(row.doc);
    EXPECT_EQ(p.counter, 0);
    EXPECT_EQ(p.out, "");  // no banner, nothing printed
    EXPECT_NE(p.err.find("Fatal Error at line 1"), std::string::npos) << p.err;
    EXPECT_NE(p.err.find(*row.report), std::string::npos) << p.err;
    if (row.atEntityLimit) {
      EXPECT_EQ(p.counts.entities, kXmlMaxEntityExpansions + 1);
    } else {
      EXPECT_LE(p.counts.entities, kXmlMaxEntityExpansions);
      EXPECT_GT(p.counts.text, kXmlTextPerDocumentByte * row.doc.size() + kXmlTextAllowance);
    }
  }
}

struct Accepted {
  const char* name;
  std::string doc;
  uint64_t entities;
  uint64_t text;
  const char* printed;  // found in the output
};

TEST(XmlBody, DocumentsWithinTheLimitsPrintWithTheirCounts) {
  const std::string r = "<!DOCTYPE r [<!ELEMENT r (#PCDATA)>";
  const Accepted rows[] = {
      {"two references", r + "<!ENTITY e \"text\">]><r>&e;&e;</r>", 2, 8, "<r>&e;&e;</r>"},
      {"as many entities as allowed", r + "<!ENTITY e \"x\">]><r>" + repeat("&e;", 256) + "</r>", 256, 256, "&e;</r>"},
      {"predefined entities open none", "<r a=\"&quot;\">&amp;&lt;</r>", 0, 3, "<r a=\"&quot;\">&amp;&lt;</r>"},
      {"nested within the limit", r + entityChain(3, 10, "ab") + "]><r>&c;</r>", 111, 200, "<r>&c;</r>"},
      {"default attribute within the limit",
       "<!DOCTYPE r [<!ELEMENT r (e*)><!ELEMENT e EMPTY><!ATTLIST e a CDATA \"dd\">]><r>" + repeat("<e/>", 100) + "</r>",
       0, 200, "<e/>"},
      {"comments and instructions", "<r><!--1234--><?pi 56?>78</r>", 0, 10, "78"},
  };
  for (const Accepted& row : rows) {
    SCOPED_TRACE(row.name);
    Printed p = printXml(row.doc);
    EXPECT_EQ(p.counter, 1) << p.err;
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.counts.entities, row.entities);
    EXPECT_EQ(p.counts.text, row.text);
    EXPECT_NE(p.out.find(row.printed), std::string::npos) << p.out;
  }
}

TEST(XmlBody, ExternalEntitiesAreNeverRead) {
  // Standard input is a pipe that stays open and silent: reading it would wait forever (the test's
  // time limit catches that).
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
  // Without its declarations the first document does not validate and is not printed; the
  // entity from a file stays a reference, with nothing read.
  EXPECT_EQ(dtd.counter, 0);
  EXPECT_EQ(dtd.counts.entities, 1u);  // the DTD, read as empty
  EXPECT_EQ(entity.counter, 1);
  EXPECT_NE(entity.out.find("<a>&e;</a>"), std::string::npos) << entity.out;
  EXPECT_EQ(schema.counter, 0);
}

TEST(XmlBody, ARefusalLeavesTheNextDocumentAlone) {
  Printed refused = printXml(corpusSeed("doc6"));
  EXPECT_EQ(refused.counter, 0);
  Printed next = printXml("<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!ENTITY e \"x\">]><r>&e;</r>");
  EXPECT_EQ(next.counter, 1) << next.err;
  EXPECT_EQ(next.counts.entities, 1u);
  EXPECT_EQ(next.counts.text, 1u);
}

// The parser and the serializer are kept from one message to the next: every document prints
// after any other exactly as it prints on its own, in every output encoding.
TEST(XmlBody, DocumentsPrintTheSameAfterOthersAsOnTheirOwn) {
  const std::string docs[] = {
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?><p:r xmlns:p=\"urn:p\" xmlns=\"urn:d\">"
      "<c xmlns:q=\"urn:q\" q:at=\"1\"><p:x/><y xmlns=\"\">plain</y></c></p:r>",
      "<r><![CDATA[a <b> & c]]><s><![CDATA[caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC]]></s></r>",
      "<!-- before --><r><!-- in --><a>x<!-- mid -->y</a><?app do this?></r><?tail x?>",
      "<r a='he said \"hi\"' b=\"it's\" c=\"&lt;&amp;&gt;&quot;\" d=\"tab\tnl\n\">&lt;&amp;&gt;\"'</r>",
      "<broken>",
      "<r lang=\"\xE6\x97\xA5\xE6\x9C\xAC\"><t>Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80 \xE2\x82\xAC</t></r>",
      "<!DOCTYPE r [<!ELEMENT r (e*)><!ELEMENT e (#PCDATA)><!ATTLIST e a CDATA \"dflt\">"
      "<!ENTITY n \"named\">]><r><e>1</e><e a=\"set\">&n;</e></r>",
      "<r>text <b>bold</b> more\n  <e/>\n tail</r>",
      corpusSeed("doc6"),
      "<?xml version=\"1.0\"?>\n<orders>\n  <order id=\"1\">\n    <item>W</item>\n  </order>\n</orders>\n",
  };
  for (const char* encoding : {"UTF-8", "ISO-8859-1", "UTF-16", "US-ASCII", "IBM037"}) {
    SCOPED_TRACE(encoding);
    std::vector<Printed> together;
    for (const std::string& doc : docs) together.push_back(printXml(doc, encoding));
    for (size_t i = 0; i < std::size(docs); ++i) {
      SCOPED_TRACE(i);
      xmlShutdown();  // a new parser and serializer, as for the first message of a run
      Printed alone = printXml(docs[i], encoding);
      EXPECT_EQ(together[i].out, alone.out);
      EXPECT_EQ(together[i].err, alone.err);
      EXPECT_EQ(together[i].counter, alone.counter);
    }
    EXPECT_GT(together[0].out.size(), 20u);
  }
}

}  // namespace
