// The signals of a service as events, in no signal handler.
#pragma once

#include "base/File.h"

namespace qx::ctl {

// Receives SIGTERM, SIGINT and SIGHUP without a signal handler. It blocks these signals; create it before any thread
// starts, because threads inherit this.
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
  // Whether it is to do what SIGHUP means to it, such as to read its settings again; true once for each request.
  // [owning thread]
  [[nodiscard]] bool TakeReload();

 private:
  file::Descriptor file_;
  bool is_stop_ = false;
  bool is_reload_ = false;
};

}  // namespace qx::ctl
