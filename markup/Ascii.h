// Defines the character classes of markup text, in a fixed table of single bytes. The table ignores the process's
// locale, because names and white space must be the same in every host that loads the library.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace qx::markup {

enum CharClass : std::uint8_t {
  kWhite = 1,      // tab, line feed, carriage return, space
  kNameEnd = 2,    // white space, "/", ">", "<" and both quotes end a tag name
  kNameStart = 4,  // a letter, "_", ":" or a byte above 127
  kDigit = 8,
  kHexDigit = 16,
  kRefName = 32,     // allowed in "&name;" after the first character
  kStoredEnd = 64,   // NUL, space, "/", "=", "[" and "]": a stored name matches up to one of these
  kAttribEnd = 128,  // the bytes that end a tag name, and "=": these end an attribute's name
};

namespace detail {

consteval bool IsIn(std::string_view set, char c) { return set.find(c) != std::string_view::npos; }

consteval std::uint8_t ClassOf(unsigned byte) {
  const char c = static_cast<char>(byte);
  const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  const bool digit = c >= '0' && c <= '9';
  const bool name_start = letter || c == '_' || c == ':' || byte > 127;
  unsigned bits = 0;
  if (IsIn("\t\n\r ", c)) bits |= kWhite | kNameEnd;
  if (IsIn("/><\"'", c)) bits |= kNameEnd;
  if ((bits & kNameEnd) != 0 || c == '=') bits |= kAttribEnd;
  if (name_start) bits |= kNameStart;
  if (digit) bits |= kDigit;
  if (digit || IsIn("abcdefABCDEF", c)) bits |= kHexDigit;
  if (name_start || digit || IsIn("-.", c)) bits |= kRefName;
  if (IsIn(std::string_view("\0 /=[]", 6), c)) bits |= kStoredEnd;
  return static_cast<std::uint8_t>(bits);
}

consteval std::array<std::uint8_t, 256> MakeClassTable() {
  std::array<std::uint8_t, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) table[byte] = ClassOf(byte);
  return table;
}

inline constexpr std::array<std::uint8_t, 256> kClassTable = MakeClassTable();

}  // namespace detail

constexpr bool IsClass(char c, CharClass requested) {
  return (detail::kClassTable[static_cast<unsigned char>(c)] & requested) != 0;
}

constexpr char ToLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

// 0x20..0x7E
constexpr bool IsPrintable(char c) { return c >= ' ' && c <= '~'; }

}  // namespace qx::markup
