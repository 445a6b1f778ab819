// The data of a chart: one line for each field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/qxctl/slice/RecordTime.h"

namespace qx::ctl {

struct ChartPoint {
  std::int64_t x = 0;  // a time in milliseconds, or the number of a record
  double value = 0;
};

struct ChartLine {
  std::string field;
  std::vector<ChartPoint> points;  // in the order of x
};

inline constexpr std::size_t kChartLinesMax = 6;  // as many lines as a reader can distinguish

struct ChartData {
  std::string title;
  std::vector<ChartLine> lines;  // at least one, at most kChartLinesMax
  bool has_times = false;        // whether x is a time
  TimeRules time;                // how times are shown

  // Whether there is any point.
  [[nodiscard]] bool HasPoints() const;
  // The lowest and the highest x of all points. There must be at least one point.
  [[nodiscard]] std::int64_t First() const;
  [[nodiscard]] std::int64_t Last() const;
  // The values of all lines.
  [[nodiscard]] std::vector<double> Values() const;
};

// "4 values, lowest 10, highest 40"; "0 values" without points.
[[nodiscard]] std::string SummaryOf(const ChartLine& line);

// The entry of a legend: "cpu: 4 values, lowest 10, highest 40, newest 20".
[[nodiscard]] std::string LegendOf(const ChartLine& line);

}  // namespace qx::ctl
