// The XML printer's own writer against the library's tree and serializer: every document of the
// corpus (the fuzz seeds, the documents of the other tests and documents made for each feature:
// namespaces, CDATA sections, comments, processing instructions, entities, quoting, white space,
// non-ASCII text and names) prints byte for byte the same, with the same reports on standard
// error and the same message count, in every output encoding; refused documents likewise.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "driver/xml_printer.h"
#include "tests/robust/xml_capture.h"

namespace {

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Orders written without indentation, like the benchmark's documents.
std::string orders(int count) {
  std::string d = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><orders xmlns=\"urn:example:orders\" batch=\"42\">";
  for (int i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    d += "<order id=\"" + n + "\" status=\"open\"><customer>Customer " + n +
         " &amp; Co</customer><item sku=\"S" + n + "\" qty=\"" + std::to_string(i % 7 + 1) +
         "\">Widget &lt;" + n + "&gt;</item><note>Deliver \"fast\" to Gr\xC3\xBC\xC3\x9F" "e " + n +
         "</note></order>";
  }
  return d + "</orders>";
}

// One document per feature; every one is also printed in every encoding below.
std::vector<std::string> featureDocs() {
  return {
      // Namespaces: declared, inherited, redeclared, undeclared, bound by a prefixed attribute
      // whose declaration sorts before or after it, the xml prefix.
      "<p:r xmlns:p=\"urn:p\" xmlns=\"urn:d\"><c xmlns:q=\"urn:q\" q:at=\"1\"><p:x/><y xmlns=\"\">plain</y>"
      "<z xmlns=\"urn:d\"/><p:w xmlns:p=\"urn:other\"/></c></p:r>",
      "<r xmlns:a=\"urn:a\" a:z=\"1\" b:y=\"2\" xmlns:b=\"urn:b\" xml:lang=\"en\"><a:e a:k=\"v\"/></r>",
      "<r xmlns=\"urn:d\"><e xmlns=\"\"><f/></e><g/></r>",
      "<n:r xmlns:n=\"urn:n\"><n:e xmlns:n=\"urn:n\"/><m xmlns=\"urn:n\"/></n:r>",
      "<r xmlns=\"urn:&amp;&quot;&lt;x\"/>",
      // CDATA: empty, ending in "]]", next to text, non-ASCII, markup inside.
      "<r><![CDATA[]]><![CDATA[a]]]]>text<![CDATA[<b>&amp;</b>]]><s><![CDATA[caf\xC3\xA9]]></s></r>",
      "<r>\n  <![CDATA[x]]>\n  <e/>\n</r>",
      // Comments: at document level, alone, with element siblings before or after, among text.
      "<!-- a --><!-- b --><r><!-- only --></r><!-- after -->",
      "<r><!-- first --><e/><!-- between --><e/><!-- last --></r>",
      "<r>text<!-- in text -->more</r>",
      "<r>text<!-- before an element -->more<e/>tail</r>",
      "<r><e>x<!-- mid -->y</e><f><!-- c1 --><!-- c2 --></f><!-- -- --></r>",
      "<r>\n  <!-- indented -->\n  <e/>\n</r>",
      // Processing instructions with and without data, everywhere.
      "<?first?><?second with data?><r><?in?><e/><?in2 x y?>text<?in3?></r><?last z?>",
      // Entities and character references in text and attributes.
      "<r a=\"&lt;&amp;&gt;&quot;&apos;\" b='\"' c=\"x&#9;y&#10;z&#13;w\">&lt;&amp;&gt;&quot;&apos;&#65;&#x20AC;&#13;</r>",
      "<r a='he said \"hi\"' b=\"it's\" d=\"tab\tnl\n\">&lt;&amp;&gt;\"' ]]&gt;</r>",
      // White space: the document's own indentation in spaces, tabs and line ends.
      "<r>\n    <a>\n        <b>1</b>\n    </a>\n</r>",
      "<r>\t<a/>\t\t<b/>\n\t</r>",
      "<r> <a> </a>  <b/> </r>",
      "<r>\r\n  <a/>\r\n</r>",
      "<r>&#13;<a/>&#13;  <b/></r>",
      "<r>x\n  <a/>\n  y<b/></r>",
      "<r><a></a><b>  </b><c>\n</c></r>",
      "<r><a><b><c><d><e><f><g><h><i><j><k><l><m><n><o><p><q><s><t><u><v><w><x><y><z><z1><z2><z3><z4><z5><z6>"
      "<z7><z8><z9><y1><y2><y3><y4>deep</y4></y3></y2></y1></z9></z8></z7></z6></z5></z4></z3></z2></z1></z></y>"
      "</x></w></v></u></t></s></q></p></o></n></m></l></k></j></i></h></g></f></e></d></c></b></a></r>",
      // Declarations: version, encoding, standalone; a document in another encoding.
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?><r/>",
      "<?xml version=\"1.0\" standalone=\"no\"?>\n<r/>\n",
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r a=\"\xE9\">\xE0 la \xFC</r>",
      std::string("\xFF\xFE<\0r\0>\0\xAC\x20<\0/\0r\0>\0", 18),
      "<?xml version=\"1.1\"?><r>&#x1;</r>",
      // Non-ASCII in text, attributes, names, comments and instructions.
      "<r lang=\"\xE6\x97\xA5\xE6\x9C\xAC\"><t>Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80 \xE2\x82\xAC</t></r>",
      "<caf\xC3\xA9 \xC3\xA9t\xC3\xA9=\"\xC3\xA9\"><na\xC3\xAFve/></caf\xC3\xA9>",
      "<r>\xE6\x97\xA5<!-- \xC3\xA9 --><?pi \xC3\xA9?></r>",
      "<\xE6\x97\xA5 a=\"1\"/>",
      "<r \xE6\x97\xA5=\"1\"/>",
      "<r><![CDATA[\xE6\x97\xA5\xE6\x9C\xAC]]></r>",
      // Grammars: a document type with defaults and entities, a schema that cannot be read.
      "<!DOCTYPE r [<!ELEMENT r (e*)><!ELEMENT e (#PCDATA)><!ATTLIST e a CDATA \"dflt\">"
      "<!ENTITY n \"named\">]><r><e>1</e><e a=\"set\">&n;</e></r>",
      "<r xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:noNamespaceSchemaLocation=\"none.xsd\"/>",
      // Refused: malformed, unbound prefix, duplicate attribute, bad character, unknown encoding.
      "<broken>",
      "<r><e></r>",
      "<p:r/>",
      "<r a=\"1\" a=\"2\"/>",
      "<r>\x01</r>",
      "<?xml version=\"1.0\" encoding=\"no-such\"?><r/>",
      "",
      "<",
      "<r/><r/>",
      orders(3),
  };
}

std::vector<std::string> corpus() {
  std::vector<std::string> docs = featureDocs();
  // The fuzz seeds (their first byte chooses the fuzz target's encoding).
  for (const auto& e : std::filesystem::directory_iterator(std::string(CORPUS_DIR) + "/xml")) {
    const std::string seed = readFile(e.path());
    if (!seed.empty()) docs.push_back(seed.substr(1));
  }
  // The documents of the read loop's and the folder printer's tests and of the manual's examples.
  for (const char* d : {"<a/>", "<doc><v>\xC3\xA9</v></doc>", "<body/>", "<b>t</b>", "<abc>",
                        "<order id=\"42\"><item qty=\"2\">tea</item></order>",
                        "<status code=\"ok\"><since>2026-11-21</since></status>", "<mcd><Msd>xml</Msd></mcd>",
                        "<usr><Region>EU</Region></usr>",
                        "<?xml version=\"1.0\"?>\n<orders>\n  <order id=\"1\">\n    <item>W</item>\n  </order>\n</orders>\n",
                        "<r>text <b>bold</b> more\n  <e/>\n tail</r>"})
    docs.emplace_back(d);
  // Big enough to cross every buffer of the library's formatter.
  docs.push_back(orders(2000));
  return docs;
}

// Prints the corpus in one run (one parser and writer for all of it), through the writer or the
// library's serializer.
std::vector<Printed> printAll(const std::vector<std::string>& docs, const char* encoding, bool library) {
  xmlShutdown();
  xmlWriteThroughLibrary(library);
  std::vector<Printed> printed;
  for (const std::string& d : docs) printed.push_back(printXml(d, encoding));
  xmlWriteThroughLibrary(false);
  xmlShutdown();
  return printed;
}

class XmlWriter : public testing::TestWithParam<const char*> {};

TEST_P(XmlWriter, PrintsWhatTheLibrarysSerializerPrints) {
  const std::vector<std::string> docs = corpus();
  const std::vector<Printed> ours = printAll(docs, GetParam(), false);
  const std::vector<Printed> reference = printAll(docs, GetParam(), true);
  size_t printed = 0;
  for (size_t i = 0; i < docs.size(); ++i) {
    SCOPED_TRACE("document " + std::to_string(i) + ": " + docs[i].substr(0, 200));
    EXPECT_EQ(ours[i].out, reference[i].out);
    EXPECT_EQ(ours[i].err, reference[i].err);
    EXPECT_EQ(ours[i].counter, reference[i].counter);
    if (!reference[i].out.empty()) ++printed;
  }
  EXPECT_GT(printed, docs.size() / 2);
}

INSTANTIATE_TEST_SUITE_P(Encodings, XmlWriter,
                         testing::Values("", "UTF-8", "utf8", "ISO-8859-1", "US-ASCII", "UTF-16", "UTF-16BE",
                                         "UTF-16LE", "IBM037", "windows-1252", "Shift_JIS", "ISO-2022-JP",
                                         "no-such-encoding"),
                         [](const testing::TestParamInfo<const char*>& p) {
                           std::string n = *p.param != 0 ? p.param : "default";
                           for (char& c : n)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return n;
                         });

// Documents built at random from the pieces the pretty printer treats differently (elements
// empty or not, text with and without the document's own line breaks and indentation, comments
// and instructions among text or elements, sections, namespaces declared and redeclared,
// attributes needing escapes), from a fixed seed.
class RandomDoc {
 public:
  explicit RandomDoc(uint32_t seed) : state_(seed) {}
  std::string make() {
    std::string d = pick(3) == 0 ? "<?xml version=\"1.0\"?>" : "";
    if (pick(3) == 0) d += misc();
    d += element(0);
    if (pick(3) == 0) d += misc();
    return d;
  }

