// Internal: the common parts of the charts in characters. A chart is rows of cells to the right of the axis of values
// and above the axis of times or records.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/ChartData.h"

namespace qx::ctl {

// The columns of a chart: one for each usual distance between two values, but not more than there is space for.
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
  double distance_;  // the usual distance of two neighbours
  double range_;     // from the first to the last value, and half a distance on both sides
  std::size_t count_;
};

// A row of a chart, and its label on the axis of values. The first row is at the top.
struct ChartRow {
  std::string label;
  std::string cells;     // painted, without blanks that are not needed
  bool is_zero = false;  // the line at zero, or a row with it
};

// The whole chart: the rows, the axis below them, and the labels below the axis.
[[nodiscard]] std::string ChartText(const std::vector<ChartRow>& rows, const std::string& low_label,
                                    const ChartData& data, const Columns& columns, const ChartShape& shape);

// The number of columns for cells that an axis of values with labels of this width leaves.
[[nodiscard]] std::size_t ColumnsForCells(std::size_t label_width, const ChartShape& shape);

}  // namespace qx::ctl
