#include "tools/qxctl/chart/BarChart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "tools/qxctl/chart/ChartCells.h"
#include "tools/qxctl/chart/Scale.h"

namespace qx::ctl {

namespace {

constexpr int kRows = 10;
constexpr int kEighths = 8;
constexpr int kSteps = 4;
constexpr int kStepRowsMin = 2;

using Cells = std::array<const char*, kEighths + 1>;
constexpr Cells kUpward = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr Cells kUpwardAscii = {" ", ".", ".", ".", ":", ":", ":", ":", "#"};
constexpr Cells kDownward = {" ", "▔", "▔", "▔", "▀", "▀", "▀", "▀", "█"};
constexpr Cells kDownwardAscii = {" ", "'", "'", "'", "\"", "\"", "\"", "\"", "#"};

// The lowest and the highest value of one column.
struct Bar {
  bool has_value = false;
  double low = 0;
  double high = 0;
};

std::vector<Bar> BarsOf(const ChartLine& line, const Columns& columns) {
  std::vector<Bar> bars(columns.Count());
  for (const ChartPoint& point : line.points) {
    Bar& bar = bars[columns.Of(point.x)];
    bar.low = bar.has_value ? std::min(bar.low, point.value) : point.value;
    bar.high = bar.has_value ? std::max(bar.high, point.value) : point.value;
    bar.has_value = true;
  }
  return bars;
}

// The number of rows above and below the line at zero; without this line, the number above the lower end of the axis.
// If there are values on both sides, a step of the axis has the same number of rows on both sides.
struct Rows {
  int up = kRows;
  int down = 0;
};

Rows RowsFor(const Scale& scale) {
  if (scale.low >= 0 || scale.high < 0) return {kRows, 0};
  if (scale.high <= 0) return {0, kRows};
  const int steps_up = std::max(1, static_cast<int>(std::lround(scale.high / scale.step)));
  const int steps_down = std::max(1, static_cast<int>(std::lround(-scale.low / scale.step)));
  const int step_rows = std::max(kStepRowsMin, (kRows + (steps_up + steps_down) / 2) / (steps_up + steps_down));
  return {steps_up * step_rows, steps_down * step_rows};
}

int Eighths(double share, int rows, int least) {
  return std::clamp(static_cast<int>(std::lround(share * rows * kEighths)), least, rows * kEighths);
}

class Drawing {
 public:
  Drawing(const ChartData& data, const ChartShape& shape, const Output& output)
      : data_(data), shape_(shape), output_(output), scale_(ScaleOf(data.Values(), kSteps)), rows_(RowsFor(scale_)) {}

  std::string Text() {
    const std::string low = AxisNumber(scale_.low);
    const std::size_t width = std::max({low.size(), AxisNumber(scale_.high).size(), MiddleLabel().size()});
    const Columns columns(data_, ColumnsForCells(width, shape_));
    bars_ = BarsOf(data_.lines.front(), columns);
    std::vector<ChartRow> rows;
    rows.reserve(static_cast<std::size_t>(rows_.up) + 1 + static_cast<std::size_t>(rows_.down));
    for (int row = 0; row < rows_.up; ++row) rows.push_back({LabelOf(row), RowAbove(row)});
    if (rows_.down > 0) rows.push_back({"0", ZeroLine(), true});
    for (int row = 0; row < rows_.down; ++row) rows.push_back({"", RowBelow(row)});
    return ChartText(rows, low, data_, columns, shape_);
  }

 private:
  [[nodiscard]] std::string MiddleLabel() const {
    return rows_.down == 0 ? AxisNumber(scale_.low / 2 + scale_.high / 2) : std::string();
  }

  [[nodiscard]] std::string LabelOf(int row) const {
    if (row == 0) return AxisNumber(scale_.high);
    return row == kRows / 2 ? MiddleLabel() : std::string();
  }

  [[nodiscard]] std::string ZeroLine() const {
    std::string line;
    for (std::size_t i = 0; i < bars_.size(); ++i) line += shape_.unicode ? "─" : "-";
    return line;
  }

  // If there is no line at zero, even the lowest value has a visible bar.
  [[nodiscard]] int HeightOf(const Bar& bar) const {
    if (!bar.has_value) return 0;
    if (rows_.down == 0) return Eighths(scale_.Share(bar.high), rows_.up, 1);
    return bar.high > 0 ? Eighths(bar.high / scale_.high, rows_.up, 1) : 0;
  }

  [[nodiscard]] int DepthOf(const Bar& bar) const {
    return bar.has_value && bar.low < 0 ? Eighths(bar.low / scale_.low, rows_.down, 1) : 0;
  }

  // Row 0 is at the top.
  [[nodiscard]] std::string RowAbove(int row) const {
    const Cells& cells = shape_.unicode ? kUpward : kUpwardAscii;
    std::string text;
    for (const Bar& bar : bars_) text += CellOf(cells, HeightOf(bar) - (rows_.up - 1 - row) * kEighths);
    return Painted(text);
  }

  // Row 0 is directly below the line at zero.
  [[nodiscard]] std::string RowBelow(int row) const {
    const Cells& cells = shape_.unicode ? kDownward : kDownwardAscii;
    std::string text;
    for (const Bar& bar : bars_) text += CellOf(cells, DepthOf(bar) - row * kEighths);
    return Painted(text);
  }

  // The cells in the colour of the bars, without the blanks at their end.
  [[nodiscard]] std::string Painted(const std::string& cells) const {
    return output_.Paint(Style::kLine1, cells.substr(0, cells.find_last_not_of(' ') + 1));
  }

  static const char* CellOf(const Cells& cells, int eighths) {
    return cells[static_cast<std::size_t>(std::clamp(eighths, 0, kEighths))];
  }

  const ChartData& data_;
  const ChartShape& shape_;
  const Output& output_;
  const Scale scale_;
  const Rows rows_;
  std::vector<Bar> bars_;
};

}  // namespace

std::string BarChart(const ChartData& data, const ChartShape& shape, const Output& output) {
  return Drawing(data, shape, output).Text();
}

}  // namespace qx::ctl
