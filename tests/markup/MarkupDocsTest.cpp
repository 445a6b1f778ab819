// Rebuilds the worked examples of docs/markup.md.
#include <gtest/gtest.h>

#include "markup/Markup.h"
#include "tests/markup/Outline.h"
#include "tests/support/Support.h"

namespace {

using qx::test::DocExample;

// A line feed at the end of an example's block does not count.
std::string Trimmed(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

TEST(MarkupDocs, RecoveryExampleIsWhatTheParserMakesOfIt) {
  const CMarkup markup(Trimmed(DocExample("markup.md", "markup-recovery")));
  EXPECT_EQ(qx::test::Outline(markup) + "\n" + markup.GetResult() + "\n" + markup.GetError(),
            Trimmed(DocExample("markup.md", "markup-recovery-result")));
}

TEST(MarkupDocs, InsertionExampleIsWhatItsCallsBuild) {
  // The calls are repeated here, so that this test fails if those of the page change.
  ASSERT_EQ(Trimmed(DocExample("markup.md", "markup-insert-calls")),
            "AddElem(\"List\")\n"
            "AddChildElem(\"Item\", \"a < b\")\n"
            "SetChildAttrib(\"Nr\", 1)\n"
            "AddChildElem(\"Item\")\n"
            "SetChildAttrib(\"Nr\", 2)\n"
            "AddChildElem(\"Text\", \"x]]>y\", kAddCData)\n"
            "SetAttrib(\"Count\", 2)");
  CMarkup markup;
  EXPECT_TRUE(markup.AddElem("List"));
  EXPECT_TRUE(markup.AddChildElem("Item", "a < b"));
  EXPECT_TRUE(markup.SetChildAttrib("Nr", 1));
  EXPECT_TRUE(markup.AddChildElem("Item"));
  EXPECT_TRUE(markup.SetChildAttrib("Nr", 2));
  EXPECT_TRUE(markup.AddChildElem("Text", "x]]>y", CMarkup::kAddCData));
  EXPECT_TRUE(markup.SetAttrib("Count", 2));
  EXPECT_EQ(markup.GetDoc(), Trimmed(DocExample("markup.md", "markup-insert")) + "\n");
}

}  // namespace
