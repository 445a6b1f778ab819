#include "tests/reportfile/OrdinaryUser.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "tests/reportfile/Trees.h"

namespace qx::test {

namespace {

[[noreturn]] void Work(const std::function<void()>& step, long* steps) {
  if (setresgid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) != 0) _exit(2);
  if (setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) != 0) _exit(2);
  for (;;) {
    step();
    std::atomic_ref(*steps).fetch_add(1);
  }
}

}  // namespace

bool IsRoot() { return geteuid() == 0; }

OrdinaryUser::OrdinaryUser(const std::string& directory, const std::function<void()>& step) {
  GiveToOrdinaryUser(directory);
  void* const memory = mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  steps_ = static_cast<long*>(memory);
  process_ = fork();
  if (process_ == 0) Work(step, steps_);
  if (process_ < 0) throw std::runtime_error("no child process");
}

OrdinaryUser::~OrdinaryUser() {
  (void)kill(process_, SIGKILL);
  (void)waitpid(process_, nullptr, 0);
  (void)munmap(steps_, sizeof(long));
}

long OrdinaryUser::Steps() const { return std::atomic_ref(*steps_).load(); }

void Exchange(const char* left, const char* right) {
  (void)renameat2(AT_FDCWD, left, AT_FDCWD, right, RENAME_EXCHANGE);  // one of the names may not exist at this moment
  usleep(1);
}

}  // namespace qx::test
