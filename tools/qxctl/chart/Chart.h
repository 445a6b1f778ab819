// Draws a chart of numbers in characters or as SVG.
#pragma once

#include <cstddef>
#include <string>

#include "tools/qxctl/chart/ChartData.h"
#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

struct ChartShape {
  std::size_t columns = 80;  // of the terminal
  bool unicode = false;      // eighths of blocks; otherwise ASCII
};

// The width is that of the terminal of standard output, else COLUMNS of the environment, else 80. `unicode` is set if
// the first of LC_ALL, LC_CTYPE and LANG that is set names UTF-8.
[[nodiscard]] ChartShape ChartShapeHere();

// Draws one line of values as bars from left to right, several lines as points with a legend. The axis of values is at
// the left, with a line at zero if there are values on both sides of it; the axis of times or records is below. If
// there are more values than columns, each bar shows the highest of its values. The text ends with a line end, and has
// colours if `output` uses them.
[[nodiscard]] std::string TextChart(const ChartData& data, const ChartShape& shape, const Output& output);

// A complete SVG document: a line over the values of each field, axes with numbers, the title above, and, if there are
// several fields, a legend below.
[[nodiscard]] std::string SvgChart(const ChartData& data);

}  // namespace qx::ctl
