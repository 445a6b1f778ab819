// Tests a system that refuses to start a process: no command runs, and outputs and working directory stay as before.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>

#include "process/Process.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Support.h"

namespace {

constexpr unsigned kNoHandles = 0xFFFFFFFFU;

// Makes a system call of this process fail with EAGAIN from now on. fork fails in this way at the limit of processes.
bool Forbid(long call) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

bool ForbidForks() {
  bool is_forbidden = Forbid(SYS_clone);
#ifdef SYS_clone3
  is_forbidden = Forbid(SYS_clone3) && is_forbidden;
#endif
#ifdef SYS_fork
  is_forbidden = Forbid(SYS_fork) && is_forbidden;
#endif
#ifdef SYS_vfork
  is_forbidden = Forbid(SYS_vfork) && is_forbidden;
#endif
  return is_forbidden && fork() < 0;
}

// The exit status of a child that runs `body` and cannot start processes.
int StatusWithoutForks(const std::function<int()>& body) {
  return qx::test::StatusOfChild([&] { return ForbidForks() ? body() : 77; });
}

TEST(ProcessFork, FailedForkGivesNoProcessAndRestoresTheDirectory) {
  const qx::test::TempDir dir;
  EXPECT_EQ(StatusWithoutForks([&] {
              std::string before;
              if (!CProcess::GetCurrentDir(before)) return 1;
              for (const bool async : {false, true}) {
                unsigned pid = 1;
                unsigned exit_code = 1;
                if (CProcess::execute_command("true", pid, exit_code, dir.Path().c_str(), false, async, false))
                  return 2;
                if (pid != kNoHandles || exit_code != kNoHandles) return 3;
                std::string after;
                if (!CProcess::GetCurrentDir(after) || after != before) return 4;
              }
              return 0;
            }),
            0);
}

}  // namespace
