// An ordinary user attacks the traces of a root service: the user prepares the log or the ring, or swaps them while
// they are opened. The user must get neither the traces nor a file that can be cut while the service writes it.
#include "debug/OwnFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>

#include "tests/debug/RingFixture.h"
#include "tests/support/Attacker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::debug::IsOwnFile;
using qx::debug::OpenOwnFile;
using qx::debug::OwnFile;
using qx::test::Attacker;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::kOrdinaryUser;
using qx::test::ReadFile;
using qx::test::RingSetup;
using qx::test::SyslogCapture;
using qx::test::TempDir;
using qx::test::TraceSetup;
using qx::test::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint32_t kRingBytes = 32768;

TEST(OwnFile, OwnerNamesAndModeDecide) {
  struct Row {
    uid_t owner;
    nlink_t names;
    mode_t mode;
    bool is_own;
  };
  const Row rows[] = {{0, 1, 0640, true},     {1000, 1, 0600, true}, {1000, 1, 0755, true}, {65534, 1, 0600, false},
                      {0, 2, 0640, false},    {0, 0, 0640, false},   {0, 1, 0660, false},   {0, 1, 0642, false},
                      {1000, 1, 0666, false}, {1000, 3, 0600, false}};
  for (const Row& row : rows) {
    struct stat status {};
    status.st_uid = row.owner;
    status.st_nlink = row.names;
    status.st_mode = S_IFREG | row.mode;
    EXPECT_EQ(IsOwnFile(status, 1000), row.is_own) << row.owner << " " << row.names << " " << std::oct << row.mode;
  }
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

// Runs `body` as an ordinary user, and returns its text.
std::string AsOrdinaryUser(const std::function<std::string()>& body) {
  return qx::test::TextOfChild([&]() -> std::string {
    if (!qx::test::BecomeOrdinaryUser()) return "cannot become an ordinary user";
    return body();
  });
}

// A trace directory that an ordinary user may write, and a service of root's in it.
class OwnFileAttack : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be attacked by an ordinary user here";
    std::filesystem::permissions(service_.LogDir().Path(), std::filesystem::perms::all);
  }

  // Runs an action of the user; returns "" if it succeeded.
  void Prepare(const std::function<bool()>& body) {
    ASSERT_EQ(AsOrdinaryUser([&] { return std::string(body() ? "" : std::strerror(errno)); }), "");
  }

  // Makes the user's hard link to a file of root. If fs.protected_hardlinks forbids this, the file is open to all while
  // the link is made.
  static void LinkByUser(const std::string& file, const std::string& link) {
    const bool is_protected = qx::test::HardLinkByOrdinaryUser(file, link);
    ASSERT_EQ(is_protected, ReadFile("/proc/sys/fs/protected_hardlinks") != "0\n");
    ASSERT_GE(StatusOf(link).st_nlink, 2U) << "the attack is real";
    ASSERT_EQ(StatusOf(link).st_uid, 0U);
    ASSERT_EQ(StatusOf(link).st_mode & 022U, 0U);
  }

  // The bytes of the file that the user can read.
  static std::string ReadByUser(const std::string& path) {
    return AsOrdinaryUser([&]() -> std::string {
      const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      return file < 0 ? "" : ReadFile(path);
    });
  }

  void ExpectOwn(const std::string& path) const {
    const struct stat status = StatusOf(path);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_nlink, 1U);
    EXPECT_EQ(status.st_mode & 022U, 0U);
    EXPECT_EQ(ReadByUser(path), "");
  }

  std::string LogPath() const { return service_.LogPath(); }
  std::string RingPath() const { return service_.RingPath(); }

  RingSetup service_;
};

bool MakeFile(const std::string& path, mode_t mode, std::uint32_t size) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  return file >= 0 && ::fchmod(file, mode) == 0 && ::ftruncate(file, size) == 0 && ::close(file) == 0;
}

