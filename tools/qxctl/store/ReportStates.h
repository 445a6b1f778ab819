// Describes the state of a report in words, for the commands that show many reports.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reportfile/tools/directory/ReportSurvey.h"

namespace qx::ctl {

// "sound", "damaged", "changed", "unreadable", "not found"
[[nodiscard]] const char* NameOfState(report::StoreState state);

// NameOfState of the report, but "empty" for a sound report without records.
[[nodiscard]] const char* StateOf(const report::ReportStatus& status);

// True for a report that needs attention: damaged, unreadable, or changed each time it was read.
[[nodiscard]] bool NeedsAttention(const report::ReportStatus& status);

// The processes that write the report; empty without a writer.
//   => "being written by process 4711 (agentd)"    "being written by processes 1, 2"    "being written"
[[nodiscard]] std::string WritersOf(const report::ReportStatus& status);

// The first contradiction, or why a file cannot be read; empty for a report that is in order.
[[nodiscard]] std::string TroubleOf(const report::ReportStatus& status);

// Seconds since the newest record, not below 0; unset without a record.
[[nodiscard]] std::optional<std::int64_t> AgeOf(const report::ReportStatus& status);

}  // namespace qx::ctl