 private:
  uint32_t pick(uint32_t n) {
    state_ = state_ * 1103515245u + 12345u;
    return (state_ >> 8) % n;
  }
  std::string misc() { return pick(2) == 0 ? "<!--c" + std::to_string(pick(9)) + "-->" : "<?pi d?>"; }
  std::string space() {
    static const char* kSpaces[] = {"", " ", "\n", "\n  ", "\n    ", "\n\t", "  \n  ", "&#13;", "\n      "};
    return kSpaces[pick(9)];
  }
  std::string text() {
    static const char* kTexts[] = {"x", "a &amp; b", "&lt;t&gt;", "\"q\" 'a'", "caf\xC3\xA9", "\xE6\x97\xA5",
                                   "l1\nl2", " pad ", "]]&gt;"};
    return kTexts[pick(9)];
  }
  std::string attrs(int depth) {
    std::string a;
    static const char* kNames[] = {"b", "a", "id", "x:k", "zz", "y:v"};
    static const char* kValues[] = {"1", "a&amp;b", "&quot;q&quot;", "it's", "t\tn&#10;", "&lt;", "\xC3\xA9"};
    bool used[6] = {};
    for (uint32_t i = pick(4); i > 0; --i) {
      const uint32_t n = pick(6);
      if (used[n]) continue;
      used[n] = true;
      a += std::string(" ") + kNames[n] + "=\"" + kValues[pick(7)] + "\"";
    }
    if (depth == 0 || pick(4) == 0) a += " xmlns:x=\"urn:x" + std::to_string(pick(2)) + "\"";
    if (depth == 0 || pick(4) == 0) a += " xmlns:y=\"urn:y\"";
    if (pick(5) == 0) a += pick(2) == 0 ? " xmlns=\"urn:d\"" : " xmlns=\"\"";
    return a;
  }
  std::string element(int depth) {
    static const char* kNames[] = {"e", "x:e", "f", "y:g"};
    const std::string name = kNames[pick(depth == 0 ? 1 : 4)];
    std::string e = "<" + name + attrs(depth);
    const uint32_t kids = depth > 5 ? 0 : pick(5);
    if (kids == 0 && pick(2) == 0) return e + "/>";
    e += ">";
    for (uint32_t i = 0; i < kids; ++i) {
      switch (pick(7)) {
        case 0: e += text(); break;
        case 1: e += space(); break;
        case 2: e += misc(); break;
        case 3: e += "<![CDATA[" + std::string(pick(2) == 0 ? "" : "d <&> ]") + "]]>"; break;
        default: e += space() + element(depth + 1) + space(); break;
      }
    }
    return e + "</" + name + ">";
  }
  uint32_t state_;
};

TEST(XmlWriter, RandomDocumentsPrintWhatTheLibrarysSerializerPrints) {
  std::vector<std::string> docs;
  RandomDoc gen(20261123);
  for (int i = 0; i < 400; ++i) docs.push_back(gen.make());
  for (const char* encoding : {"UTF-8", "US-ASCII"}) {
    SCOPED_TRACE(encoding);
    const std::vector<Printed> ours = printAll(docs, encoding, false);
    const std::vector<Printed> reference = printAll(docs, encoding, true);
    size_t printed = 0;
    for (size_t i = 0; i < docs.size(); ++i) {
      SCOPED_TRACE(docs[i]);
      EXPECT_EQ(ours[i].out, reference[i].out);
      EXPECT_EQ(ours[i].err, reference[i].err);
      if (!reference[i].out.empty()) ++printed;
    }
    EXPECT_GT(printed, docs.size() * 9 / 10);
  }
}

// The writer, not the tree, prints the ordinary documents: only a document type, a version other
// than 1.0 or markup the output encoding cannot hold takes the tree.
TEST(XmlWriter, OrdinaryDocumentsAreWrittenWithoutTheTree) {
  struct Row {
    std::string doc;
    const char* encoding;
    bool tree;
  };
  const Row rows[] = {
      {orders(5), "UTF-8", false},
      {"<p:r xmlns:p=\"urn:p\"><!-- c --><?pi x?><![CDATA[d]]></p:r>", "UTF-8", false},
      {"<r>\xE6\x97\xA5</r>", "US-ASCII", false},                  // text takes character references
      {"<r \xE6\x97\xA5=\"1\"/>", "US-ASCII", false},              // so do attribute names
      {"<\xE6\x97\xA5/>", "US-ASCII", true},                       // an element name cannot
      {"<r><!-- \xE6\x97\xA5 --></r>", "ISO-8859-1", true},        // nor can a comment
      {"<r><![CDATA[\xE6\x97\xA5]]></r>", "ISO-8859-1", true},     // a section is split
      {"<!DOCTYPE r [<!ELEMENT r (#PCDATA)>]><r/>", "UTF-8", true},
      {"<?xml version=\"1.1\"?><r/>", "UTF-8", true},
      {"<r/>", "no-such-encoding", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.doc);
    Printed p = printXml(r.doc, r.encoding);
    EXPECT_EQ(p.counts.tree, r.tree);
    EXPECT_EQ(p.counter, 1);
  }
  xmlShutdown();
}

}  // namespace
