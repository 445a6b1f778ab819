#include "tools/qxctl/slice/SliceOptions.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

std::string TextOf(const Values& values, std::string_view name) { return values.Knows(name) ? values.Text(name) : ""; }
bool IsGiven(const Values& values, std::string_view name) { return values.Knows(name) && values.Has(name); }

Status ReadTime(const Values& values, std::string_view name, const TimeRules& rules, std::optional<TimeSpan>& span) {
  if (!IsGiven(values, name)) return {};
  const std::string text = values.Text(name);
  span = ParseTimeSpan(text, rules);
  if (span) return {};
  return {ExitCode::kUsage,
          std::string(name) + ": \"" + Visible(text) +
              "\" is not a time; give one such as \"2026-01-31 10:20\", 10:20, -10min, today or yesterday"};
}

Status ReadTimes(const Values& values, Slice& slice) {
  std::optional<TimeSpan> since;
  std::optional<TimeSpan> until;
  if (Status status = ReadTime(values, "--since", slice.time, since); !status.IsOk()) return status;
  if (Status status = ReadTime(values, "--until", slice.time, until); !status.IsOk()) return status;
  if (since) slice.since_ms = since->first_ms;
  if (until) slice.until_ms = until->last_ms;
  const bool is_empty = since && until && *slice.since_ms > *slice.until_ms;
  if (!is_empty) return {};
  return {ExitCode::kUsage, "--since " + values.Text("--since") + " is after --until " + values.Text("--until") +
                                "; exchange the two times"};
}

// Whether an option needs the times of records.
bool UsesTimes(const Values& values) {
  const std::string_view users[] = {"--since", "--until", "--plot", "--fields", "--json"};
  return std::any_of(std::begin(users), std::end(users),
                     [&](std::string_view name) { return IsGiven(values, name); }) ||
         TextOf(values, "--format") == "json";
}

}  // namespace

TimeRules TimeRulesOf(const Values& values) {
  return {IsGiven(values, "--utc"), TextOf(values, "--time-format"), NowMs()};
}

Status SliceOf(const Values& values, Slice& slice) {
  slice.time = TimeRulesOf(values);
  if (IsGiven(values, "--last")) slice.last = static_cast<std::uint64_t>(values.Integer("--last", 0));
  slice.reverse = IsGiven(values, "--reverse");
  const bool has_useless_format = !slice.time.format.empty() && !UsesTimes(values);
  if (has_useless_format)
    return {ExitCode::kUsage, "--time-format says where --since and --plot find the time; give one of these as well"};
  if (Status status = ReadTimes(values, slice); !status.IsOk()) return status;
  if (!IsGiven(values, "--grep")) return {};
  auto pattern = std::make_shared<RecordPattern>();
  if (Status status = pattern->Compile(values.Text("--grep")); !status.IsOk()) return status;
  slice.pattern = std::move(pattern);
  return {};
}

}  // namespace qx::ctl
