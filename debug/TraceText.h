// Small functions on texts for the trace facility. They change only ASCII letters, and end each field of fixed size
// with NUL.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace qx::debug {

constexpr char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char UpperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

constexpr bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
}

// The format without the line feeds at its beginning, because the header of an entry begins the line. A format of line
// feeds only is unchanged.
//   "\n\nabc" => "abc"
//   "\n"      => "\n"
constexpr const char* WithoutLeadingLineFeeds(const char* format) {
  const char* text = format;
  while (*text == '\n') ++text;
  return *text != '\0' ? text : format;
}

// "\nwww mmm dd\n" => "www mmm dd"
inline std::string_view WithoutLineFeeds(std::string_view text) {
  while (text.starts_with('\n')) text.remove_prefix(1);
  while (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

// Copies as much of `text` as fits into `field` and ends it with NUL.
template <std::size_t kSize>
void CopyText(char (&field)[kSize], std::string_view text) {
  const std::size_t length = std::min(text.size(), kSize - 1);
  if (length > 0) std::memcpy(field, text.data(), length);
  field[length] = '\0';
}

}  // namespace qx::debug
