// Internal: the values of one field as bars of characters.
#pragma once

#include <string>

#include "tools/qxctl/chart/Chart.h"

namespace qx::ctl {

// Bars from the line at zero up and down; if no value is near zero, from the lower end of the axis.
[[nodiscard]] std::string BarChart(const ChartData& data, const ChartShape& shape, const Output& output);

}  // namespace qx::ctl
