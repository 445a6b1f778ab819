// The syntax that readers and writers of profile files share: white space, section headers, comments and entries.
#pragma once

#include <optional>
#include <string_view>

namespace qx::inifile {

// White space in the ASCII sense, whatever the locale: a byte above 127 is always text.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

inline std::string_view WithoutTrailing(std::string_view text, std::string_view characters) noexcept {
  return text.substr(0, text.find_last_not_of(characters) + 1);
}

inline std::string_view WithoutLeadingWhiteSpace(std::string_view text) noexcept {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

inline bool IsHeader(std::string_view line) noexcept { return line.starts_with('['); }

// A header names a section when that name and "]" follow its "[" at once.
//   "[Sec] text", "Sec" => yes
//   "[ Sec]", "[sec]", "[Second]", "[Sec" with "Sec" => no
//   "[a]b]", "a]b" => yes
inline bool IsHeaderOf(std::string_view line, std::string_view section) noexcept {
  const std::string_view name = line.substr(line.empty() ? 0 : 1);
  return IsHeader(line) && name.starts_with(section) && name.substr(section.size()).starts_with(']');
}

// A ";" starts a comment wherever it is, in values too.
inline std::string_view WithoutComment(std::string_view line) noexcept {
  return WithoutTrailing(line.substr(0, line.find(';')), kWhiteSpace);
}

struct Entry {
  std::string_view key;
  std::string_view value;
};

// "key \t= a = b" => "key", "a = b"; nothing when there is no "=".
inline std::optional<Entry> ParseEntry(std::string_view line) noexcept {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return std::nullopt;
  return Entry{.key = WithoutTrailing(line.substr(0, equals), kWhiteSpace),
               .value = WithoutLeadingWhiteSpace(line.substr(equals + 1))};
}

// True for a line that is plainly not a header. After leading blanks and control characters, it may be one.
inline bool IsPlainText(std::string_view line) noexcept {
  return !line.empty() && static_cast<unsigned char>(line.front()) > ' ' && line.front() != '[';
}

}  // namespace qx::inifile
