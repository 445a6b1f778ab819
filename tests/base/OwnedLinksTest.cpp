// Tests which links are followed: links of several owners, opened by root and by an ordinary user, and links that are
// exchanged meanwhile. Only root can make links of other owners.
#include "base/OwnedLinks.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <string>

#include "tests/support/Attacker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace {

using qx::file::Descriptor;
using qx::file::OpenThroughOwnedLinks;
using qx::file::TrustedLinks;
using qx::test::Attacker;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::ReadFile;
using qx::test::TempDir;
using qx::test::WriteFile;

constexpr uid_t kRoot = 0;
constexpr uid_t kUser = qx::test::kOrdinaryUser;
constexpr uid_t kOther = 65533;

// 0 if the path can be opened, else the error number.
int Opened(const std::string& path, TrustedLinks trusted, int flags = -1) {
  const int access = trusted == TrustedLinks::kToWrite ? O_RDWR : O_RDONLY;
  const Descriptor file = OpenThroughOwnedLinks(path.c_str(), flags == -1 ? access : flags, 0644, trusted);
  return file.IsOpen() ? 0 : errno;
}

// Runs `action` in a child as `user`, and returns its result.
template <typename Action>
int As(uid_t user, Action action) {
  return qx::test::StatusOfChild([&] { return setresuid(user, user, user) == 0 ? action() : 255; });
}

class OwnedLinks : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != kRoot) GTEST_SKIP() << "only root can make links of other owners";
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0777), 0);
  }

  std::string MakeFile(const char* name, uid_t owner, mode_t mode = 0666) const {
    WriteFile(dir_.File(name), name);
    EXPECT_EQ(chown(dir_.File(name).c_str(), owner, owner), 0);
    EXPECT_EQ(chmod(dir_.File(name).c_str(), mode), 0);
    return dir_.File(name);
  }
  std::string MakeLink(const char* name, const std::string& target, uid_t owner) const {
    (void)unlink(dir_.File(name).c_str());  // left by the previous case
    EXPECT_EQ(symlink(target.c_str(), dir_.File(name).c_str()), 0);
    EXPECT_EQ(lchown(dir_.File(name).c_str(), owner, owner), 0);
    return dir_.File(name);
  }

  TempDir dir_;
};

struct Case {
  uid_t process;
  uid_t link;
  uid_t file;
  int to_write;
  int to_read;
};

TEST_F(OwnedLinks, OwnersDecideWhetherAFinalLinkIsFollowed) {
  for (const Case& one : {
           Case{kRoot, kRoot, kRoot, 0, 0},
           Case{kRoot, kRoot, kUser, 0, 0},
           Case{kRoot, kUser, kRoot, ELOOP, ELOOP},
           Case{kRoot, kUser, kUser, ELOOP, 0},
           Case{kRoot, kUser, kOther, ELOOP, ELOOP},
           Case{kUser, kUser, kRoot, 0, 0},
           Case{kUser, kRoot, kOther, 0, 0},
           Case{kUser, kOther, kOther, ELOOP, 0},
           Case{kUser, kOther, kUser, ELOOP, ELOOP},
           Case{kUser, kOther, kRoot, ELOOP, ELOOP},
       }) {
    const std::string link = MakeLink("link", MakeFile("file", one.file), one.link);
    EXPECT_EQ(As(one.process, [&] { return Opened(link, TrustedLinks::kToWrite); }), one.to_write)
        << one.process << " follows " << one.link << " to " << one.file;
    EXPECT_EQ(As(one.process, [&] { return Opened(link, TrustedLinks::kToRead); }), one.to_read)
        << one.process << " follows " << one.link << " to " << one.file;
  }
}

