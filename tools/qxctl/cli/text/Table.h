// Columns of text for people.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qx::ctl {

using TableRow = std::vector<std::string>;

struct TableShape {
  std::size_t left = 1;  // that many columns begin at the left, those after them end at the right
};

// Rows of one size, with columns of equal width. The last column is as it is, so it may be painted.
[[nodiscard]] std::string TableText(const std::vector<TableRow>& rows, const TableShape& shape = {});

// How many columns of a terminal a text takes, if none of its characters is wide.
//   "größe" => 5
[[nodiscard]] std::size_t WidthOf(std::string_view text);

}  // namespace qx::ctl
