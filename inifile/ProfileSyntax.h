// Parses the lines of profile files, for readers and writers: white space, section headers, comments and entries.
#pragma once

#include <optional>
#include <string_view>

namespace qx::inifile {

// ASCII white space, whatever the locale: a byte above 127 is always text.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

inline std::string_view WithoutTrailing(std::string_view text, std::string_view characters) noexcept {
  return text.substr(0, text.find_last_not_of(characters) + 1);
}

inline std::string_view WithoutLeadingWhiteSpace(std::string_view text) noexcept {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

inline bool IsHeader(std::string_view line) noexcept { return line.starts_with('['); }

// True if the line is the header of the section: the name and "]" follow directly after "[".
//   "[Sec] text", "Sec" => yes
//   "[ Sec]", "[sec]", "[Second]", "[Sec" with "Sec" => no
//   "[a]b]", "a]b" => yes
inline bool IsHeaderOf(std::string_view line, std::string_view section) noexcept {
  const std::string_view name = line.substr(line.empty() ? 0 : 1);
  return IsHeader(line) && name.starts_with(section) && name.substr(section.size()).starts_with(']');
}

// The line without its comment. A ";" begins a comment anywhere, even in a value.
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

// True for a line that certainly is not a header: it begins neither with "[" nor with a blank or control character,
// after which a header may follow.
inline bool IsPlainText(std::string_view line) noexcept {
  return !line.empty() && static_cast<unsigned char>(line.front()) > ' ' && line.front() != '[';
}

}  // namespace qx::inifile
