#include "process/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Support.h"

namespace {

using qx::test::Exists;
using qx::test::ReadFile;
using qx::test::StatusOfChild;
using qx::test::TempDir;
using qx::test::WriteFile;

constexpr unsigned kNone = 0xFFFFFFFFU;

// A command for the test: a shell script whose path has no white space.
class Script {
 public:
  explicit Script(const std::string& body) {
    WriteFile(Path(), "#!/bin/sh\n" + body);
    EXPECT_EQ(chmod(Path().c_str(), 0755), 0);
  }
  std::string Path() const { return dir_.File("script"); }
  std::string File(const char* name) const { return dir_.File(name); }
  std::string Dir() const { return dir_.Path(); }

 private:
  TempDir dir_;
};

struct Outcome {
  bool result;
  unsigned pid;
  unsigned exit_code;
};

Outcome RunCommand(const std::string& command, const char* dir = nullptr, bool inherit_handles = false) {
  Outcome outcome{false, 0, 0};
  outcome.result = CProcess::ExecuteCmd(command.c_str(), outcome.pid, outcome.exit_code, dir, false, inherit_handles);
  return outcome;
}

std::string CurrentDir() {
  std::string dir;
  EXPECT_TRUE(CProcess::GetCurrentDir(dir));
  return dir;
}

TEST(Process, CommandLineIsSplitAtWhiteSpaceWithoutQuoting) {
  const Script script("printf '%s\\n' \"$@\" > \"$(dirname \"$0\")/words\"\n");
  EXPECT_TRUE(RunCommand("  " + script.Path() + "\t'a b' \\\n$HOME\v* \f\"\"\r").result);
  EXPECT_EQ(ReadFile(script.File("words")), "'a\nb'\n\\\n$HOME\n*\n\"\"\n");
}

// "prog 'a b' $HOME  =>  prog | 'a | b' | $HOME": a script is used in place of prog.
TEST(Process, WorkedExampleOfThePageIsWhatTheProgramGets) {
  const std::string example = qx::test::DocExample("processes.md", "command-words");
  const std::size_t arrow = example.find("  =>  ");
  const Script script("{ printf prog; printf ' | %s' \"$@\"; echo; } > \"$(dirname \"$0\")/words\"\n");
  EXPECT_TRUE(RunCommand(script.Path() + example.substr(4, arrow - 4)).result);
  EXPECT_EQ(ReadFile(script.File("words")), example.substr(arrow + 6));
}

TEST(Process, ProgramIsLookedUpAlongThePath) { EXPECT_TRUE(RunCommand("true").result); }

TEST(Process, SynchronousResultIsTrueOnlyForExitStatusZero) {
  const Outcome good = RunCommand("true");
  EXPECT_TRUE(good.result);
  EXPECT_EQ(good.exit_code, 0U);
  EXPECT_NE(good.pid, kNone);

  const Script script("exit 7\n");
  const Outcome bad = RunCommand(script.Path());
  EXPECT_FALSE(bad.result);
  EXPECT_EQ(bad.exit_code, 7U);
}

TEST(Process, ProgramThatCannotBeStartedGives255) {
  const Outcome outcome = RunCommand("/nowhere/no-such-program");
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.exit_code, 255U);
  EXPECT_NE(outcome.pid, kNone);
}

TEST(Process, ChildKilledByASignalLeavesTheExitCodeAllOnes) {
  const Script script("kill -KILL $$\n");
  const Outcome outcome = RunCommand(script.Path());
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.exit_code, kNone);
}

