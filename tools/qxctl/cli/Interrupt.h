// Lets a long command end in order when the operator presses ^C or the terminal goes away: the command sees the signal
// at its next step, tidies up, and the process then dies of that very signal.
#pragma once

namespace qx::ctl {

// The first of SIGINT, SIGTERM and SIGHUP that arrived under a guard, or 0.
int InterruptSignal();

// While it lives those signals are remembered instead of killing the process.
// Threads: one guard at a time, on the only thread.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// Dies of the remembered signal, if there is one, so that a shell sees why the command ended.
void DieOfInterrupt();

}  // namespace qx::ctl
