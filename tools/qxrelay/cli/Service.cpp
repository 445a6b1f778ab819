#include "tools/qxrelay/cli/Service.h"

#include <poll.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <limits>

namespace qx::relay {

namespace {

constexpr std::int64_t kMicrosecondsInMs = 1000;

}  // namespace

void WaitForEither(int first, int second, std::int64_t time_ms) {
  pollfd files[] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
  const std::int64_t time = std::clamp(time_ms, std::int64_t{0}, std::int64_t{INT_MAX});
  (void)poll(files, std::size(files), static_cast<int>(time));  // a failure is a short wait
}

std::int64_t SteadyMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t WallMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

ServiceManager::ServiceManager() {
  std::uint64_t period = 0;
  const bool has_watchdog = sd_watchdog_enabled(0, &period) > 0;
  if (has_watchdog) period_ms_ = std::max<std::int64_t>(1, static_cast<std::int64_t>(period) / kMicrosecondsInMs / 3);
  if (!has_watchdog) next_ms_ = std::numeric_limits<std::int64_t>::max();
}

// The results are ignored: if there is no service manager, nobody receives the messages.
void ServiceManager::Ready(const std::string& status) { (void)sd_notify(0, ("READY=1\nSTATUS=" + status).c_str()); }
void ServiceManager::Status(const std::string& status) { (void)sd_notify(0, ("STATUS=" + status).c_str()); }
void ServiceManager::Reloading() { (void)sd_notify(0, "RELOADING=1"); }
void ServiceManager::Stopping() { (void)sd_notify(0, "STOPPING=1"); }

void ServiceManager::Alive(std::int64_t now_ms) {
  if (period_ms_ == 0 || now_ms < next_ms_) return;
  next_ms_ = now_ms + period_ms_;
  (void)sd_notify(0, "WATCHDOG=1");
}

}  // namespace qx::relay
