// What a daemon needs from the system: signals as events, and messages to the service manager.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>

#include "base/File.h"

namespace qx::relay {

// Receives SIGTERM, SIGINT and SIGHUP without a signal handler. It blocks these signals; create it before any thread
// starts, because threads inherit this.
//
// Threads: one thread. Owns: a descriptor. Failure: without a descriptor the signals keep their usual effect.
class ServiceSignals {
 public:
  ServiceSignals();

  [[nodiscard]] int Descriptor() const { return file_.Number(); }

  // Reads the signals that have arrived. [owning thread]
  void Take();
  // Whether the service is to end, or to read its settings again. The second result is true once for each request.
  // [owning thread]
  [[nodiscard]] bool IsStopRequested() const { return is_stop_; }
  [[nodiscard]] bool TakeReload();

 private:
  file::Descriptor file_;
  bool is_stop_ = false;
  bool is_reload_ = false;
};

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
