// Lets a long command end in order when the operator presses ^C or the terminal is closed: the command sees the signal
// at its next step and cleans up, and then the same signal ends the process.
#pragma once

#include <string>

namespace qx::ctl {

// The first of SIGINT, SIGTERM and SIGHUP that arrived under a guard, or 0.
int InterruptSignal();

// During its lifetime those signals are recorded and do not kill the process. Threads: one guard at a time, on the only
// thread.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// From now on a signal outside a guard removes this directory with its files and then kills the process. One directory
// at a time; an empty path clears it. Subdirectories stay.
void RemoveOnSignal(const std::string& directory);

// Ends the process with the recorded signal, if there is one, so that a shell sees why the command ended.
void DieOfInterrupt();

}  // namespace qx::ctl
