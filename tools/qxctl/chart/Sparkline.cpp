#include "tools/qxctl/chart/Sparkline.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace qx::ctl {

namespace {

constexpr std::size_t kHeights = 8;
constexpr std::size_t kMiddle = 3;
constexpr std::array<const char*, kHeights> kBars = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, kHeights> kAsciiBars = {"_", ".", ",", "-", "=", "+", "*", "#"};

// The difference is computed from halves, because the difference of two large numbers may overflow.
std::size_t HeightOf(double value, double low, double high) {
  if (low == high) return kMiddle;
  const double share = (value / 2 - low / 2) / (high / 2 - low / 2);
  return static_cast<std::size_t>(std::lround(share * (kHeights - 1)));
}

}  // namespace

std::string Sparkline(const std::vector<double>& values, std::size_t count_max, bool unicode) {
  if (values.empty() || count_max == 0) return "";
  const auto first = values.end() - static_cast<std::ptrdiff_t>(std::min(values.size(), count_max));
  const auto [low, high] = std::minmax_element(first, values.end());
  std::string line;
  for (auto value = first; value != values.end(); ++value) {
    line += (unicode ? kBars : kAsciiBars)[HeightOf(*value, *low, *high)];
  }
  return line;
}

}  // namespace qx::ctl
