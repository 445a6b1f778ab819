#include "tools/qxctl/chart/Scale.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace qx::ctl {

namespace {

// The smallest number that is at least `width`, and is 1, 2 or 5 times a power of ten.
double RoundStep(double width) {
  const double power = std::pow(10, std::floor(std::log10(width)));
  for (const double factor : {1, 2, 5}) {
    if (factor * power >= width * (1 - 1e-9)) return factor * power;
  }
  return 10 * power;
}

}  // namespace

// Differences are computed from halves, because the difference of two large numbers may overflow.
Scale ScaleOf(const std::vector<double>& values, int steps) {
  if (values.empty()) return {};
  const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
  double low = *lowest;
  double high = *highest;
  const double half_range = high / 2 - low / 2;
  if (low > 0 && (low / 2 <= half_range || low == high)) low = 0;
  if (high < 0 && (-high / 2 <= half_range || low == high)) high = 0;
  if (low == high) high = 1;
  const double step = RoundStep((high / 2 - low / 2) / steps * 2);
  constexpr double kMax = std::numeric_limits<double>::max();
  const Scale scale = {std::max(-kMax, std::floor(low / step + 1e-9) * step),
                       std::min(kMax, std::ceil(high / step - 1e-9) * step), step};
  return scale.low < scale.high ? scale : Scale{low, high, high - low};
}

std::string AxisNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value == 0 ? 0.0 : value);  // never "-0"
  return text;
}

}  // namespace qx::ctl