TEST_F(OwnedLinks, LinksToDirectoriesOnTheWayAreCheckedToo) {
  ASSERT_EQ(mkdir(dir_.File("secrets").c_str(), 0755), 0);
  (void)MakeFile("secrets/root", kRoot);
  (void)MakeFile("secrets/user", kUser);
  (void)MakeLink("way", "secrets", kUser);
  EXPECT_EQ(Opened(dir_.File("way/root"), TrustedLinks::kToWrite), ELOOP);
  EXPECT_EQ(Opened(dir_.File("way/root"), TrustedLinks::kToRead), ELOOP);
  EXPECT_EQ(Opened(dir_.File("way/user"), TrustedLinks::kToWrite), ELOOP);
  EXPECT_EQ(Opened(dir_.File("way/user"), TrustedLinks::kToRead), 0);
  (void)MakeLink("way", dir_.File("secrets"), kRoot);
  EXPECT_EQ(Opened(dir_.File("way/root"), TrustedLinks::kToWrite), 0);
}

TEST_F(OwnedLinks, TrustedLinkDoesNotHideAForeignOneAfterIt) {
  (void)MakeFile("file", kRoot);
  (void)MakeLink("second", "file", kUser);
  EXPECT_EQ(Opened(MakeLink("first", "./second", kRoot), TrustedLinks::kToRead), ELOOP);
  (void)MakeLink("second", "file", kRoot);
  EXPECT_EQ(Opened(dir_.File("first"), TrustedLinks::kToWrite), 0);
}

TEST_F(OwnedLinks, LinksOfTwoStrangersLeadNowhere) {
  (void)MakeFile("file", kUser);
  (void)MakeLink("second", "file", kUser);
  EXPECT_EQ(Opened(MakeLink("first", "second", kOther), TrustedLinks::kToRead), ELOOP);
}

TEST_F(OwnedLinks, NothingIsCreatedThroughAStrangersLink) {
  const std::string link = MakeLink("link", dir_.File("new"), kUser);
  EXPECT_EQ(Opened(link, TrustedLinks::kToWrite, O_RDWR | O_CREAT), ELOOP);
  EXPECT_FALSE(qx::test::Exists(dir_.File("new")));
  (void)MakeLink("link", dir_.File("new"), kRoot);
  EXPECT_EQ(Opened(link, TrustedLinks::kToWrite, O_RDWR | O_CREAT), 0);
  EXPECT_TRUE(qx::test::Exists(dir_.File("new")));
}

// A device may notice that it is opened, so the target of a stranger's link must not be opened at all. The open of a
// FIFO that nobody reads would fail with another error than this one.
TEST_F(OwnedLinks, TargetOfAStrangersLinkIsNotOpened) {
  ASSERT_EQ(mkfifo(dir_.File("fifo").c_str(), 0600), 0);
  const std::string link = MakeLink("link", "fifo", kUser);
  EXPECT_EQ(Opened(link, TrustedLinks::kToRead, O_WRONLY), ELOOP);
  (void)MakeLink("link", "fifo", kRoot);
  EXPECT_EQ(Opened(link, TrustedLinks::kToRead, O_WRONLY), ENXIO);
}

TEST_F(OwnedLinks, CirclesAndLongTargetsEnd) {
  EXPECT_EQ(Opened(MakeLink("circle", "circle", kRoot), TrustedLinks::kToRead), ELOOP);
  std::string target(PATH_MAX - 10, '/');
  target += "x";
  EXPECT_EQ(Opened(MakeLink("long", target, kRoot) + "/" + std::string(20, 'y'), TrustedLinks::kToRead), ENAMETOOLONG);
}

TEST_F(OwnedLinks, ErrorsWithoutALinkAreThoseOfAnOpen) {
  EXPECT_EQ(Opened(dir_.File("missing"), TrustedLinks::kToRead), ENOENT);
  EXPECT_EQ(Opened(MakeFile("file", kRoot) + "/x", TrustedLinks::kToRead), ENOTDIR);
  EXPECT_EQ(Opened("", TrustedLinks::kToRead), ENOENT);
  const std::string closed = MakeFile("closed", kRoot, 0600);
  EXPECT_EQ(As(kUser, [&] { return Opened(closed, TrustedLinks::kToRead); }), EACCES);
  EXPECT_EQ(Opened(MakeLink("dangling", "missing", kRoot), TrustedLinks::kToRead), ENOENT);
}

