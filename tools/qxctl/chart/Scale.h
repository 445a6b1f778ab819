// Chooses the range of the axis of values of a chart.
#pragma once

#include <string>
#include <vector>

namespace qx::ctl {

// A range of round numbers around values, for an axis.
struct Scale {
  double low = 0;
  double high = 1;
  double step = 1;

  // The position of a value between low (0) and high (1).
  [[nodiscard]] double Share(double value) const { return (value / 2 - low / 2) / (high / 2 - low / 2); }
};

// A scale of about `steps` steps, each 1, 2 or 5 times a power of ten. It begins at 0 if the values are not far from 0.
//   0.12 to 0.31  => 0 to 0.4 by 0.1
[[nodiscard]] Scale ScaleOf(const std::vector<double>& values, int steps);

// "0.4", "1e+20": a number of an axis, without digits that are not needed.
[[nodiscard]] std::string AxisNumber(double value);

}  // namespace qx::ctl
