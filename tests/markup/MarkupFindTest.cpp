#include <gtest/gtest.h>

#include <string>

#include "markup/Markup.h"

namespace {

constexpr const char* kDocument =
    "<r>"
    "<a id='1'><x/><y n='1'/></a>"
    "<b id='2' t=\"a &amp; b\"/>"
    "<a id='3'><y n='2'/><z><y n='3'/></z></a>"
    "<ab id='4'/>"
    "</r>";

// The names, and the attributes id and n, of all elements that repeated calls find.
std::string FindAll(CMarkup& markup, const char* path) {
  std::string found;
  for (int i = 0; i < 20 && markup.FindElem(path); ++i) {
    found += markup.GetTagName() + markup.GetAttrib("id") + markup.GetAttrib("n") + " ";
  }
  return found;
}

std::string FindAllChildren(CMarkup& markup, const char* path) {
  std::string found;
  for (int i = 0; i < 20 && markup.FindChildElem(path); ++i) {
    found += markup.GetChildTagName() + markup.GetChildAttrib("id") + markup.GetChildAttrib("n") + " ";
  }
  return found;
}

TEST(MarkupFind, SearchFindsSiblingsAfterTheMainElement) {
  CMarkup markup(kDocument);
  EXPECT_EQ(FindAll(markup, "x"), "");
  EXPECT_EQ(markup.MainPosition(), 0U);
  ASSERT_TRUE(markup.FindElem("r"));
  EXPECT_FALSE(markup.FindElem("r"));
  EXPECT_EQ(markup.GetTagName(), "r");  // a failed search does not change the position
  ASSERT_TRUE(markup.IntoElem());
  EXPECT_EQ(FindAll(markup, "a"), "a1 a3 ");
  EXPECT_EQ(FindAll(markup, nullptr), "ab4 ");
  EXPECT_FALSE(markup.FindElem("b"));
}

TEST(MarkupFind, NullOrEmptyPathMatchesEveryElement) {
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    CMarkup markup(kDocument);
    ASSERT_TRUE(markup.FindElem(path));
    EXPECT_EQ(FindAllChildren(markup, path), "a1 b2 a3 ab4 ");
  }
}

TEST(MarkupFind, ChildSearchFindsChildrenAfterTheChild) {
  CMarkup markup(kDocument);
  EXPECT_EQ(FindAllChildren(markup, "a"), "a1 a3 ");  // the root becomes the main element first
  EXPECT_EQ(markup.GetTagName(), "r");
  markup.ResetPos();
  EXPECT_EQ(FindAllChildren(markup, "ab"), "ab4 ");
  EXPECT_FALSE(markup.FindChildElem("b"));
}

TEST(MarkupFind, FailedChildSearchKeepsTheMainElementThatItFound) {
  CMarkup markup(kDocument);
  EXPECT_FALSE(markup.FindChildElem("no-such-child"));
  EXPECT_EQ(markup.GetTagName(), "r");
  EXPECT_EQ(markup.ChildPosition(), 0U);

  // The same one level below the document: the first element in r becomes the main element.
  ASSERT_TRUE(markup.IntoElem());
  ASSERT_EQ(markup.MainPosition(), 0U);
  EXPECT_FALSE(markup.FindChildElem("no-such-child"));
  EXPECT_EQ(markup.GetAttrib("id"), "1");

  // With a main element, a failed search changes nothing.
  ASSERT_TRUE(markup.FindChildElem("x"));
  const std::uint32_t main = markup.MainPosition();
  const std::uint32_t child = markup.ChildPosition();
  EXPECT_FALSE(markup.FindChildElem("no-such-child"));
  EXPECT_EQ(markup.MainPosition(), main);
  EXPECT_EQ(markup.ChildPosition(), child);
  EXPECT_TRUE(markup.CheckInvariants());
}

TEST(MarkupFind, IntoElemAndOutOfElemMoveOneLevel) {
  CMarkup markup(kDocument);
  EXPECT_FALSE(markup.IntoElem());
  EXPECT_FALSE(markup.OutOfElem());
  ASSERT_TRUE(markup.FindElem("r"));
  ASSERT_TRUE(markup.FindChildElem("b"));
  ASSERT_TRUE(markup.IntoElem());
  EXPECT_EQ(markup.GetTagName(), "b");
  EXPECT_EQ(markup.ChildPosition(), 0U);
  ASSERT_TRUE(markup.OutOfElem());
  EXPECT_EQ(markup.GetTagName(), "r");
  EXPECT_EQ(markup.GetChildTagName(), "b");
  EXPECT_EQ(markup.ParentPosition(), 0U);
  EXPECT_FALSE(markup.OutOfElem());
  ASSERT_TRUE(markup.FindElem("/r/b"));
  ASSERT_TRUE(markup.IntoElem());
  EXPECT_EQ(markup.MainPosition(), 0U);
  EXPECT_FALSE(markup.IntoElem());
  EXPECT_FALSE(markup.FindElem());
  ASSERT_TRUE(markup.OutOfElem());
  EXPECT_EQ(markup.GetTagName(), "b");
}

