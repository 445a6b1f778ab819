#include "reportfile/tools/directory/StoreRestore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "base/File.h"
#include "tests/reportfile/StoreLife.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::RestoreAction;
using report::RestoreItem;
using report::RestoreOptions;
using report::RestoreResult;
using report::RestoreState;
using testing::ElementsAre;

namespace fs = std::filesystem;

class StoreRestore : public testing::Test {
 protected:
  StoreRestore() {
    fs::create_directory(reports_);
    fs::create_directory(backup_);
  }

  static void MakeStore(const std::string& base_path, const std::vector<std::string>& texts) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(base_path.c_str(), 9));
    for (const std::string& text : texts) ASSERT_TRUE(store.writeLine(text.c_str()));
  }

  // Makes a backup of "load" (two records) and of its names, and a report directory with a longer "load" and with
  // "other".
  void MakeBoth() const {
    MakeStore(backup_ + "/load", {"a", "b"});
    WriteFile(backup_ + "/load.names", "[Quaxel Report Instances]\n");
    MakeStore(reports_ + "/load", {"a", "b", "c"});
    MakeStore(reports_ + "/other", {"x"});
  }

  RestoreResult Restore(const RestoreOptions& options = {}) const {
    return report::RestoreReports(backup_, reports_, options);
  }

  static std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::vector<std::string> RecordsOf(const std::string& base_path) {
    CReportFileBase store;
    if (!store.OpenRead(base_path.c_str())) return {"cannot be opened"};
    return ReadAll(store);
  }

  // The reports must be those of MakeBoth, with these names and no others.
  void ExpectReportsUnchanged(const std::vector<std::string>& names) const {
    EXPECT_EQ(NamesIn(reports_), names);
    EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n", "c\r\n"));
    EXPECT_THAT(RecordsOf(reports_ + "/other"), ElementsAre("x\r\n"));
  }

  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string backup_ = dir_.File("backup");
};

}  // namespace

TEST_F(StoreRestore, PlanNamesWhatWouldBeReplacedAndChangesNothing) {
  MakeBoth();
  MakeStore(backup_ + "/other", {"x"});
  const RestoreResult plan = report::PlanRestore(backup_, reports_);
  EXPECT_EQ(plan.state, RestoreState::kPlanned);
  ASSERT_EQ(plan.items.size(), 3U);
  EXPECT_EQ(plan.items[0].name, "load");
  EXPECT_EQ(plan.items[0].action, RestoreAction::kReplace);
  EXPECT_EQ(plan.items[1].name, "load.names");
  EXPECT_EQ(plan.items[1].action, RestoreAction::kAdd);
  EXPECT_EQ(plan.items[2].name, "other");
  EXPECT_EQ(plan.items[2].action, RestoreAction::kSame);
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n", "c\r\n"));
  EXPECT_FALSE(Exists(reports_ + "/load.names"));
}

TEST_F(StoreRestore, BackupIsRestoredAndKept) {
  MakeBoth();
  const RestoreResult result = Restore();
  EXPECT_EQ(result.state, RestoreState::kDone) << result.file << " " << result.error;
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n"));
  EXPECT_THAT(RecordsOf(reports_ + "/other"), ElementsAre("x\r\n"));
  EXPECT_TRUE(Exists(reports_ + "/load.names"));
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
  EXPECT_THAT(NamesIn(dir_.Path()), ElementsAre("backup", "reports"));
}

TEST_F(StoreRestore, HiddenFilesAndSubdirectoriesAreRestored) {
  fs::create_directory(backup_ + "/sub");
  WriteFile(backup_ + "/sub/.hidden", "h");
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_EQ(ReadFile(reports_ + "/sub/.hidden"), "h");
  EXPECT_THAT(NamesIn(dir_.Path()), ElementsAre("backup", "reports"));
}

TEST_F(StoreRestore, BackupIsRemovedOnlyOnRequest) {
  MakeBoth();
  EXPECT_EQ(Restore({.consume = true}).state, RestoreState::kDone);
  EXPECT_FALSE(Exists(backup_));
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n"));
}

TEST_F(StoreRestore, ReportThatIsOpenForWritingBlocksTheRestore) {
  MakeBoth();
  CReportFileBase agent;
  ASSERT_TRUE(agent.Open((reports_ + "/load").c_str(), 9));
  const RestoreResult blocked = Restore();
  EXPECT_EQ(blocked.state, RestoreState::kBlocked);
  EXPECT_TRUE(blocked.items[0].is_being_written);
  EXPECT_THAT(blocked.items[0].writers, ElementsAre(getpid()));
  EXPECT_FALSE(blocked.items[1].is_being_written);
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n", "c\r\n"));
  EXPECT_EQ(Restore({.force = true}).state, RestoreState::kDone);
}

TEST_F(StoreRestore, ReaderDoesNotBlockTheRestore) {
  MakeBoth();
  CReportFileBase reader;
  ASSERT_TRUE(reader.OpenRead((reports_ + "/load").c_str()));
  EXPECT_EQ(Restore().state, RestoreState::kDone);
}

