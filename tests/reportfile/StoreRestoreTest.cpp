#include "reportfile/tools/StoreRestore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/provider/ReportRoot.h"
#include "tests/reportfile/StoreLife.h"

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

  // A backup of "load" (two records) and its names, over a report directory in which "load" has grown and "other" is.
  void MakeBoth() const {
    MakeStore(backup_ + "/load", {"a", "b"});
    WriteFile(backup_ + "/load.names", "[Quaxel Report Instances]\n");
    MakeStore(reports_ + "/load", {"a", "b", "c"});
    MakeStore(reports_ + "/other", {"x"});
  }

  RestoreResult Restore(const RestoreOptions& options = {}) const {
    const ReportRoot root(reports_);
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

  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string backup_ = dir_.File("backup");
};

}  // namespace

TEST_F(StoreRestore, APlanSaysWhatWouldBeReplacedAndChangesNothing) {
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

TEST_F(StoreRestore, TheBackupIsPutBackAndKept) {
  MakeBoth();
  const RestoreResult result = Restore();
  EXPECT_EQ(result.state, RestoreState::kDone) << result.file << " " << result.error;
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n"));
  EXPECT_THAT(RecordsOf(reports_ + "/other"), ElementsAre("x\r\n"));
  EXPECT_TRUE(Exists(reports_ + "/load.names"));
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
  EXPECT_THAT(NamesIn(dir_.Path()), ElementsAre("backup", "reports"));
}

TEST_F(StoreRestore, HiddenFilesAndSubdirectoriesComeBackAndNoCopyIsLeft) {
  fs::create_directory(backup_ + "/sub");
  WriteFile(backup_ + "/sub/.hidden", "h");
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_EQ(ReadFile(reports_ + "/sub/.hidden"), "h");
  EXPECT_THAT(NamesIn(dir_.Path()), ElementsAre("backup", "reports"));
}

TEST_F(StoreRestore, ABackupIsRemovedOnlyWhenAskedFor) {
  MakeBoth();
  EXPECT_EQ(Restore({.consume = true}).state, RestoreState::kDone);
  EXPECT_FALSE(Exists(backup_));
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n"));
}

TEST_F(StoreRestore, AReportThatIsOpenForWritingBlocksTheRestore) {
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

TEST_F(StoreRestore, AReaderDoesNotBlockTheRestore) {
  MakeBoth();
  CReportFileBase reader;
  ASSERT_TRUE(reader.OpenRead((reports_ + "/load").c_str()));
  EXPECT_EQ(Restore().state, RestoreState::kDone);
}

TEST_F(StoreRestore, ADamagedBackupIsPutBackOnlyByForce) {
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

TEST_F(StoreRestore, HalfAStoreCountsAsDamaged) {
  WriteFile(backup_ + "/load.dat", "half");
  EXPECT_EQ(Restore().state, RestoreState::kBlocked);
}

// A directory stands where a file has to go. The copy ends there, so other files may be missing as well.
TEST_F(StoreRestore, AFailedRestoreNamesAFileThatIsMissingAndKeepsTheBackup) {
  MakeBoth();
  fs::create_directory(reports_ + "/load.names");
  const RestoreResult result = Restore({.consume = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_THAT(result.file, testing::StartsWith(reports_ + "/load."));
  EXPECT_THAT(NamesIn(backup_), ElementsAre("load.dat", "load.ind", "load.names"));
}

TEST_F(StoreRestore, AFileOfTheBackupThatDoesNotTellWhatItIsFailsTheRestoreBeforeAnythingIsChanged) {
  MakeBoth();
  MakeFileOutOfReach(backup_ + "/sub");
  const RestoreResult result = Restore({.force = true});
  EXPECT_EQ(result.state, RestoreState::kFailed);
  EXPECT_EQ(result.error, ENAMETOOLONG);
  EXPECT_THAT(result.file, testing::StartsWith(backup_ + "/sub/"));
  EXPECT_THAT(NamesIn(reports_), ElementsAre("load.dat", "load.ind", "other.dat", "other.ind"));
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n", "b\r\n", "c\r\n"));
}

TEST_F(StoreRestore, DirectoriesInOneAnotherAreRefusedAndAMissingBackupIsNotFound) {
  EXPECT_EQ(report::PlanRestore(reports_ + "/sub", reports_).state, RestoreState::kNotFound);
  fs::create_directory(reports_ + "/sub");
  EXPECT_EQ(report::PlanRestore(reports_ + "/sub", reports_).state, RestoreState::kRefused);
  EXPECT_EQ(report::PlanRestore(reports_, reports_).state, RestoreState::kRefused);
  EXPECT_EQ(report::PlanRestore(dir_.Path(), reports_).state, RestoreState::kRefused);
}

TEST_F(StoreRestore, AReportDirectoryThatIsMissingIsMade) {
  MakeStore(backup_ + "/load", {"a"});
  fs::remove(reports_);
  EXPECT_EQ(Restore().state, RestoreState::kDone);
  EXPECT_THAT(RecordsOf(reports_ + "/load"), ElementsAre("a\r\n"));
}

}  // namespace qx::test
