// Computes the figures of the reports of a host (Flow.h): compares the sent records with the records that the rings
// have now.
//
// The rings are read here, not by the sender, because a sender without a connection does not read them, and a sender
// that is not running cannot.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "reportfile/StoreFormat.h"
#include "tools/qxrelay/send/SendContext.h"
#include "tools/qxrelay/send/SentReport.h"
#include "tools/qxrelay/status/Flow.h"
#include "tools/qxrelay/status/FlowGauge.h"

namespace qx::relay {

// Threads: one thread. Owns: for each report its last header and some counts. No file stays open.
// Failure: a ring that cannot be read leaves the lag unset. Throws std::bad_alloc.
class SenderFlow {
 public:
  // `directory` is that of the reports.
  SenderFlow(std::string host, std::string directory);

  // Reads the rings. `now` is a time of the monotonic clock, `wall_ms` the time since 1970. [owning thread]
  [[nodiscard]] std::vector<ReportFlow> Take(const std::vector<SentReport>& sent, std::int64_t now,
                                             std::int64_t wall_ms);

  // Adds an older count that does not come from the ring: at `time`, the next record had the number `end`.
  // [owning thread]
  void AddCount(const std::string& report, std::int64_t time, std::uint64_t end);

 private:
  struct Ring {
    report::IndexHeader header;
    struct stat status = {};
    bool is_read = false;
    bool is_settled = false;  // an index file with the same status has the same header
    FlowGauge gauge;
  };

  [[nodiscard]] bool ReadRing(const std::string& report, std::int64_t wall_ms, Ring& ring) const;
  [[nodiscard]] ReportFlow FlowOf(const SentReport& sent, std::int64_t now, std::int64_t wall_ms);

  std::string host_;
  std::string directory_;
  std::map<std::string, Ring> rings_;
};

// The counters of a sender, with their names in documents. [any thread]
[[nodiscard]] std::vector<std::pair<std::string, std::uint64_t>> CountersOf(const SenderCounters& counters);

}  // namespace qx::relay
