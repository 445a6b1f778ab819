// Parses lengths of time such as "10m", and writes them for people.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::ctl {

// The seconds of a whole number with a unit: s, m (or min), h, d. Unset for anything else, and above a hundred years.
//   "90s" => 90    "10m" => 600    "2h" => 7200    "10" => unset
[[nodiscard]] std::optional<std::int64_t> ParseDuration(std::string_view text);

// A length of time in the largest unit of which it has at least two, rounded down; a negative length counts as 0.
//   0 => 0 s    119 => 119 s    120 => 2 min    7199 => 119 min    7200 => 2 h    172800 => 2 d
[[nodiscard]] std::string DurationText(std::int64_t seconds);

}  // namespace qx::ctl