TEST(Process, EmptyCommandStartsNothing) {
  for (const char* command : {"", " \t\n\v\f\r", static_cast<const char*>(nullptr)}) {
    for (const bool async : {false, true}) {
      unsigned pid = 1;
      unsigned exit_code = 1;
      EXPECT_FALSE(CProcess::execute_command(command, pid, exit_code, nullptr, false, async, false));
      EXPECT_EQ(pid, kNone);
      EXPECT_EQ(exit_code, kNone);
    }
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child at all
}

TEST(Process, AsynchronousCommandIsTrueOnceStartedAndReapedByWaitForExit) {
  const Script script("exit 3\n");
  unsigned pid = 0;
  unsigned exit_code = 0;
  EXPECT_TRUE(CProcess::execute_command(script.Path().c_str(), pid, exit_code, nullptr, false, true, false));
  EXPECT_EQ(exit_code, kNone);
  EXPECT_FALSE(CProcess::WaitForExit(pid, exit_code, 0));
  EXPECT_EQ(exit_code, 3U);
  EXPECT_FALSE(CProcess::WaitForExit(pid, exit_code, 0));
  EXPECT_EQ(exit_code, kNone);
}

TEST(Process, AsynchronousProgramThatCannotBeStartedIsTrueAnyway) {
  unsigned pid = 0;
  unsigned exit_code = 0;
  EXPECT_TRUE(CProcess::ExecuteCmdAsync("/nowhere/no-such-program", pid, nullptr, false, false));
  EXPECT_FALSE(CProcess::WaitForExit(pid, exit_code, 0));
  EXPECT_EQ(exit_code, 255U);
}

TEST(Process, ShortFormsRunTheCommand) {
  EXPECT_TRUE(CProcess::ExecuteCmd("true", nullptr, true, true));
  EXPECT_FALSE(CProcess::ExecuteCmd("false", nullptr, true, true));
  EXPECT_TRUE(CProcess::ExecuteCmdAsync("false", nullptr, false, false));
  int status = 0;
  EXPECT_GT(waitpid(-1, &status, 0), 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST(Process, CommandRunsInItsDirectoryAndTheProcessGoesBack) {
  const Script script("pwd > \"$(dirname \"$0\")/where\"\n");
  const TempDir dir;
  const std::string before = CurrentDir();
  EXPECT_TRUE(RunCommand(script.Path(), dir.Path().c_str()).result);
  EXPECT_EQ(ReadFile(script.File("where")), dir.Path() + "\n");
  EXPECT_EQ(CurrentDir(), before);
}

TEST(Process, AsynchronousCommandRunsInItsDirectoryAndTheProcessGoesBack) {
  const Script script("pwd > \"$(dirname \"$0\")/where\"\n");
  const TempDir dir;
  const std::string before = CurrentDir();
  unsigned pid = 0;
  unsigned exit_code = 1;
  EXPECT_TRUE(CProcess::ExecuteCmdAsync(script.Path().c_str(), pid, dir.Path().c_str(), false, false));
  EXPECT_EQ(CurrentDir(), before);
  EXPECT_TRUE(CProcess::WaitForExit(pid, exit_code, 0));
  EXPECT_EQ(ReadFile(script.File("where")), dir.Path() + "\n");
}

TEST(Process, EmptyOrCurrentDirectoryMeansNoChange) {
  EXPECT_TRUE(RunCommand("true", "").result);
  EXPECT_TRUE(RunCommand("true", CurrentDir().c_str()).result);
}

TEST(Process, DirectoryThatCannotBeEnteredStartsNothing) {
  const Script script("touch \"$(dirname \"$0\")/ran\"\n");
  const std::string before = CurrentDir();
  const Outcome outcome = RunCommand(script.Path(), "/nowhere/at/all");
  EXPECT_FALSE(outcome.result);
  EXPECT_EQ(outcome.pid, kNone);
  EXPECT_EQ(outcome.exit_code, kNone);
  EXPECT_FALSE(Exists(script.File("ran")));
  EXPECT_EQ(CurrentDir(), before);
}

TEST(Process, ResultIsFalseWhenTheFormerDirectoryIsGone) {
  const Script script("rmdir \"$(dirname \"$0\")/home\"\n");
  const std::string home = script.File("home");
  ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
  EXPECT_EQ(StatusOfChild([&] {
              if (!CProcess::SetCurrentDir(home.c_str())) return 1;
              const Outcome outcome = RunCommand(script.Path(), "/");
              return !outcome.result && outcome.exit_code == 0 ? 0 : 2;
            }),
            0);
}

class InheritedDescriptor {
 public:
  InheritedDescriptor() : null_(open("/dev/null", O_RDONLY)) { EXPECT_EQ(dup2(null_, kNumber), kNumber); }
  ~InheritedDescriptor() {
    close(kNumber);
    close(null_);
  }
  static constexpr int kNumber = 207;
  static Outcome Test(bool inherit_handles) {
    return RunCommand("test -e /proc/self/fd/207", nullptr, inherit_handles);
  }

 private:
  int null_;
};

TEST(Process, DescriptorsAreClosedInTheChildUnlessInherited) {
  const InheritedDescriptor descriptor;
  EXPECT_EQ(InheritedDescriptor::Test(false).exit_code, 1U);
  EXPECT_EQ(InheritedDescriptor::Test(true).exit_code, 0U);
  EXPECT_TRUE(RunCommand("test -e /proc/self/fd/2").result);  // standard error is always inherited
}

// Makes close_range fail as in a kernel that does not have it.
bool ForbidCloseRange() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0 &&
         close_range(100000, 100001, 0) != 0;
}

TEST(Process, DescriptorsAreClosedOneByOneWithoutCloseRange) {
  const InheritedDescriptor descriptor;
  EXPECT_EQ(StatusOfChild([] {
              if (!ForbidCloseRange()) return 77;
              // A limit below 256 counts as 1024. So descriptor 207 is closed both with the usual limit and with the
              // limit 64.
              const rlimit limit{64, 64};
              if (InheritedDescriptor::Test(false).exit_code != 1) return 2;
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 3;
              return InheritedDescriptor::Test(false).exit_code == 1 ? 0 : 4;
            }),
            0);
}

TEST(Process, FourSignalsAreUnblockedInTheChildAndOthersStayBlocked) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGUSR1}) sigaddset(&blocked, number);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  // SIGUSR1 is bit 9. The command is not a script, because a shell would clear the mask.
  EXPECT_TRUE(RunCommand("grep -q SigBlk:.0000000000000200 /proc/self/status").result);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1);  // the caller's own mask is untouched
}

