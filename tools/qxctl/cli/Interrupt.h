// Lets a long command end in order when the operator presses ^C or the terminal is closed: the command sees the signal
// at its next step and cleans up, and then the same signal ends the process.
#pragma once

#include <chrono>
#include <csignal>
#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The first of SIGINT, SIGTERM and SIGHUP that arrived under a guard; SIGPIPE once the reader of an output is gone; or
// 0.
int InterruptSignal();

// To be called at the start of the program. From then on a write to a pipe without a reader fails with EPIPE and does
// not kill the process.
void HoldBrokenPipe();

// Remembers that a write failed because the reader is gone. If the parent process ignores SIGPIPE, nothing is
// remembered: the failed write is then an error like any other.
void RememberBrokenPipe();

// Waits for `time`. Returns early when a signal arrives, and when the reader of standard output is gone: that is kIo,
// and remembered as a broken pipe.
Status WaitWhileOutputIsRead(std::chrono::nanoseconds time);

// During its lifetime the signals of InterruptSignal are recorded and do not kill the process. Threads: one guard at a
// time, on the only thread.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// Blocks the signals of InterruptSignal during its lifetime: a signal arrives only when the directory that it has to
// remove is known. Threads: on the only thread.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t before_ = {};
};

// From now on a signal outside a guard removes this directory with everything in it, down to 64 levels, and then kills
// the process. One directory at a time; an empty path clears it. The directory may be removed before.
void RemoveOnSignal(const std::string& directory);

// Ends the process with the recorded signal, if there is one, so that a shell sees why the command ended.
void EndBySignal();

}  // namespace qx::ctl
