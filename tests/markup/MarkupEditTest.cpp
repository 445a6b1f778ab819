#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "markup/ElemPosTree.h"
#include "markup/Markup.h"
#include "tests/markup/Outline.h"
#include "tests/support/Support.h"

namespace {

using qx::test::Outline;
using qx::test::Records;

// The records must agree with the changed text: to parse the text again must give the same records.
void ExpectSound(const CMarkup& markup) {
  std::string why;
  EXPECT_TRUE(markup.CheckInvariants(&why)) << markup.GetDoc() << ": " << why;
  EXPECT_EQ(Records(markup), Records(CMarkup(markup.GetDoc()))) << markup.GetDoc();
}

struct EditRow {
  const char* before;
  std::function<bool(CMarkup&)> edit;
  bool result;
  const char* after;
};

// The edit starts with the root as the main element.
void ExpectRows(std::initializer_list<EditRow> rows) {
  for (const EditRow& row : rows) {
    CMarkup markup(row.before);
    (void)markup.FindElem();  // an empty document has none
    EXPECT_EQ(row.edit(markup), row.result) << row.before << " => " << row.after;
    EXPECT_EQ(markup.GetDoc(), row.after);
    ExpectSound(markup);
  }
}

auto Add(const char* name, const char* data = nullptr, int flags = 0) {
  return [=](CMarkup& markup) { return markup.AddElem(name, data, flags); };
}

auto AddChild(const char* name, const char* data = nullptr, int flags = 0) {
  return [=](CMarkup& markup) { return markup.AddChildElem(name, data, flags); };
}

auto SetData(const char* text, int flags = 0) {
  return [=](CMarkup& markup) { return markup.SetData(text, flags); };
}

auto SetAttrib(const char* name, const char* value, int flags = 0) {
  return [=](CMarkup& markup) { return markup.SetAttrib(name, value, flags); };
}

TEST(MarkupEdit, ChildOfANewElementGetsItsOwnLine) {
  CMarkup markup;
  EXPECT_TRUE(markup.AddElem("A"));
  EXPECT_TRUE(markup.AddChildElem("B"));
  EXPECT_EQ(markup.GetDoc(), "<A>\n<B/>\n</A>\n");
  EXPECT_TRUE(markup.IsWellFormed());
  ExpectSound(markup);
}

TEST(MarkupEdit, DataAndFlagsDetermineTheFormOfANewElement) {
  using M = CMarkup;
  ExpectRows({
      {"", Add("A"), true, "<A/>\n"},
      {"", Add("A", ""), true, "<A/>\n"},
      {"", Add("A", "", M::kAddCData), true, "<A/>\n"},
      {"", Add("A", nullptr, M::kAddNoLines), true, "<A/>"},
      {"", Add("A", nullptr, M::kAddSpaceSlash), true, "<A />\n"},
      {"", Add("A", nullptr, M::kAddNoEnd), true, "<A>\n"},
      {"", Add("A", nullptr, M::kAddNoEnd | M::kAddSpaceSlash | M::kAddNoLines), true, "<A>"},
      {"", Add("A", "1<2 \"x\""), true, "<A>1&lt;2 \"x\"</A>\n"},
      {"", Add("A", "1<2 \"x\"", M::kEscapeQuotes), true, "<A>1&lt;2 &quot;x&quot;</A>\n"},
      {"", Add("A", "&lt; & &#65;", M::kKeepReferences), true, "<A>&lt; &amp; &#65;</A>\n"},
      {"", Add("A", "&lt;"), true, "<A>&amp;lt;</A>\n"},
      {"", Add("A", "1<2", M::kAddCData | M::kAddNoLines), true, "<A><![CDATA[1<2]]></A>"},
      {"", Add("A", "x]]>y", M::kAddCData), true, "<A><![CDATA[x]]]]><![CDATA[>y]]></A>\n"},
      {"", Add("A", "x", M::kAddNoEnd), false, ""},
  });
}

TEST(MarkupEdit, NameThatATagCannotHaveIsRefused) {
  for (const char* name : {"", "1", "-a", "a b", "a/b", "a>", "<a", "a\"", "a'b", "a\n"}) {
    CMarkup markup("<r/>");
    markup.FindElem();
    EXPECT_FALSE(markup.AddElem(name)) << name;
    EXPECT_FALSE(markup.AddChildElem(name)) << name;
    EXPECT_EQ(markup.GetDoc(), "<r/>");
  }
  CMarkup markup;
  EXPECT_FALSE(markup.AddElem(nullptr));
  EXPECT_TRUE(markup.AddElem("_a:b-c.1\xC3\xA4"));
}

TEST(MarkupEdit, NewElementIsInsertedAfterItsSiblingAndTheWhiteSpace) {
  ExpectRows({
      {"<r><a/></r>", [](CMarkup& m) { return m.FindChildElem("a") && m.AddChildElem("b"); }, true,
       "<r><a/><b/>\n</r>"},
      {"<r><a/> \t\r\n <c/></r>", [](CMarkup& m) { return m.FindChildElem("a") && m.AddChildElem("b"); }, true,
       "<r><a/> \t\r\n <b/>\n<c/></r>"},
      {"<r><a/>x<c/></r>", [](CMarkup& m) { return m.FindChildElem("a") && m.AddChildElem("b"); }, true,
       "<r><a/><b/>\nx<c/></r>"},
      {"<r>\n<a/>\n<c/>\n</r>\n", AddChild("b"), true, "<r>\n<a/>\n<c/>\n<b/>\n</r>\n"},
      {"<r>\n<a/>\n</r>\n", AddChild("b", "t", CMarkup::kAddNoLines), true, "<r>\n<a/>\n<b>t</b></r>\n"},
  });
}

TEST(MarkupEdit, FirstChildIsInsertedAfterTheStartTag) {
  ExpectRows({
      {"<p></p>", AddChild("c"), true, "<p><c/>\n</p>"},
      {"<p/>", AddChild("c"), true, "<p>\n<c/>\n</p>"},
      {"<p/>", AddChild("c", nullptr, CMarkup::kAddNoLines), true, "<p><c/></p>"},
      {"<p x='1'/>", AddChild("c", "d"), true, "<p x='1'>\n<c>d</c>\n</p>"},
      {"<p />", AddChild("c"), true, "<p >\n<c/>\n</p>"},
      {"<p//>", AddChild("c"), true, "<p>\n<c/>\n</p>"},
      {"<p>text</p>", AddChild("c"), true, "<p><c/>\ntext</p>"},
      {"<p> </p>", AddChild("c"), true, "<p><c/>\n </p>"},
  });
}

TEST(MarkupEdit, FirstElementOfADocumentIsInsertedAtItsEnd) {
  ExpectRows({
      {"<?xml version=\"1.0\"?>\n", Add("A"), true, "<?xml version=\"1.0\"?>\n<A/>\n"},
      {"<!-- c -->", Add("A", nullptr, CMarkup::kAddNoLines), true, "<!-- c --><A/>"},
  });
}

TEST(MarkupEdit, SecondElementAtDocumentLevelIsASecondRoot) {
  CMarkup markup;
  ASSERT_TRUE(markup.AddElem("Error"));
  EXPECT_TRUE(markup.IsWellFormed());
  ASSERT_TRUE(markup.AddElem("ReportData"));
  EXPECT_FALSE(markup.IsWellFormed());
  EXPECT_EQ(markup.GetDoc(), "<Error/>\n<ReportData/>\n");
  EXPECT_EQ(markup.GetTagName(), "ReportData");
  ASSERT_TRUE(markup.SetData(std::string_view("secret"), CMarkup::kAddCData));
  EXPECT_FALSE(markup.IsWellFormed());
  ExpectSound(markup);

  markup.SetDoc("<Error/>");  // now without a main element
  ASSERT_TRUE(markup.AddElem("ReportData"));
  EXPECT_FALSE(markup.IsWellFormed());
  EXPECT_EQ(Outline(markup), "Error,ReportData");

  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_TRUE(markup.IsWellFormed());
}

TEST(MarkupEdit, AddElemWithTheChildFlagMovesTheChildPositionOnly) {
  CMarkup markup;
  ASSERT_TRUE(markup.AddElem("R"));
  const std::uint32_t root = markup.MainPosition();
  EXPECT_TRUE(markup.AddElem("a", nullptr, CMarkup::kAddChild));
  EXPECT_TRUE(markup.AddElem("b", "t", CMarkup::kAddChild));
  EXPECT_EQ(markup.MainPosition(), root);
  EXPECT_EQ(markup.GetChildTagName(), "b");
  EXPECT_TRUE(markup.SetChildAttrib("n", 1));
  EXPECT_TRUE(markup.SetAttrib("count", 2));
  EXPECT_EQ(markup.GetDoc(), "<R count=\"2\">\n<a/>\n<b n=\"1\">t</b>\n</R>\n");
  ExpectSound(markup);
}

TEST(MarkupEdit, WithoutAMainElementEveryChangeIsRefused) {
  CMarkup markup("<a><b/></a>");
  EXPECT_FALSE(markup.AddChildElem("c"));
  EXPECT_FALSE(markup.AddElem("c", nullptr, CMarkup::kAddChild));
  EXPECT_FALSE(markup.SetAttrib("x", "1"));
  EXPECT_FALSE(markup.SetAttrib("x", 1));
  EXPECT_FALSE(markup.SetData("t"));
  EXPECT_FALSE(markup.RemoveElem());
  EXPECT_FALSE(markup.SetChildAttrib("x", "1"));
  EXPECT_FALSE(markup.SetChildData("t"));
  EXPECT_FALSE(markup.RemoveChildElem());
  EXPECT_EQ(markup.GetDoc(), "<a><b/></a>");
}

TEST(MarkupEdit, ElementWithoutEndTagRefusesContentAndIsNotWellFormed) {
  CMarkup markup;
  ASSERT_TRUE(markup.AddElem("r"));
  ASSERT_TRUE(markup.AddChildElem("br", nullptr, CMarkup::kAddNoEnd));
  EXPECT_FALSE(markup.IsWellFormed());
  EXPECT_TRUE(markup.SetChildAttrib("x", "1"));
  EXPECT_FALSE(markup.SetChildData("t"));
  ASSERT_TRUE(markup.AddChildElem("c"));
  EXPECT_EQ(markup.GetDoc(), "<r>\n<br x=\"1\">\n<c/>\n</r>\n");
  ExpectSound(markup);
  ASSERT_TRUE(markup.IntoElem());
  ASSERT_TRUE(markup.OutOfElem());
  markup.ResetPos();
  ASSERT_TRUE(markup.FindElem("/r/br"));
  EXPECT_FALSE(markup.AddChildElem("d"));
  EXPECT_FALSE(markup.SetData("t"));
}

TEST(MarkupEdit, NewAttributeIsWrittenAtTheTagEndAndAnOldOneReplaced) {
  ExpectRows({
      {"<A/>", [](CMarkup& m) { return m.SetAttrib("n", 5); }, true, "<A n=\"5\"/>"},
      {"<A/>", [](CMarkup& m) { return m.SetAttrib("n", 5) && m.SetAttrib("n", 17); }, true, "<A n=\"17\"/>"},
      {"<A/>", [](CMarkup& m) { return m.SetAttrib("n", -2147483647 - 1); }, true, "<A n=\"-2147483648\"/>"},
      {"<A></A>", SetAttrib("n", "v"), true, "<A n=\"v\"></A>"},
      {"<A a='1' b='2'/>", SetAttrib("a", "long value"), true, "<A a='long value' b='2'/>"},
      {"<A a='1' b='2'/>", SetAttrib("b", ""), true, "<A a='1' b=''/>"},
      {"<A ab='1'/>", SetAttrib("a", "2"), true, "<A ab='1' a=\"2\"/>"},
      {"<A/>", SetAttrib("n", nullptr), true, "<A n=\"\"/>"},
      {"<A/>", SetAttrib("n", "<&>\"'"), true, "<A n=\"&lt;&amp;&gt;&quot;&apos;\"/>"},
      {"<A/>", SetAttrib("n", "&#xC4;&", CMarkup::kKeepReferences), true, "<A n=\"&#xC4;&amp;\"/>"},
      {"<A n=1/>", SetAttrib("n", "x y"), true, "<A n=\"x y\"/>"},
      {"<A n = '1' />", SetAttrib("n", "2"), true, "<A n = '2' />"},
      {"<A b= />", SetAttrib("n", "2"), true, "<A b=  n=\"2\"/>"},
      {"<A n= b='1'/>", SetAttrib("n", "2"), true, "<A n=\"2\" b='1'/>"},
      {"<A b=>", SetAttrib("n", "2"), true, "<A b= n=\"2\">"},
      {"<A n b='1'>t</A>", SetAttrib("n", "2"), true, "<A n=\"2\" b='1'>t</A>"},
      {"<A x='n=\"1\"'/>", SetAttrib("n", "2"), true, "<A x='n=\"1\"' n=\"2\"/>"},
      {"<A/>", SetAttrib("", "2"), false, "<A/>"},
      {"<A/>", SetAttrib(nullptr, "2"), false, "<A/>"},
      {"<A/>", SetAttrib("a b", "2"), false, "<A/>"},
      {"<A/>", SetAttrib("a=", "2"), false, "<A/>"},
      {"<A/>", SetAttrib("a>", "2"), false, "<A/>"},
  });
}

TEST(MarkupEdit, QuirkAttributeKeepsTheSpaceBeforeTheSlash) {
  ExpectRows({{"<A />", SetAttrib("n", "1"), true, "<A  n=\"1\"/>"}});
}

TEST(MarkupEdit, SeveralAttributesAreSetInOrder) {
  const CMarkup::AttributeText texts[] = {{"version", "0.1.0"}, {"by", "A & \"B\""}, {"none", nullptr}};
  ExpectRows({{"<a/>", [&](CMarkup& m) { return m.SetAttribs(texts); }, true,
               "<a version=\"0.1.0\" by=\"A &amp; &quot;B&quot;\" none=\"\"/>"},
              {"<a by='x'><b/></a>", [&](CMarkup& m) { return m.SetAttribs(texts); }, true,
               "<a by='A &amp; &quot;B&quot;' version=\"0.1.0\" none=\"\"><b/></a>"},
              {"<a/>", [&](CMarkup& m) { return m.SetAttribs({}); }, true, "<a/>"},
              {"", [&](CMarkup& m) { return m.SetAttribs(texts); }, false, ""}});
}

TEST(MarkupEdit, RefusedAttributeDoesNotPreventTheOthers) {
  const CMarkup::AttributeText texts[] = {{"x", "1"}, {"n o", "2"}, {nullptr, "3"}, {"y", "4"}, {"x", "5"}};
  ExpectRows({{"<a/>", [&](CMarkup& m) { return m.SetAttribs(texts); }, false, "<a x=\"5\" y=\"4\"/>"}});
}

// The names repeat, differ in case, are not valid, or exist already; the values have all lengths.
TEST(MarkupEdit, RandomAttributesAreSetAtOnceAsIfOneByOne) {
  static constexpr const char* kDocuments[] = {"<a/>",       "<a />",           "<a//>",
                                               "<a></a>\n",  "<r><a/><c/></r>", "<a b/>x",
                                               "<a b='1'/>", "<a  c=\"1\"\n>",  "<a C='1'>t<d/></a>",
                                               "<a",         "<a><b></a>"};
  static constexpr const char* kNames[] = {"b", "B", "c", "dd", "long-name", "b=", "", nullptr, "e f", "\xE4"};
  std::mt19937_64 random(qx::test::Seed("SetAttribs"));
  for (int round = 0; round < 6000; ++round) {
    CMarkup at_once;
    if (random() % 2 == 0) at_once.SetDocFlags(CMarkup::kDocIgnoreCase);
    (void)at_once.SetDoc(kDocuments[random() % std::size(kDocuments)]);
    (void)at_once.FindElem();
    if (random() % 3 == 0 && at_once.FindChildElem()) (void)at_once.IntoElem();

    std::vector<std::string> values(random() % 6);
    std::vector<CMarkup::AttributeText> texts;
    for (std::string& value : values) {
      value.assign(random() % (random() % 2 == 0 ? 12 : 300), static_cast<char>('!' + random() % 40));
      texts.push_back({kNames[random() % (random() % 2 == 0 ? 5 : std::size(kNames))], value.c_str()});
    }
    const int flags = random() % 2 == 0 ? 0 : CMarkup::kKeepReferences;
    CMarkup singly = at_once;
    ASSERT_EQ(at_once.SetAttribs(texts, flags), singly.SetAttribsSingly(texts, flags)) << at_once.GetDoc();
    ASSERT_EQ(at_once.GetDoc(), singly.GetDoc());
    ASSERT_EQ(Records(at_once), Records(singly)) << at_once.GetDoc();
    ASSERT_TRUE(at_once.CheckInvariants()) << at_once.GetDoc();
  }
}

TEST(MarkupEdit, AttributeMovesAllElementsAfterAndWithinItsElement) {
  CMarkup markup("<r><a><b/></a><c><d/></c></r>");
  ASSERT_TRUE(markup.FindElem("/r/a"));
  ASSERT_TRUE(markup.SetAttrib("x", "12345"));
  ExpectSound(markup);
  ASSERT_TRUE(markup.FindElem("/r"));
  ASSERT_TRUE(markup.SetAttrib("y", "1"));
  ASSERT_TRUE(markup.SetAttrib("y", ""));
  ExpectSound(markup);
  EXPECT_EQ(markup.GetDoc(), "<r y=\"\"><a x=\"12345\"><b/></a><c><d/></c></r>");
}

TEST(MarkupEdit, DataReplacesTheContentAndGivesAnEmptyElementAnEndTag) {
  ExpectRows({
      {"<a/>", SetData("text"), true, "<a>text</a>"},
      {"<a/>", SetData(""), true, "<a></a>"},
      {"<a/>", SetData(nullptr), true, "<a></a>"},
      {"<a/>", SetData("", CMarkup::kAddCData), true, "<a><![CDATA[]]></a>"},
      {"<a x='1' />", SetData("t"), true, "<a x='1' >t</a>"},
      {"<a//>", SetData("t"), true, "<a>t</a>"},
      {"<a></a>", SetData("t"), true, "<a>t</a>"},
      {"<a>old<!-- c --></a>", SetData("new"), true, "<a>new</a>"},
      {"<a>old</a>", SetData(""), true, "<a></a>"},
      {"<a>old</a>", SetData("1<2", CMarkup::kAddCData), true, "<a><![CDATA[1<2]]></a>"},
      {"<a>old</a>", SetData("<&>\"'"), true, "<a>&lt;&amp;&gt;\"'</a>"},
      {"<a>old</a>", SetData("&#xC4;&", CMarkup::kKeepReferences), true, "<a>&#xC4;&amp;</a>"},
      {"<a><b/></a>", SetData("t"), false, "<a><b/></a>"},
  });
}

TEST(MarkupEdit, DataReadsBackAsItWasSet) {
  for (const std::string data : {"", "x", "]]>", "]]>]]>", "a]]]>b", "]]", "<![CDATA[x]]>", "&amp;", "a\r\nb"}) {
    for (const int flags : {0, +CMarkup::kAddCData}) {
      CMarkup markup("<r><a/><b>t</b></r>");
      ASSERT_TRUE(markup.FindElem("/r/a"));
      ASSERT_TRUE(markup.SetData(data.c_str(), flags));
      EXPECT_EQ(markup.GetData(), data);
      ExpectSound(markup);
    }
  }
}

TEST(MarkupEdit, LargeDataIsInsertedWhateverFollowsIt) {
  for (const std::size_t bytes : {4083U, 4084U, 4085U, 5000U, 100000U}) {
    for (const std::size_t tail : {0U, 1015U, 1016U, 1017U, 1018U, 5000U}) {
      for (const char* old : {"", "old"}) {
        const std::string data(bytes, 'd');
        const std::string rest(tail, 't');
        CMarkup markup("<r><a>" + std::string(old) + "</a>" + rest + "</r>");
        ASSERT_TRUE(markup.FindElem("/r/a"));
        ASSERT_TRUE(markup.SetData(std::string_view(data), CMarkup::kAddCData));
        ASSERT_EQ(markup.GetDoc(), "<r><a><![CDATA[" + data + "]]></a>" + rest + "</r>");
        ASSERT_TRUE(markup.SetData("short"));
        ASSERT_EQ(markup.GetDoc(), "<r><a>short</a>" + rest + "</r>");
      }
    }
  }
}

TEST(MarkupEdit, DataWithManySectionEndsReadsBack) {
  for (std::size_t ends = 0; ends < 40; ++ends) {
    std::string data = "x";
    for (std::size_t i = 0; i < ends; ++i) data += "]]>";
    CMarkup markup("<r/>");
    ASSERT_TRUE(markup.FindElem());
    ASSERT_TRUE(markup.AddChildElem("a", data.c_str(), CMarkup::kAddCData));
    EXPECT_EQ(markup.GetChildData(), data);
    ExpectSound(markup);
  }
}

TEST(MarkupEdit, WrittenDataIsSetAsACDataSection) {
  for (const std::string data : {"", "x", "]]>", "a]]>b]]>c", "]]]>", "]]", "<&>"}) {
    for (const std::string old : {"<a n='1'/>", "<a n='1'></a>", "<a n='1'>old</a>", "<a n='1'//>"}) {
      for (const std::string rest : {"", "\n", "<b/> text\n"}) {
        CMarkup written("<r>" + old + rest + "</r>");
        CMarkup set("<r>" + old + rest + "</r>");
        ASSERT_TRUE(written.FindElem("/r/a") && set.FindElem("/r/a"));
        ASSERT_TRUE(set.SetData(data.c_str(), CMarkup::kAddCData));
        ASSERT_TRUE(written.SetCDataBy([&](std::string& text) {
          text += data;
          return true;
        }));
        EXPECT_EQ(written.GetDoc(), set.GetDoc());
        EXPECT_EQ(written.GetData(), data);
        ExpectSound(written);
      }
    }
  }
}

TEST(MarkupEdit, WriterIsNotCalledWhereDataIsNotAllowed) {
  for (const char* text : {"", "<a><b/></a>", "<a>"}) {
    CMarkup markup(text);
    (void)markup.FindElem();
    EXPECT_FALSE(markup.SetCDataBy([](std::string&) -> bool { throw std::logic_error("called"); })) << text;
    EXPECT_EQ(markup.GetDoc(), text);
  }
}

TEST(MarkupEdit, WriterThatThrowsLeavesTheDocumentAsItWas) {
  for (const std::string text : {"<r><a n='1'/>after</r>\n", "<r><a>old</a>after</r>\n"}) {
    CMarkup markup(text);
    ASSERT_TRUE(markup.FindElem("/r/a"));
    EXPECT_THROW(markup.SetCDataBy([](std::string& to) -> bool {
      to += "much text, and then no memory for more";
      throw std::bad_alloc();
    }),
                 std::bad_alloc);
    EXPECT_EQ(markup.GetDoc(), text);
    ExpectSound(markup);
    EXPECT_TRUE(markup.SetData("t"));
  }
}

TEST(MarkupEdit, ChildDataIsSetWithoutMovingTheMainElement) {
  CMarkup markup("<r><a/></r>");
  ASSERT_TRUE(markup.FindElem());
  ASSERT_TRUE(markup.FindChildElem());
  EXPECT_TRUE(markup.SetChildData("1"));
  EXPECT_TRUE(markup.SetChildData(std::string_view("2\0003", 3)));
  EXPECT_EQ(markup.GetChildData(), std::string("2\0003", 3));
  EXPECT_EQ(markup.GetTagName(), "r");
  EXPECT_EQ(markup.GetDoc(), std::string("<r><a>2\0003</a></r>", 17));
}

TEST(MarkupEdit, AfterARemovalThePreviousSiblingIsTheMainElement) {
  CMarkup markup("<r><a/><b><x/><y/></b> <c/></r>");
  ASSERT_TRUE(markup.FindElem("/r/b"));
  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_EQ(markup.GetDoc(), "<r><a/> <c/></r>");
  EXPECT_EQ(markup.GetTagName(), "a");
  ExpectSound(markup);
  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_EQ(markup.MainPosition(), 0U);
  EXPECT_EQ(markup.GetTagName(), "");
  ASSERT_TRUE(markup.FindElem());
  EXPECT_EQ(markup.GetTagName(), "c");
  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_EQ(markup.GetDoc(), "<r> </r>");
  ASSERT_TRUE(markup.OutOfElem());
  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_EQ(markup.GetDoc(), "");
  EXPECT_FALSE(markup.IsWellFormed());
  ASSERT_TRUE(markup.AddElem("n"));
  EXPECT_EQ(markup.GetDoc(), "<n/>\n");
  ExpectSound(markup);
}

TEST(MarkupEdit, RemovingAChildKeepsTheMainElement) {
  CMarkup markup("<r>\n<a/>\n<b/>\n</r>");
  ASSERT_TRUE(markup.FindElem());
  ASSERT_TRUE(markup.FindChildElem("b"));
  ASSERT_TRUE(markup.RemoveChildElem());
  EXPECT_EQ(markup.GetDoc(), "<r>\n<a/>\n\n</r>");
  EXPECT_EQ(markup.GetChildTagName(), "a");
  ASSERT_TRUE(markup.RemoveChildElem());
  EXPECT_EQ(markup.ChildPosition(), 0U);
  EXPECT_EQ(markup.GetTagName(), "r");
  EXPECT_FALSE(markup.RemoveChildElem());
  ExpectSound(markup);
}

TEST(MarkupEdit, ReleasedRecordsAreUsedFirst) {
  CMarkup markup("<r><a><b/><c/></a><d/></r>");
  const std::uint32_t records = markup.RecordCount();
  ASSERT_TRUE(markup.FindElem("/r/a"));
  ASSERT_TRUE(markup.RemoveElem());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(markup.AddElem("n"));
  EXPECT_EQ(markup.RecordCount(), records);
  ExpectSound(markup);
  ASSERT_TRUE(markup.AddElem("n"));
  EXPECT_EQ(markup.RecordCount(), records + 1);
  ExpectSound(markup);
}

TEST(MarkupEdit, ChangeOverALimitIsRefusedAndChangesNothing) {
  CMarkup markup("<r/>");
  markup.FindElem();
  EXPECT_FALSE(markup.AddElem(std::string(1021, 'n').c_str()));
  EXPECT_FALSE(markup.AddChildElem(std::string(1021, 'n').c_str()));
  EXPECT_EQ(markup.GetDoc(), "<r/>");
  EXPECT_TRUE(markup.AddChildElem(std::string(1020, 'n').c_str(), "t"));
  ExpectSound(markup);
}

// The tag <a n=""/> has 9 bytes, and the value comes in addition.
TEST(MarkupEdit, AttributeThatMakesAStartTagOf4MiBIsRefused) {
  const std::string fits((1U << 22) - 1 - 9, 'v');
  const std::string escaped_fits = fits.substr(5) + "<";  // "&lt;" and two spare bytes
  const auto set = [](const std::string& name, const std::string& value) {
    return [=](CMarkup& m) { return m.SetChildAttrib(name.c_str(), value.c_str()); };
  };
  const auto set_two = [](const std::string& first, const std::string& second) {
    return [=](CMarkup& m) {
      const CMarkup::AttributeText texts[] = {{"n", first.c_str()}, {"m", second.c_str()}};
      return m.IntoElem() && m.SetAttribs(texts) == false && m.OutOfElem();
    };
  };
  const auto document = [](const std::string& tag) { return "<r>" + tag + "<b/></r>"; };
  struct Row {
    std::string before;
    std::function<bool(CMarkup&)> edit;
    bool result;
    std::string after;
  };
  const Row rows[] = {
      {"<a/>", set("n", fits), true, "<a n=\"" + fits + "\"/>"},
      {"<a/>", set("n", fits + "v"), false, "<a/>"},
      {"<a n='1'/>", set("n", fits), true, "<a n='" + fits + "'/>"},
      {"<a n='1'/>", set("n", fits + "v"), false, "<a n='1'/>"},
      {"<a n=\"" + fits + "\"/>", set("m", ""), false, "<a n=\"" + fits + "\"/>"},
      {"<a n=\"" + fits + "\"/>", set("n", "1"), true, "<a n=\"1\"/>"},
      {"<a/>", set("n", escaped_fits), true, "<a n=\"" + fits.substr(5) + "&lt;\"/>"},
      {"<a/>", set("n", escaped_fits + "<"), false, "<a/>"},
      {"<a/>", set_two("1", fits), true, "<a n=\"1\"/>"},
  };
  for (const Row& row : rows) {
    CMarkup markup(document(row.before));
    ASSERT_TRUE(markup.FindElem("r") && markup.FindChildElem("a"));
    EXPECT_EQ(row.edit(markup), row.result) << row.before.substr(0, 20);
    EXPECT_TRUE(markup.GetDoc() == document(row.after)) << row.after.substr(0, 20);
    EXPECT_EQ(Records(markup), Records(CMarkup(markup.GetDoc())));
    EXPECT_TRUE(markup.CheckInvariants());
    EXPECT_TRUE(markup.IsWellFormed());
  }
}

TEST(MarkupEdit, NothingIsAddedBelowTheDeepestLevel) {
  std::string text;
  for (int i = 0; i < 65535; ++i) text += "<a>";
  text += "<b/>";
  for (int i = 0; i < 65535; ++i) text += "</a>";
  CMarkup markup(text);
  ASSERT_TRUE(markup.IsWellFormed());
  ASSERT_TRUE(markup.FindElem("//b"));
  EXPECT_FALSE(markup.AddChildElem("c"));
  EXPECT_EQ(markup.GetDoc(), text);
  EXPECT_TRUE(markup.AddElem("c"));
  EXPECT_TRUE(markup.CheckInvariants());
}

TEST(MarkupEdit, CopyIsIndependentAndHasTheSamePosition) {
  CMarkup markup("<r><a/><b x='1'/></r>");
  ASSERT_TRUE(markup.FindElem());
  ASSERT_TRUE(markup.FindChildElem("b"));
  CMarkup copy(markup);
  EXPECT_EQ(copy.GetChildAttrib("x"), "1");
  ASSERT_TRUE(copy.RemoveChildElem());
  ASSERT_TRUE(copy.AddChildElem("c"));
  EXPECT_EQ(copy.GetDoc(), "<r><a/><c/>\n</r>");
  EXPECT_EQ(markup.GetDoc(), "<r><a/><b x='1'/></r>");
  ExpectSound(copy);
  ExpectSound(markup);
  copy = markup;
  EXPECT_EQ(copy.GetDoc(), markup.GetDoc());
  EXPECT_EQ(copy.ChildPosition(), markup.ChildPosition());
  const CMarkup& same = copy;
  copy = same;
  EXPECT_EQ(copy.GetDoc(), markup.GetDoc());
  copy = CMarkup();
  EXPECT_EQ(copy.GetDoc(), "");
  EXPECT_TRUE(copy.AddElem("n"));
}

TEST(MarkupEdit, MovedDocumentLeavesAnEmptyOne) {
  CMarkup markup("<r><a/></r>");
  ASSERT_TRUE(markup.FindElem());
  CMarkup moved(std::move(markup));
  EXPECT_EQ(moved.GetTagName(), "r");
  EXPECT_TRUE(markup.CheckInvariants());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(markup.GetDoc(), "");
  EXPECT_TRUE(markup.AddElem("n"));
  markup = std::move(moved);
  EXPECT_EQ(markup.GetDoc(), "<r><a/></r>");
  static_assert(std::is_nothrow_move_constructible_v<CMarkup> && std::is_nothrow_move_assignable_v<CMarkup>);
}

TEST(MarkupEdit, TextIsMovedInAndOutWithoutACopy) {
  std::string text = "<r>" + std::string(1000, 'x') + "</r>";
  const char* const bytes = text.data();
  CMarkup markup(std::move(text));
  EXPECT_EQ(markup.GetDoc().data(), bytes);
  const std::string released = markup.ReleaseDoc();
  EXPECT_EQ(released.data(), bytes);
  EXPECT_EQ(markup.GetDoc(), "");
  EXPECT_FALSE(markup.FindElem());
  EXPECT_TRUE(markup.CheckInvariants());

  std::string buffer;
  buffer.reserve(100000);
  const char* const memory = buffer.data();
  EXPECT_FALSE(markup.SetDoc(std::move(buffer)));
  ASSERT_TRUE(markup.AddElem("r"));
  ASSERT_TRUE(markup.SetData(std::string_view(released), CMarkup::kAddCData));
  EXPECT_EQ(markup.GetDoc().data(), memory);
}

TEST(MarkupEdit, CostOfAppendingDoesNotGrowWithTheDocument) {
  const auto ticks = [](int elements) {
    const std::clock_t begin = std::clock();  // processor time, which other programs do not affect
    CMarkup markup;
    markup.AddElem("List");
    for (int i = 0; i < elements; ++i) {
      markup.AddChildElem("Instance");
      markup.SetChildAttrib("Nr", i);
      markup.SetChildData("name & text");
    }
    return static_cast<double>(std::clock() - begin);
  };
  double ratio = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {
    ratio = ticks(8000) / ticks(2000);
    if (ratio < 8) break;
  }
  EXPECT_LT(ratio, 8);
}

}  // namespace
