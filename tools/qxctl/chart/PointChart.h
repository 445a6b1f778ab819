// Internal: the values of several fields as points, each field with a sign of its own.
#pragma once

#include <string>

#include "tools/qxctl/chart/Chart.h"

namespace qx::ctl {

// The legend, and the points above one axis. In each column the highest and the lowest value are drawn. Where two
// fields meet, the first one of the legend is drawn.
[[nodiscard]] std::string PointChart(const ChartData& data, const ChartShape& shape, const Output& output);

}  // namespace qx::ctl
