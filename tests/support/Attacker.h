// An ordinary user who attacks a process of root, in a process of its own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace qx::test {

inline constexpr uid_t kOrdinaryUser = 65534;

// Runs `action` as the ordinary user in a child process. False if that returned false or the child could not be made.
// Only root can do this.
bool AsOrdinaryUser(const std::function<bool()>& action);

// Gives a file, link or directory to the ordinary user.
void GiveToOrdinaryUser(const std::string& path);

// Repeats `step` as the ordinary user until the end of the scope.
class Attacker {
 public:
  explicit Attacker(const std::function<void()>& step);
  ~Attacker();
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

 private:
  pid_t pid_ = -1;
};

}  // namespace qx::test
