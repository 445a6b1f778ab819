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
  std::string text;
  for (const TableRow& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      const std::string padding(widths[i] - WidthOf(row[i]), ' ');
      text += (i < shape.left ? row[i] + padding : padding + row[i]) + "  ";
    }
    text += row.back() + "\n";
  }
  return text;
}

}  // namespace qx::ctl
