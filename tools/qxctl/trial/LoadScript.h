// Makes the requests of one thread of a load test, and compares the replies with the expected ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "tools/qxctl/trial/LoadTest.h"

namespace qx::ctl {

// The module's replies before the load. Of a transfer only lengths and hashes are kept, because it may be large.
struct ExpectedReplies {
  struct Print {
    std::size_t bytes = 0;
    std::size_t hash = 0;
    friend bool operator==(const Print&, const Print&) = default;
  };

  std::string what;
  CallResult names;
  std::string report_head;                  // <ReportData Name="...", up to the start index
  std::map<std::int32_t, Print> transfers;  // by start index; only for an exact comparison
  bool report_is_empty = false;
};

// Makes every request of the plan once. Fails with the reason if the replies cannot be used for a comparison, because a
// report is missing or the module refuses.
Status AskForExpected(const ModuleHost& module, const LoadPlan& plan, ExpectedReplies& expected);

// Threads: belongs to one worker thread; the plan and the expected replies are shared and not changed.
class LoadScript {
 public:
  LoadScript(const LoadPlan& plan, const ExpectedReplies& expected, unsigned thread);

  // Makes the next call and returns what is wrong with its reply, or nothing. `seconds` is the time of the call alone.
  std::string Step(WorkerThread& worker, double& seconds);

 private:
  std::string StepWhat(WorkerThread& worker, double& seconds);
  std::string StepReflect(WorkerThread& worker, double& seconds);
  std::string StepReports(WorkerThread& worker, double& seconds);
  std::string StepNames(WorkerThread& worker, double& seconds);
  std::string CheckRecords(const CallResult& call);
  std::string CheckEnd(const CallResult& call);

  const LoadPlan& plan_;
  const ExpectedReplies& expected_;
  unsigned thread_;
  std::uint64_t step_;
  std::int32_t next_index_ = 0;  // of the current transfer
};

}  // namespace qx::ctl
