#include "provider/QXString.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <type_traits>

namespace {

using Text = CQXString<std::string, char>;

static_assert(std::is_base_of_v<std::string, Text>);
static_assert(std::is_same_v<CQXString<>, Text>);

std::string FormattedV(const char* format, ...) {
  std::string text = "before";
  va_list args;
  va_start(args, format);
  Text::FormatV(text, format, args);
  va_end(args);
  return text;
}

std::string AppendedV(const char* format, ...) {
  std::string text = "before ";
  va_list args;
  va_start(args, format);
  Text::AppendFormatV(text, format, args);
  va_end(args);
  return text;
}

TEST(QXString, FormatSetsTheStringToTheFormattedText) {
  Text text("old");
  text.Format("%s=%d", "size", 12);
  EXPECT_EQ(text, "size=12");
}

TEST(QXString, AppendFormatAddsAtTheEnd) {
  Text text("a");
  text.AppendFormat("%c%02X", 'b', 10U);
  EXPECT_EQ(text, "ab0A");
}

TEST(QXString, BothReturnTheObjectItself) {
  Text text;
  EXPECT_EQ(&text.Format("%d", 1), &text);
  EXPECT_EQ(&text.AppendFormat("%d", 2), &text);
  EXPECT_EQ(text.Format("%s", "x").AppendFormat("%s", "y").AppendFormat("%s", "z"), "xyz");
}

TEST(QXString, LengthIsExactAtEverySize) {
  for (const std::size_t size : {0UL, 1UL, 14UL, 15UL, 16UL, 17UL, 255UL, 256UL, 1023UL, 1024UL, 4096UL, 300000UL}) {
    const std::string part(size, 'q');
    Text text;
    text.Format("%s", part.c_str());
    ASSERT_EQ(text.size(), size);
    ASSERT_EQ(text, part);
    text.AppendFormat("<%s>", part.c_str());
    ASSERT_EQ(text, part + "<" + part + ">");
  }
}

TEST(QXString, ArgumentMayBeTheStringItself) {
  Text text(std::string(100, 'x'));
  text.Format("[%s]", text.c_str());
  EXPECT_EQ(text, "[" + std::string(100, 'x') + "]");
}

TEST(QXString, AppendedArgumentsMayBeTheStringItself) {
  Text text("0123456789abcdef");
  text.shrink_to_fit();
  text.AppendFormat("%s|%s", text.c_str(), text.c_str());
  EXPECT_EQ(text, "0123456789abcdef0123456789abcdef|0123456789abcdef");
}

TEST(QXString, FormatMayBeTheStringItself) {
  Text text("100%% sure");
  const char* format = text.c_str();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  text.Format(format);
#pragma GCC diagnostic pop
  EXPECT_EQ(text, "100% sure");
}

// In the C locale the character has no encoding, so vsnprintf fails with -1.
TEST(QXString, TextThatCannotBeFormattedCountsAsEmpty) {
  Text text("old");
  text.Format("a%ls", L"\x100");
  EXPECT_EQ(text, "");
  text = Text("kept");
  text.AppendFormat("a%ls", L"\x100");
  EXPECT_EQ(text, "kept");
}

TEST(QXString, NullFormatCountsAsEmpty) {
  const char* volatile none = nullptr;
  Text text("old");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  text.AppendFormat(none);
  EXPECT_EQ(text, "old");
  text.Format(none);
#pragma GCC diagnostic pop
  EXPECT_EQ(text, "");
}

TEST(QXString, CharacterArgumentOfZeroIsKept) {
  Text text;
  text.Format("a%cb", 0);
  EXPECT_EQ(text, std::string("a\0b", 3));
}

TEST(QXString, ListFormsWorkOnAnyString) {
  EXPECT_EQ(FormattedV("%d %s %.2f", 1, "two", 3.0), "1 two 3.00");
  EXPECT_EQ(AppendedV("%d %s %.2f", 1, "two", 3.0), "before 1 two 3.00");
}

TEST(QXString, ConstructorsAcceptStringsAndLiterals) {
  const std::string plain = "p";
  EXPECT_EQ(Text(plain), "p");
  EXPECT_EQ(Text(std::string("q")), "q");
  EXPECT_EQ(Text("r"), "r");
  EXPECT_EQ(Text(3, 's'), "sss");
  EXPECT_EQ(Text(), "");
}

}  // namespace
