#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "markup/Markup.h"
#include "markup/TextEncoding.h"

namespace {

TEST(TextEncoding, TextIsConvertedBetweenEncodings) {
  TextEncoding to_utf8("UTF-8", "ISO-8859-1");
  ASSERT_TRUE(to_utf8.IsOpen());
  EXPECT_EQ(to_utf8.Convert("gr\xFC\xDF"), "gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(to_utf8.FailedChars(), 0);
  TextEncoding wide("UTF-16LE", "UTF-8");
  EXPECT_EQ(wide.Convert("a\xC3\xA4"), std::string("a\0\xE4\0", 4));
  TextEncoding big("UTF-16BE", "UTF-8");
  EXPECT_EQ(big.Convert("a"), std::string("\0a", 2));
  TextEncoding from_wide("UTF-8", "UTF-32LE");
  EXPECT_EQ(from_wide.Convert(std::string_view("a\0\0\0", 4)), "a");
}

// "<ESC>$B" switches to another set of characters, and the first text ends without switching back.
TEST(TextEncoding, EachTextStartsInTheInitialStateOfItsEncoding) {
  TextEncoding conversion("UTF-8", "ISO-2022-JP");
  ASSERT_TRUE(conversion.IsOpen());
  EXPECT_EQ(conversion.Convert("\x1B$B$\""), "\xE3\x81\x82");
  EXPECT_EQ(conversion.Convert("AB"), "AB");
}

TEST(TextEncoding, CharacterThatTheTargetLacksIsCountedAndReplaced) {
  TextEncoding conversion("ISO-8859-1", "UTF-8");
  EXPECT_EQ(conversion.Convert("a\xE2\x82\xAC\xF0\x9F\x98\x80z\xC3\xA4"), "a??z\xE4");
  EXPECT_EQ(conversion.FailedChars(), 2);
  EXPECT_EQ(conversion.Convert("ok"), "ok");
  EXPECT_EQ(conversion.FailedChars(), 0);
}

TEST(TextEncoding, InvalidInputIsSkippedUnitByUnit) {
  TextEncoding narrow("ISO-8859-1", "UTF-8");
  EXPECT_EQ(narrow.Convert("a\xFF\xFE z\xC3"), "a?? z?");
  EXPECT_EQ(narrow.FailedChars(), 3);
  TextEncoding wide("UTF-8", "UTF-16LE");
  EXPECT_EQ(wide.Convert(std::string_view("\x00\xDC"
                                          "a\0b",
                                          5)),
            "?a?");
  EXPECT_EQ(wide.FailedChars(), 2);
  TextEncoding widening("UTF-16LE", "UTF-8");
  EXPECT_EQ(widening.Convert("\xFF"), std::string("?\0", 2));
}

TEST(TextEncoding, LongTextIsConvertedWhole) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    text += "\xE4";
    expected += "\xC3\xA4";
  }
  EXPECT_EQ(TextEncoding("UTF-8", "ISO-8859-1").Convert(text), expected);
}

TEST(TextEncoding, UnknownEncodingConvertsNothing) {
  TextEncoding conversion("no-such-encoding", "UTF-8");
  EXPECT_FALSE(conversion.IsOpen());
  EXPECT_EQ(conversion.Convert("a"), "");
}

TEST(TextEncoding, UnitSizeFollowsFromTheName) {
  EXPECT_EQ(TextEncoding::UnitBytes("UTF-8"), 1U);
  EXPECT_EQ(TextEncoding::UnitBytes("utf-16"), 2U);
  EXPECT_EQ(TextEncoding::UnitBytes("UTF-16LE"), 2U);
  EXPECT_EQ(TextEncoding::UnitBytes("UTF-16BE"), 2U);
  EXPECT_EQ(TextEncoding::UnitBytes("UTF-32"), 4U);
  EXPECT_EQ(TextEncoding::UnitBytes("ISO-8859-1"), 1U);
}

TEST(TextEncoding, LocalCodePageIsThatOfTheLocale) {
  const std::string before = std::setlocale(LC_CTYPE, nullptr);
  std::setlocale(LC_CTYPE, "C");
  int lost = -1;
  EXPECT_EQ(CMarkup::UTF8ToA("a\xC3\xA4", &lost), "a?");
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(CMarkup::AToUTF8("a\xE4", &lost), "a?");
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(CMarkup::UTF8ToA(nullptr, &lost), "");
  EXPECT_EQ(lost, 0);
  if (std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {
    EXPECT_EQ(CMarkup::UTF8ToA("a\xC3\xA4"), "a\xC3\xA4");
    EXPECT_EQ(CMarkup::AToUTF8("a\xC3\xA4"), "a\xC3\xA4");
  }
  std::setlocale(LC_CTYPE, before.c_str());
}

}  // namespace
