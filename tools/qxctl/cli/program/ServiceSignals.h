// Receives the signals of a service through a descriptor, without a signal handler.
#pragma once

#include "base/File.h"

namespace qx::ctl {

// Receives SIGTERM, SIGINT and SIGHUP. Its constructor blocks these signals for the calling thread; create it before
// any other thread starts, because a thread inherits the blocked signals.
//
// Threads: one thread. Owns: a descriptor. Failure: without a descriptor the signals keep their usual effect.
class ServiceSignals {
 public:
  ServiceSignals();

  // Readable when a signal has arrived. [owning thread]
  [[nodiscard]] int Descriptor() const { return file_.Number(); }
  // Reads the signals that have arrived. [owning thread]
  void Take();
  // Whether the service is to end (SIGTERM, SIGINT). [owning thread]
  [[nodiscard]] bool IsStopRequested() const { return is_stop_; }
  // Whether SIGHUP has arrived since the previous call. The service then does what SIGHUP means to it, such as to read
  // its settings again. [owning thread]
  [[nodiscard]] bool TakeReload();

 private:
  file::Descriptor file_;
  bool is_stop_ = false;
  bool is_reload_ = false;
};

}  // namespace qx::ctl
