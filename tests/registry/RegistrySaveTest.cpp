// Saves: which file replaces which, and the files after a failure.
#include "registry/Registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Exists;
using qx::test::ReadFile;
using qx::test::RegistryTest;

class RegistrySave : public RegistryTest {};

constexpr std::string_view kSmall = "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nx=d=1\n\n\n\n";

mode_t ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

void Change() {
  CRegistry handle;
  EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.SetValue("changed", 1U), 0);
}

TEST_F(RegistrySave, ChangedTreeIsSavedWhenAHandleIsDestroyed) {
  Given(kSmall);
  {
    CRegistry handle("SOFTWARE", CRegistry::MLocalMachine, 0);
    EXPECT_EQ(handle.SetValue("y", "text"), 0);
    EXPECT_TRUE(CRegistry::MIsDirty);
    EXPECT_EQ(ReadFile(File()), kSmall);
  }
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nx=d=1\ny=s=text\n\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.old")), kSmall);
  EXPECT_FALSE(Exists(File("registry.new")));
  EXPECT_FALSE(Exists(File("registry.unread")));
}

TEST_F(RegistrySave, UnchangedTreeIsNotSaved) {
  Given("  x=d=1\n\n");
  { const CRegistry handle; }
  EXPECT_EQ(ReadFile(File()), "  x=d=1\n\n");
  EXPECT_FALSE(Exists(File("registry.old")));
}

TEST_F(RegistrySave, SavingOverAnEmptyFileLeavesTheBackupUntouched) {
  Given("");
  Given(kSmall, "registry.old");
  Change();
  EXPECT_EQ(ReadFile(File("registry.old")), kSmall);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
}

// The renames in a directory since it was opened: "-x +y" for a rename of x to y.
class MovedNames {
 public:
  explicit MovedNames(const std::string& directory) : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_GE(inotify_add_watch(events_, directory.c_str(), IN_MOVE), 0);
  }
  ~MovedNames() { close(events_); }
  MovedNames(const MovedNames&) = delete;
  MovedNames& operator=(const MovedNames&) = delete;

  [[nodiscard]] std::string Text() const {
    alignas(inotify_event) char bytes[4096];
    const ssize_t size = read(events_, bytes, sizeof bytes);
    std::string text;
    for (ssize_t at = 0; at < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(bytes + at);
      text += std::string((event->mask & IN_MOVED_FROM) != 0 ? " -" : " +") + event->name;
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    return text;
  }

 private:
  int events_;
};

// Otherwise a crash between two renames would leave the damaged file as the backup, and nothing else to load.
TEST_F(RegistrySave, DamagedFileBecomesTheBackupOnlyAfterTheSave) {
  Given("damaged\n");
  Given(kSmall, "registry.old");
  const MovedNames moved(std::filesystem::path(File()).parent_path());
  Change();
  EXPECT_EQ(moved.Text(), " -registry.new +registry -registry +registry.new -registry.new +registry.old");
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.old")), "damaged\n");
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistrySave, BackupThatCannotBeReplacedLeavesNoTemporaryFile) {
  Given(kSmall);
  ASSERT_EQ(mkdir(File("registry.old").c_str(), 0755), 0);
  Change();
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistrySave, SavedFileIsReadableByEverybodyWhateverTheUmask) {
  Given(kSmall);
  const mode_t before = umask(0077);
  Change();
  umask(before);
  EXPECT_EQ(ModeOf(File()), 0644U);
}

TEST_F(RegistrySave, StaleTemporaryFileIsEmptiedAndGetsTheMode) {
  Given(kSmall);
  Given(std::string(10000, 'x'), "registry.new");
  chmod(File("registry.new").c_str(), 0600);
  Change();
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_EQ(ModeOf(File()), 0644U);
}

TEST_F(RegistrySave, FileThatCannotBeOpenedLosesTheChangeAndClearsTheFlag) {
  Given(kSmall);
  ASSERT_EQ(mkdir(File("registry.new").c_str(), 0755), 0);
  Change();
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(ReadFile(File()), kSmall);
  EXPECT_FALSE(Exists(File("registry.old")));
  ASSERT_EQ(rmdir(File("registry.new").c_str()), 0);
  { const CRegistry handle; }
  EXPECT_EQ(ReadFile(File()), kSmall);  // the save is not repeated
}

