// A chart of numbers, in characters and as SVG.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

struct ChartShape {
  std::size_t columns = 80;  // of the terminal
  bool unicode = false;      // eighths of blocks; otherwise ASCII
};

// The width of the terminal of standard output, else COLUMNS of the environment, else 80; Unicode if LC_ALL, LC_CTYPE
// or LANG, the first that is set, says UTF-8.
[[nodiscard]] ChartShape ChartShapeHere();

// The values from left to right as bars, with the axis at the left; if there are more values than columns, each bar
// shows the highest of its values. Ends with a line end. `output` colours the bars if it colours anything.
[[nodiscard]] std::string TextChart(const std::string& title, const std::vector<double>& values,
                                    const ChartShape& shape, const Output& output);

// A complete document: a line over the values, axes with numbers, `title` above, `field` next to the axis.
[[nodiscard]] std::string SvgChart(const std::string& title, const std::string& field,
                                   const std::vector<double>& values);

}  // namespace qx::ctl