struct PathRow {
  const char* path;
  const char* found;  // by repeated calls from the beginning
};
const PathRow kPathRows[] = {
    {"r", "r "},
    {"r/a", "a1 "},
    {"r/a/y", "y1 "},
    {"r/b/y", ""},
    {"r/a/z", "z "},  // in the second a: the first has none
    {"r/a[2]", "a3 "},
    {"r/a[2]/y", "y2 "},
    {"r/a[3]", ""},
    {"r/a[@id='3']", "a3 "},
    {"r/a[@id=\"3\"]/z/y", "y3 "},
    {"r/a[@none]", ""},
    {"r/[@t]", "b2 "},
    {"r/[@t='a & b']", "b2 "},
    {"r/[2]", "b2 "},
    {"r/a[@id][2]", "a3 "},
    {"r/a/y/@n", "y1 "},
    {"r/a/x/@n", ""},
    {"//y", "y1 y2 y3 "},
    {"//a/y", "y1 y2 "},
    {"//z/y", "y3 "},
    {"//y[@n='3']", "y3 "},
    {"//r", "r "},
    {"r ", "r "},
    // Not valid paths.
    {"/", ""},
    {"//", ""},
    {"r/", ""},
    {"r//a", ""},
    {"r/a[", ""},
    {"r/a[]", ""},
    {"r/a[0]", ""},
    {"r/a[x]", ""},
    {"r/a[1", ""},
    {"r/a[@", ""},
    {"r/a[@id=3]", ""},
    {"r/a[@id='3]", ""},
    {"r/a]", ""},
    {"r=1", ""},
    {"r a", ""},
    {"@id", ""},
    {"r/a/@id/y", ""},
    {"r[99999999999999999999]", ""},
};

TEST(MarkupFind, PathsFindElementsAcrossLevels) {
  for (const PathRow& row : kPathRows) {
    CMarkup markup(kDocument);
    EXPECT_EQ(FindAll(markup, row.path), row.found) << row.path;
    std::string why;
    EXPECT_TRUE(markup.CheckInvariants(&why)) << row.path << ": " << why;
  }
}

TEST(MarkupFind, AbsolutePathStartsAtTheDocumentWhateverThePosition) {
  CMarkup markup(kDocument);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(markup.FindElem("/r/a[2]/z/y"));
    EXPECT_EQ(markup.GetAttrib("n"), "3");
    ASSERT_TRUE(markup.FindElem("/r/a/@id"));
    EXPECT_EQ(markup.GetAttrib("id"), "1");
  }
  ASSERT_TRUE(markup.FindElem("/r"));
  EXPECT_EQ(markup.ParentPosition(), 0U);
}

TEST(MarkupFind, AnyDepthPathSearchesAfterTheStartOfTheMainElement) {
  CMarkup markup(kDocument);
  ASSERT_TRUE(markup.FindElem("/r/a[2]"));
  EXPECT_EQ(FindAll(markup, "//y"), "y2 y3 ");
  ASSERT_TRUE(markup.FindElem("/r/a[2]"));
  ASSERT_TRUE(markup.IntoElem());
  EXPECT_EQ(FindAll(markup, "//y"), "y2 y3 ");
}

TEST(MarkupFind, ChildPathMakesTheParentOfTheMatchTheMainElement) {
  CMarkup markup(kDocument);
  ASSERT_TRUE(markup.FindElem("r"));
  ASSERT_TRUE(markup.FindChildElem("a/z/y"));
  EXPECT_EQ(markup.GetChildAttrib("n"), "3");
  EXPECT_EQ(markup.GetTagName(), "z");
  ASSERT_TRUE(markup.OutOfElem());
  EXPECT_EQ(markup.GetTagName(), "a");
  ASSERT_TRUE(markup.FindChildElem("/r"));
  EXPECT_EQ(markup.GetChildTagName(), "r");
  EXPECT_EQ(markup.MainPosition(), 0U);
  EXPECT_TRUE(markup.CheckInvariants());
}

