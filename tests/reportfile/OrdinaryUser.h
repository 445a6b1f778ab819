// An ordinary user at work: a process that runs one step again and again, as fast as it can, while the test does what
// root does.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace qx::test {

// True if this process is root: it may become an ordinary user, and can be attacked.
[[nodiscard]] bool IsRoot();

class OrdinaryUser {
 public:
  // Starts `step` in a process of user and group 65534, who then owns root's `directory` and everything in it. The step
  // must neither throw nor allocate through locks of this process: system calls only.
  OrdinaryUser(const std::string& directory, const std::function<void()>& step);
  ~OrdinaryUser();
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

  // The number of finished steps.
  [[nodiscard]] long Steps() const;

 private:
  pid_t process_ = -1;
  long* steps_ = nullptr;  // shared with the process
};

// Swaps two names in one step, if both exist, and leaves them swapped for some microseconds, as long as root's calls
// take.
void Exchange(const char* left, const char* right);

}  // namespace qx::test
