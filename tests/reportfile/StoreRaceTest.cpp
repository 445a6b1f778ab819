// Attacks backups, restores and removals by root: an ordinary user exchanges files and directories for links to root's.
// No byte of root's secret may be copied, and no file of root's may be written or removed.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/directory/StoreBackup.h"
#include "reportfile/tools/directory/StoreRestore.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Attacker.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

constexpr int kRoundsMin = 100;
constexpr int kRemovalsMin = 20000;
constexpr long kStepsMin = 5000;

// Uses files in memory if possible: thousands of syncs to a disk are not part of the test.
[[maybe_unused]] const bool is_in_memory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 0) == 0;

// "ours" is root's directory with a secret; "theirs" belongs to the user. In "theirs/top" the directory "sub" and the
// file "file" are swapped with the links "theirs/dirlink" and "theirs/filelink", which point to root's.
class StoreRace : public testing::Test {
 protected:
  void SetUp() override {
    if (!IsRoot()) GTEST_SKIP() << "only root can be attacked";
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    MakeTree(dir_.Path(), {{"ours/a", "secret"}, {"ours/b/c", "secret"}, {"theirs/top/", ""}, {"root/", ""}});
    ASSERT_EQ(chmod(dir_.File("ours/a").c_str(), 0600), 0);
    before_ = ContentsOf(ours_);
    Step();
  }

  // Exchanges the directory and the file for the links, and back. Creates what is missing.
  void Step() const {
    for (int i = 0; i < 4; ++i) {
      ExchangeAndPause(sub_.c_str(), dir_link_.c_str());
      ExchangeAndPause(file_.c_str(), file_link_.c_str());
    }
    // If the directory has the link's name now, it is removed, so that the link can be made again.
    for (const char* const name : {"/a", "/b/c"}) (void)unlink((dir_link_ + name).c_str());
    (void)rmdir((dir_link_ + "/b").c_str());
    (void)rmdir(dir_link_.c_str());
    (void)mkdir(top_.c_str(), 0777);
    (void)mkdir(sub_.c_str(), 0777);
    (void)mkdir((sub_ + "/b").c_str(), 0777);
    for (const std::string& name : {file_, sub_ + "/a", sub_ + "/b/c"}) {
      (void)close(open(name.c_str(), O_CREAT | O_RDWR, 0666));
    }
    (void)symlink(ours_.c_str(), dir_link_.c_str());
    (void)symlink(secret_.c_str(), file_link_.c_str());
  }

  // Runs `work` again and again while the user runs `user_step`.
  void Race(const std::function<void()>& user_step, const std::function<void()>& work, int rounds = kRoundsMin) {
    GiveTreeToOrdinaryUser(dir_.File("theirs"));
    const Attacker user(user_step);
    for (int round = 0; round < rounds || user.Steps() < kStepsMin; ++round) {
      work();
      ASSERT_EQ(ContentsOf(ours_), before_) << round;
    }
    EXPECT_EQ(ModeOf(secret_), 0600U);
  }

  template <typename Visit>
  static void ForEachEntry(const std::string& directory, Visit visit) {
    DIR* const stream = opendir(directory.c_str());
    if (stream == nullptr) return;
    while (const dirent* const entry = readdir(stream)) visit(entry->d_name);
    (void)closedir(stream);
  }

  static void ExpectNoSecretIn(const std::string& directory) {
    for (const auto& [path, contents] : ContentsOf(directory)) EXPECT_EQ(contents.find("secret"), std::string::npos);
  }

  const TempDir dir_;
  const std::string ours_ = dir_.File("ours");
  const std::string secret_ = ours_ + "/a";
  const std::string top_ = dir_.File("theirs/top");
  const std::string sub_ = top_ + "/sub";
  const std::string file_ = top_ + "/file";
  const std::string dir_link_ = dir_.File("theirs/dirlink");
  const std::string file_link_ = dir_.File("theirs/filelink");
  Tree before_;
};

TEST_F(StoreRace, RemovalNeverLeavesTheTree) {
  int removed = 0;
  Race([this] { Step(); },
       [&] {
         if (report::RemoveContents(file::OpenDirectory(top_.c_str()).Number()) == 0) ++removed;
       },
       kRemovalsMin);
  EXPECT_GT(removed, 0);
}

TEST_F(StoreRace, BackupNeverContainsTheTargetOfALink) {
  const std::string target = dir_.File("root/backup");
  int done = 0;
  Race([this] { Step(); },
       [&] {
         if (report::BackupReports(top_, target).state == report::BackupState::kDone) ++done;
         ExpectNoSecretIn(target);
         fs::remove_all(target);
       });
  EXPECT_GT(done, 0);
  EXPECT_TRUE(fs::is_empty(dir_.File("root")));
}

