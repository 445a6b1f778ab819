// Tests cases that the other markup tests do not cover: edits in the second segment of records, and complete alphabets.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "markup/Markup.h"
#include "tests/markup/Outline.h"

namespace {

using qx::test::Records;

constexpr std::uint32_t kSegmentRecords = 65536;

// A root with `elements` children <e n="NUMBER"/>. The first 65,500, which fit into the first segment, are parsed; the
// others are added one by one.
CMarkup WithChildren(int elements) {
  constexpr int kParsed = 65500;
  std::string text = "<r>";
  for (int i = 0; i < kParsed; ++i) text += "<e n=\"" + std::to_string(i) + "\"/>";
  CMarkup markup(text + "</r>");
  EXPECT_TRUE(markup.FindElem());
  for (int i = kParsed; i < elements; ++i) {
    EXPECT_TRUE(markup.AddChildElem("e"));
    EXPECT_TRUE(markup.SetChildAttrib("n", i));
  }
  return markup;
}

TEST(MarkupEdges, ElementsInTheSecondSegmentAreFoundChangedAndRead) {
  constexpr int kElements = 66000;
  CMarkup markup = WithChildren(kElements);
  EXPECT_EQ(markup.RecordCount(), kElements + 2U);
  EXPECT_EQ(markup.ChildPosition(), kElements + 1U);

  // The last record of the first segment and the first of the second.
  for (const int number : {65533, 65534, 65535, kElements - 1}) {
    ASSERT_TRUE(markup.FindElem(("/r/e[" + std::to_string(number + 1) + "]").c_str()));
    EXPECT_EQ(markup.MainPosition(), static_cast<std::uint32_t>(number) + 2);
    EXPECT_EQ(markup.GetAttrib("n"), std::to_string(number));
    ASSERT_TRUE(markup.SetData("text"));
    EXPECT_EQ(markup.GetData(), "text");
  }
  EXPECT_TRUE(markup.CheckInvariants());
  EXPECT_EQ(Records(markup), Records(CMarkup(markup.GetDoc())));
}

TEST(MarkupEdges, RecordsReleasedInTheSecondSegmentAreUsedFirst) {
  CMarkup markup = WithChildren(66000);
  const std::uint32_t records = markup.RecordCount();
  ASSERT_TRUE(markup.FindElem("/r/e[65900]"));
  ASSERT_GT(markup.MainPosition(), kSegmentRecords);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(markup.RemoveElem());
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(markup.AddElem("new"));
    EXPECT_GT(markup.MainPosition(), kSegmentRecords);
    EXPECT_LT(markup.MainPosition(), records);
  }
  EXPECT_EQ(markup.RecordCount(), records);
  EXPECT_TRUE(markup.CheckInvariants());
  EXPECT_EQ(Records(markup), Records(CMarkup(markup.GetDoc())));
}

TEST(MarkupEdges, RemovingARootOfTwoSegmentsReleasesEveryRecord) {
  CMarkup markup = WithChildren(66000);
  const std::uint32_t records = markup.RecordCount();
  ASSERT_TRUE(markup.RemoveElem());
  EXPECT_EQ(markup.GetDoc(), "");
  ASSERT_TRUE(markup.AddElem("r"));
  bool is_second_segment_used = false;
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(markup.AddChildElem("e"));
    is_second_segment_used = is_second_segment_used || markup.ChildPosition() > kSegmentRecords;
  }
  EXPECT_TRUE(is_second_segment_used);
  EXPECT_EQ(markup.RecordCount(), records);
  EXPECT_TRUE(markup.CheckInvariants());
}

TEST(MarkupEdges, StrNCmpComparesALengthAndIgnoresCaseOnRequest) {
  EXPECT_EQ(CMarkup::x_StrNCmp("abc", "abd", 2), 0);
  EXPECT_NE(CMarkup::x_StrNCmp("abc", "abd", 3), 0);
  EXPECT_NE(CMarkup::x_StrNCmp("abc", "ABC", 3), 0);
  EXPECT_EQ(CMarkup::x_StrNCmp("abc[`{@", "ABC[`{@", 7, true), 0);
  EXPECT_NE(CMarkup::x_StrNCmp("[", "{", 1, true), 0);        // they differ by 32, like "A" and "a"
  EXPECT_NE(CMarkup::x_StrNCmp("\xC4", "\xE4", 1, true), 0);  // only letters of the ASCII set count
  EXPECT_EQ(CMarkup::x_StrNCmp("a", "b", 0), 0);
}

TEST(MarkupEdges, EveryBase64DigitHasItsNumber) {
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (unsigned number = 0; number < 64; ++number) {
    const auto byte = static_cast<unsigned char>(number << 2U);
    const std::string coded = CMarkup::EncodeBase64(&byte, 1);
    EXPECT_EQ(coded, digits.substr(number, 1) + "A==");
    unsigned char decoded = 0;
    EXPECT_EQ(CMarkup::DecodeBase64(coded.c_str(), &decoded, 1), 1);
    EXPECT_EQ(decoded, byte);
  }
}

}  // namespace