TEST(MarkupFind, SearchOfAnEmptyDocumentFindsNothing) {
  CMarkup markup;
  EXPECT_FALSE(markup.FindElem());
  EXPECT_FALSE(markup.FindElem("//a"));
  EXPECT_FALSE(markup.FindChildElem());
  markup.SetDoc("");
  EXPECT_FALSE(markup.FindElem());
  EXPECT_FALSE(markup.FindChildElem("a"));
}

TEST(MarkupFind, NamesAreFoundInAnyCaseIfTheDocumentIgnoresCase) {
  CMarkup markup("<Root><Item Key='v'/></Root>");
  EXPECT_FALSE(markup.FindElem("root"));
  markup.SetDocFlags(CMarkup::kDocIgnoreCase);
  ASSERT_TRUE(markup.FindElem("root/ITEM[@key='v']"));
  EXPECT_EQ(markup.GetAttrib("KEY"), "v");
  ASSERT_TRUE(markup.SetAttrib("key", "w"));
  EXPECT_EQ(markup.GetDoc(), "<Root><Item Key='w'/></Root>");
}

TEST(MarkupFind, StoredNameWithEqualSignOrBracketMatchesItsBeginning) {
  CMarkup markup("<r><a=1/><a[2]/></r>");
  ASSERT_TRUE(markup.FindElem("r"));
  ASSERT_TRUE(markup.FindChildElem("a"));
  EXPECT_EQ(markup.GetChildTagName(), "a=1");
  ASSERT_TRUE(markup.FindChildElem("a"));
  EXPECT_EQ(markup.GetChildTagName(), "a[2]");
}

TEST(MarkupFind, AttributeIsReadWithItsReferencesReplaced) {
  CMarkup markup(
      "<a one=\"1\" two='2 &lt; &quot;3&quot;' none three=3 four = '4' five=\"\" six=a/b 'x=9' =7 /nine='9' x='8' "
      "seven= eight= '8'/>");
  ASSERT_TRUE(markup.FindElem());
  EXPECT_EQ(markup.GetAttrib("one"), "1");
  EXPECT_EQ(markup.GetAttrib("two"), "2 < \"3\"");
  EXPECT_EQ(markup.GetAttrib("none"), "");
  EXPECT_EQ(markup.GetAttrib("three"), "3");
  EXPECT_EQ(markup.GetAttrib("four"), "4");
  EXPECT_EQ(markup.GetAttrib("five"), "");
  EXPECT_EQ(markup.GetAttrib("six"), "a/b");
  EXPECT_EQ(markup.GetAttrib("x"), "8");
  EXPECT_EQ(markup.GetAttrib("seven"), "");
  EXPECT_EQ(markup.GetAttrib("eight"), "8");
  EXPECT_EQ(markup.GetAttrib("nine"), "9");
  EXPECT_EQ(markup.GetAttrib("a"), "");
  EXPECT_EQ(markup.GetAttrib(""), "");
  EXPECT_EQ(markup.GetAttrib(nullptr), "");
  EXPECT_EQ(CMarkup("<a one='1'/>").GetAttrib("one"), "");  // no main element
}

TEST(MarkupFind, DataIsTheTextWithoutMarkup) {
  struct Row {
    const char* document;
    const char* data;
  };
  const Row rows[] = {
      {"<a>t &lt; &#65;</a>", "t < A"},
      {"<a/>", ""},
      {"<a></a>", ""},
      {"<a><![CDATA[<x> &amp;]]></a>", "<x> &amp;"},
      {"<a><![CDATA[1]]]]><![CDATA[>2]]></a>", "1]]>2"},
      {"<a>1<![CDATA[&]]>&amp;<!-- c --><?p?>2</a>", "1&&2"},
      {"<a>t<b/>u</a>", ""},
      {"<a>1 < 2</a>", "1 < 2"},
      {"<a>1</b>2</a>", "12"},
      {"<a>text", ""},
  };
  for (const Row& row : rows) {
    CMarkup markup(row.document);
    ASSERT_TRUE(markup.FindElem()) << row.document;
    EXPECT_EQ(markup.GetData(), row.data) << row.document;
  }
  EXPECT_EQ(CMarkup("<a>t</a>").GetData(), "");
  EXPECT_EQ(CMarkup("<a>t</a>").GetChildData(), "");
}

}  // namespace
