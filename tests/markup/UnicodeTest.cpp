#include <gtest/gtest.h>

#include <string>

#include "markup/Markup.h"

namespace {

std::string Utf8(int code) {
  char bytes[4];
  int length = 0;
  CMarkup::EncodeCharUTF8(code, bytes, length);
  return {bytes, static_cast<std::size_t>(length)};
}

TEST(Utf8, CharactersAreEncodedAndDecoded) {
  for (int code = 0; code <= 0x10FFFF; code += code % 0x1000 < 0xFF0 && code > 0x3000 ? 5 : 1) {
    if (code >= 0xD800 && code <= 0xDFFF) continue;
    const std::string bytes = Utf8(code);
    ASSERT_EQ(bytes.size(), code < 0x80 ? 1U : code < 0x800 ? 2U : code < 0x10000 ? 3U : 4U);
    const char* p = bytes.data();
    ASSERT_EQ(CMarkup::DecodeCharUTF8(p, bytes.data() + bytes.size()), code);
    ASSERT_EQ(p, bytes.data() + bytes.size());
  }
  EXPECT_EQ(Utf8(0xE4), "\xC3\xA4");
  EXPECT_EQ(Utf8(0x20AC), "\xE2\x82\xAC");
  EXPECT_EQ(Utf8(0x1F600), "\xF0\x9F\x98\x80");
}

TEST(Utf8, EncodedBytesAreAppendedAndTheLengthIsRaised) {
  char bytes[8] = {};
  int length = 0;
  CMarkup::EncodeCharUTF8('a', bytes, length);
  CMarkup::EncodeCharUTF8(0xE4, bytes, length);
  EXPECT_EQ(length, 3);
  EXPECT_STREQ(bytes, "a\xC3\xA4");
  CMarkup::EncodeCharUTF8(0x1F600, nullptr, length);
  EXPECT_EQ(length, 7);
}

TEST(Utf8, CodeThatIsNotACharacterIsWrittenAsTheReplacement) {
  for (const int code : {-1, 0xD800, 0xDFFF, 0x110000, 0x7FFFFFFF}) EXPECT_EQ(Utf8(code), "\xEF\xBF\xBD");
}

TEST(Utf8, InvalidBytesAreSkippedOneByOne) {
  struct Row {
    const char* bytes;
    std::size_t size;
    const char* why;
  };
  const Row rows[] = {
      {"\x80", 1, "a continuation alone"},
      {"\xBF\x80", 2, "two continuations"},
      {"\xC0\x80", 2, "an overlong NUL"},
      {"\xC1\xBF", 2, "an overlong character"},
      {"\xE0\x9F\xBF", 3, "an overlong character of three bytes"},
      {"\xF0\x8F\xBF\xBF", 4, "an overlong character of four bytes"},
      {"\xED\xA0\x80", 3, "the first surrogate"},
      {"\xED\xBF\xBF", 3, "the last surrogate"},
      {"\xF4\x90\x80\x80", 4, "U+110000"},
      {"\xF5\x80\x80\x80", 4, "a lead byte of no character"},
      {"\xF8\x88\x80\x80\x80", 5, "five bytes"},
      {"\xFE", 1, "FE"},
      {"\xFF", 1, "FF"},
      {"\xC3", 1, "a lead byte alone"},
      {"\xE2\x82", 2, "two of three bytes"},
      {"\xF0\x9F\x98", 3, "three of four bytes"},
      {"\xC3(", 1, "a lead byte before ASCII"},
  };
  for (const Row& row : rows) {
    const char* p = row.bytes;
    EXPECT_EQ(CMarkup::DecodeCharUTF8(p, row.bytes + row.size), -1) << row.why;
    EXPECT_EQ(p, row.bytes + 1) << row.why;
    EXPECT_FALSE(CMarkup::DetectUTF8(row.bytes, static_cast<int>(row.size))) << row.why;
    const std::u16string wide = CMarkup::UTF8To16(std::string_view(row.bytes, row.size));
    EXPECT_EQ(wide.front(), 0xFFFD) << row.why;
  }
}

TEST(Utf8, DecodingStopsAtTheEndAndAtANul) {
  const char* text = "";
  const char* p = text;
  EXPECT_EQ(CMarkup::DecodeCharUTF8(p, nullptr), -1);
  EXPECT_EQ(p, text);
  EXPECT_EQ(CMarkup::DecodeCharUTF8(p, p), -1);
  p = "\xE4";  // the NUL after it is not a continuation byte
  EXPECT_EQ(CMarkup::DecodeCharUTF8(p), -1);
  EXPECT_EQ(*p, '\0');
  p = nullptr;
  EXPECT_EQ(CMarkup::DecodeCharUTF8(p), -1);
}

TEST(Utf16, CharactersAreEncodedAndDecoded) {
  for (int code = 1; code <= 0x10FFFF; code += code % 0x1000 < 0xFF0 && code > 0x3000 ? 5 : 1) {
    if (code >= 0xD800 && code <= 0xDFFF) continue;
    char16_t units[3] = {};
    int length = 0;
    CMarkup::EncodeCharUTF16(code, units, length);
    ASSERT_EQ(length, code > 0xFFFF ? 2 : 1);
    const char16_t* p = units;
    ASSERT_EQ(CMarkup::DecodeCharUTF16(p, units + length), code);
    ASSERT_EQ(p, units + length);
    p = units;
    ASSERT_EQ(CMarkup::DecodeCharUTF16(p), code);
  }
}

TEST(Utf16, LoneSurrogatesAreInvalid) {
  for (const std::u16string& text : {std::u16string{0xD800}, std::u16string{0xDC00}, std::u16string{0xD800, u'a'},
                                     std::u16string{0xD800, 0xD800}, std::u16string{0xDC00, 0xD800}}) {
    const char16_t* p = text.data();
    EXPECT_EQ(CMarkup::DecodeCharUTF16(p, text.data() + text.size()), -1);
    EXPECT_EQ(p, text.data() + 1);
    EXPECT_EQ(CMarkup::UTF16To8(text).substr(0, 3), "\xEF\xBF\xBD");
  }
  const char16_t* p = nullptr;
  EXPECT_EQ(CMarkup::DecodeCharUTF16(p), -1);
  const char16_t* empty = u"";
  EXPECT_EQ(CMarkup::DecodeCharUTF16(empty), -1);
}

TEST(Utf16, WholeTextsAreConvertedBothWays) {
  const std::string text("a\0\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", 11);
  const std::u16string wide{u'a', 0, 0xE4, 0x20AC, 0xD83D, 0xDE00};
  EXPECT_EQ(CMarkup::UTF8To16(text), wide);
  EXPECT_EQ(CMarkup::UTF16To8(wide), text);
  EXPECT_EQ(CMarkup::UTF8To16(""), u"");
}

TEST(DetectUtf8, CountsNonAsciiCharactersAndReportsACutOffEnd) {
  int count = -1;
  bool cut = true;
  EXPECT_TRUE(CMarkup::DetectUTF8("plain", 5, &count, &cut));
  EXPECT_EQ(count, 0);
  EXPECT_FALSE(cut);
  EXPECT_TRUE(CMarkup::DetectUTF8("\xC3\xA4x\xE2\x82\xAC", 6, &count, &cut));
  EXPECT_EQ(count, 2);
  EXPECT_FALSE(cut);
  EXPECT_TRUE(CMarkup::DetectUTF8("\xC3\xA4x\xE2\x82", 5, &count, &cut));
  EXPECT_EQ(count, 1);
  EXPECT_TRUE(cut);
  EXPECT_FALSE(CMarkup::DetectUTF8("\xC3\xA4x\xE2\x82", 5));
  EXPECT_FALSE(CMarkup::DetectUTF8("\xC3\xA4x\xE2(", 5, &count, &cut));
  EXPECT_EQ(count, 1);
  EXPECT_FALSE(cut);
  EXPECT_FALSE(CMarkup::DetectUTF8("\xE0\x80", 2, &count, &cut));
  EXPECT_FALSE(cut);
  EXPECT_TRUE(CMarkup::DetectUTF8(nullptr, 0));
  EXPECT_TRUE(CMarkup::DetectUTF8("", -1));
}

}  // namespace
