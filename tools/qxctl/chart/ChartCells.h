// Internal: what the charts in characters share. A chart is rows of cells to the right of the axis of values, above the
// axis of times or records.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/ChartData.h"

namespace qx::ctl {

// The columns of a chart: one for each usual distance between two values, but no more than fit.
//   x 0, 1, 2, 3 with 80 columns        => 4 columns, one for each
//   every minute, but one is missing    => one column stays empty
//   4000 values with 40 columns         => 40 columns of 100 values
class Columns {
 public:
  // `data` must have points.
  Columns(const ChartData& data, std::size_t columns_max);

  [[nodiscard]] std::size_t Count() const { return count_; }
  [[nodiscard]] std::size_t Of(std::int64_t x) const;

 private:
  std::int64_t first_;
  double distance_;  // the usual one of two neighbours
  double range_;     // with half a distance on both sides
  std::size_t count_;
};

// The rows of a chart from the top to the bottom, and what is written on the axis of values next to each.
struct ChartRow {
  std::string label;
  std::string cells;     // painted, without blanks that are not needed
  bool is_zero = false;  // the line at zero, or a row with it
};

// The rows, the axis below, and what is written under it.
[[nodiscard]] std::string ChartText(const std::vector<ChartRow>& rows, const std::string& low_label,
                                    const ChartData& data, const Columns& columns, const ChartShape& shape);

// The columns that are left for cells by an axis of values with these labels.
[[nodiscard]] std::size_t ColumnsForCells(std::size_t label_width, const ChartShape& shape);

}  // namespace qx::ctl
