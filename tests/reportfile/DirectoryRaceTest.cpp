// Attacks a removal by root: an ordinary user exchanges directories of the tree for links to root's. No file of root's
// may be removed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "reportfile/Directory.h"
#include "reportfile/DirectoryCursor.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Attacker.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

constexpr int kRounds = 10000;
constexpr long kStepsMin = 4000;

// "theirs/top" is the user's tree; "ours" is a directory of root's with the same names.
class DirectoryRace : public testing::Test {
 protected:
  void SetUp() override {
    if (!IsRoot()) GTEST_SKIP() << "only root can be attacked";
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    MakeTree(dir_.Path(), {{"ours/a", "1"}, {"ours/b", "2"}, {"ours/c/d", "3"}, {"theirs/top/sub/", ""}});
    MakeLink(dir_.File("ours"), dir_.File("theirs/link"));
  }

  // Exchanges the directory and the link, and back; then makes again what root has removed.
  void Step() const {
    for (int i = 0; i < 4; ++i) ExchangeAndPause(sub_.c_str(), link_.c_str());
    // If the directory has the link's name now, it is removed, so that the link can be made again.
    for (const char* const name : {"/a", "/b", "/c/d"}) (void)unlink((link_ + name).c_str());
    (void)rmdir((link_ + "/c").c_str());
    (void)rmdir(link_.c_str());
    (void)mkdir(sub_.c_str(), 0777);
    (void)symlink(ours_.c_str(), link_.c_str());
    (void)mkdir((sub_ + "/c").c_str(), 0777);
    for (const char* const name : {"/a", "/b", "/c/d"})
      (void)close(open((sub_ + name).c_str(), O_CREAT | O_RDWR, 0666));
  }

  const TempDir dir_;
  const std::string ours_ = dir_.File("ours");
  const std::string top_ = dir_.File("theirs/top");
  const std::string sub_ = top_ + "/sub";
  const std::string link_ = dir_.File("theirs/link");
};

TEST_F(DirectoryRace, RemovalNeverLeavesTheTree) {
  const Tree before = ContentsOf(ours_);
  GiveTreeToOrdinaryUser(dir_.File("theirs"));
  const Attacker user([this] { Step(); });
  int removed = 0;
  for (int round = 0; round < kRounds || user.Steps() < kStepsMin; ++round) {
    if (CDirectory::RemoveDir(top_.c_str(), false)) ++removed;
    ASSERT_EQ(ContentsOf(ours_), before) << round;
  }
  EXPECT_GT(removed, 0);
  EXPECT_EQ(ModeOf(dir_.File("ours/a")), 0644U);
}

// A removal sets the mode of each file first. The user exchanges such a file for a link to root's file.
TEST_F(DirectoryRace, ModeOfRootsFileStays) {
  const std::string file = top_ + "/file";
  const std::string link = dir_.File("theirs/filelink");
  const std::string secret = ours_ + "/a";
  GiveTreeToOrdinaryUser(dir_.File("theirs"));
  const Attacker user([&] {
    (void)close(open(file.c_str(), O_CREAT | O_RDWR, 0666));
    (void)symlink(secret.c_str(), link.c_str());
    for (int i = 0; i < 4; ++i) ExchangeAndPause(file.c_str(), link.c_str());
    (void)unlink(link.c_str());
  });
  int removed = 0;
  for (int round = 0; round < kRounds || user.Steps() < kStepsMin; ++round) {
    if (CDirectory::RemoveDir(top_.c_str(), false)) ++removed;
    ASSERT_EQ(ModeOf(secret), 0644U) << round;
  }
  EXPECT_GT(removed, 0);
}

// The current directory of the walk is moved to another place, so its ".." is not a directory of the tree any more.
TEST_F(DirectoryRace, WalkEndsInADirectoryThatWasMoved) {
  MakeTree(dir_.Path(), {{"theirs/top/sub/below/", ""}, {"shared/", ""}});
  report::DirectoryCursor cursor;
  ASSERT_EQ(cursor.Begin(file::OpenDirectory(top_.c_str())), 0);
  ASSERT_EQ(cursor.Enter("sub"), 0);
  ASSERT_EQ(cursor.Enter("below"), 0);
  ASSERT_EQ(rename(sub_.c_str(), dir_.File("shared/sub").c_str()), 0);
  EXPECT_EQ(cursor.Leave(), ESTALE);
}

}  // namespace
}  // namespace qx::test
