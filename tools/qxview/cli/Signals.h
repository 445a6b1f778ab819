// The signals of the server as events, in no signal handler.
#pragma once

#include "base/File.h"

namespace qx::view {

// SIGTERM, SIGINT and SIGHUP arrive here. Make it before any thread starts: threads inherit that they are blocked.
//
// Threads: one thread. Owns: a descriptor. Failure: without a descriptor the signals keep their effect.
class Signals {
 public:
  Signals();

  // Readable when a signal has arrived. [owning thread]
  [[nodiscard]] int Descriptor() const { return file_.Number(); }
  // Takes what has arrived. [owning thread]
  void Take();
  // [owning thread]
  [[nodiscard]] bool IsStopRequested() const { return is_stop_; }
  // Whether a new token is requested (SIGHUP); asked once. [owning thread]
  [[nodiscard]] bool TakeTokenRequest();

 private:
  file::Descriptor file_;
  bool is_stop_ = false;
  bool is_token_ = false;
};

}  // namespace qx::view
