#include "tools/qxrelay/status/MetricsService.h"

#include <utility>

#include "tools/qxrelay/status/FlowPublisher.h"

namespace qx::relay {

namespace {

constexpr unsigned kNotFound = 404;
constexpr unsigned kUnavailable = 503;
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

HttpAnswer TextAnswer(unsigned status, std::string text) {
  return {.status = status, .text = std::make_shared<const std::string>(std::move(text) + "\n")};
}

}  // namespace

MetricsService::MetricsService(const MetricsSettings& settings, MetricsRules rules,
                               std::function<std::int64_t()> wall_ms, std::function<void(const std::string&)> log)
    : address_(LoopbackAddressOf(settings.listen)),
      rules_(std::move(rules)),
      wall_ms_(std::move(wall_ms)),
      log_(std::move(log)) {
  rules_.reports = settings.reports;
  rules_.series_max = settings.series_max;
}

void MetricsService::Show(const ServiceFlow& flow) {
  if (!address_.has_value()) return;
  auto shown = std::make_shared<const ServiceFlow>(flow);
  {
    const std::lock_guard guard(lock_);
    flow_.swap(shown);
  }
  const std::int64_t now = wall_ms_();
  const bool is_due = !start_at_.has_value() || now >= *start_at_ || now < *start_at_ - kRetryMs;
  if (server_ == nullptr && is_due) Start(now);
}

void MetricsService::Start(std::int64_t now) {
  auto server = std::make_unique<HttpServer>([this](std::string_view path) { return Answer(path); });
  if (const auto problem = server->Start(*address_)) {
    start_at_ = now + kRetryMs;
    if (!std::exchange(has_failed_, true)) log_("there are no metrics: " + *problem);
    return;
  }
  server_ = std::move(server);
  log_("metrics are on port " + std::to_string(server_->Port()));
}

HttpAnswer MetricsService::Answer(std::string_view path) {
  if (path == "/metrics") return Metrics();
  if (path == "/healthz") return Health();
  return TextAnswer(kNotFound, "there are /metrics and /healthz");
}

HttpAnswer MetricsService::Metrics() {
  std::shared_ptr<const ServiceFlow> flow = Flow();
  if (flow != text_flow_) {
    text_ = std::make_shared<const std::string>(MetricsOf(*flow, rules_));
    text_flow_ = std::move(flow);
  }
  return {.status = 200, .content_type = kMetricsType, .text = text_};
}

HttpAnswer MetricsService::Health() {
  const std::shared_ptr<const ServiceFlow> flow = Flow();
  const std::int64_t age = wall_ms_() - flow->time_ms;
  if (age > FlowPublisher::kFreshMs) {
    return TextAnswer(kUnavailable, "the service has hung for " + std::to_string(age / 1000) + " s");
  }
  if (!flow->problem.empty()) return TextAnswer(kUnavailable, flow->problem);
  if (!flow->is_connected) return TextAnswer(kUnavailable, "not connected to the servers");
  return TextAnswer(200, "ok");
}

// The last flow that Show received; Show is called before the server starts.
std::shared_ptr<const ServiceFlow> MetricsService::Flow() {
  const std::lock_guard guard(lock_);
  return flow_;
}

}  // namespace qx::relay