TEST_F(OwnFileAttack, PreparedLogIsCreatedAgainAndReportedOnce) {
  std::filesystem::remove(LogPath());
  Prepare([&] { return MakeFile(LogPath(), 0604, 0); });
  const SyslogCapture syslog;
  ASSERT_TRUE(service_.Init());
  service_.Trace().Print(1, "secret");
  ExpectOwn(LogPath());
  EXPECT_EQ(StatusOf(LogPath()).st_mode & 07777U, 0640U);
  EXPECT_THAT(service_.Log(), HasSubstr("secret"));
  EXPECT_THAT(
      syslog.Messages(),
      ElementsAre("4 WARNING: " + LogPath() +
                  " is not a file of this process alone (owner=65534, names=1, mode=0604) --> created again\n"));
}

TEST_F(OwnFileAttack, PreparedRingOfTheRightSizeIsCreatedAgainAndReportedOnce) {
  Prepare([&] { return MakeFile(RingPath(), 0604, kRingBytes); });
  const SyslogCapture syslog;
  ASSERT_TRUE(service_.OpenRing(kRingBytes));
  service_.Trace().Print(1, "secret");
  ExpectOwn(RingPath());
  EXPECT_THAT(service_.Ring(), HasSubstr("secret"));
  EXPECT_THAT(syslog.Messages(),
              ElementsAre(StartsWith("4 WARNING: " + RingPath() + " is not a file of this process")));
}

