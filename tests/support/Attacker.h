// An ordinary user, in a separate process, who works normally or attacks a process of root.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

#include "tests/support/Shared.h"

namespace qx::test {

inline constexpr uid_t kOrdinaryUser = 65534;

// True if this process is root. Only then is there another user who can attack it.
[[nodiscard]] bool IsRoot();

// Gives up root's user, group and further groups for good. To be called in a child process of root. False if it fails.
[[nodiscard]] bool BecomeOrdinaryUser();

// Runs `action` as the ordinary user in a child process, and returns its result; if this process is not root, runs it
// here. If there is no such child, the test fails by an exception.
bool AsOrdinaryUser(const std::function<bool()>& action);

// AsOrdinaryUser after GiveTreeToOrdinaryUser(directory), which is left out if this process is not root.
bool AsOrdinaryUser(const std::string& directory, const std::function<bool()>& action);
// The number of tries of a race: `quick`, or the value of the environment variable QX_RACE_TRIES.
int RaceTries(int quick);

// Prints the result of a race, for script/trust attacks: "tries: 400 commands, 31 refused".
void PrintTries(const std::string& what);

// Gives a file, link or directory to the ordinary user.
void GiveToOrdinaryUser(const std::string& path);

// Gives root's own `directory`, and everything in it that belongs to root, to the ordinary user.
void GiveTreeToOrdinaryUser(const std::string& directory);

// Makes a hard link to root's `file` as the ordinary user. If fs.protected_hardlinks forbids this, root's file is open
// to all while the link is made, as after a wrong umask. Returns whether the setting forbids it.
bool HardLinkByOrdinaryUser(const std::string& file, const std::string& link);

// Sets an access list of `directory`: from now on the ordinary user can read and write whatever anybody creates in it.
// False if the file system has no access lists.
bool GiveDefaultAccessList(const std::string& directory);

// Repeats `step` as the ordinary user until the end of the scope, as fast as possible. The step must not throw, nor
// take a lock that another thread of the test may hold at the fork.
class Attacker {
 public:
  explicit Attacker(const std::function<void()>& step);
  ~Attacker();
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

  // The number of steps so far.
  [[nodiscard]] long Steps() const;

 private:
  pid_t process_ = -1;
  Shared<std::atomic<long>> steps_;
};

// Swaps two names in one step, if both exist.
void Exchange(const char* left, const char* right);

// Exchange, and then a pause of some microseconds: as long as root's calls take.
void ExchangeAndPause(const char* left, const char* right);

}  // namespace qx::test