TEST_F(RegistrySave, FifoInPlaceOfTheTemporaryFileIsRemoved) {
  Given(kSmall);
  ASSERT_EQ(mkfifo(File("registry.new").c_str(), 0644), 0);
  const int reader = open(File("registry.new").c_str(), O_RDONLY | O_NONBLOCK);  // opening for writing would succeed
  Change();
  close(reader);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_FALSE(Exists(File("registry.new")));
}

// With a limit on the size of files, writes fail as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_;
};

TEST_F(RegistrySave, FailedWriteKeepsTheOldFileAndRemovesTheTemporaryOne) {
  Given(kSmall);
  for (const rlim_t bytes : {0UL, 1UL, 40UL}) {
    const FileSizeLimit limit(bytes);
    Change();
    EXPECT_FALSE(CRegistry::MIsDirty);
    EXPECT_EQ(ReadFile(File()), kSmall);
    EXPECT_FALSE(Exists(File("registry.new")));
    EXPECT_FALSE(Exists(File("registry.old")));
  }
  Change();
  EXPECT_NE(ReadFile(File()), kSmall);
}

TEST_F(RegistrySave, ChangeMadeAfterAFailedSaveIsSavedWithTheEarlierOne) {
  Given(kSmall);
  {
    const FileSizeLimit limit(1);
    Change();
  }
  {
    CRegistry handle(CRegistry::MLocalMachine);
    EXPECT_EQ(handle.SetValue("later", 2U), 0);
  }
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\nlater=d=2\n[SOFTWARE]\nx=d=1\n\n\n\n");
}

TEST_F(RegistrySave, UnreadableFileIsKeptOnceBeforeTheFirstSaveReplacesIt) {
  constexpr std::string_view kUnreadable = "precious, but not a registry\n";
  Given(kUnreadable);
  {
    CRegistry handle;
    ASSERT_EQ(handle.CreateKey(&CRegistry::MRoot, "HKEY_LOCAL_MACHINE", false, 0), 0);
  }
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.old")), kUnreadable);
  EXPECT_EQ(ReadFile(File("registry.unread")), kUnreadable);
  {
    CRegistry handle;  // what was saved has no values, so it does not load either
    ASSERT_EQ(handle.CreateKey(&CRegistry::MRoot, "HKEY_LOCAL_MACHINE\\A", false, 0), 0);
  }
  EXPECT_EQ(ReadFile(File("registry.old")), "[HKEY_LOCAL_MACHINE]\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.unread")), kUnreadable);
}

TEST_F(RegistrySave, LaterUnreadableFileDoesNotReplaceTheKeptOne) {
  Given("first kept\n", "registry.unread");
  Given("second\n");
  CRegistry handle;
  ASSERT_EQ(handle.CreateKey(&CRegistry::MRoot, "K", false, 0), 0);
  CRegistry::SaveTree();
  EXPECT_EQ(ReadFile(File("registry.unread")), "first kept\n");
}

TEST_F(RegistrySave, EmptyUnreadableFileIsNotKept) {
  Given("");
  CRegistry handle;
  ASSERT_EQ(handle.CreateKey(&CRegistry::MRoot, "K", false, 0), 0);
  CRegistry::SaveTree();
  EXPECT_FALSE(Exists(File("registry.unread")));
}

// The second save after it replaces the backup, too.
TEST_F(RegistrySave, UnreadableFileIsKeptAlsoWhenAnOlderOneIsLoaded) {
  for (const char* loaded : {"registry.old", "registry.default"}) {
    Given("not a registry\n");
    Given(kSmall, loaded);
    Change();
    Change();
    EXPECT_EQ(ReadFile(File("registry.unread")), "not a registry\n") << loaded;
    unlink(File("registry.unread").c_str());
    unlink(File("registry.old").c_str());
    Restart();
  }
}

TEST_F(RegistrySave, FileThatAppearsAfterTheLoadOfAnOlderOneIsKept) {
  Given(kSmall, "registry.old");
  { const CRegistry handle; }
  Given("of another process\n");
  Change();
  EXPECT_EQ(ReadFile(File("registry.unread")), "of another process\n");
}

