#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <string>

#include "markup/ElemPosTree.h"
#include "markup/Limits.h"
#include "markup/Markup.h"
#include "tests/markup/Outline.h"

namespace {

using qx::test::Outline;

std::string Repeat(const std::string& text, std::size_t times) {
  std::string out;
  out.reserve(text.size() * times);
  for (std::size_t i = 0; i < times; ++i) out += text;
  return out;
}

struct ParseRow {
  const char* document;
  bool well_formed;
  const char* outline;
  const char* result;
  const char* error;
};

const ParseRow kParseRows[] = {
    {"<a/>", true, "a", "", ""},
    {"<a><b/><c></c></a>", true, "a(b,c)", "", ""},
    {"<?xml version=\"1.0\"?><!DOCTYPE a><!-- <x> --><a><![CDATA[<y>]]></a>", true, "a", "", ""},
    {"<a b='>' c=\">\"/>", true, "a", "", ""},
    {"text<a/>text", true, "a", "", ""},
    {"<a\n b = '1'\t></a >", true, "a", "", ""},
    {"<a><b></a>", false, "a(b!)", "<unended_start_tag tagname=\"b\" offset=\"3\" offset2=\"7\"/>",
     "start tag 'b' at offset 3 expecting end tag at offset 7"},
    {"<a/><b/>", false, "a,b", "<root_has_sibling/>", "root element has sibling"},
    {"text", false, "", "<no_root_element/>", "no root element"},
    {"<!-- <a/> -->", false, "", "<no_root_element/>", "no root element"},
    {"<a></x></a>", false, "a?", "<lone_end_tag tagname=\"x\" offset=\"3\"/>", "lone end tag 'x' at offset 3"},
    {"</x>", false, "", "<lone_end_tag tagname=\"x\" offset=\"0\"/><no_root_element/>",
     "lone end tag 'x' at offset 0 no root element"},
    {"<a>1 < 2</a>", false, "a?", "<first_tag_syntax offset=\"5\"/>",
     "tag syntax error at offset 5 expecting tag name / ! or ?"},
    {"<a></ ></a>", false, "a?", "<first_tag_syntax offset=\"3\"/>",
     "tag syntax error at offset 3 expecting tag name / ! or ?"},
    {"<a><!x></a>", false, "a?", "<exclamation_tag_syntax offset=\"3\"/>",
     "tag syntax error at offset 3 expecting 'DOCTYPE' [ or -"},
    {"<!DOCTYPE a [ <b> ]><a/>", false, "b!,a",
     "<doctype_tag_syntax offset=\"0\"/><unended_start_tag tagname=\"b\" offset=\"14\" offset2=\"24\"/>"
     "<root_has_sibling/>",
     "tag syntax error at offset 0 expecting markup declaration start tag 'b' at offset 14 expecting end tag at "
     "offset 24 root element has sibling"},
    {"<a><!-x--></a>", false, "a?", "<comment_tag_syntax offset=\"3\"/>",
     "tag syntax error at offset 3 expecting - to begin comment"},
    {"<a><![CDAT[x]]></a>", false, "a?", "<cdata_section_syntax offset=\"3\"/>",
     "tag syntax error at offset 3 expecting 'CDATA'"},
    {"<a><b x='1</a>", false, "a?", "<unterminated_tag_syntax offset=\"3\"/>", "unterminated tag at offset 3"},
    {"<a/><b", false, "a", "<unterminated_tag_syntax offset=\"4\"/>", "unterminated tag at offset 4"},
    {"<a/><b <c/>", false, "a,c", "<unterminated_tag_syntax offset=\"4\"/><root_has_sibling/>",
     "unterminated tag at offset 4 root element has sibling"},
    {"<a><!-- x</a>", false, "a?", "<unterminated_tag_syntax offset=\"3\"/>", "unterminated tag at offset 3"},
    {"<a><![CDATA[x</a>", false, "a?", "<unterminated_tag_syntax offset=\"3\"/>", "unterminated tag at offset 3"},
    {"<a><?x</a>", false, "a?", "<unterminated_tag_syntax offset=\"3\"/>", "unterminated tag at offset 3"},
    {"<!DOCTYPE a [<a/>", false, "a", "<doctype_tag_syntax offset=\"0\"/>",
     "tag syntax error at offset 0 expecting markup declaration"},
};

TEST(MarkupParse, DocumentsGiveTheirElementsResultsAndPhrases) {
  for (const ParseRow& row : kParseRows) {
    CMarkup markup;
    EXPECT_EQ(markup.SetDoc(row.document), row.well_formed) << row.document;
    EXPECT_EQ(markup.IsWellFormed(), row.well_formed) << row.document;
    EXPECT_EQ(markup.GetDoc(), row.document);
    EXPECT_EQ(Outline(markup), row.outline) << row.document;
    EXPECT_EQ(markup.GetResult(), row.result) << row.document;
    EXPECT_EQ(markup.GetError(), row.error) << row.document;
    std::string why;
    EXPECT_TRUE(markup.CheckInvariants(&why)) << row.document << ": " << why;
  }
}

TEST(MarkupParse, EmptyTextIsAnEmptyDocumentWithoutResults) {
  for (const char* text : {static_cast<const char*>(nullptr), ""}) {
    CMarkup markup("<a><b></a>");
    EXPECT_FALSE(markup.SetDoc(text));
    EXPECT_EQ(markup.GetDoc(), "");
    EXPECT_EQ(markup.GetResult(), "");
    EXPECT_EQ(markup.GetError(), "");
    EXPECT_FALSE(markup.IsWellFormed());
    EXPECT_TRUE(markup.CheckInvariants());
  }
}

TEST(MarkupParse, NullTextFreesTheRecordsAndEmptyTextKeepsRecordZero) {
  CMarkup markup("<a/>");
  EXPECT_EQ(markup.RecordCount(), 2U);
  markup.SetDoc("");
  EXPECT_EQ(markup.RecordCount(), 1U);
  markup.SetDoc(nullptr);
  EXPECT_EQ(markup.RecordCount(), 0U);
}

TEST(MarkupParse, RecordsHaveOffsetsLengthsAndLevels) {
  const CMarkup markup("<a>\n<bc x=\"1\"/> <d >t</d >\n</a>\n");
  const ElemPos& a = markup.Record(1);
  EXPECT_EQ(a.start, 0U);
  EXPECT_EQ(a.length, 31U);
  EXPECT_EQ(a.StartTagLength(), 3U);
  EXPECT_EQ(a.EndTagLength(), 4U);
  EXPECT_EQ(a.Level(), 0U);
  EXPECT_EQ(a.first_child, 2U);
  EXPECT_EQ(a.previous, 1U);
  EXPECT_EQ(a.next, 0U);
  EXPECT_TRUE(a.Has(kElemFirst));
  const ElemPos& bc = markup.Record(2);
  EXPECT_EQ(bc.start, 4U);
  EXPECT_EQ(bc.length, 11U);
  EXPECT_EQ(bc.StartTagLength(), 11U);
  EXPECT_EQ(bc.EndTagLength(), 0U);
  EXPECT_EQ(bc.Level(), 1U);
  EXPECT_EQ(bc.next, 3U);
  EXPECT_EQ(bc.previous, 3U);
  const ElemPos& d = markup.Record(3);
  EXPECT_EQ(d.StartTagLength(), 4U);
  EXPECT_EQ(d.EndTagLength(), 5U);
  EXPECT_EQ(d.previous, 2U);
  EXPECT_FALSE(d.Has(kElemFirst));
  EXPECT_EQ(markup.Record(0).length, markup.GetDoc().size());
}

TEST(MarkupParse, UnendedElementIsItsStartTagAlone) {
  const CMarkup markup("<a><b>text</a>");
  const ElemPos& b = markup.Record(2);
  EXPECT_TRUE(b.Has(kElemNoEnd));
  EXPECT_EQ(b.length, 3U);
  EXPECT_EQ(b.EndTagLength(), 0U);
  EXPECT_TRUE(markup.Record(0).Has(kElemIllFormed));
}

TEST(MarkupParse, ChildrenOfAnUnendedElementBecomeItsFollowingSiblings) {
  struct Row {
    const char* document;
    const char* outline;
  };
  const Row rows[] = {
      {"<m><a><x/><b><y/></m>", "m(a!,x,b!,y)"},
      {"<m><p/><a><x><z/></x><b></m>", "m(p,a!,x(z),b!)"},
      {"<a><b><c>", "a!,b!,c!"},
      {"<m><a><b><c/></a></m>", "m(a(b!,c))"},
      {"<r><m><a><b/></m><n><c><d/></n></r>", "r(m(a!,b),n(c!,d))"},
      {"<a><b></a><c/></b>", "a(b!),c"},
      {"<a><b><c></b></a><d/>", "a(b(c!)),d"},
  };
  for (const Row& row : rows) {
    const CMarkup markup(row.document);
    EXPECT_EQ(Outline(markup), row.outline) << row.document;
    std::string why;
    EXPECT_TRUE(markup.CheckInvariants(&why)) << row.document << ": " << why;
  }
}

TEST(MarkupParse, FaultInsideAnUnendedElementMovesToItsParent) {
  EXPECT_EQ(Outline(CMarkup("<m><a><b></x></m>")), "m?(a!,b!)");
  EXPECT_EQ(Outline(CMarkup("<m><a></x><b/></m>")), "m?(a!,b)");
  EXPECT_EQ(Outline(CMarkup("<m><a></x></a><b></m>")), "m(a?,b!)");
  const CMarkup open("<a></x>");
  EXPECT_EQ(Outline(open), "a!");
  EXPECT_TRUE(open.Record(0).Has(kElemUnendedInside));
}

TEST(MarkupParse, LevelsAreTheDepthAfterRecovery) {
  const CMarkup markup("<m><a><x><y/></x><b></m>");
  EXPECT_EQ(Outline(markup), "m(a!,x(y),b!)");
  EXPECT_EQ(markup.Record(3).Level(), 1U);  // x was parsed as a child of a
  EXPECT_EQ(markup.Record(4).Level(), 2U);
}

TEST(MarkupParse, ResultsOfOneRepairComeInnermostFirst) {
  const CMarkup markup("<m><a><b></m>");
  EXPECT_EQ(markup.GetResult(),
            "<unended_start_tag tagname=\"b\" offset=\"6\" offset2=\"10\"/>"
            "<unended_start_tag tagname=\"a\" offset=\"3\" offset2=\"10\"/>");
}

TEST(MarkupParse, ElementOpenAtTheEndExpectsItsEndTagThere) {
  EXPECT_EQ(CMarkup("<a>text").GetError(), "start tag 'a' at offset 0 expecting end tag at offset 7");
}

TEST(MarkupParse, NoResultIsAddedToATextOfMoreThan999Characters) {
  const std::string lone = "</a>";
  const CMarkup markup("<r>" + Repeat(lone, 1000) + "</r>");
  // <lone_end_tag tagname="a" offset="NNN"/>: 39 characters with a one-digit offset.
  std::string expected;
  for (std::size_t i = 0; expected.size() <= 999; ++i) {
    expected += "<lone_end_tag tagname=\"a\" offset=\"" + std::to_string(3 + 4 * i) + "\"/>";
  }
  EXPECT_EQ(markup.GetResult(), expected);
}

TEST(MarkupParse, NamesAreEscapedInResultsAndPlainInPhrases) {
  const CMarkup markup("<r></a&b></r>");
  EXPECT_EQ(markup.GetResult(), "<lone_end_tag tagname=\"a&amp;b\" offset=\"3\"/>");
  EXPECT_EQ(markup.GetError(), "lone end tag 'a&b' at offset 3");
}

TEST(MarkupParse, EndTagMatchesAStoredNameUpToCertainBytes) {
  for (const char* document : {"<a=1></a>", "<a[2]></a>", "<a]></a>", "<a b></a>", "<a/b></a>", "<x><a=1></a></x>"}) {
    EXPECT_TRUE(CMarkup(document).IsWellFormed()) << document;
  }
  EXPECT_TRUE(CMarkup(std::string("<a\0b></a>", 10)).IsWellFormed());
  for (const char* document : {"<ab></a>", "<a></ab>", "<a-b></a>", "<a></A>"}) {
    EXPECT_FALSE(CMarkup(document).IsWellFormed()) << document;
  }
}

TEST(MarkupParse, EndTagOfAnOuterElementIsNotALoneEndTag) {
  EXPECT_EQ(Outline(CMarkup("<a=1><b></a></b>")), "a=1(b!)");
  EXPECT_EQ(Outline(CMarkup("<a><b></ab></b></a>")), "a(b?)");
  EXPECT_EQ(Outline(CMarkup("<a><b><c></b></c></a></b>")), "a?(b(c!))");
}

TEST(MarkupParse, CaseMattersUnlessTheDocumentIgnoresIt) {
  CMarkup markup;
  markup.SetDocFlags(CMarkup::kDocIgnoreCase | CMarkup::kDocWriteFile);
  EXPECT_EQ(markup.GetDocFlags(), CMarkup::kDocIgnoreCase);
  EXPECT_TRUE(markup.SetDoc("<!doctype a><A x='1'><B></b></a>"));
  EXPECT_FALSE(markup.SetDoc("<A><b></a>"));
  EXPECT_EQ(Outline(markup), "A(b!)");
  EXPECT_FALSE(CMarkup("<!doctype a><a/>").IsWellFormed());
}

TEST(MarkupParse, CStringEndsAtItsNulAndAStringKeepsIt) {
  const std::string text("<a>x\0y</a>", 11);
  EXPECT_FALSE(CMarkup(text.c_str()).IsWellFormed());
  CMarkup markup(text);
  EXPECT_TRUE(markup.IsWellFormed());
  EXPECT_TRUE(markup.FindElem("a"));
  EXPECT_EQ(markup.GetData(), std::string("x\0y", 3));
}

TEST(MarkupParse, EveryPrefixOfAGoodDocumentIsParsedAndNotWellFormed) {
  const std::string text =
      "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY e \"v>\"><!-- ] --><?p ]?> %pe; ]>\n"
      "<r a=\"1\" b='2>'>\n<x/><y z=\"\">t &amp; u</y><!-- c --><![CDATA[d]]><?i?>\n</r>";
  ASSERT_TRUE(CMarkup(text).IsWellFormed());
  for (std::size_t size = 0; size < text.size(); ++size) {
    CMarkup markup(text.substr(0, size));
    EXPECT_FALSE(markup.IsWellFormed()) << size;
    EXPECT_NE(markup.GetError().empty(), size != 0) << size;
    std::string why;
    EXPECT_TRUE(markup.CheckInvariants(&why)) << size << ": " << why;
  }
}

// A document without a root has a result, but this result is not a fault: a root can be added later.
TEST(MarkupParse, AddingARootMakesADocumentWithoutOneWellFormed) {
  for (const std::string text : {"", "text", "<!-- c -->", "<?xml version='1.0'?>"}) {
    CMarkup markup(text);
    EXPECT_FALSE(markup.IsWellFormed()) << text;
    const std::string result = markup.GetResult();
    EXPECT_EQ(result, text.empty() ? "" : "<no_root_element/>") << text;
    ASSERT_TRUE(markup.AddElem("r"));
    EXPECT_EQ(markup.GetDoc(), text + "<r/>\n");
    EXPECT_TRUE(markup.IsWellFormed()) << text;
    EXPECT_EQ(markup.GetResult(), result) << text;  // the results are those of the parse
    ASSERT_TRUE(markup.RemoveElem());
    EXPECT_FALSE(markup.IsWellFormed()) << text;
  }
}

TEST(MarkupParse, AddingARootDoesNotRepairAFaultThatTheParseFound) {
  for (const char* text : {"</x>", "<", "<!-- c"}) {
    CMarkup markup(text);
    ASSERT_TRUE(markup.AddElem("r"));
    EXPECT_FALSE(markup.IsWellFormed()) << text;
  }
}

TEST(MarkupParse, DocumentTypeDeclarationHasNoEffect) {
  CMarkup markup("<!DOCTYPE r [<!ENTITY a \"AAAA\"><!ENTITY b SYSTEM \"file:///etc/passwd\">]><r x=\"&b;\">&a;&b;</r>");
  ASSERT_TRUE(markup.IsWellFormed());
  ASSERT_TRUE(markup.FindElem());
  EXPECT_EQ(markup.GetData(), "&a;&b;");
  EXPECT_EQ(markup.GetAttrib("x"), "&b;");
}

TEST(MarkupParse, MoreThan65536ElementsFillASecondSegment) {
  constexpr int kElements = 70000;
  std::string text = "<r>";
  for (int i = 0; i < kElements; ++i) text += "<e n=\"" + std::to_string(i) + "\"/>";
  CMarkup markup(text + "</r>");
  ASSERT_TRUE(markup.IsWellFormed());
  EXPECT_EQ(markup.RecordCount(), kElements + 2U);
  ASSERT_TRUE(markup.FindElem());
  int found = 0;
  for (; markup.FindChildElem("e"); ++found) {
    ASSERT_EQ(markup.GetChildAttrib("n"), std::to_string(found));
  }
  EXPECT_EQ(found, kElements);
  EXPECT_GT(markup.ChildPosition(), 0xFFFFU);
  EXPECT_TRUE(markup.CheckInvariants());
}

// --- Limits ---

TEST(MarkupParse, TagNameOf1020BytesFitsAndOneMoreDoesNot) {
  const std::string fits(1020, 'n');
  EXPECT_TRUE(CMarkup("<" + fits + "></" + fits + ">").IsWellFormed());
  for (const std::string& document : {"<" + fits + "n></" + fits + "n>", "<" + fits + "n/>"}) {
    CMarkup markup(document);
    EXPECT_FALSE(markup.IsWellFormed());
    EXPECT_EQ(Outline(markup), "");
    EXPECT_EQ(markup.GetError().substr(0, 35), "tag name over the limit at offset 0");
  }
}

TEST(MarkupParse, EndTagOf1024BytesIsOverTheLimit) {
  EXPECT_TRUE(CMarkup("<a></a" + std::string(1019, ' ') + ">").IsWellFormed());
  EXPECT_EQ(CMarkup("<a></a" + std::string(1020, ' ') + ">").GetError(),
            "end tag over the limit at offset 3 start tag 'a' at offset 0 expecting end tag at offset 1027");
}

TEST(MarkupParse, AttributeThatMakesAStartTagOf4MiBIsOverTheLimit) {
  const std::size_t longest = (1U << 22) - 1;
  std::string text = "<a x=\"" + std::string(longest - 9, 'v') + "\"/>";
  ASSERT_EQ(text.size(), longest);
  EXPECT_TRUE(CMarkup(text).IsWellFormed());
  text.insert(6, 1, 'v');
  CMarkup markup(text);
  EXPECT_FALSE(markup.IsWellFormed());
  EXPECT_EQ(markup.GetError(), "start tag over the limit at offset 0 no root element");
}

TEST(MarkupParse, LevelsUpTo65535Fit) {
  const auto nested = [](std::size_t depth) { return Repeat("<a>", depth) + Repeat("</a>", depth); };
  const CMarkup fits(nested(65536));
  EXPECT_TRUE(fits.IsWellFormed());
  EXPECT_EQ(fits.Record(65536).Level(), 65535U);
  const CMarkup deeper(nested(65537));
  EXPECT_FALSE(deeper.IsWellFormed());
  EXPECT_EQ(deeper.GetError(), "depth over the limit at offset 196608");
  EXPECT_EQ(deeper.Record(65537).Level(), 65535U);
  EXPECT_TRUE(deeper.CheckInvariants());
}

TEST(MarkupParse, MillionLevelsAreParsedAndDestroyedWithoutRecursion) {
  constexpr std::size_t kDepth = 1000000;
  const CMarkup nested(Repeat("<a>", kDepth) + Repeat("</a>", kDepth));
  EXPECT_FALSE(nested.IsWellFormed());
  EXPECT_EQ(nested.GetError(), "depth over the limit at offset 196608");
  EXPECT_EQ(nested.RecordCount(), kDepth + 1);

  const CMarkup unended(Repeat("<a>", kDepth / 4));
  EXPECT_EQ(unended.Record(kDepth / 4).Level(), 0U);
  EXPECT_EQ(unended.Record(kDepth / 4).parent, 0U);
}

TEST(MarkupParse, DeepDocumentIsCopiedCheckedAndRemovedWithoutRecursion) {
  constexpr std::size_t kDepth = 200000;
  const CMarkup markup(Repeat("<a>", kDepth) + Repeat("</a>", kDepth));
  CMarkup copy = markup;
  ASSERT_TRUE(copy.FindElem("//a[1000]"));
  EXPECT_TRUE(copy.RemoveElem());
  EXPECT_TRUE(copy.CheckInvariants());
  EXPECT_EQ(copy.GetDoc(), Repeat("<a>", 999) + Repeat("</a>", 999));
}

TEST(MarkupParse, EveryLevelOfADocumentOverTheDepthLimitIsFound) {
  constexpr std::size_t kDepth = 100000;
  CMarkup markup(Repeat("<a>", kDepth) + Repeat("</a>", kDepth));
  std::size_t depth = 0;
  for (; markup.FindElem("a"); markup.IntoElem()) ++depth;
  EXPECT_EQ(depth, kDepth);
}

TEST(MarkupLimits, DocumentOf4GiBDoesNotFit) {
  using qx::markup::DocumentFits;
  EXPECT_TRUE(DocumentFits(0xFFFFFFFF));
  EXPECT_FALSE(DocumentFits(0x100000000));
  EXPECT_TRUE(DocumentFits(0xFFFFFFF0, 0, 15));
  EXPECT_FALSE(DocumentFits(0xFFFFFFF0, 0, 16));
  EXPECT_TRUE(DocumentFits(0xFFFFFFF0, 1, 16));
  EXPECT_FALSE(DocumentFits(10, 0, SIZE_MAX));
}

// --- Cost ---

double Ticks(const std::string& document) {
  double best = 1e9;
  for (int round = 0; round < 4; ++round) {
    const std::clock_t begin = std::clock();  // processor time, which other programs do not affect
    CMarkup markup(document);
    (void)markup.GetError();
    best = std::min(best, static_cast<double>(std::clock() - begin));
  }
  return best;
}

// For four times the text, a quadratic parse takes sixteen times as long, a linear one four times. The bound of eight
// allows for a busy machine. Each unit is hostile in its own way.
TEST(MarkupParse, ParseTimeIsLinearForHostileTexts) {
  struct Row {
    const char* what;
    std::string prefix;
    std::string unit;
    std::string suffix;
  };
  const Row rows[] = {
      {"nesting", "", "<a><b>", ""},
      {"lone end tags under open tags", Repeat("<a>", 1000), "</b></c>", ""},
      {"lone end tags with special names", Repeat("<a=1=2>", 1000), "</a=3>", ""},
      {"unclosed tags", "<r>", "<br>x", "</r>"},
      {"nested repairs", "<r>", "<m><p>", "</r>"},
      {"attributes", "<r ", "x=\"1\" ", "/>"},
      {"references", "<r>", "&amp;&#65;", "</r>"},
      {"half tags", "", "<a ", ""},
      {"half comments", "", "<!--", ""},
      {"half CDATA sections", "", "<![CDATA[", ""},
      {"half instructions", "", "<?x", ""},
      {"half declarations", "", "<!DOCTYPE a [", ""},
      {"quotes in declarations", "", "<!DOCTYPE a \"'", ""},
      {"quotes in tags", "", "<a \"'", ""},
      {"entity declarations", "<!DOCTYPE a [", "<!ENTITY a \"<!DOCTYPE a [\">", ""},
  };
  for (const Row& row : rows) {
    const auto document = [&row](std::size_t bytes) {
      return row.prefix + Repeat(row.unit, bytes / row.unit.size()) + row.suffix;
    };
    const std::size_t bytes = 20000;
    double ratio = 0;
    for (int attempt = 0; attempt < 4; ++attempt) {
      ratio = Ticks(document(4 * bytes)) / Ticks(document(bytes));
      if (ratio < 8) break;
    }
    EXPECT_LT(ratio, 8) << row.what;
  }
}

}  // namespace
