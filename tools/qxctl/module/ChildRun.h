// A piece of work in a process of its own, so that what goes wrong in it stays there.
#pragma once

#include <functional>
#include <string>

namespace qx::ctl {

struct ChildOutcome {
  std::string text;     // what the work returned, or nothing
  int exit_code = 0;    // of a child that ended otherwise than by returning
  std::string trouble;  // empty: the work returned. "killed by signal 11 (Segmentation fault)", ...
};

// Forks, runs `work` and waits for at most `seconds`. The child has no standard input and output and writes no core.
// Threads: the process must have one thread only.
[[nodiscard]] ChildOutcome RunInChild(double seconds, const std::function<std::string()>& work);

}  // namespace qx::ctl
