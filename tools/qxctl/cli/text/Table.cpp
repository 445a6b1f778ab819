#include "tools/qxctl/cli/text/Table.h"

#include <algorithm>

namespace qx::ctl {

std::size_t WidthOf(std::string_view text) {
  const auto begins_character = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

std::string TableText(const std::vector<TableRow>& rows, const TableShape& shape) {
  if (rows.empty()) return "";
  std::vector<std::size_t> widths(rows.front().size());
  for (const TableRow& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], WidthOf(row[i]));
  }
  const auto painted = [&](std::size_t row, std::size_t column, const std::string& cell) {
    return shape.paint ? shape.paint(row, column, cell) : cell;
  };
  std::string text;
  for (std::size_t row = 0; row < rows.size(); ++row) {
    const std::size_t last = rows[row].size() - 1;
    for (std::size_t i = 0; i < last; ++i) {
      const std::string& cell = rows[row][i];
      const std::string padding(widths[i] - WidthOf(cell), ' ');
      text += painted(row, i, i < shape.left ? cell + padding : padding + cell) + "  ";
    }
    text += rows[row][last];
    text.erase(text.find_last_not_of(' ') + 1);
    text += "\n";
  }
  return text;
}

}  // namespace qx::ctl
