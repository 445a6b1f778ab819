// The options that choose a slice. A command has those of one of these tables.
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/slice/Slice.h"

namespace qx::ctl {

inline constexpr std::string_view kSliceGroup = "Selection by time and text";

inline constexpr Parameter kLastOption = {.name = "--last",
                                          .kind = ValueKind::kInteger,
                                          .value = "N",
                                          .help = "Only the newest N of the selected ones",
                                          .group = kSliceGroup,
                                          .limits = kPositive};
inline constexpr Parameter kSinceOption = {
    .name = "--since",
    .kind = ValueKind::kTime,
    .value = "TIME",
    .help = "Only from this time on: \"2026-01-31 10:20\", 10:20, -10min, today, yesterday",
    .group = kSliceGroup};
inline constexpr Parameter kUntilOption = {.name = "--until",
                                           .kind = ValueKind::kTime,
                                           .value = "TIME",
                                           .help = "Only up to this time; a day, minute or second counts to its end",
                                           .group = kSliceGroup};
inline constexpr Parameter kGrepOption = {.name = "--grep",
                                          .kind = ValueKind::kText,
                                          .value = "PATTERN",
                                          .help = "Only those whose text matches this extended regular expression",
                                          .group = kSliceGroup};
inline constexpr Parameter kReverseOption = {
    .name = "--reverse", .help = "Print the newest first", .group = kSliceGroup};
inline constexpr Parameter kUtcOption = {
    .name = "--utc", .help = "Times without a zone are UTC, not local time", .group = kSliceGroup};
inline constexpr Parameter kTimeFormatOption = {.name = "--time-format",
                                                .kind = ValueKind::kText,
                                                .value = "FORMAT",
                                                .help = "Format of the records' stamps, as for strptime(3)",
                                                .group = kSliceGroup};

inline constexpr Parameter kRecordSliceParameters[] = {kLastOption,    kSinceOption, kUntilOption,     kGrepOption,
                                                       kReverseOption, kUtcOption,   kTimeFormatOption};
inline constexpr Parameter kFollowSliceParameters[] = {kLastOption, kSinceOption, kGrepOption, kUtcOption,
                                                       kTimeFormatOption};
inline constexpr Parameter kTraceFollowSliceParameters[] = {kSinceOption, kUntilOption, kGrepOption, kUtcOption};
inline constexpr Parameter kTraceSliceParameters[] = {kLastOption, kSinceOption,   kUntilOption,
                                                      kGrepOption, kReverseOption, kUtcOption};

// The values of --utc and --time-format, for a command that has both or neither.
[[nodiscard]] TimeRules TimeRulesOf(const Values& values);

// Sets the slice from those of these options that the command has. kUsage for an invalid time or pattern.
Status SliceOf(const Values& values, Slice& slice);

}  // namespace qx::ctl