TEST_F(StoreRestore, DamagedBackupIsRestoredOnlyByForce) {
  MakeBoth();
  std::string index = ReadFile(backup_ + "/load.ind");
  index[20] = 5;
  WriteFile(backup_ + "/load.ind", index);
  const RestoreResult blocked = Restore({.consume = true});
  EXPECT_EQ(blocked.state, RestoreState::kBlocked);
  EXPECT_TRUE(blocked.items[0].is_damaged);
  EXPECT_TRUE(Exists(backup_));
  EXPECT_EQ(Restore({.force = true}).state, RestoreState::kDone);
  EXPECT_EQ(ReadFile(reports_ + "/load.ind"), index);
}

TEST_F(StoreRestore, StoreWithOneFileCountsAsDamaged) {
  WriteFile(backup_ + "/load.dat", "half");
  EXPECT_EQ(Restore().state, RestoreState::kBlocked);
}

TEST_F(StoreRestore, DirectoryInPlaceOfAFileFailsBeforeAnythingIsChanged) {
  MakeBoth();
  fs::create_directory(reports_ + "/load.names");
  const RestoreResult result = Restore({.consume = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_EQ(result.error, EISDIR);
  EXPECT_EQ(result.file, reports_ + "/load.names");
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
  ExpectReportsUnchanged({"load.dat", "load.ind", "load.names", "other.dat", "other.ind"});
}

TEST_F(StoreRestore, FileWhoseStatFailsInTheBackupFailsBeforeAnythingIsChanged) {
  MakeBoth();
  WriteFile(backup_ + "/notes", "n");
  const FailingCall fault({.call = FileCall::kStatusAt, .path = "notes", .error = EIO});
  const RestoreResult result = Restore({.force = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_EQ(result.error, EIO);
  EXPECT_EQ(result.file, backup_ + "/notes");
  ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
}

TEST_F(StoreRestore, ListingThatEndsEarlyFailsBeforeAnythingIsChanged) {
  MakeBoth();
  const FailingCall fault({.call = FileCall::kReadEntries, .nth = 2, .error = EIO});
  EXPECT_EQ(Restore({.force = true, .consume = true}).error, EIO);
  ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
}

// If a call fails before the last file is written and synced, no target has changed, and no temporary file is left.
TEST_F(StoreRestore, FailureBeforeTheFirstRenameChangesNothing) {
  MakeBoth();
  fs::create_directory(backup_ + "/sub");
  const std::vector<FileFault> faults = {{.call = FileCall::kSync, .nth = 3},
                                         {.call = FileCall::kWriteAt, .nth = 2},
                                         {.call = FileCall::kMakeDirectory},
                                         {.call = FileCall::kClose}};
  for (FileFault failing : faults) {
    failing.times = kAlways;
    failing.error = ENOSPC;
    const FailingCall fault(failing);
    EXPECT_EQ(Restore({.consume = true}).state, RestoreState::kFailed);
    ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
    EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names", "sub"));
  }
}

TEST_F(StoreRestore, FailedRenameIsNamedAndKeepsTheBackup) {
  MakeBoth();
  const FailingCall fault({.call = FileCall::kRename, .nth = 2, .error = EIO});
  const RestoreResult result = Restore({.consume = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_EQ(result.error, EIO);
  EXPECT_THAT(result.file, testing::StartsWith(reports_ + "/load."));
  EXPECT_THAT(NamesIn(reports_), ElementsAre("load.dat", "load.ind", "load.names", "other.dat", "other.ind"));
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
}

TEST_F(StoreRestore, FileIsReplacedAndNotWrittenInto) {
  MakeBoth();
  const std::string index = reports_ + "/load.ind";
  fs::create_hard_link(index, dir_.File("other-name"));
  ASSERT_EQ(chmod(index.c_str(), 04640), 0);
  const std::string old = ReadFile(index);
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_EQ(ReadFile(dir_.File("other-name")), old);
  EXPECT_EQ(ReadFile(index), ReadFile(backup_ + "/load.ind"));
  struct stat status;
  ASSERT_EQ(stat(index.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(status.st_nlink, 1U);
}

TEST_F(StoreRestore, ReplacedFileKeepsItsOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another owner";
  MakeBoth();
  ASSERT_EQ(chown((reports_ + "/load.ind").c_str(), 1234, 2345), 0);
  ASSERT_EQ(chown((backup_ + "/load.names").c_str(), 3456, 4567), 0);
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  struct stat status;
  ASSERT_EQ(stat((reports_ + "/load.ind").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 1234U);
  ASSERT_EQ(stat((reports_ + "/load.names").c_str(), &status), 0);
  EXPECT_EQ(status.st_gid, 4567U);
}

TEST_F(StoreRestore, LinkInPlaceOfAFileIsRefusedAlsoByForce) {
  MakeBoth();
  WriteFile(dir_.File("secret"), "s");
  fs::create_symlink(dir_.File("secret"), reports_ + "/load.names");
  const RestoreResult plan = report::PlanRestore(backup_, reports_);
  EXPECT_FALSE(plan.items[0].is_link);
  EXPECT_TRUE(plan.items[1].is_link);
  EXPECT_EQ(Restore({.force = true}).state, RestoreState::kLinked);
  EXPECT_EQ(ReadFile(dir_.File("secret")), "s");
  ExpectReportsUnchanged({"load.dat", "load.ind", "load.names", "other.dat", "other.ind"});
}

TEST_F(StoreRestore, LinkInPlaceOfADirectoryIsRefusedAlsoByForce) {
  fs::create_directory(backup_ + "/sub");
  WriteFile(backup_ + "/sub/a", "new");
  fs::create_directory(dir_.File("elsewhere"));
  fs::create_symlink(dir_.File("elsewhere"), reports_ + "/sub");
  EXPECT_EQ(Restore({.force = true}).state, RestoreState::kLinked);
  EXPECT_TRUE(fs::is_empty(dir_.File("elsewhere")));
}

TEST_F(StoreRestore, LinkInTheBackupIsRefusedAlsoByForce) {
  MakeBoth();
  WriteFile(dir_.File("secret"), "s");
  fs::create_symlink(dir_.File("secret"), backup_ + "/notes");
  EXPECT_EQ(Restore({.force = true}).state, RestoreState::kLinked);
  ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
}

TEST_F(StoreRestore, BackupThatIsReachedThroughALinkIsRestoredAndKept) {
  MakeBoth();
  fs::create_symlink(backup_, dir_.File("link"));
  const RestoreResult result = report::RestoreReports(dir_.File("link"), reports_, {.consume = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_EQ(result.error, ELOOP);
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n"));
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
}

TEST_F(StoreRestore, LinkOfAnotherUserInPlaceOfADirectoryIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a link of another owner";
  MakeBoth();
  for (const std::string& name : {backup_, reports_}) {
    const std::string link = dir_.File("link");
    fs::create_symlink(name, link);
    ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
    const RestoreResult result = name == backup_ ? report::RestoreReports(link, reports_, {.force = true})
                                                 : report::RestoreReports(backup_, link, {.force = true});
    EXPECT_EQ(result.state, RestoreState::kFailed);
    EXPECT_EQ(result.error, ELOOP);
    EXPECT_EQ(report::BackupReports(link, dir_.File("second")).error, ELOOP);
    fs::remove(link);
  }
  ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
}

// Root's link leads to a directory of the user, who replaces this directory by a link.
TEST_F(StoreRestore, LinkOfAnotherUserAfterALinkOfRootIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a link of another owner";
  MakeBoth();
  fs::create_symlink("hop", dir_.File("link"));
  fs::create_symlink("reports", dir_.File("hop"));
  EXPECT_EQ(report::PlanRestore(backup_, dir_.File("link")).state, RestoreState::kPlanned);
  ASSERT_EQ(lchown(dir_.File("hop").c_str(), 65534, 65534), 0);
  EXPECT_EQ(report::BackupReports(dir_.File("link"), dir_.File("second")).error, ELOOP);
  EXPECT_EQ(report::RestoreReports(backup_, dir_.File("link"), {.force = true}).error, ELOOP);
  ExpectReportsUnchanged({"load.dat", "load.ind", "other.dat", "other.ind"});
}

TEST_F(StoreRestore, LinksWithoutEndAreRefused) {
  fs::create_symlink("circle", dir_.File("circle"));
  EXPECT_EQ(report::PlanRestore(backup_, dir_.File("circle")).error, ELOOP);
}

TEST_F(StoreRestore, HolesStayHoles) {
  MakeSparseFile(backup_ + "/sparse");
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_TRUE(ReadFile(reports_ + "/sparse") == ReadFile(backup_ + "/sparse"));
  EXPECT_LE(BlocksOf(reports_ + "/sparse"), BlocksOf(backup_ + "/sparse") + 8);
}

TEST_F(StoreRestore, LockedReportBlocksTheRestore) {
  MakeBoth();
  const file::Descriptor index = file::OpenRegular((reports_ + "/load.ind").c_str(), O_RDONLY);
  ASSERT_EQ(file::TryLock(index.Number()), 0);
  const RestoreResult blocked = Restore();
  EXPECT_EQ(blocked.state, RestoreState::kBlocked);
  EXPECT_TRUE(blocked.items[0].is_being_written);
  EXPECT_THAT(blocked.items[0].writers, testing::IsEmpty());
}

TEST_F(StoreRestore, NestedDirectoriesAreRefused) {
  EXPECT_EQ(report::PlanRestore(reports_ + "/sub", reports_).state, RestoreState::kNotFound);
  fs::create_directory(reports_ + "/sub");
  EXPECT_EQ(report::PlanRestore(reports_ + "/sub", reports_).state, RestoreState::kRefused);
  EXPECT_EQ(report::PlanRestore(reports_, reports_).state, RestoreState::kRefused);
  EXPECT_EQ(report::PlanRestore(dir_.Path(), reports_).state, RestoreState::kRefused);
}

TEST_F(StoreRestore, MissingReportDirectoryIsCreated) {
  MakeStore(backup_ + "/load", {"a"});
  fs::remove(reports_);
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n"));
}

}  // namespace qx::test
