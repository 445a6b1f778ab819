// Serves the metrics and the health of a service: /metrics for Prometheus, /healthz for other monitors.
//
//   /healthz 200 "ok", or 503 and a text: the service hangs, is not connected, or cannot continue
//
// The text of the metrics is made at a request, at most once for each flow that the service shows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/status/FlowMetrics.h"
#include "tools/qxrelay/status/HttpServer.h"

namespace qx::relay {

// Threads: one thread. Owns: the server and its thread.
// Failure: one line in the log; it tries again every kRetryMs. Throws std::bad_alloc.
class MetricsService {
 public:
  static constexpr std::int64_t kRetryMs = 10'000;

  // Without an address in the settings the object does nothing. `wall_ms` is called in the server's thread, too.
  MetricsService(const MetricsSettings& settings, MetricsRules rules, std::function<std::int64_t()> wall_ms,
                 std::function<void(const std::string&)> log);

  // Shows the flow from now on, and listens as soon as it can. [owning thread]
  void Show(const ServiceFlow& flow);

 private:
  void Start(std::int64_t now);
  [[nodiscard]] HttpAnswer Answer(std::string_view path);
  [[nodiscard]] HttpAnswer Metrics();
  [[nodiscard]] HttpAnswer Health();
  [[nodiscard]] std::shared_ptr<const ServiceFlow> Flow();

  std::optional<LoopbackAddress> address_;
  MetricsRules rules_;
  std::function<std::int64_t()> wall_ms_;
  std::function<void(const std::string&)> log_;
  std::optional<std::int64_t> start_at_;  // milliseconds since 1970
  bool has_failed_ = false;

  std::mutex lock_;  // of the flow
  std::shared_ptr<const ServiceFlow> flow_;

  // Used by the server's thread only.
  std::shared_ptr<const ServiceFlow> text_flow_;
  std::shared_ptr<const std::string> text_;

  std::unique_ptr<HttpServer> server_;  // the last member: its thread uses the others
};

}  // namespace qx::relay
