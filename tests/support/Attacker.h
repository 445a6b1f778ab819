// An ordinary user, in a separate process, who works normally or attacks a process of root.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

#include "tests/support/Shared.h"

namespace qx::test {

inline constexpr uid_t kOrdinaryUser = 65534;

// True if this process is root: only then there is another user who can attack it.
[[nodiscard]] bool IsRoot();

// Gives up root's user, group and further groups for good; for a child process of root. False if that fails.
[[nodiscard]] bool BecomeOrdinaryUser();

// What `action` returns in a child process that runs as the ordinary user; if this process is not root, in this
// process. A test fails (by exception) if there is no such child.
bool AsOrdinaryUser(const std::function<bool()>& action);

// The same, after GiveTreeToOrdinaryUser(directory) if this process is root.
bool AsOrdinaryUser(const std::string& directory, const std::function<bool()>& action);
// How often a race is tried: `quick` times, or as often as the environment variable QX_RACE_TRIES says.
int RaceTries(int quick);

// Prints the result of a race, for script/trust attacks: "tries: 400 commands, 31 refused".
void PrintTries(const std::string& what);

// Gives a file, link or directory to the ordinary user.
void GiveToOrdinaryUser(const std::string& path);

// Gives root's own `directory`, and everything in it that is root's, to the ordinary user.
void GiveTreeToOrdinaryUser(const std::string& directory);

// Makes a hard link to root's `file` as the ordinary user. Where fs.protected_hardlinks forbids it, the link is made
// while root's file is open to all for a moment, as after a wrong umask. Returns whether the setting forbids it.
bool HardLinkByOrdinaryUser(const std::string& file, const std::string& link);

// Lets the ordinary user read and write whatever is created in `directory` from now on, whoever creates it, by an
// access list. False: the file system has none.
bool GiveDefaultAccessList(const std::string& directory);

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
  Shared<std::atomic<long>> steps_;
};

// Swaps two names in one step, if both exist.
void Exchange(const char* left, const char* right);

// The same, then leaves them so for some microseconds: as long as root's calls take.
void ExchangeAndPause(const char* left, const char* right);

}  // namespace qx::test
