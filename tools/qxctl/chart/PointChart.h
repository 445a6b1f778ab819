// Internal: draws the values of several fields as points, with a sign for each field.
#pragma once

#include <string>

#include "tools/qxctl/chart/Chart.h"

namespace qx::ctl {

// The legend, and the points above one axis. In each column the highest and the lowest value of a field are drawn. If
// two fields have the same cell, it shows the field that comes first in the legend.
[[nodiscard]] std::string PointChart(const ChartData& data, const ChartShape& shape, const Output& output);

}  // namespace qx::ctl
