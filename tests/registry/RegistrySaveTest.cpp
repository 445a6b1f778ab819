// Tests saves: which file replaces which, and the files after a failure.
#include "registry/Registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <string>

#include "tests/registry/RegistryFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/PrivateMounts.h"

namespace {

using qx::test::Exists;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::kAlways;
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

// Otherwise a crash between two renames would leave the damaged file as the backup, and there would be no other file to
// load.
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

// Limits the size of files, so that writes fail as on a full disk.
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

// The test saves twice after the load: the second save replaces the backup, too.
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

TEST_F(RegistrySave, FailedSyncOrCloseOfTheNewFileKeepsTheOldOne) {
  for (const FileCall call : {FileCall::kSync, FileCall::kClose}) {
    Given(kSmall);
    Restart();
    CRegistry handle(CRegistry::MLocalMachine);
    ASSERT_EQ(handle.SetValue("x", 1U), 0);
    const FailingCall fault({.call = call, .times = kAlways, .error = EIO});
    CRegistry::SaveTree();
    EXPECT_TRUE(fault.HasFailed());
    EXPECT_FALSE(CRegistry::MIsDirty);
    EXPECT_EQ(ReadFile(File()), kSmall);
    EXPECT_FALSE(Exists(File("registry.new")));
    EXPECT_FALSE(Exists(File("registry.old")));
  }
}

TEST_F(RegistrySave, FilesAreRenamedOneByOneIfNamesCannotBeExchanged) {
  Given(kSmall);
  CRegistry handle(CRegistry::MLocalMachine);
  ASSERT_EQ(handle.SetValue("x", 1U), 0);
  const FailingCall exchange({.call = FileCall::kRename, .error = EINVAL});
  CRegistry::SaveTree();
  EXPECT_EQ(exchange.Calls(), 3);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nx=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.old")), kSmall);
  EXPECT_FALSE(Exists(File("registry.new")));
}

TEST_F(RegistrySave, UnreadableFileIsMovedIfThereAreNoHardLinks) {
  Given("precious\n");
  CRegistry handle;
  ASSERT_EQ(handle.CreateKey(&CRegistry::MRoot, "K", false, 0), 0);
  const FailingCall link({.call = FileCall::kLink, .times = kAlways, .error = EPERM});
  CRegistry::SaveTree();
  EXPECT_TRUE(link.HasFailed());
  EXPECT_EQ(ReadFile(File("registry.unread")), "precious\n");
  EXPECT_EQ(ReadFile(File()), "[K]\n\n\n");
  EXPECT_FALSE(Exists(File("registry.old")));
}

// The real directory of the files, in a mount namespace that hides the system's own files.
TEST_F(RegistrySave, FilesAreInTheSystemsDirectory) {
  const auto load_and_save = [] {
    qx::test::MountMemory("/etc", "");
    std::filesystem::create_directory("/etc/brollan");
    qx::registry::ResetRegistry(nullptr);
    qx::test::WriteFile("/etc/brollan/registry.default", kSmall);
    Change();
    return ReadFile("/etc/brollan/registry");
  };
  EXPECT_EQ(qx::test::WithPrivateMounts(load_and_save), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\n[SOFTWARE]\nx=d=1\n\n\n\n");
}

}  // namespace
