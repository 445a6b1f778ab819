// Tests where a path leads, and what an ordinary user can do to a path that root uses.
#include "base/tools/FilePlace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "base/tools/ReplacedFile.h"
#include "tests/support/Attacker.h"
#include "tests/support/Support.h"

namespace qx {

namespace {

namespace fs = std::filesystem;
using qx::test::AsOrdinaryUser;
using qx::test::Attacker;
using qx::test::GiveDefaultAccessList;
using qx::test::GiveToOrdinaryUser;
using qx::test::HardLinkByOrdinaryUser;
using qx::test::kOrdinaryUser;
using qx::test::ReadFile;
using qx::test::WriteFile;

constexpr int kTries = 3000;

// Whether a race is tried again: at least kTries times, and on a busy machine more often, until both outcomes were
// seen.
bool HasTriesLeft(int tries, bool was_open) { return tries < kTries || (!was_open && tries < 100 * kTries); }

ReplaceState Open(const std::string& path, int flags, const FileRules& rules = {}) {
  file::Descriptor opened;
  return OpenChecked(path, flags, 0600, rules, opened).state;
}

// The text that a reader gets; empty if it is refused.
std::string Read(const std::string& path, const FileRules& rules = {}) {
  file::Descriptor opened;
  std::string text;
  if (!OpenChecked(path, O_RDONLY, 0, rules, opened).IsDone()) return "";
  return file::ReadWhole(opened.Number(), text, 1000) == 0 ? text : "";
}

ReplaceState Replace(const std::string& path, const ReplacedFile::Options& options) {
  ReplacedFile file;
  if (const ReplaceResult begun = file.Begin(path, options); !begun.IsDone()) return begun.state;
  if (const ReplaceResult written = file.WriteCopy("new"); !written.IsDone()) return written.state;
  return file.Commit(false).state;
}

class FilePlaceTest : public testing::Test {
 protected:
  FilePlaceTest() {
    fs::create_directories(dir_.File("a/b"));
    WriteFile(dir_.File("a/b/file"), "text");
  }

  std::string Link(const std::string& target, const std::string& name) const {
    fs::create_symlink(target, dir_.File(name));
    return dir_.File(name);
  }

  qx::test::TempDir dir_;
};

// A directory of root, which the ordinary user cannot change, next to one of that user.
class AttacksOnFiles : public testing::Test {
 protected:
  AttacksOnFiles() {
    if (geteuid() != 0) return;
    fs::permissions(dir_.Path(), fs::perms(0755));
    for (const char* const name : {"roots", "users", "users/real"}) fs::create_directory(dir_.File(name));
    WriteFile(roots_, "secret");
    fs::permissions(roots_, fs::perms(0600));
    for (const char* const name : {"users", "users/real"}) GiveToOrdinaryUser(dir_.File(name));
  }
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be attacked by an ordinary user";
  }

  std::string UserLink(const std::string& target, const std::string& name) const {
    const std::string path = dir_.File("users/" + name);
    EXPECT_TRUE(AsOrdinaryUser([&] { return symlink(target.c_str(), path.c_str()) == 0; }));
    return path;
  }
  std::string UserFile(const std::string& name) const {
    const std::string path = dir_.File("users/" + name);
    WriteFile(path, "of the user");
    GiveToOrdinaryUser(path);
    return path;
  }
  void ExpectRootsFileUntouched() const {
    EXPECT_EQ(ReadFile(roots_), "secret");
    struct stat status = {};
    EXPECT_EQ(stat(roots_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.File("roots")), fs::directory_iterator()), 1);
  }

  qx::test::TempDir dir_;
  std::string roots_ = dir_.File("roots/file");
};

}  // namespace

