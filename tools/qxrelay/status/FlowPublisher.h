// Publishes the flow of a running service: writes its status file, and passes the flow to the metrics.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/qxrelay/status/Flow.h"

namespace qx::relay {

// Threads: one thread. Owns: nothing.
// Failure: one line in the log, until the file can be written again. Throws std::bad_alloc.
class FlowPublisher {
 public:
  static constexpr std::int64_t kPeriodMs = 1000;
  static constexpr std::int64_t kPeriodMaxMs = 10'000;
  // If the flow in a file is older than this, its service has ended.
  static constexpr std::int64_t kFreshMs = 3 * kPeriodMaxMs;

  // `file` is the status file. `take` returns the flow, and `show` receives it.
  FlowPublisher(std::string file, std::function<ServiceFlow()> take, std::function<void(const ServiceFlow&)> show,
                std::function<void(const std::string&)> log);

  // Publishes if it is time: once a second, or less often if this would take more than a fiftieth of the time. [owning
  // thread]
  void Step(std::int64_t now);
  // When Step is to be called again. [owning thread]
  [[nodiscard]] std::int64_t Wake() const { return due_; }

  // Publishes that the service has ended. [owning thread]
  void Finish();

 private:
  void Publish(const ServiceFlow& flow);

  std::string file_;
  std::function<ServiceFlow()> take_;
  std::function<void(const ServiceFlow&)> show_;
  std::function<void(const std::string&)> log_;
  std::int64_t due_ = 0;
  bool has_failed_ = false;
};

}  // namespace qx::relay
