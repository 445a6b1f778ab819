// Aligns texts in columns.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qx::ctl {

using TableRow = std::vector<std::string>;

struct TableShape {
  std::size_t left = 1;  // how many columns, from the first on, are aligned left; the others are aligned right
  // Paints a cell that has its width already; without it, cells stay as they are.
  std::function<std::string(std::size_t row, std::size_t column, const std::string& cell)> paint = {};
};

// All rows have the same number of cells. The cells of a column are padded to the same width. The cells of the last
// column are neither padded nor painted, so they may be painted already. Lines have no blanks at their end.
[[nodiscard]] std::string TableText(const std::vector<TableRow>& rows, const TableShape& shape = {});

// The number of columns of a terminal that a text takes, if none of its characters is wide.
//   "größe" => 5
[[nodiscard]] std::size_t WidthOf(std::string_view text);

}  // namespace qx::ctl