void IgnoreSignal(int) {}

TEST(Process, WaitIsRetriedWhenASignalInterruptsIt) {
  EXPECT_EQ(StatusOfChild([] {
              struct sigaction action = {};
              action.sa_handler = IgnoreSignal;  // without SA_RESTART, so that waitpid returns early
              sigaction(SIGUSR1, &action, nullptr);
              const std::string command = "kill -USR1 " + std::to_string(getpid());
              const Script script(command + "\n" + command + "\nexit 0\n");
              return RunCommand(script.Path()).result ? 0 : 1;
            }),
            0);
}

TEST(Process, WaitForExitOfAKilledProcessIsFalse) {
  unsigned pid = 0;
  unsigned exit_code = 0;
  ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 1000", pid, nullptr, false, false));
  EXPECT_TRUE(CProcess::TerminateProcess(pid, 5));
  EXPECT_FALSE(CProcess::WaitForExit(pid, exit_code, 1));
  EXPECT_EQ(exit_code, kNone);
  EXPECT_FALSE(CProcess::TerminateProcess(pid, 5));  // the process no longer exists
}

// Runs in a child that leads its own process group, so that the test program survives if the id is not refused.
TEST(Process, IdOfAProcessGroupIsRefused) {
  EXPECT_EQ(StatusOfChild([] {
              setpgid(0, 0);
              for (const unsigned pid : {0U, static_cast<unsigned>(INT_MAX) + 1, static_cast<unsigned>(-getpid())}) {
                unsigned exit_code = 1;
                if (CProcess::TerminateProcess(pid, 0)) return 1;
                if (CProcess::WaitForExit(pid, exit_code, 0) || exit_code != kNone) return 2;
              }
              return 0;
            }),
            0);
}

TEST(Process, WaitForExitOfAGroupIdDoesNotReapAnotherChild) {
  unsigned pid = 0;
  unsigned exit_code = 0;
  ASSERT_TRUE(CProcess::ExecuteCmdAsync("true", pid, nullptr, false, false));
  EXPECT_FALSE(CProcess::WaitForExit(0, exit_code, 0));
  EXPECT_FALSE(CProcess::WaitForExit(kNone, exit_code, 0));
  EXPECT_TRUE(CProcess::WaitForExit(pid, exit_code, 0));
}

