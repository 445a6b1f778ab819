// Tests files that are replaced as a whole.
#include "base/tools/ReplacedFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace qx {

namespace {

using qx::test::ReadFile;
using qx::test::WriteFile;

class ReplacedFileTest : public testing::Test {
 protected:
  ReplacedFileTest() { WriteFile(path_, "old"); }

  // The content of the directory, "B" for each backup.
  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      const std::string name = entry.path().filename();
      names.insert(name.ends_with(".bak") ? "B" : name);
    }
    return names;
  }
  ReplaceState Replace(const std::string& bytes, ReplacedFile::Options options = {}, bool with_backup = false) {
    ReplacedFile edit;
    if (const ReplaceResult begun = edit.Begin(path_, options); !begun.IsDone()) return begun.state;
    if (const ReplaceResult written = edit.WriteCopy(bytes); !written.IsDone()) return written.state;
    const ReplaceResult done = edit.Commit(with_backup);
    EXPECT_EQ(edit.IsInPlace(), done.IsDone());
    backup_ = edit.BackupPath();
    return done.state;
  }

  qx::test::TempDir dir_;
  std::string path_ = dir_.File("registry");
  std::string backup_;
};

bool HasOpen(pid_t process, const std::string& path) {
  std::error_code error;
  const std::string directory = "/proc/" + std::to_string(process) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (std::filesystem::read_symlink(entry.path(), error) == path) return true;
  }
  return false;
}

mode_t ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

}  // namespace

TEST_F(ReplacedFileTest, NewContentReplacesTheOld) {
  EXPECT_EQ(Replace("new"), ReplaceState::kDone);
  EXPECT_EQ(ReadFile(path_), "new");
  EXPECT_EQ(Names(), (std::set<std::string>{"registry"}));
}

TEST_F(ReplacedFileTest, ModeIsKeptByFileAndBackup) {
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  EXPECT_EQ(Replace("new", {}, true), ReplaceState::kDone);
  EXPECT_EQ(ModeOf(path_), 0640U);
  EXPECT_EQ(ModeOf(backup_), 0640U);
}

TEST_F(ReplacedFileTest, BackupHasTheOldContentAndItsTime) {
  const auto time = std::filesystem::last_write_time(path_);
  EXPECT_EQ(Replace("new", {}, true), ReplaceState::kDone);
  EXPECT_EQ(ReadFile(backup_), "old");
  EXPECT_EQ(std::filesystem::last_write_time(backup_), time);
  EXPECT_EQ(Names(), (std::set<std::string>{"registry", "B"}));
}

TEST_F(ReplacedFileTest, BackupsOfOneSecondDoNotReplaceOneAnother) {
  std::set<std::string> backups;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(Replace(std::to_string(i), {}, true), ReplaceState::kDone);
    EXPECT_TRUE(backups.insert(backup_).second) << backup_;
    EXPECT_EQ(ReadFile(backup_), i == 0 ? "old" : std::to_string(i - 1));
  }
}

TEST_F(ReplacedFileTest, WithoutACommitNothingIsLeft) {
  {
    ReplacedFile edit;
    ASSERT_TRUE(edit.Begin(path_, {}).IsDone());
    ASSERT_TRUE(edit.WriteCopy("new").IsDone());
    EXPECT_EQ(Names(), (std::set<std::string>{"registry", "registry.edit"}));
  }
  EXPECT_EQ(ReadFile(path_), "old");
  EXPECT_EQ(Names(), (std::set<std::string>{"registry"}));
}

TEST_F(ReplacedFileTest, FileThatAnotherProcessWroteIsNotReplaced) {
  ReplacedFile edit;
  ASSERT_TRUE(edit.Begin(path_, {}).IsDone());
  ASSERT_TRUE(edit.WriteCopy("new").IsDone());
  WriteFile(path_, "theirs");
  EXPECT_EQ(edit.Commit(true).state, ReplaceState::kChanged);
  EXPECT_EQ(ReadFile(path_), "theirs");
}

TEST_F(ReplacedFileTest, FileThatAnotherProcessReplacedIsNotReplaced) {
  {
    ReplacedFile edit;
    ASSERT_TRUE(edit.Begin(path_, {}).IsDone());
    WriteFile(dir_.File("registry.new"), "old");
    std::filesystem::last_write_time(dir_.File("registry.new"), std::filesystem::last_write_time(path_));
    std::filesystem::rename(dir_.File("registry.new"), path_);
    EXPECT_EQ(edit.Commit(true).state, ReplaceState::kChanged);
  }
  EXPECT_EQ(Names(), (std::set<std::string>{"registry"}));
}

TEST_F(ReplacedFileTest, ExchangedCopyIsNotRenamedToTheFile) {
  WriteFile(dir_.File("foreign"), "foreign");
  const std::string copy = dir_.File("registry.edit");
  for (const bool is_link : {false, true}) {
    auto edit = std::make_unique<ReplacedFile>();
    ASSERT_TRUE(edit->Begin(path_, {}).IsDone());
    ASSERT_TRUE(edit->WriteCopy("new").IsDone());
    std::filesystem::remove(copy);
    if (is_link) {
      std::filesystem::create_symlink("foreign", copy);
    } else {
      WriteFile(copy, "foreign");
    }
    EXPECT_EQ(edit->Commit(false).state, ReplaceState::kChanged);
    EXPECT_EQ(ReadFile(path_), "old");
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path_)));
    edit.reset();
    EXPECT_TRUE(std::filesystem::remove(copy)) << "it is not this edit's to remove";
  }
}

