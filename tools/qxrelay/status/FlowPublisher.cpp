#include "tools/qxrelay/status/FlowPublisher.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "tools/qxrelay/status/FlowDocument.h"

namespace qx::relay {

namespace {

constexpr std::int64_t kShareOfTime = 50;

}  // namespace

FlowPublisher::FlowPublisher(std::string file, std::function<ServiceFlow()> take,
                             std::function<void(const ServiceFlow&)> show, std::function<void(const std::string&)> log)
    : file_(std::move(file)), take_(std::move(take)), show_(std::move(show)), log_(std::move(log)) {}

void FlowPublisher::Step(std::int64_t now) {
  if (now < due_) return;
  const auto begin = std::chrono::steady_clock::now();
  Publish(take_());
  const auto cost = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  due_ = now + std::clamp(kShareOfTime * std::int64_t{cost.count()}, kPeriodMs, kPeriodMaxMs);
}

void FlowPublisher::Finish() {
  ServiceFlow flow = take_();
  flow.started_ms = 0;
  flow.is_connected = false;
  Publish(flow);
}

void FlowPublisher::Publish(const ServiceFlow& flow) {
  show_(flow);
  const std::optional<std::string> problem = WriteFlowFile(file_, flow);
  if (problem.has_value() && !has_failed_) log_(*problem);
  has_failed_ = problem.has_value();
}

}  // namespace qx::relay