TEST_F(FilePlaceTest, EveryWayOfWritingAPathLeadsToTheFile) {
  const std::string root = dir_.Path();
  for (const std::string path : {"/a/b/file", "//a//b/file", "/a/./b/file", "/a/b/../b/file", "/a/b/../../a/b/file"}) {
    EXPECT_EQ(Read(root + path), "text") << path;
  }
  const int before = open(".", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(chdir(dir_.File("a").c_str()), 0);
  EXPECT_EQ(Read("b/file"), "text");
  EXPECT_EQ(Read("../a/b/file"), "text");
  ASSERT_EQ(fchdir(before), 0);
  close(before);
}

TEST_F(FilePlaceTest, OwnLinksAreFollowedAbsoluteRelativeAndInChains) {
  EXPECT_EQ(Read(Link("a/b/file", "relative")), "text");
  EXPECT_EQ(Read(Link(dir_.File("a/b/file"), "absolute")), "text");
  EXPECT_EQ(Read(Link("relative", "chain")), "text");
  Link("a", "directory");
  EXPECT_EQ(Read(dir_.File("directory/b/../b/file")), "text");
  EXPECT_EQ(Read(dir_.File("directory/b/file"), {.links = LinkRule::kTrustedDirectories}), "text");
  EXPECT_EQ(Open(dir_.File("relative"), O_RDONLY, {.links = LinkRule::kTrustedDirectories}), ReplaceState::kLink);
}

TEST_F(FilePlaceTest, LinksThatLeadToThemselvesFail) {
  const std::string loop = Link("loop", "loop");
  file::Descriptor opened;
  const ReplaceResult result = OpenChecked(loop, O_RDONLY, 0, {}, opened);
  EXPECT_EQ(result.state, ReplaceState::kFailed);
  EXPECT_EQ(result.error, ELOOP);
}

TEST_F(FilePlaceTest, MissingFileIsNotFoundUnlessItIsCreated) {
  EXPECT_EQ(Open("", O_RDONLY), ReplaceState::kNotFound);
  EXPECT_EQ(Open(dir_.File("none"), O_RDONLY), ReplaceState::kNotFound);
  EXPECT_EQ(Open(dir_.File("none/file"), O_WRONLY | O_CREAT), ReplaceState::kNotFound);
  EXPECT_EQ(Open(dir_.File("a/b/file/x"), O_WRONLY | O_CREAT), ReplaceState::kNotFound);
  EXPECT_EQ(Open(dir_.File("none/"), O_WRONLY | O_CREAT), ReplaceState::kNotFound);
  EXPECT_EQ(Open(Link("a/new", "dangling"), O_WRONLY | O_CREAT), ReplaceState::kDone);
  EXPECT_TRUE(fs::exists(dir_.File("a/new")));
}

TEST_F(FilePlaceTest, KernelsLinkLeadsToTheOpenFileOfTheProcess) {
  const file::Descriptor own = file::Open(dir_.File("a/b/file").c_str(), O_RDONLY);
  EXPECT_EQ(Read("/proc/self/fd/" + std::to_string(own.Number())), "text");
  EXPECT_EQ(Read("/dev/fd/" + std::to_string(own.Number())), "text");
}

TEST_F(FilePlaceTest, APipeWithoutAReaderFailsAtOnce) {
  ASSERT_EQ(mkfifo(dir_.File("pipe").c_str(), 0600), 0);
  file::Descriptor opened;
  const ReplaceResult result = OpenChecked(dir_.File("pipe"), O_WRONLY, 0, {}, opened);
  EXPECT_EQ(result.state, ReplaceState::kFailed);
  EXPECT_EQ(result.error, ENXIO);
}

TEST_F(FilePlaceTest, AnAcceptedPipeBlocksAgain) {
  ASSERT_EQ(mkfifo(dir_.File("pipe").c_str(), 0600), 0);
  file::Descriptor opened;
  ASSERT_TRUE(OpenChecked(dir_.File("pipe"), O_RDONLY, 0, {}, opened).IsDone());
  EXPECT_EQ(fcntl(opened.Number(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(FilePlaceTest, AFileWithTwoNamesIsNotWrittenInPlace) {
  fs::create_hard_link(dir_.File("a/b/file"), dir_.File("second"));
  EXPECT_EQ(Open(dir_.File("second"), O_WRONLY | O_APPEND), ReplaceState::kSeveralNames);
  EXPECT_EQ(Open(dir_.File("second"), O_WRONLY | O_APPEND, {.accept_foreign = true}), ReplaceState::kDone);
  EXPECT_EQ(Open(dir_.File("second"), O_RDONLY), ReplaceState::kDone);
}

TEST_F(FilePlaceTest, RegularFileIsNotOpenedAsASpecialOne) {
  EXPECT_EQ(Open(dir_.File("a/b/file"), O_WRONLY, {.only_special = true}), ReplaceState::kChanged);
  EXPECT_EQ(Open("/dev/null", O_WRONLY, {.only_special = true}), ReplaceState::kDone);
}

TEST_F(AttacksOnFiles, UsersLinkToRootsFileIsNotFollowed) {
  const std::string link = UserLink(roots_, "l.csv");
  EXPECT_EQ(Read(link), "");
  EXPECT_EQ(Open(link, O_RDONLY), ReplaceState::kForeignLink);
  EXPECT_EQ(Open(link, O_WRONLY | O_APPEND | O_CREAT), ReplaceState::kForeignLink);
  EXPECT_EQ(Replace(link, ReplacedFile::ForOutput(false)), ReplaceState::kForeignLink);
  EXPECT_EQ(Replace(link, {}), ReplaceState::kForeignLink);
  ExpectRootsFileUntouched();
}

// Root checks the file and repeats the command with --force; in between, the user makes the file a link.
TEST_F(AttacksOnFiles, UsersLinkIsNotFollowedEvenIfItsFilesAreAccepted) {
  const std::string link = UserLink(roots_, "l.csv");
  UserLink(dir_.File("roots"), "directory");
  for (const std::string& path : {link, dir_.File("users/directory/file")}) {
    EXPECT_EQ(Open(path, O_RDONLY, {.accept_foreign = true}), ReplaceState::kForeignLink);
    EXPECT_EQ(Open(path, O_WRONLY | O_APPEND | O_CREAT, {.accept_foreign = true}), ReplaceState::kForeignLink);
    EXPECT_EQ(Replace(path, ReplacedFile::ForOutput(true)), ReplaceState::kForeignLink);
  }
  ExpectRootsFileUntouched();
}

TEST_F(AttacksOnFiles, UsersLinkToRootsDirectoryIsNotFollowed) {
  UserLink(dir_.File("roots"), "directory");
  for (const char* const name : {"users/directory/file", "users/directory/new", "users/real/../directory/file"}) {
    EXPECT_EQ(Open(dir_.File(name), O_WRONLY | O_CREAT), ReplaceState::kForeignLink) << name;
    EXPECT_EQ(Replace(dir_.File(name), ReplacedFile::ForOutput(false)), ReplaceState::kForeignLink) << name;
  }
  ExpectRootsFileUntouched();
}

TEST_F(AttacksOnFiles, RootsLinkInAUsersDirectoryIsFollowed) {
  fs::create_symlink(roots_, dir_.File("users/roots_link"));
  EXPECT_EQ(Read(dir_.File("users/roots_link")), "secret");
}

TEST_F(AttacksOnFiles, UsersFileIsNeitherReadNorWrittenNorReplaced) {
  const std::string path = UserFile("load.csv");
  EXPECT_EQ(Open(path, O_RDONLY), ReplaceState::kForeignOwner);
  EXPECT_EQ(Open(path, O_WRONLY | O_APPEND | O_CREAT), ReplaceState::kForeignOwner);
  EXPECT_EQ(Replace(path, ReplacedFile::ForOutput(false)), ReplaceState::kForeignOwner);
  EXPECT_EQ(ReadFile(path), "of the user");
}

TEST_F(AttacksOnFiles, RootsFileIsReadButNotReplacedByTheOrdinaryUser) {
  const std::string path = dir_.File("users/of_root");
  WriteFile(path, "of root");
  EXPECT_TRUE(AsOrdinaryUser([&] { return Read(path) == "of root"; }));
  EXPECT_TRUE(
      AsOrdinaryUser([&] { return Replace(path, ReplacedFile::ForOutput(false)) == ReplaceState::kForeignOwner; }));
}

TEST_F(AttacksOnFiles, AReplacedFileNeverHasSetIdBits) {
  const std::string own = dir_.File("users/own");
  WriteFile(own, "of root");
  ASSERT_EQ(chmod(own.c_str(), 07777), 0);
  ASSERT_EQ(Replace(own, ReplacedFile::ForOutput(false)), ReplaceState::kDone);
  struct stat status = {};
  ASSERT_EQ(stat(own.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0777U);

  const std::string users_file = UserFile("load.csv");
  ASSERT_EQ(chmod(users_file.c_str(), 06777), 0);
  for (const bool is_edit : {false, true}) {
    ReplacedFile::Options options = ReplacedFile::ForOutput(true);
    options.is_edit = is_edit;
    ASSERT_EQ(Replace(users_file, options), ReplaceState::kDone);
    ASSERT_EQ(stat(users_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777U) << is_edit;
    EXPECT_EQ(status.st_uid, kOrdinaryUser) << "who uses force keeps the owner";
  }
}

TEST_F(AttacksOnFiles, UsersPipeNeverBlocks) {
  const std::string path = dir_.File("users/pipe");
  ASSERT_TRUE(AsOrdinaryUser([&] { return mkfifo(path.c_str(), 0666) == 0; }));
  EXPECT_EQ(Open(path, O_RDONLY), ReplaceState::kForeignOwner);
  EXPECT_NE(Open(path, O_WRONLY | O_CREAT), ReplaceState::kDone);
  EXPECT_EQ(Replace(path, ReplacedFile::ForOutput(false)), ReplaceState::kNotRegular);
}

TEST_F(AttacksOnFiles, EditInADirectoryThatTheUserMayWriteCanBeRefused) {
  WriteFile(dir_.File("users/registry"), "of root");
  EXPECT_EQ(Replace(dir_.File("users/registry"), {.refuse_shared_directory = true}), ReplaceState::kSharedDirectory);
  EXPECT_EQ(Replace(roots_, {.refuse_shared_directory = true}), ReplaceState::kDone);
  ASSERT_EQ(chmod(dir_.File("roots").c_str(), 01777), 0);
  EXPECT_EQ(Replace(roots_, {.refuse_shared_directory = true}), ReplaceState::kSharedDirectory);
}

// Root has made the directory inside a directory of the user. The default access list of the user's directory applies
// to everything that is created there.
TEST_F(AttacksOnFiles, EditInADirectoryWithTheUsersAccessListCanBeRefused) {
  if (!GiveDefaultAccessList(dir_.File("users"))) GTEST_SKIP() << "this file system has no access lists";
  fs::create_directory(dir_.File("users/shared"));
  WriteFile(dir_.File("users/shared/registry"), "of root");
  ASSERT_TRUE(AsOrdinaryUser([&] { return unlink(dir_.File("users/shared/registry").c_str()) == 0; }));
  WriteFile(dir_.File("users/shared/registry"), "of root");
  EXPECT_EQ(Replace(dir_.File("users/shared/registry"), {.refuse_shared_directory = true}),
            ReplaceState::kSharedDirectory);
  ASSERT_EQ(chmod(dir_.File("users/shared").c_str(), 0755), 0);
  EXPECT_EQ(Replace(dir_.File("users/shared/registry"), {.refuse_shared_directory = true}), ReplaceState::kDone);
}

TEST_F(AttacksOnFiles, EditInADirectoryOfTheUsersGroupCanBeRefused) {
  ASSERT_EQ(chmod(dir_.File("roots").c_str(), 0775), 0);
  EXPECT_EQ(Replace(roots_, {.refuse_shared_directory = true}), ReplaceState::kDone) << "root's group";
  ASSERT_EQ(chown(dir_.File("roots").c_str(), 0, kOrdinaryUser), 0);
  ASSERT_EQ(chmod(dir_.File("roots").c_str(), 0775), 0);
  EXPECT_EQ(Replace(roots_, {.refuse_shared_directory = true}), ReplaceState::kSharedDirectory);
}

// While root opens a file in the directory, the user exchanges the directory and a link to root's directory as fast as
// possible.
TEST_F(AttacksOnFiles, AnExchangedDirectoryNeverLeadsToRootsFile) {
  WriteFile(dir_.File("users/real/file"), "of root, in the user's directory");
  const std::string real = dir_.File("users/real");
  const std::string link = UserLink(dir_.File("roots"), "link");
  const Attacker attacker([&] { (void)file::Exchange(real.c_str(), link.c_str()); });
  int opened = 0;
  int refused = 0;
  for (int i = 0; HasTriesLeft(i, opened > 0 && refused > 0); ++i) {
    const std::string path = real + "/file";
    ++(Open(path, O_RDONLY) == ReplaceState::kDone ? opened : refused);
    ASSERT_NE(Read(path), "secret");
    (void)Open(real + "/new", O_WRONLY | O_CREAT | O_APPEND);
    if (i % 100 == 0) (void)Replace(path, ReplacedFile::ForOutput(false));
  }
  EXPECT_GT(opened, 0) << "the race was never open";
  EXPECT_GT(refused, 0) << "the race was never open";
  ExpectRootsFileUntouched();
}

// The user exchanges the file and a link to root's file.
TEST_F(AttacksOnFiles, AnExchangedFileNeverLeadsToRootsFile) {
  const std::string path = dir_.File("users/load.csv");
  WriteFile(path, "of root, in the user's directory");
  const std::string link = UserLink(roots_, "link");
  const Attacker attacker([&] { (void)file::Exchange(path.c_str(), link.c_str()); });
  for (int i = 0; i < kTries; ++i) {
    file::Descriptor opened;
    if (!OpenChecked(path, O_WRONLY | O_APPEND, 0, {}, opened).IsDone()) continue;
    ASSERT_FALSE(file::Write(opened.Number(), "x").Failed());
  }
  for (int i = 0; i < kTries / 30; ++i) (void)Replace(path, ReplacedFile::ForOutput(false));
  ExpectRootsFileUntouched();
}

// The prepared file is one that the user keeps open and could write after the edit, or another name of root's file.
TEST_F(AttacksOnFiles, APreparedCopyOfAnEditIsNeverUsed) {
  const std::string path = dir_.File("users/registry");
  const std::string copy = path + ".edit";
  WriteFile(path, "of root, in the user's directory");
  const auto expect_refused = [&] {
    EXPECT_EQ(Replace(path, {}), ReplaceState::kFailed);
    EXPECT_EQ(ReadFile(path), "of root, in the user's directory");
    fs::remove(copy);
  };
  EXPECT_EQ(ReadFile(UserFile("registry.edit")), "of the user");
  expect_refused();
  UserLink(roots_, "registry.edit");
  expect_refused();
  UserLink(dir_.File("roots/new"), "registry.edit");
  expect_refused();
  (void)HardLinkByOrdinaryUser(roots_, copy);
  expect_refused();
  ExpectRootsFileUntouched();
}

// Waits until the attacker has exchanged the file, so that its name leads elsewhere or nowhere, at most a tenth of a
// second.
void AwaitExchange(const std::string& path) {
  struct stat before = {};
  if (lstat(path.c_str(), &before) != 0) return;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  struct stat now = before;
  while (now.st_ino == before.st_ino && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
    if (lstat(path.c_str(), &now) != 0) return;
  }
}

// The user replaces the new content by a link to root's file while it is written.
TEST_F(AttacksOnFiles, AnExchangedCopyOfAnEditNeverLeadsToRootsFile) {
  const std::string path = dir_.File("users/registry");
  WriteFile(path, "of root, in the user's directory");
  const std::string copy = path + ".edit";
  const std::string link = path + ".link";
  const Attacker attacker([&] {
    (void)symlink(roots_.c_str(), link.c_str());
    struct stat status = {};
    if (lstat(copy.c_str(), &status) != 0) return;
    if (S_ISREG(status.st_mode)) (void)rename(link.c_str(), copy.c_str());
    (void)unlink(copy.c_str());
  });
  int begun = 0;
  int changed = 0;
  for (int i = 0; HasTriesLeft(i, begun >= 100 && changed > 0); ++i) {
    ReplacedFile edit;
    if (!edit.Begin(path, {}).IsDone()) continue;
    ASSERT_TRUE(edit.WriteCopy("new content").IsDone());
    if (++begun % 10 != 0) continue;
    AwaitExchange(copy);
    changed += edit.Commit(false).IsDone() ? 0 : 1;
  }
  EXPECT_GT(changed, 0) << "the race was never open";
  ExpectRootsFileUntouched();
}

}  // namespace qx
