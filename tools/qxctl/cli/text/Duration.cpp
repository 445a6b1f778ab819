#include "tools/qxctl/cli/text/Duration.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace qx::ctl {

namespace {

struct Unit {
  std::string_view name;
  std::int64_t seconds;
};

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kDurationMax = 36525 * kDay;
constexpr Unit kParsed[] = {{"s", 1}, {"m", 60}, {"min", 60}, {"h", 3600}, {"d", kDay}};
constexpr Unit kShown[] = {{"d", kDay}, {"h", 3600}, {"min", 60}};

}  // namespace

std::optional<std::int64_t> ParseDuration(std::string_view text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || number < 0) return std::nullopt;
  const std::string_view unit(parsed.ptr, static_cast<std::size_t>(end - parsed.ptr));
  const auto* const found =
      std::find_if(std::begin(kParsed), std::end(kParsed), [&](const Unit& each) { return each.name == unit; });
  if (found == std::end(kParsed) || number > kDurationMax / found->seconds) return std::nullopt;
  return number * found->seconds;
}

std::string DurationText(std::int64_t seconds) {
  for (const Unit& unit : kShown) {
    if (seconds >= 2 * unit.seconds) return std::to_string(seconds / unit.seconds) + " " + std::string(unit.name);
  }
  return std::to_string(std::max<std::int64_t>(seconds, 0)) + " s";
}

}  // namespace qx::ctl
