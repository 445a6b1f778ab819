#include "tests/support/Attacker.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

void BecomeOrdinaryUser() {
  const bool is_done = setgid(kOrdinaryUser) == 0 && setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) == 0;
  if (!is_done) EndChild(2);
}

}  // namespace

bool AsOrdinaryUser(const std::function<bool()>& action) {
  const pid_t child = fork();
  if (child == 0) {
    BecomeOrdinaryUser();
    EndChild(action() ? 0 : 1);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

void GiveToOrdinaryUser(const std::string& path) {
  if (lchown(path.c_str(), kOrdinaryUser, kOrdinaryUser) != 0) throw std::runtime_error("cannot give away " + path);
}

Attacker::Attacker(const std::function<void()>& step) : pid_(fork()) {
  if (pid_ < 0) throw std::runtime_error("no process for the attacker");
  if (pid_ > 0) return;
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no attacker
  BecomeOrdinaryUser();
  for (;;) step();
}

Attacker::~Attacker() {
  (void)kill(pid_, SIGKILL);
  (void)waitpid(pid_, nullptr, 0);
}

}  // namespace qx::test
