// The shared XML reader: what it reads, and what it refuses without a crash,
// deep recursion or an expanded entity.
#include "common/XmlReader.h"

#include <gtest/gtest.h>

#include <string>

using kd::xml::Limits;
using kd::xml::PullReader;
using namespace std::string_literals;

namespace {

std::string nested(std::size_t depth) {
  std::string s;
  for (std::size_t i = 0; i < depth; ++i) s += "<a>";
  for (std::size_t i = 0; i < depth; ++i) s += "</a>";
  return s;
}

// Reads the whole document; the text of every element without children is
// collected as "name=text;". Gives the error, or "ok: " and what was read.
std::string readAll(std::string_view doc, Limits limits) {
  PullReader x(doc, limits);
  std::string seen;
  PullReader::Event event;
  for (;;) {
    if (!x.next(event)) return x.error();
    if (event == PullReader::Event::Done) return "ok: " + seen;
    if (event == PullReader::Event::End) continue;
    if (x.localName() == "t") {
      std::string text;
      if (!x.readText(text)) return x.error();
      seen += std::string(x.localName()) + "=" + text + ";";
    }
  }
}

}  // namespace

TEST(XmlReader, ReadsTextAndRefusesWhatItMustWithoutExpandingAnything) {
  Limits plain;
  Limits small = plain;
  small.maxBytes = 40;
  small.maxText = 8;
  Limits doctype = plain;
  doctype.skipDocumentType = true;
  const std::string laughs =
      "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;\">]>"
      "<r><t>&b;</t></r>";
  struct Case {
    const char* name;
    std::string doc;
    Limits limits;
    std::string expected;  // "ok: ..." or a part of the error
  } cases[] = {
      {"CDATA, comments, PIs and references in text",
       "<?xml version='1.0'?><!-- c --><r><t>x<![CDATA[<&>]]><!-- c -->y<?p?>&amp;&#x41;&#66;</t>"
       "</r>",
       plain, "ok: t=x<&>y&AB;"},
      {"line ends read as line feeds, a referenced CR kept", "<r><t>a\r\nb\rc&#13;</t></r>", plain,
       "ok: t=a\nb\nc\r;"},
      {"empty element", "<r><t/><t></t></r>", plain, "ok: t=;t=;"},
      {"byte-order mark", "\xEF\xBB\xBF<r/>", plain, "ok: "},
      {"64 open elements", nested(64), plain, "ok: "},
      {"65 open elements", nested(65), plain, "nested deeper than 64"},
      {"200,000 open elements", nested(200000), plain, "nested deeper than 64"},
      {"a document over the size bound", "<r>" + std::string(40, ' ') + "</r>", small,
       "larger than 40 bytes"},
      {"a text over its bound", "<r><t>123456789</t></r>", small, "a text longer than 8 bytes"},
      {"a document type where none is allowed", laughs, plain, "document type"},
      {"entities of a skipped document type stay unknown", laughs, doctype, "unknown entity &b;"},
      {"a document type inside the element", "<r><!DOCTYPE r></r>", doctype, "declaration"},
      {"an external entity", "<r><t>&ext;</t></r>", plain, "unknown entity &ext;"},
      {"a reference to NUL", "<r><t>&#0;</t></r>", plain, "no character XML allows"},
      {"not UTF-8", "<r><t>\xff</t></r>", plain, "not UTF-8"},
      {"an overlong form", "<r><t>\xC0\xAF</t></r>", plain, "not UTF-8"},
      {"a surrogate", "<r><t>\xED\xA0\x80</t></r>", plain, "not UTF-8"},
      {"a NUL byte", "<r><t>a\0b</t></r>"s, plain, "a NUL byte"},
      {"a control character", "<r><t>a\x01</t></r>", plain, "XML 1.0 does not allow"},
      {"U+FFFE", "<r><t>\xEF\xBF\xBE</t></r>", plain, "XML 1.0 does not allow"},
      {"an unterminated comment", "<r><!-- x</r>", plain, "unterminated markup"},
      {"an unterminated CDATA section", "<r><t><![CDATA[x</t></r>", plain, "unterminated CDATA"},
      {"a mismatched end tag", "<r><t>x</u></r>", plain, "unexpected </u>"},
      {"an element inside a text", "<r><t>x<u/></t></r>", plain, "an element inside <t>"},
      {"an unbound prefix", "<p:r/>", plain, "unbound namespace prefix"},
      {"an attribute given twice", "<r a='1' a='2'/>", plain, "given twice"},
      {"content after the element", "<r/><r/>", plain, "content after"},
      {"no element", "<!-- only -->", plain, "no document element"},
  };
  for (const auto& c : cases) {
    const std::string got = readAll(c.doc, c.limits);
    if (c.expected.starts_with("ok: "))
      EXPECT_EQ(got, c.expected) << c.name;
    else
      EXPECT_NE(got.find(c.expected), std::string::npos) << c.name << ": " << got;
  }
}

TEST(XmlReader, GivesNamespacesAttributesAndSkippedText) {
  PullReader x("<r xmlns='urn:a' xmlns:b='urn:b'><b:e k=' 1&#9;&lt;\n'/> x <e/></r>");
  PullReader::Event event;
  ASSERT_TRUE(x.next(event) && x.next(event)) << x.error();
  EXPECT_EQ(x.localName(), "e");
  EXPECT_EQ(x.qualifiedName(), "b:e");
  EXPECT_EQ(x.ns(), "urn:b");
  ASSERT_NE(x.attribute("k"), nullptr);
  EXPECT_EQ(x.attribute("k")->value, " 1\t< ");
  EXPECT_FALSE(x.textSkipped());
  ASSERT_TRUE(x.next(event) && event == PullReader::Event::End);
  ASSERT_TRUE(x.next(event) && event == PullReader::Event::Start);
  EXPECT_TRUE(x.textSkipped());
  EXPECT_EQ(x.ns(), "urn:a");
}
