// The search for the next line that may matter, without looking at those between one by one.
#pragma once

#include <cstddef>
#include <string_view>

namespace qx::inifile {

// What a line has to show to matter: this byte in this column, counted from 0.
struct LineMark {
  std::size_t column;
  char byte;
};

// `text` begins with the line feed of some line. The bytes up to a line feed, itself included, so that every line
// between the two is plain text without the mark: it begins neither with "[" nor with a blank or control character, and
// is no longer than the scanner's lines are. More such lines may follow; the answer 1 is always right.
[[nodiscard]] std::size_t BytesToMarkedLine(std::string_view text, LineMark mark) noexcept;

}  // namespace qx::inifile
