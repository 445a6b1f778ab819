// Tests the module under load: many threads call it as the service's worker threads do, and each reply is checked.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/module/ModuleHost.h"
#include "tools/qxctl/trial/LatencyHistogram.h"
#include "tools/qxctl/trial/ProcessFigures.h"

namespace qx::ctl {

struct LoadPlan {
  unsigned threads = 4;
  std::uint64_t requests = 0;  // of all threads together; 0: as many as possible in `seconds`
  double seconds = 0;
  std::vector<RequestFunction> mix;  // made in turn; each thread begins at another function
  std::string report;                // for GetReports and GetReportInstanceNames
  std::int32_t records_a_call = 100;
  bool exact = false;  // the report has no writer: replies are compared byte for byte with the first transfer
  BlockValues block;   // except for the thread id: each thread has its own
};

struct LoadResult {
  std::uint64_t requests = 0;
  std::uint64_t warm_up_requests = 0;
  std::uint64_t failures = 0;               // unexpected replies, including those of the warm-up
  std::vector<std::string> first_failures;  // some of them as text
  double seconds = 0;
  LatencyHistogram latency;
  MemoryFigures memory_start;  // when every thread has warmed up and waits
  MemoryFigures memory_end;    // when every thread has made its last call and waits
  std::size_t descriptors_start = 0;
  std::size_t descriptors_end = 0;
  std::size_t descriptors_idle = 0;  // when the threads have ended
};

// Called ten times a second with the number of requests made so far; false ends the test early.
using LoadProgress = std::function<bool(std::uint64_t requests)>;

// Runs the plan. Fails only if the first, single-threaded requests find no such report, or are refused. A later failure
// is part of the result.
Status RunLoad(const ModuleHost& module, const LoadPlan& plan, const LoadProgress& progress, LoadResult& result);

}  // namespace qx::ctl
