// An ordinary user at work: a process that runs one step again and again, as fast as it can, while the test does what
// root does.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace qx::test {

// True if this process may become an ordinary user, and so has something to lose.
[[nodiscard]] bool IsRoot();

class OrdinaryUser {
 public:
  // Begins with `step` in a process of user and group 65534, to which root's own `directory` and everything in it is
  // given. The step must neither throw nor allocate through locks of this process: system calls only.
  OrdinaryUser(const std::string& directory, const std::function<void()>& step);
  ~OrdinaryUser();
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

  // How many steps are done.
  [[nodiscard]] long Steps() const;

 private:
  pid_t process_ = -1;
  long* steps_ = nullptr;  // shared with the process
};

// Swaps two names in one step, if both exist, and leaves them so for some microseconds: as long as root's calls take.
void Exchange(const char* left, const char* right);

}  // namespace qx::test
