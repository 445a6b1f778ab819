// Lets a long command end in order when the operator presses ^C or the terminal goes away: the command sees the signal
// at its next step, tidies up, and the process then dies of that very signal.
#pragma once

#include <string>

namespace qx::ctl {

// The first of SIGINT, SIGTERM and SIGHUP that arrived under a guard, or 0.
int InterruptSignal();

// During its lifetime those signals are remembered instead of killing the process.
// Threads: one guard at a time, on the only thread.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// From now on a signal that no guard remembers removes this directory with the files in it, and then kills the process.
// One directory at a time; an empty path forgets it. Subdirectories stay.
void RemoveOnSignal(const std::string& directory);

// Dies of the remembered signal, if there is one, so that a shell sees why the command ended.
void DieOfInterrupt();

}  // namespace qx::ctl
