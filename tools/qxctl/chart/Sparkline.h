// Draws a row of numbers as small as a word.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qx::ctl {

// One character for each of the newest `count_max` values, the oldest first: the lowest of them has the lowest bar, the
// highest one the highest. Equal values have bars of half the height.
//   {1, 5, 8} => "▁▅█", in ASCII "_=#"
[[nodiscard]] std::string Sparkline(const std::vector<double>& values, std::size_t count_max, bool unicode);

}  // namespace qx::ctl