// The user keeps the prepared file open and cuts it while the service writes.
TEST_F(OwnFileAttack, CuttingThePreparedRingDoesNotEndTheService) {
  Prepare([&] { return MakeFile(RingPath(), 0604, kRingBytes); });
  const int kept = ::open(RingPath().c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(qx::test::TextOfChild([&]() -> std::string {
              if (!service_.OpenRing(kRingBytes)) return "no ring";
              if (::ftruncate(kept, 0) != 0) return "not cut";
              for (int i = 0; i < 100; ++i) service_.Trace().Print(1, "entry %d", i);
              return "alive";
            }),
            "alive");
  ::close(kept);
}

TEST_F(OwnFileAttack, SecondNameOfTheLogOrTheRingDoesNotShowTheTraces) {
  ASSERT_TRUE(service_.OpenRing(kRingBytes));
  for (const std::string& path : {LogPath(), RingPath()}) LinkByUser(path, path + ".kept");
  ASSERT_TRUE(service_.Restart(kRingBytes));
  service_.Trace().PrintAlways("secret");
  for (const std::string& path : {LogPath(), RingPath()}) {
    ExpectOwn(path);
    EXPECT_THAT(ReadFile(path), HasSubstr("secret"));
    EXPECT_THAT(ReadFile(path + ".kept"), testing::Not(HasSubstr("secret")));
  }
}

// The files belong to root, but every user may write them, for example because of an earlier umask.
TEST_F(OwnFileAttack, FileThatOthersMayWriteIsCreatedAgain) {
  ASSERT_TRUE(service_.OpenRing(kRingBytes));
  for (const std::string& path : {LogPath(), RingPath()}) ASSERT_EQ(::chmod(path.c_str(), 0622), 0);
  const SyslogCapture syslog;
  ASSERT_TRUE(service_.Restart(kRingBytes));
  ExpectOwn(LogPath());
  ExpectOwn(RingPath());
  EXPECT_EQ(service_.Opens(), 1U);
  EXPECT_EQ(syslog.Messages().size(), 2U);
}

TEST_F(OwnFileAttack, HardLinkToAFileOfRootsIsNotEmptied) {
  const TempDir elsewhere;
  std::filesystem::permissions(elsewhere.Path(), std::filesystem::perms(0711));
  WriteFile(elsewhere.File("precious"), "precious");
  ASSERT_EQ(::chmod(elsewhere.File("precious").c_str(), 0600), 0);
  for (const std::string& path : {LogPath(), RingPath()}) {
    std::filesystem::remove(path);
    LinkByUser(elsewhere.File("precious"), path);
  }
  ASSERT_TRUE(service_.Restart(kRingBytes));
  EXPECT_EQ(ReadFile(elsewhere.File("precious")), "precious");
  ExpectOwn(LogPath());
  ExpectOwn(RingPath());
}

TEST_F(OwnFileAttack, FileThatCannotBeRemovedLeavesItsTargetOff) {
  ASSERT_TRUE(service_.OpenRing(kRingBytes));
  for (const std::string& path : {LogPath(), RingPath()}) {
    ASSERT_EQ(::chown(path.c_str(), kOrdinaryUser, kOrdinaryUser), 0);
  }
  const std::string before = ReadFile(RingPath());
  const FailingCall removal({.call = FileCall::kRemove, .times = qx::test::kAlways, .error = EROFS});
  const SyslogCapture syslog;
  ASSERT_TRUE(service_.Init());
  EXPECT_FALSE(service_.OpenRing(kRingBytes));
  service_.Trace().PrintAlways("secret");
  EXPECT_EQ(ReadFile(RingPath()), before);
  EXPECT_EQ(ReadFile(LogPath()).find("secret"), std::string::npos);
  EXPECT_THAT(syslog.Messages(),
              ElementsAre("3 ERROR: Error during opening " + LogPath() + " --> proceed without it\n",
                          "3 ERROR: " + RingPath() + " is refused (errno=30) --> proceed without it\n"));
}

// The directory belongs to the user, and files in it get the user's group.
TEST_F(OwnFileAttack, GroupThatTheUserChoseCannotReadTheLog) {
  const std::string directory = service_.LogDir().Path();
  ASSERT_EQ(::chown(directory.c_str(), kOrdinaryUser, kOrdinaryUser), 0);
  ASSERT_EQ(::chmod(directory.c_str(), 02755), 0);
  std::filesystem::remove(LogPath());
  ASSERT_TRUE(service_.Init());
  service_.Trace().Print(1, "secret");
  EXPECT_EQ(StatusOf(LogPath()).st_gid, kOrdinaryUser);  // the log has the user's group
  EXPECT_EQ(StatusOf(LogPath()).st_mode & 07777U, 0600U);
  ExpectOwn(LogPath());
}

// The directory has an access list that new files inherit.
TEST_F(OwnFileAttack, AccessListThatTheUserChoseDoesNotShowTheLog) {
  if (!qx::test::GiveDefaultAccessList(service_.LogDir().Path())) {
    GTEST_SKIP() << "this file system has no access lists";
  }
  std::filesystem::remove(LogPath());
  ASSERT_TRUE(service_.Init());
  service_.Trace().Print(1, "secret");
  EXPECT_GT(::getxattr(LogPath().c_str(), "system.posix_acl_access", nullptr, 0), 0);  // it has a list
  ExpectOwn(LogPath());
}

TEST_F(OwnFileAttack, LinkInPlaceOfTheRingIsReportedOnce) {
  Prepare([&] { return ::symlink("/etc/passwd", RingPath().c_str()) == 0; });
  const SyslogCapture syslog;
  EXPECT_FALSE(service_.OpenRing(kRingBytes));
  EXPECT_THAT(syslog.Messages(),
              ElementsAre("3 ERROR: " + RingPath() + " is refused (errno=40) --> proceed without it\n"));
}

TEST_F(OwnFileAttack, RingThatIsRemovedAndCannotBeCreatedIsReportedOnce) {
  Prepare([&] { return MakeFile(RingPath(), 0604, kRingBytes); });
  const FailingCall fault({.call = FileCall::kOpen, .path = "_a", .error = ENOSPC});
  const SyslogCapture syslog;
  EXPECT_FALSE(service_.OpenRing(kRingBytes));
  EXPECT_THAT(syslog.Messages(),
              ElementsAre("3 ERROR: " + RingPath() + " is refused (errno=28) --> proceed without it\n"));
}

TEST_F(OwnFileAttack, OrdinaryErrorOfTheRingIsNotReportedInTheSystemLog) {
  const FailingCall fault({.call = FileCall::kOpen, .path = "_a", .error = EMFILE});
  const SyslogCapture syslog;
  EXPECT_FALSE(service_.OpenRing(kRingBytes));
  EXPECT_THAT(syslog.Messages(), IsEmpty());
}

// One step of the user, who replaces the file under this name.
void Swap(const std::string& path, const std::string& own, const std::string& theirs, std::uint32_t size) {
  (void)::rename(path.c_str(), theirs.c_str());  // the service's file, if it exists
  (void)MakeFile(own, 0604, size);
  (void)::rename(own.c_str(), path.c_str());
  (void)::rename(path.c_str(), own.c_str());
  (void)::rename(theirs.c_str(), path.c_str());
  (void)::link(own.c_str(), path.c_str());
  (void)::unlink(own.c_str());
}

// The service opens the file while the user replaces it: 10,000 times, and until the user's file was found ten times.
// Every file that the service gets must be its own. `size` as for OpenOwnFile.
void RaceWithSwapper(const std::string& path, std::optional<std::uint64_t> size) {
  const SyslogCapture syslog;  // one message for each file of the user
  const Attacker attacker([&path, own = path + ".own", theirs = path + ".theirs",
                           bytes = static_cast<std::uint32_t>(size.value_or(0))] { Swap(path, own, theirs, bytes); });
  int opened = 0;
  for (int i = 0; i < 10000 || (syslog.Messages().size() < 10 && i < 1000000); ++i) {
    const OwnFile own = OpenOwnFile(path.c_str(), 0640, size);
    if (!own.file.IsOpen()) continue;
    ++opened;
    struct stat status {};
    ASSERT_EQ(::fstat(own.file.Number(), &status), 0);
    ASSERT_EQ(status.st_uid, 0U) << "try " << i;
    ASSERT_EQ(status.st_mode & 022U, 0U) << "try " << i;
    if (size.has_value()) {
      ASSERT_EQ(::ftruncate(own.file.Number(), static_cast<off_t>(*size)), 0);
    }
  }
  EXPECT_GT(opened, 0);
  EXPECT_GE(syslog.Messages().size(), 10U);
}

// The user exchanges the service's own log and a link to another file of root's, which looks like a log.
TEST_F(OwnFileAttack, SwappedLinkNeverLeadsToAFileOfRootsInTenThousandTries) {
  const std::string victim = service_.LogDir().File("victim");
  const std::string bait = service_.LogDir().File("bait");
  for (const std::string& path : {victim, LogPath()}) {
    WriteFile(path, "root's");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  }
  const ino_t secret = StatusOf(victim).st_ino;
  const std::string log = LogPath();
  const Attacker attacker([&] {
    (void)::symlink("victim", bait.c_str());
    (void)::renameat2(AT_FDCWD, log.c_str(), AT_FDCWD, bait.c_str(), RENAME_EXCHANGE);
  });
  int opened = 0;
  int refused = 0;
  for (int i = 0; i < 10000 || (std::min(opened, refused) < 10 && i < 1000000); ++i) {
    const OwnFile own = OpenOwnFile(log.c_str(), 0640, std::nullopt);
    ++(own.file.IsOpen() ? opened : refused);
    struct stat status {};
    if (own.file.IsOpen() && ::fstat(own.file.Number(), &status) == 0) {
      ASSERT_NE(status.st_ino, secret) << i;
    }
  }
  EXPECT_GE(std::min(opened, refused), 10);
}

TEST_F(OwnFileAttack, SwappedLogIsNeverTakenInTenThousandTries) { RaceWithSwapper(LogPath(), std::nullopt); }

TEST_F(OwnFileAttack, SwappedRingIsNeverTakenInTenThousandTries) { RaceWithSwapper(RingPath(), kRingBytes); }

}  // namespace
