// Runs a function in its own process, so that a crash ends only this process.
#pragma once

#include <functional>
#include <string>

namespace qx::ctl {

struct ChildOutcome {
  std::string text;     // the result of the work, or empty
  int exit_code = 0;    // the reason, if the work did not return
  std::string trouble;  // empty: the work returned; else "killed by signal 11 (Segmentation fault)", ...
};

// Forks, runs `work` in the child, and waits for it for at most `seconds`. The child has no standard input and output,
// and writes no core file.
// Threads: the process must have one thread only.
[[nodiscard]] ChildOutcome RunInChild(double seconds, const std::function<std::string()>& work);

}  // namespace qx::ctl