TEST_F(RegistrySave, SavedTreeIsLoadedAgain) {
  Given(kSmall);
  Change();
  const std::string saved = Tree();
  Restart();
  const CRegistry handle;
  EXPECT_EQ(Tree(), saved);
}

TEST_F(RegistrySave, HundredThousandKeysDeepIsLoadedSavedAndDestroyed) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int i = 0; i < 100000; ++i) text += "[k]\n";
  text += "x=d=1\n" + std::string(100002, '\n');
  Given(text);
  {
    CRegistry handle(CRegistry::MLocalMachine);
    EXPECT_EQ(handle.SetValue("y", 1U), 0);
  }
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\ny=d=1\n" + text.substr(text.find("[k]")));
  CRegistry handle(CRegistry::MLocalMachine);
  EXPECT_EQ(handle.DeleteKey("k"), 0);
}

// The result of `body` in a child process, which may change its own limits.
int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      qx::test::EndChild(body());
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      _exit(99);  // it must not return to the test run
    }
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return status;
}

// Makes a system call fail permanently, in a child process.
bool Forbid(long call, int error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

bool ForbidLinks() {
  bool is_forbidden = Forbid(SYS_linkat, EPERM);
#ifdef SYS_link
  is_forbidden = Forbid(SYS_link, EPERM) && is_forbidden;
#endif
  return is_forbidden;
}

TEST_F(RegistrySave, FailedSyncOrCloseOfTheNewFileKeepsTheOldOne) {
  Given(kSmall);
  for (const long call : {SYS_fsync, SYS_close}) {
    EXPECT_EQ(InChild([call] {
                CRegistry handle(CRegistry::MLocalMachine);
                if (handle.SetValue("x", 1U) != 0 || !Forbid(call, EIO)) return 77;
                CRegistry::SaveTree();
                return CRegistry::MIsDirty ? 1 : 0;
              }),
              0);
    EXPECT_EQ(ReadFile(File()), kSmall);
    EXPECT_FALSE(Exists(File("registry.new")));
    EXPECT_FALSE(Exists(File("registry.old")));
  }
}

TEST_F(RegistrySave, FilesAreRenamedOneByOneIfNamesCannotBeExchanged) {
  Given(kSmall);
  EXPECT_EQ(InChild([] {
              CRegistry handle(CRegistry::MLocalMachine);
              if (handle.SetValue("x", 1U) != 0 || !Forbid(SYS_renameat2, EINVAL)) return 77;
              CRegistry::SaveTree();
              return 0;
            }),
            0);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nx=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.old")), kSmall);
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistrySave, UnreadableFileIsMovedIfThereAreNoHardLinks) {
  Given("precious\n");
  EXPECT_EQ(InChild([this] {
              CRegistry handle;
              if (!ForbidLinks() || link(File().c_str(), File("x").c_str()) == 0) return 77;
              if (handle.CreateKey(&CRegistry::MRoot, "K", false, 0) != 0) return 1;
              CRegistry::SaveTree();
              return 0;
            }),
            0);
  EXPECT_EQ(ReadFile(File("registry.unread")), "precious\n");
  EXPECT_EQ(ReadFile(File()), "[K]\n\n\n");
  EXPECT_FALSE(Exists(File("registry.old")));
}

// The real directory of the files, in a mount namespace that hides the system's own files.
TEST_F(RegistrySave, FilesAreInTheSystemsDirectory) {
  const auto load_and_save = [] {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return 77;
    qx::test::WriteFile("/proc/self/uid_map", user);
    qx::test::WriteFile("/proc/self/setgroups", "deny");
    qx::test::WriteFile("/proc/self/gid_map", group);
    if (mount("none", "/etc", "tmpfs", 0, nullptr) != 0 || mkdir("/etc/brollan", 0755) != 0) return 77;
    qx::registry::StartAfresh(nullptr);
    qx::test::WriteFile("/etc/brollan/registry.default", kSmall);
    Change();
    const std::string saved = ReadFile("/etc/brollan/registry");
    return saved == "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n" ? 0 : 1;
  };
  EXPECT_EQ(InChild(load_and_save), 0) << "77 * 256: allow unprivileged user namespaces";
}

}  // namespace
