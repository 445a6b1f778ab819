// Waits, clocks, and messages to the service manager, for the commands that run as a service.
#pragma once

#include <cstdint>
#include <string>

namespace qx::relay {

// Waits until one of the descriptors (-1: no descriptor) is readable, or until the time is over. [any thread]
void WaitForEither(int first, int second, std::int64_t time_ms);

// Milliseconds of the monotonic clock, and of the wall clock since 1970. [any thread]
[[nodiscard]] std::int64_t SteadyMs();
[[nodiscard]] std::int64_t WallMs();

// Sends the state of the service to systemd (sd_notify). Nothing happens without a service manager.
//
// Threads: one thread.
class ServiceManager {
 public:
  ServiceManager();

  static void Ready(const std::string& status);
  static void Status(const std::string& status);
  static void Reloading();
  static void Stopping();
  // Reports to the watchdog that the service is alive. Sends nothing before this is due. [owning thread]
  void Alive(std::int64_t now_ms);
  // When Alive is to be called again. [owning thread]
  [[nodiscard]] std::int64_t NextAlive() const { return next_ms_; }

 private:
  std::int64_t period_ms_ = 0;  // 0: there is no watchdog
  std::int64_t next_ms_ = 0;
};

}  // namespace qx::relay