// Old kernels and sandboxes refuse an open that follows no links. Then every path is walked.
TEST_F(OwnedLinks, WalkAloneHasTheSameResults) {
  const std::string file = MakeFile("file", kRoot);
  const std::string link = MakeLink("link", file, kUser);
  for (const int error : {ENOSYS, EPERM, EAGAIN}) {
    const FailingCall refused({.call = FileCall::kOpen, .path = "file", .error = error});
    EXPECT_EQ(Opened(file, TrustedLinks::kToWrite), 0);
    EXPECT_TRUE(refused.HasFailed());
    EXPECT_EQ(Opened(link, TrustedLinks::kToRead), ELOOP);
    EXPECT_EQ(Opened(dir_.File("missing"), TrustedLinks::kToRead), ENOENT);
  }
}

TEST_F(OwnedLinks, RelativePathsBeginAtTheGivenDirectory) {
  ASSERT_EQ(mkdir(dir_.File("d").c_str(), 0755), 0);
  (void)MakeFile("d/file", kRoot);
  (void)MakeLink("d/link", "../d/file", kRoot);
  const Descriptor start = qx::file::Open(dir_.Path().c_str(), O_PATH);
  for (const char* const path : {"d/file", "d/link", "./d//link"}) {
    EXPECT_TRUE(OpenThroughOwnedLinks(path, O_RDONLY, 0, TrustedLinks::kToWrite, start.Number()).IsOpen()) << path;
  }
}

// The user exchanges the user's own file and the user's link to root's file.
TEST_F(OwnedLinks, LinkThatIsSwappedDuringTheWalkGainsNothing) {
  const std::string secret = MakeFile("secret", kRoot, 0600);
  const std::string mine = MakeFile("mine", kUser);
  const std::string bait = MakeLink("bait", "secret", kUser);
  const Attacker attacker([&] { qx::test::Exchange(mine.c_str(), bait.c_str()); });
  struct stat secret_status = {};
  ASSERT_EQ(stat(secret.c_str(), &secret_status), 0);
  int opened = 0;
  int refused = 0;
  // On a busy machine the attacker may not run for a while, so the number of tries is not fixed.
  for (int tries = 0; tries < 20000 || (std::min(refused, opened) < 100 && tries < 2000000); ++tries) {
    const auto trusted = tries % 2 == 0 ? TrustedLinks::kToWrite : TrustedLinks::kToRead;
    const Descriptor file = OpenThroughOwnedLinks(mine.c_str(), O_RDONLY, 0, trusted);
    struct stat status = {};
    if (file.IsOpen() && fstat(file.Number(), &status) == 0) {
      ASSERT_NE(status.st_ino, secret_status.st_ino);
      ++opened;
    } else {
      ASSERT_EQ(errno, ELOOP);
      ++refused;
    }
  }
  EXPECT_GE(std::min(refused, opened), 100);
}

// The user's link leads to the user's own file. This file is exchanged with a file of root's in the same directory.
TEST_F(OwnedLinks, TargetThatIsSwappedDuringTheWalkGainsNothing) {
  const std::string secret = MakeFile("secret", kRoot, 0600);
  const std::string mine = MakeFile("mine", kUser);
  const std::string link = MakeLink("link", "mine", kUser);
  const Attacker attacker([&] { qx::test::Exchange(mine.c_str(), secret.c_str()); });
  int opened = 0;
  int refused = 0;
  for (int tries = 0; tries < 20000 || (std::min(refused, opened) < 100 && tries < 2000000); ++tries) {
    const Descriptor file = OpenThroughOwnedLinks(link.c_str(), O_RDONLY, 0, TrustedLinks::kToRead);
    struct stat status = {};
    if (file.IsOpen() && fstat(file.Number(), &status) == 0) {
      ASSERT_EQ(status.st_uid, kUser) << "try " << tries;
      ++opened;
    } else {
      ASSERT_EQ(errno, ELOOP);
      ++refused;
    }
  }
  EXPECT_GE(std::min(refused, opened), 100);
}

}  // namespace
