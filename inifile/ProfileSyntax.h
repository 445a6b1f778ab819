// What reader and writer of profile files agree on: white space and section headers.
#pragma once

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

}  // namespace qx::inifile
