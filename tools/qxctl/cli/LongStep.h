// Shows the progress of a step that may take long and prints nothing: from the first second on, a line shows how long
// the step has taken, and what it has read and written.
//
// Threads: one of its own, only if progress is shown; this thread reads no data of the command.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

// The step lasts from construction to destruction. Nothing may be printed in between.
class LongStep {
 public:
  // `what` names the work: "checking Reports/load". `total` returns how many bytes have to be read, 0 if that is not
  // known; it is called on the thread of the progress.
  LongStep(const Output& output, std::string what, std::function<std::uint64_t()> total = {});
  ~LongStep();
  LongStep(const LongStep&) = delete;
  LongStep& operator=(const LongStep&) = delete;

 private:
  void Watch();

  const std::string what_;
  const std::function<std::uint64_t()> total_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool has_ended_ = false;
  std::thread thread_;
};

}  // namespace qx::ctl
