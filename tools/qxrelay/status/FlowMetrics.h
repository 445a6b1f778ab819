// Writes the flow of a service, and the newest numbers of chosen reports, as metrics.
//
// A report or a field whose name is not UTF-8 cannot have series, because a label is UTF-8. Series above the limit are
// left out, too: those of reports come before those of fields, both in the order of names. The number of missing series
// is a metric.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/qxrelay/status/Flow.h"

namespace qx::relay {

struct MetricsRules {
  std::string version;                                    // of the program
  std::vector<std::string> reports;                       // patterns of the reports whose newest numbers are metrics
  std::size_t series_max = 0;                             // of reports and numbers
  std::function<std::string(const ReportFlow&)> path_of;  // of the files of a report, without their endings
};

// Reads the newest record of each chosen report. [any thread] Throws std::bad_alloc.
[[nodiscard]] std::string MetricsOf(const ServiceFlow& flow, const MetricsRules& rules);

// "gapRecords" => "qxrelay_gap_records_total"
[[nodiscard]] std::string CounterName(const std::string& name);

}  // namespace qx::relay