// Root restores the user's backup into root's reports. No file of root's may be read through a link in the backup.
TEST_F(StoreRace, RestoreReadsNothingThroughALinkInTheBackup) {
  const std::string reports = dir_.File("root/reports");
  int done = 0;
  Race([this] { Step(); },
       [&] {
         if (report::RestoreReports(top_, reports, {.force = true}).state == report::RestoreState::kDone) ++done;
         ExpectNoSecretIn(reports);
         fs::remove_all(reports);
       });
  EXPECT_GT(done, 0);
}

// Root restores root's backup into the user's reports. Nothing may be written to the target of a link. The user removes
// the restored files, so that the next restore does not wait for writers.
TEST_F(StoreRace, RestoreWritesNothingThroughALinkAmongTheReports) {
  const std::string backup = dir_.File("root/backup");
  MakeTree(backup, {{"file", "new"}, {"sub/a", "new"}, {"sub/b/c", "new"}, {"sub/new", "new"}});
  int done = 0;
  const auto step = [this] {
    for (const std::string& name : {file_, sub_ + "/a", sub_ + "/b/c", sub_ + "/new"}) (void)unlink(name.c_str());
    (void)mkdir(sub_.c_str(), 0777);
    (void)symlink(ours_.c_str(), dir_link_.c_str());
    for (int i = 0; i < 2; ++i) ExchangeAndPause(sub_.c_str(), dir_link_.c_str());
  };
  Race(step, [&] {
    if (report::RestoreReports(backup, top_, {.force = true}).state != report::RestoreState::kLinked) ++done;
  });
  EXPECT_GT(done, 0);
}

// Root backs up into a directory of the user, who exchanges the unfinished backup for a link to root's directory.
TEST_F(StoreRace, BackupIntoADirectoryOfTheUsersWritesNothingThroughALink) {
  const std::string reports = dir_.File("root/reports");
  MakeTree(reports, {{"a", "new"}, {"b/c", "new"}, {"new", "new"}});
  const std::string theirs = dir_.File("theirs");
  const std::string target = theirs + "/backup";
  int done = 0;
  const auto step = [&] {
    ForEachEntry(theirs, [&](const std::string& name) {
      if (name.find(".partial-") == std::string::npos) return;
      (void)symlink(ours_.c_str(), dir_link_.c_str());
      ExchangeAndPause((theirs + "/" + name).c_str(), dir_link_.c_str());
      (void)rename((theirs + "/" + name).c_str(), (theirs + "/aside").c_str());
      (void)unlink((theirs + "/aside").c_str());
    });
  };
  Race(step, [&] {
    if (report::BackupReports(reports, target).state == report::BackupState::kDone) ++done;
    std::error_code error;
    fs::remove_all(target, error);
    for (const auto& entry : fs::directory_iterator(theirs, error)) {
      if (fs::is_directory(entry.symlink_status(error)) && entry.path() != top_) fs::remove_all(entry.path(), error);
    }
  });
  EXPECT_GT(done, 0);
}

// The user replaces the private directory between its creation and its open, by another directory or by a link to
// root's.
TEST_F(StoreRace, PrivateDirectoryIsNeverAnotherOne) {
  const std::string theirs = dir_.File("theirs");
  GiveTreeToOrdinaryUser(theirs);
  const auto count_opens = [&] {
    const CountedCalls opens(FileCall::kOpen);
    const report::PrivateDirectory made(theirs + "/x.partial-");
    return opens.Calls();
  };
  const int last_open = count_opens();  // the steps to the directory, then the new one
  for (const bool is_link : {true, false}) {
    const Attacker user([&] {
      ForEachEntry(theirs, [&](const std::string& name) {
        const std::string path = theirs + "/" + name;
        struct stat status = {};
        const bool is_roots = lstat(path.c_str(), &status) == 0 && status.st_uid == 0;
        if (!is_roots || rename(path.c_str(), (path + ".aside").c_str()) != 0) return;
        (void)(is_link ? symlink(ours_.c_str(), path.c_str()) : mkdir(path.c_str(), 0777));
      });
    });
    const FailingCall slow_open({.call = FileCall::kOpen, .nth = last_open, .times = 3000000, .error = EINTR});
    const report::PrivateDirectory made(theirs + "/x.partial-");
    EXPECT_TRUE(slow_open.HasFailed());
    EXPECT_NE(made.Error(), 0) << is_link;
  }
  EXPECT_EQ(ContentsOf(ours_), before_);
}

TEST_F(StoreRace, NewFileIsNeverOneThatExists) {
  const std::string link = dir_.File("root/link");
  ASSERT_EQ(symlink(secret_.c_str(), link.c_str()), 0);
  EXPECT_EQ(report::NewFile(link).Error(), EEXIST);
  EXPECT_EQ(report::NewFile(secret_).Error(), EEXIST);
  EXPECT_EQ(ContentsOf(ours_), before_);
}

}  // namespace
}  // namespace qx::test
