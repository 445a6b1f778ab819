#include "tests/support/Attacker.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "tests/support/ChildProcess.h"
#include "tests/support/Support.h"

namespace qx::test {

namespace fs = std::filesystem;

namespace {

constexpr int kNoOrdinaryUser = 2;

[[noreturn]] void Repeat(const std::function<void()>& step, std::atomic<long>& steps) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no attacker
  if (!BecomeOrdinaryUser()) _exit(kNoOrdinaryUser);
  for (;;) {
    step();
    ++steps;
  }
}

}  // namespace

bool IsRoot() { return geteuid() == 0; }

bool BecomeOrdinaryUser() {
  return setgroups(0, nullptr) == 0 && setresgid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0 &&
         setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0;
}

bool AsOrdinaryUser(const std::function<bool()>& action) {
  if (!IsRoot()) return action();
  const int status = StatusOfChild([&] { return !BecomeOrdinaryUser() ? kNoOrdinaryUser : (action() ? 0 : 1); });
  if (status > 1) throw std::runtime_error("the child process failed");
  return status == 0;
}

bool AsOrdinaryUser(const std::string& directory, const std::function<bool()>& action) {
  if (IsRoot()) GiveTreeToOrdinaryUser(directory);
  return AsOrdinaryUser(action);
}

int RaceTries(int quick) {
  const char* const tries = std::getenv("QX_RACE_TRIES");
  return tries == nullptr ? quick : std::atoi(tries);
}

void PrintTries(const std::string& what) { std::printf("tries: %s\n", what.c_str()); }

void GiveToOrdinaryUser(const std::string& path) {
  if (lchown(path.c_str(), kOrdinaryUser, kOrdinaryUser) != 0) throw std::runtime_error("cannot give away " + path);
}

void GiveTreeToOrdinaryUser(const std::string& directory) {
  GiveToOrdinaryUser(directory);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    struct stat status;
    // A file that the test gave to another user keeps this owner.
    if (lstat(entry.path().c_str(), &status) == 0 && status.st_uid == 0) GiveToOrdinaryUser(entry.path());
  }
}

bool HardLinkByOrdinaryUser(const std::string& file, const std::string& link) {
  const auto make_link = [&] { return ::link(file.c_str(), link.c_str()) == 0; };
  if (AsOrdinaryUser(make_link)) return false;
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0 || ReadFile("/proc/sys/fs/protected_hardlinks") == "0\n")
    throw std::runtime_error("no hard link to " + file);
  const bool is_made = chmod(file.c_str(), 0666) == 0 && AsOrdinaryUser(make_link);
  if (chmod(file.c_str(), status.st_mode & 07777) != 0 || !is_made)
    throw std::runtime_error("no hard link to the open " + file);
  return true;
}

// An access list in its binary form: version 2, then tag, permissions and id of each entry: owner, user, group, mask,
// others.
bool GiveDefaultAccessList(const std::string& directory) {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t permissions;
    std::uint32_t id;
  };
  constexpr std::uint32_t kNoId = ~std::uint32_t{0};
  const struct {
    std::uint32_t version = 2;
    Entry entries[5] = {{1, 7, kNoId}, {2, 7, kOrdinaryUser}, {4, 7, kNoId}, {16, 7, kNoId}, {32, 0, kNoId}};
  } list;
  return setxattr(directory.c_str(), "system.posix_acl_default", &list, sizeof list, 0) == 0;
}

Attacker::Attacker(const std::function<void()>& step) : steps_(0) {
  process_ = fork();
  if (process_ == 0) Repeat(step, *steps_);
  if (process_ < 0) throw std::runtime_error("no process for the attacker");
}

Attacker::~Attacker() {
  (void)kill(process_, SIGKILL);
  (void)waitpid(process_, nullptr, 0);
}

long Attacker::Steps() const { return *steps_; }

void Exchange(const char* left, const char* right) {
  (void)renameat2(AT_FDCWD, left, AT_FDCWD, right, RENAME_EXCHANGE);  // one of them may be gone at this moment
}

void ExchangeAndPause(const char* left, const char* right) {
  Exchange(left, right);
  usleep(1);
}

}  // namespace qx::test
