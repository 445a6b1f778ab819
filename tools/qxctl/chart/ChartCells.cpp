#include "tools/qxctl/chart/ChartCells.h"

#include <algorithm>

#include "tools/qxctl/chart/TimeAxis.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kAxisChars = 2;  // a blank and the line

std::string PadLeft(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// The median of the distances between neighbours that are not equal; 1 without such neighbours.
double UsualDistance(const ChartData& data) {
  std::vector<std::int64_t> xs;
  for (const ChartLine& line : data.lines) {
    for (const ChartPoint& point : line.points) xs.push_back(point.x);
  }
  std::sort(xs.begin(), xs.end());
  xs.erase(std::unique(xs.begin(), xs.end()), xs.end());
  std::vector<std::int64_t> distances;
  for (std::size_t i = 1; i < xs.size(); ++i) distances.push_back(xs[i] - xs[i - 1]);
  if (distances.empty()) return 1;
  const auto middle = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2);
  std::nth_element(distances.begin(), middle, distances.end());
  return static_cast<double>(*middle);
}

// A line of blanks into which texts are written.
class LabelLine {
 public:
  // Writes the text at column `at`. False, and nothing is written, if it would touch another text.
  bool Write(std::size_t at, const std::string& text) {
    if (at < end_) return false;
    line_.resize(at, ' ');
    line_ += text;
    end_ = line_.size() + 1;
    return true;
  }
  [[nodiscard]] const std::string& Text() const { return line_; }

 private:
  std::string line_;
  std::size_t end_ = 0;
};

// "0          119": the numbers of the first and the last record.
std::string RecordLabels(const ChartData& data, const Columns& columns) {
  LabelLine labels;
  (void)labels.Write(0, std::to_string(data.First()));
  const std::string last = std::to_string(data.Last());
  if (columns.Count() > last.size()) (void)labels.Write(columns.Count() - last.size(), last);
  return labels.Text();
}

struct BottomAxis {
  std::vector<std::size_t> ticks;  // columns
  std::vector<std::string> lines;  // below the axis
};

BottomAxis AxisOf(const ChartData& data, const Columns& columns, std::size_t columns_max) {
  if (!data.has_times) return {{}, {RecordLabels(data, columns)}};
  BottomAxis axis;
  LabelLine labels;
  for (const TimeTick& tick : TimeTicks(data.First(), data.Last(), columns.Count(), data.time)) {
    const std::size_t at = columns.Of(tick.time_ms);
    const bool fits = at + tick.label.size() <= columns_max;
    if (fits && labels.Write(at, tick.label)) axis.ticks.push_back(at);
  }
  if (!labels.Text().empty()) axis.lines.push_back(labels.Text());
  axis.lines.push_back(TimeRangeText(data.First(), data.Last(), data.time));
  return axis;
}

// "----+-----"
std::string LineWithTicks(std::size_t width, const std::vector<std::size_t>& ticks, bool unicode) {
  std::string line;
  for (std::size_t i = 0; i < width; ++i) {
    const bool is_tick = std::find(ticks.begin(), ticks.end(), i) != ticks.end();
    if (unicode) {
      line += is_tick ? "┬" : "─";
    } else {
      line += is_tick ? "+" : "-";
    }
  }
  return line;
}

}  // namespace

Columns::Columns(const ChartData& data, std::size_t columns_max)
    : first_(data.First()),
      distance_(UsualDistance(data)),
      range_(static_cast<double>(data.Last() - data.First()) + distance_),
      count_(static_cast<std::size_t>(std::min(range_ / distance_ + 0.5, static_cast<double>(columns_max)))) {}

std::size_t Columns::Of(std::int64_t x) const {
  const double share = (static_cast<double>(x - first_) + distance_ / 2) / range_;
  return std::min(count_ - 1, static_cast<std::size_t>(share * static_cast<double>(count_)));
}

std::size_t ColumnsForCells(std::size_t label_width, const ChartShape& shape) {
  return shape.columns - std::min(shape.columns - 1, label_width + kAxisChars);
}

std::string ChartText(const std::vector<ChartRow>& rows, const std::string& low_label, const ChartData& data,
                      const Columns& columns, const ChartShape& shape) {
  std::size_t width = low_label.size();
  for (const ChartRow& row : rows) width = std::max(width, row.label.size());
  const BottomAxis axis = AxisOf(data, columns, ColumnsForCells(width, shape));
  std::string text;
  for (const ChartRow& row : rows) {
    const char* const unicode_line = row.is_zero ? " ┼" : " │";
    const char* const ascii_line = row.is_zero ? " +" : " |";
    text += PadLeft(row.label, width) + (shape.unicode ? unicode_line : ascii_line) + row.cells + "\n";
  }
  text += PadLeft(low_label, width) + (shape.unicode ? " └" : " +");
  text += LineWithTicks(columns.Count(), axis.ticks, shape.unicode) + "\n";
  for (const std::string& line : axis.lines) text += std::string(width + kAxisChars, ' ') + line + "\n";
  return text;
}

}  // namespace qx::ctl
