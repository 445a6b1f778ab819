#include "tools/qxctl/chart/ChartData.h"

#include <algorithm>
#include <limits>

#include "tools/qxctl/chart/Scale.h"

namespace qx::ctl {

bool ChartData::HasPoints() const {
  return std::any_of(lines.begin(), lines.end(), [](const ChartLine& line) { return !line.points.empty(); });
}

std::int64_t ChartData::First() const {
  std::int64_t first = std::numeric_limits<std::int64_t>::max();
  for (const ChartLine& line : lines) {
    if (!line.points.empty()) first = std::min(first, line.points.front().x);
  }
  return first;
}

std::int64_t ChartData::Last() const {
  std::int64_t last = std::numeric_limits<std::int64_t>::min();
  for (const ChartLine& line : lines) {
    if (!line.points.empty()) last = std::max(last, line.points.back().x);
  }
  return last;
}

std::vector<double> ChartData::Values() const {
  std::vector<double> values;
  for (const ChartLine& line : lines) {
    for (const ChartPoint& point : line.points) values.push_back(point.value);
  }
  return values;
}

std::string SummaryOf(const ChartLine& line) {
  const std::size_t count = line.points.size();
  std::string text = std::to_string(count) + (count == 1 ? " value" : " values");
  if (count == 0) return text;
  const auto by_value = [](const ChartPoint& one, const ChartPoint& other) { return one.value < other.value; };
  const auto [low, high] = std::minmax_element(line.points.begin(), line.points.end(), by_value);
  return text + ", lowest " + AxisNumber(low->value) + ", highest " + AxisNumber(high->value);
}

std::string LegendOf(const ChartLine& line) {
  const std::string text = line.field + ": " + SummaryOf(line);
  return line.points.empty() ? text : text + ", newest " + AxisNumber(line.points.back().value);
}

}  // namespace qx::ctl
