// Computes the flow of the reports of a collector from the counters of its receiver.
//
// A receiver knows the ring of a host only from the newest message of the report, so it knows the lag only for the
// moment when this message was sent.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxrelay/receive/ReceiverCounters.h"
#include "tools/qxrelay/status/Flow.h"
#include "tools/qxrelay/status/FlowGauge.h"

namespace qx::relay {

// Threads: one thread. Owns: some counts for each report. Throws std::bad_alloc.
class ReceiverFlow {
 public:
  // `now` is a time of the monotonic clock, `wall_ms` the time since 1970. [owning thread]
  [[nodiscard]] std::vector<ReportFlow> Take(const std::vector<CollectedReport>& reports, std::int64_t now,
                                             std::int64_t wall_ms);

 private:
  [[nodiscard]] ReportFlow FlowOf(const CollectedReport& report, std::int64_t now, std::int64_t wall_ms);

  std::map<std::pair<std::string, std::string>, FlowGauge> gauges_;  // by host and report
};

// The counters of a receiver, with their names in documents. Some are sums over the reports. [any thread]
[[nodiscard]] std::vector<std::pair<std::string, std::uint64_t>> CountersOf(
    const ReceiverCounters& counters, const std::vector<CollectedReport>& reports);

}  // namespace qx::relay