TEST(Process, ProcessIsFoundByItsExactShortName) {
  const std::string name = "qxf" + std::to_string(getpid());
  EXPECT_EQ(StatusOfChild([&] {
              prctl(PR_SET_NAME, name.c_str());
              unsigned pid = 0;
              if (!CProcess::FindProcess(pid, name.c_str()) || pid != static_cast<unsigned>(getpid())) return 1;
              if (CProcess::FindProcess(pid, (name + "x").c_str()) || pid != kNone) return 2;
              return 0;
            }),
            0);
}

TEST(Process, NameOfSixteenCharactersIsNeverFound) {
  const std::string name = "abcdefghijklmnop";
  EXPECT_EQ(StatusOfChild([&] {
              prctl(PR_SET_NAME, name.c_str());
              unsigned pid = 0;
              std::string kept;
              if (!CProcess::GetProcessName(kept, static_cast<unsigned>(getpid())) || kept != "abcdefghijklmno")
                return 1;
              return CProcess::FindProcess(pid, name.c_str()) || pid != kNone ? 2 : 0;
            }),
            0);
}

TEST(Process, NullNameFindsNothing) {
  unsigned pid = 0;
  EXPECT_FALSE(CProcess::FindProcess(pid, nullptr));
  EXPECT_EQ(pid, kNone);
}

// Makes the calling process root of a private user namespace and mount namespace.
bool EnterOwnNamespaces() {
  const std::string user = "0 " + std::to_string(getuid()) + " 1";
  const std::string group = "0 " + std::to_string(getgid()) + " 1";
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  WriteFile("/proc/self/uid_map", user);
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/gid_map", group);
  return true;
}

// Runs `body` with an empty /proc, which it may fill.
int WithEmptyProc(const std::function<int()>& body) {
  return StatusOfChild([&] {
    if (!EnterOwnNamespaces() || mount("none", "/proc", "tmpfs", 0, nullptr) != 0) return 77;
    return body();
  });
}

constexpr const char* kNamespaceAdvice = "77: allow unprivileged user namespaces (kernel.unprivileged_userns_clone)";

TEST(Process, FiguresOfAProcessAreReadFromItsStatusFile) {
  EXPECT_EQ(WithEmptyProc([] {
              mkdir("/proc/77", 0755);
              WriteFile(
                  "/proc/77/status",
                  "Name:\tagent\nVmPeak:\t    2049 kB\nVmSize:\t 2 MB\nVmLib:\t   512 kB\nVmSwap:\t       0 kB\n");
              unsigned long size = 1, peak = 1, swap = 1, reserved = 1, without_libraries = 1;
              if (!CProcess::GetProcessMemoryInfo(77, &size, &peak, &swap, &reserved, &without_libraries)) return 1;
              if (size != 2097152 || peak != 2098176 || swap != 0 || reserved != 0) return 2;
              if (without_libraries != 2097152 - 524288) return 3;
              unsigned long value = 9;
              if (!CProcess::GetProcessMemorySpecificInfo(77, &value, "VmPeak:", 1) || value != 2049) return 4;
              if (!CProcess::GetProcessMemorySpecificInfo(77, &value, "VmPeak:", 2) || value != 2) return 5;
              if (CProcess::GetProcessMemorySpecificInfo(77, &value, "VmHWM:", 0) || value != 2) return 6;
              WriteFile("/proc/77/status", "VmSize:\t 2 MB\n");  // no VmSwap: line, no VmPeak: line
              if (CProcess::GetProcessMemoryInfo(77, &size, &peak, &swap, &reserved, &without_libraries)) return 7;
              return size == 2097152 && peak == 0 && swap == 0 && without_libraries == 2097152 ? 0 : 8;
            }),
            0)
      << kNamespaceAdvice;
}

TEST(Process, EmptyOrMissingProcFindsNothing) {
  const auto finds_nothing = [] {
    unsigned pid = 0;
    return !CProcess::FindProcess(pid, "init") && pid == kNone ? 0 : 1;
  };
  EXPECT_EQ(WithEmptyProc(finds_nothing), 0) << kNamespaceAdvice;

  const TempDir empty_root;
  EXPECT_EQ(StatusOfChild([&] {
              if (unshare(CLONE_NEWUSER) != 0 || chroot(empty_root.Path().c_str()) != 0) return 77;
              return finds_nothing();
            }),
            0)
      << kNamespaceAdvice;
}

