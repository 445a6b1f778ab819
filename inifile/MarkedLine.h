// Searches for the next line that a reader needs, without a check of every line before it.
#pragma once

#include <cstddef>
#include <string_view>

namespace qx::inifile {

// The mark of the lines that a reader needs: this byte in this column, counted from 0.
struct LineMark {
  std::size_t column;
  char byte;
};

// `text` begins with the line feed of a line. Returns the number of bytes up to and including a later line feed. Every
// line between these two line feeds can be skipped: it has no mark, does not begin with "[", a blank or a control
// character, and is not longer than a line of the scanner. More such lines may follow; a result of 1 is always correct.
[[nodiscard]] std::size_t BytesToMarkedLine(std::string_view text, LineMark mark) noexcept;

}  // namespace qx::inifile
