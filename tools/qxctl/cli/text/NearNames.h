// Finds the names that may be meant by a mistyped word.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx::ctl {

// The names that are nearest to `word`, the nearest first and at most three: with few characters changed, missing,
// added or exchanged with their neighbour, or with `word` as their beginning. Capitals do not matter.
//   "laod", {"load", "cpu"}              => "load"
//   "sal", {"salvage", "cat"}            => "salvage"
//   "x", {"load", "cpu"}                 => nothing
[[nodiscard]] std::vector<std::string> NearNames(std::string_view word, const std::vector<std::string>& names);

// The end of a message about an unknown name; empty if `near` is.
//   {"a"}            => "; did you mean a?"
//   {"a", "b", "c"}  => "; did you mean a, b or c?"
[[nodiscard]] std::string DidYouMean(const std::vector<std::string>& near);

// {"a", "b", "c"}, "or" => "a, b or c"
[[nodiscard]] std::string Listed(const std::vector<std::string>& names, std::string_view last_separator);

}  // namespace qx::ctl
