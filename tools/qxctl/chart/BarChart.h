// Internal: draws the values of one field as bars of characters.
#pragma once

#include <string>

#include "tools/qxctl/chart/Chart.h"

namespace qx::ctl {

// Bars up and down from the line at zero or, if no value is near zero, up from the lower end of the axis.
[[nodiscard]] std::string BarChart(const ChartData& data, const ChartShape& shape, const Output& output);

}  // namespace qx::ctl
