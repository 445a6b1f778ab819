// An ordinary user who works, or attacks a process of root, in a process of its own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace qx::test {

inline constexpr uid_t kOrdinaryUser = 65534;

// True if this process may become an ordinary user, and so has something to lose.
[[nodiscard]] bool IsRoot();

// Gives up root's user, group and further groups for good; for a child process of root. False if that fails.
[[nodiscard]] bool BecomeOrdinaryUser();

// What `action` returns in a child process that runs as the ordinary user; if this process is not root, in this
// process. A test fails (by exception) if there is no such child.
bool AsOrdinaryUser(const std::function<bool()>& action);

// The same, after GiveTreeToOrdinaryUser(directory) if this process is root.
bool AsOrdinaryUser(const std::string& directory, const std::function<bool()>& action);

// Gives a file, link or directory to the ordinary user.
void GiveToOrdinaryUser(const std::string& path);

// Gives root's own `directory`, and everything in it that is root's, to the ordinary user.
void GiveTreeToOrdinaryUser(const std::string& directory);

// Repeats `step` as the ordinary user until the end of the scope, as fast as possible. The step must not throw, nor
// take a lock that another thread of the test may hold at the fork.
class Attacker {
 public:
  explicit Attacker(const std::function<void()>& step);
  ~Attacker();
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

  // How many steps are done.
  [[nodiscard]] long Steps() const;

 private:
  pid_t process_ = -1;
  long* steps_ = nullptr;  // shared with the process
};

// Swaps two names in one step, if both exist.
void Exchange(const char* left, const char* right);

// The same, then leaves them so for some microseconds: as long as root's calls take.
void ExchangeAndPause(const char* left, const char* right);

}  // namespace qx::test
