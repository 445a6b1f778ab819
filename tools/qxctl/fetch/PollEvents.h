// Counts the events of the polls of a report, and writes messages about them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reportfile/tools/ReportFollower.h"
#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

// The number of polls with each event.
struct PollTally {
  std::uint64_t gaps = 0;
  std::optional<std::uint64_t> lost = 0;  // records in all gaps; unset: unknown
  std::uint64_t ambiguous = 0;
  std::uint64_t started_over = 0;

  void Count(const report::ReportPoll& poll);
  bool IsClean() const { return gaps == 0 && ambiguous == 0 && started_over == 0; }
};

// {"gaps":1,"recordsLost":null,"ambiguous":0,"startedOver":0}
[[nodiscard]] Json ToJson(const PollTally& tally);

// One sentence about the event of a poll; empty without an event.
[[nodiscard]] std::string EventText(const std::string& report, const report::ReportPoll& poll);

// "gap", "ambiguous", "startedOver"; empty without an event.
[[nodiscard]] std::string EventName(const report::ReportPoll& poll);

// kFinding: the record at `index` is too long for a reply.
[[nodiscard]] Status BlockedStatus(std::uint32_t index);

// kChanged: the ring advances faster than it can be read.
[[nodiscard]] Status OutrunStatus(const std::string& report);

}  // namespace qx::ctl
