#include "tools/qxctl/chart/PointChart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <vector>

#include "tools/qxctl/chart/ChartCells.h"
#include "tools/qxctl/chart/Scale.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr int kRows = 11;  // an odd number, so that the middle has a row
constexpr int kSteps = 4;

constexpr std::array<const char*, kChartLinesMax> kSigns = {"●", "○", "▲", "△", "■", "□"};
constexpr std::array<const char*, kChartLinesMax> kAsciiSigns = {"*", "o", "x", "+", "#", "@"};
constexpr std::array<Style, kChartLinesMax> kStyles = {Style::kLine1, Style::kLine2, Style::kLine3,
                                                       Style::kLine4, Style::kLine5, Style::kLine6};

constexpr std::size_t kNoLine = kChartLinesMax;

// The number of the line that is drawn in each cell.
using Grid = std::vector<std::vector<std::size_t>>;

int RowOf(double value, const Scale& scale) {
  return std::clamp(static_cast<int>(std::lround((1 - scale.Share(value)) * (kRows - 1))), 0, kRows - 1);
}

// Draws the highest and the lowest value of each column.
void DrawLine(const ChartLine& line, std::size_t number, const Columns& columns, const Scale& scale, Grid& grid) {
  struct Reach {
    int top = kRows;
    int bottom = -1;
  };
  std::vector<Reach> reaches(columns.Count());
  for (const ChartPoint& point : line.points) {
    Reach& reach = reaches[columns.Of(point.x)];
    reach.top = std::min(reach.top, RowOf(point.value, scale));
    reach.bottom = std::max(reach.bottom, RowOf(point.value, scale));
  }
  for (std::size_t column = 0; column < reaches.size(); ++column) {
    if (reaches[column].bottom < 0) continue;
    for (const int row : {reaches[column].top, reaches[column].bottom}) {
      std::size_t& cell = grid[static_cast<std::size_t>(row)][column];
      cell = std::min(cell, number);
    }
  }
}

class Drawing {
 public:
  Drawing(const ChartData& data, const ChartShape& shape, const Output& output)
      : data_(data), shape_(shape), output_(output), scale_(ScaleOf(data.Values(), kSteps)) {
    if (scale_.low < 0 && scale_.high > 0) zero_row_ = RowOf(0, scale_);
  }

  std::string Text() {
    std::size_t width = 1;
    for (int row = 0; row < kRows; ++row) width = std::max(width, LabelOf(row).size());
    const Columns columns(data_, ColumnsForCells(width, shape_));
    Grid grid(kRows, std::vector<std::size_t>(columns.Count(), kNoLine));
    for (std::size_t i = 0; i < data_.lines.size(); ++i) DrawLine(data_.lines[i], i, columns, scale_, grid);
    std::vector<ChartRow> rows;
    for (int row = 0; row < kRows; ++row) {
      const bool is_zero = row == zero_row_;
      rows.push_back({LabelOf(row), RowText(grid[static_cast<std::size_t>(row)], is_zero), is_zero});
    }
    return Legend() + ChartText(rows, "", data_, columns, shape_);
  }

 private:
  [[nodiscard]] std::string SignOf(std::size_t line) const {
    return output_.Paint(kStyles[line], shape_.unicode ? kSigns[line] : kAsciiSigns[line]);
  }

  [[nodiscard]] std::string Legend() const {
    std::string text;
    for (std::size_t i = 0; i < data_.lines.size(); ++i) {
      text += SignOf(i) + " " + Visible(LegendOf(data_.lines[i])) + "\n";
    }
    return text;
  }

  [[nodiscard]] std::string LabelOf(int row) const {
    if (row == zero_row_) return "0";
    if (row == 0) return AxisNumber(scale_.high);
    if (row == kRows - 1) return AxisNumber(scale_.low);
    const bool is_middle = row == kRows / 2 && zero_row_ < 0;
    return is_middle ? AxisNumber(scale_.low / 2 + scale_.high / 2) : std::string();
  }

  [[nodiscard]] std::string RowText(const std::vector<std::size_t>& cells, bool is_zero) const {
    const char* const between = !is_zero ? " " : shape_.unicode ? "─" : "-";
    std::string text;
    std::string blanks;  // not yet added, because a row does not end with blanks
    for (const std::size_t cell : cells) {
      const std::string sign = cell != kNoLine ? SignOf(cell) : between;
      if (sign == " ") {
        blanks += sign;
      } else {
        text += std::exchange(blanks, "") + sign;
      }
    }
    return text;
  }

  const ChartData& data_;
  const ChartShape& shape_;
  const Output& output_;
  const Scale scale_;
  int zero_row_ = -1;
};

}  // namespace

std::string PointChart(const ChartData& data, const ChartShape& shape, const Output& output) {
  return Drawing(data, shape, output).Text();
}

}  // namespace qx::ctl