TEST(Process, FirstMatchIsFoundAndOtherEntriesAreSkipped) {
  EXPECT_EQ(WithEmptyProc([] {
              for (const char* dir : {"/proc/self", "/proc/12x", "/proc/31"}) {
                mkdir(dir, 0755);
                WriteFile(std::string(dir) + "/comm", "agent\n");
              }
              mkdir("/proc/32", 0755);  // without a readable name
              WriteFile("/proc/33", "not a directory");
              unsigned pid = 0;
              return CProcess::FindProcess(pid, "agent") && pid == 31 ? 0 : 1;
            }),
            0)
      << kNamespaceAdvice;
}

TEST(Process, OwnFiguresAreKnown) {
  unsigned long size = 0, peak = 0, swap = 1, reserved = 1, without_libraries = 0;
  EXPECT_TRUE(CProcess::GetProcessMemoryInfo(static_cast<unsigned>(getpid()), &size, &peak, &swap, &reserved,
                                             &without_libraries));
  EXPECT_GE(peak, size);
  EXPECT_GT(size, without_libraries);
  EXPECT_GT(without_libraries, 0U);
  EXPECT_EQ(reserved, 0U);
}

TEST(Process, FiguresOfAMissingProcessAreZero) {
  unsigned long size = 1, peak = 1, swap = 1, reserved = 1, without_libraries = 1, value = 9;
  EXPECT_FALSE(CProcess::GetProcessMemoryInfo(kNone, &size, &peak, &swap, &reserved, &without_libraries));
  EXPECT_EQ(size + peak + swap + reserved + without_libraries, 0U);
  EXPECT_FALSE(CProcess::GetProcessMemorySpecificInfo(kNone, &value, "VmSize:", 1));
  EXPECT_EQ(value, 9U);
  EXPECT_FALSE(CProcess::GetProcessMemorySpecificInfo(static_cast<unsigned>(getpid()), nullptr, "VmSize:", 1));
}

TEST(Process, OwnNameAndPathAreKnown) {
  const auto self = static_cast<unsigned>(getpid());
  std::string name;
  std::string path;
  EXPECT_TRUE(CProcess::GetProcessInfo(self, name, path));
  EXPECT_EQ(name, path.substr(path.rfind('/') + 1).substr(0, 15));
  EXPECT_EQ(path.substr(path.rfind('/') + 1), "process_test");
}

TEST(Process, MissingProcessLeavesNameAndPathUnchanged) {
  std::string name = "n";
  std::string path = "p";
  EXPECT_FALSE(CProcess::GetProcessInfo(kNone, name, path));
  EXPECT_FALSE(CProcess::GetProcessPath(path, 0));
  EXPECT_EQ(name + path, "np");
}

TEST(Process, UnreadablePathStillSetsTheName) {
  EXPECT_EQ(WithEmptyProc([] {
              mkdir("/proc/77", 0755);
              WriteFile("/proc/77/comm", "agent\n");  // and no exe
              std::string name = "n";
              std::string path = "p";
              if (CProcess::GetProcessInfo(77, name, path)) return 1;
              return name == "agent" && path == "p" ? 0 : 2;
            }),
            0)
      << kNamespaceAdvice;
}

TEST(Process, HandleCountIsNotAvailable) {
  unsigned count = 9;
  EXPECT_FALSE(CProcess::GetProcessHandleCount(static_cast<unsigned>(getpid()), count));
  EXPECT_EQ(count, 1U);
}

TEST(Process, ProcFileIsItsFirstLine) {
  std::string line;
  EXPECT_TRUE(CProcess::get_proc_file(getpid(), "status", line));
  EXPECT_EQ(line, "Name:\tprocess_test");
}

TEST(Process, MissingOrUnreadableProcFileLeavesTheOutputUnchanged) {
  std::string line = "kept";
  EXPECT_FALSE(CProcess::get_proc_file(getpid(), "no-such-file", line));
  EXPECT_FALSE(CProcess::get_proc_file(getpid(), "fd", line));
  EXPECT_FALSE(CProcess::get_proc_file(-1, "comm", line));
  EXPECT_FALSE(CProcess::get_proc_file(getpid(), nullptr, line));
  EXPECT_EQ(line, "kept");
}