TEST_F(ReplacedFileTest, RemovedOrCreatedFileIsAChange) {
  ReplacedFile edit;
  ASSERT_TRUE(edit.Begin(path_, {}).IsDone());
  std::filesystem::remove(path_);
  EXPECT_EQ(edit.Commit(false).state, ReplaceState::kChanged);
  ReplacedFile other;
  ASSERT_TRUE(other.Begin(dir_.File("other"), {.may_be_missing = true}).IsDone());
  WriteFile(dir_.File("other"), "theirs");
  EXPECT_EQ(other.Commit(false).state, ReplaceState::kChanged);
  EXPECT_EQ(ReadFile(dir_.File("other")), "theirs");
}

TEST_F(ReplacedFileTest, MissingFileIsCreatedOnlyOnRequest) {
  std::filesystem::remove(path_);
  EXPECT_EQ(Replace("new"), ReplaceState::kNotFound);
  EXPECT_EQ(Replace("new", {.may_be_missing = true}, true), ReplaceState::kDone);
  EXPECT_EQ(ReadFile(path_), "new");
  EXPECT_EQ(ModeOf(path_), 0644U);
  EXPECT_EQ(backup_, "");
}

TEST_F(ReplacedFileTest, SymbolicLinkIsFollowedOnlyOnRequestAndStays) {
  std::filesystem::create_directory(dir_.File("real"));
  std::filesystem::rename(path_, dir_.File("real/registry"));
  std::filesystem::create_symlink("real/registry", path_);
  EXPECT_EQ(Replace("new"), ReplaceState::kLink);
  EXPECT_EQ(ReadFile(path_), "old");
  EXPECT_EQ(Replace("new", {.links = LinkRule::kAny}), ReplaceState::kDone);
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(ReadFile(dir_.File("real/registry")), "new");
}

TEST_F(ReplacedFileTest, OnlyARegularFileIsReplaced) {
  path_ = dir_.Path();
  EXPECT_EQ(Replace("new"), ReplaceState::kNotRegular);
  path_ = dir_.File("pipe");
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(Replace("new"), ReplaceState::kNotRegular);
  FileImage image;
  EXPECT_EQ(ReadFileImage(path_, image).state, ReplaceState::kNotRegular);
  EXPECT_FALSE(image.exists);
}

TEST_F(ReplacedFileTest, SecondEditAtTheSameTimeIsRefused) {
  ReplacedFile edit;
  ASSERT_TRUE(edit.Begin(path_, {}).IsDone());
  EXPECT_EQ(Replace("other"), ReplaceState::kBusy);
  ASSERT_TRUE(edit.WriteCopy("new").IsDone());
  EXPECT_TRUE(edit.Commit(false).IsDone());
  EXPECT_EQ(Replace("next"), ReplaceState::kDone);
  EXPECT_EQ(ReadFile(path_), "next");
}

// While the second edit waits between open and lock, the new content of the first edit becomes the file itself.
TEST_F(ReplacedFileTest, EditThatWaitedForTheLockOfAnotherBeginsAgain) {
  const std::string copy = dir_.File("registry.edit");
  const pid_t second = fork();
  if (second == 0) {
    while (!qx::test::Exists(copy)) usleep(100);
    const qx::test::FailingCall interrupted({.call = qx::test::FileCall::kLock, .times = 3000000, .error = EINTR});
    ReplacedFile edit;
    qx::test::EndChild(edit.Begin(path_, {}).IsDone() && edit.Image().bytes == "new" ? 0 : 1);
  }
  {
    ReplacedFile first;
    ASSERT_TRUE(first.Begin(path_, {}).IsDone());
    ASSERT_TRUE(first.WriteCopy("new").IsDone());
    while (!HasOpen(second, copy)) usleep(100);
    ASSERT_TRUE(first.Commit(false).IsDone());
  }
  int status = 0;
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(path_), "new");
}

TEST_F(ReplacedFileTest, LeftoverOfAKilledEditIsUsed) {
  WriteFile(dir_.File("registry.edit"), "half a registry, and longer than the new one");
  EXPECT_EQ(Replace("new"), ReplaceState::kDone);
  EXPECT_EQ(ReadFile(path_), "new");
  EXPECT_EQ(Names(), (std::set<std::string>{"registry"}));
}

TEST_F(ReplacedFileTest, ForeignFileWithTheNameOfTheCopyIsKept) {
  WriteFile(dir_.File("precious"), "precious");
  std::filesystem::create_hard_link(dir_.File("precious"), dir_.File("registry.edit"));
  EXPECT_EQ(Replace("new"), ReplaceState::kFailed);
  std::filesystem::remove(dir_.File("registry.edit"));
  std::filesystem::create_symlink("precious", dir_.File("registry.edit"));
  EXPECT_EQ(Replace("new"), ReplaceState::kFailed);
  EXPECT_EQ(ReadFile(dir_.File("precious")), "precious");
  EXPECT_EQ(ReadFile(path_), "old");
}

}  // namespace qx