TEST(Process, ProcFileLineIsTruncatedAtOneMebibyte) {
  EXPECT_EQ(WithEmptyProc([] {
              mkdir("/proc/77", 0755);
              WriteFile("/proc/77/environ", std::string(3U << 20U, 'x'));
              std::string line;
              if (!CProcess::get_proc_file(77, "environ", line) || line.size() != 1U << 20U) return 1;
              WriteFile("/proc/77/environ", "");
              return CProcess::get_proc_file(77, "environ", line) ? 2 : 0;
            }),
            0)
      << kNamespaceAdvice;
}

TEST(Process, WorkingDirectoryCanBeReadAndChanged) {
  const TempDir dir;
  const std::string before = CurrentDir();
  EXPECT_TRUE(CProcess::SetCurrentDir(dir.Path().c_str()));
  EXPECT_EQ(CurrentDir(), dir.Path());
  EXPECT_TRUE(CProcess::SetCurrentDir(before.c_str()));
  EXPECT_FALSE(CProcess::SetCurrentDir(""));
  EXPECT_FALSE(CProcess::SetCurrentDir(nullptr));
  EXPECT_FALSE(CProcess::SetCurrentDir("/nowhere/at/all"));
  EXPECT_EQ(CurrentDir(), before);
}

TEST(Process, UnknownWorkingDirectoryLeavesTheOutputUnchanged) {
  EXPECT_EQ(StatusOfChild([] {
              std::string out = "kept";
              {
                const TempDir dir;
                if (chdir(dir.Path().c_str()) != 0) return 1;
              }
              return !CProcess::GetCurrentDir(out) && out == "kept" ? 0 : 2;
            }),
            0);
}

// Other threads may hold the allocator's locks at the moment of the fork; a child that allocates would then hang.
TEST(ProcessThreads, CommandsRunWhileOtherThreadsAllocate) {
  std::atomic<bool> stop{false};
  std::vector<int> descriptors;
  for (int i = 0; i < 200; ++i) descriptors.push_back(open("/dev/null", O_RDONLY));
  std::vector<std::thread> busy;
  for (int t = 0; t < 3; ++t) {
    busy.emplace_back([&] {
      while (!stop) std::vector<std::string> block(100, std::string(100, 'x'));
    });
  }
  std::atomic<int> good{0};
  std::vector<std::thread> runners;
  for (int t = 0; t < 4; ++t) {
    runners.emplace_back([&] {
      for (int i = 0; i < 10; ++i) good += RunCommand("true").result ? 1 : 0;
    });
  }
  for (std::thread& runner : runners) runner.join();
  stop = true;
  for (std::thread& thread : busy) thread.join();
  for (const int descriptor : descriptors) close(descriptor);
  EXPECT_EQ(good, 40);
}

// The caller has thousands of open descriptors, and opens more while it forks.
TEST(ProcessThreads, ChildInheritsNoneOfThousandsOfDescriptors) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit raised = {std::min<rlim_t>(limit.rlim_max, 8192), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> descriptors;
  for (rlim_t i = 0; i + 200 < raised.rlim_cur; ++i) descriptors.push_back(open("/dev/null", O_RDONLY));
  EXPECT_EQ(std::count(descriptors.begin(), descriptors.end(), -1), 0);

  // The shell has its three standard descriptors, the script itself and a pipe.
  const Script script("test $(ls /proc/$$/fd | wc -l) -le 8\n");
  std::atomic<bool> stop{false};
  std::thread opener([&] {
    while (!stop) close(open("/dev/null", O_RDONLY));
  });
  std::atomic<int> good{0};
  std::vector<std::thread> runners;
  for (int t = 0; t < 8; ++t) {
    runners.emplace_back([&] {
      for (int i = 0; i < 4; ++i) good += RunCommand(script.Path()).result ? 1 : 0;
    });
  }
  for (std::thread& runner : runners) runner.join();
  stop = true;
  opener.join();
  EXPECT_EQ(good, 32);
  EXPECT_FALSE(RunCommand(script.Path(), nullptr, true).result);  // the script detects inherited ones
  for (const int descriptor : descriptors) close(descriptor);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
