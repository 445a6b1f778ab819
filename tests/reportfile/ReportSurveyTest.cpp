// Tests which reports a directory has, and their states.
#include "reportfile/tools/directory/ReportSurvey.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/WritingProcesses.h"
#include "reportfile/tools/directory/StoreBackup.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using report::FoundReports;
using report::ReportCheck;
using report::ReportStatus;
using report::StoreState;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

// Gives up what root may do, until the end of the scope.
class AsOrdinaryUser {
 public:
  AsOrdinaryUser() : user_(geteuid()) {
    constexpr uid_t kNobody = 65534;
    EXPECT_TRUE(user_ != 0 || seteuid(kNobody) == 0);
  }
  ~AsOrdinaryUser() { EXPECT_EQ(seteuid(user_), 0); }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

 private:
  uid_t user_;
};

class ReportSurvey : public testing::Test {
 protected:
  std::string Base(const std::string& name) const { return dir_.File(name); }

  void Make(const std::string& name, unsigned slots, const std::vector<std::string>& texts) const {
    fs::create_directories(fs::path(Base(name)).parent_path());
    CReportFileBase store;
    ASSERT_TRUE(store.Open(Base(name).c_str(), slots));
    for (const std::string& text : texts) ASSERT_TRUE(store.writeLine(text.c_str()));
  }

  ReportStatus StatusOf(const std::string& name, ReportCheck check = ReportCheck::kHeader) const {
    return report::StatusOfReports({Base(name)}, check).front();
  }

  TempDir dir_;
};

}  // namespace

TEST_F(ReportSurvey, OneDirectoryIsListedWithoutThoseBelow) {
  Make("load", 3, {"a"});
  Make("disk", 3, {"a"});
  Make("below/disk", 3, {"a"});
  WriteFile(Base("notes.txt"), "");
  WriteFile(Base("half.dat"), "");
  const FoundReports found = report::FindReportsIn(dir_.Path());
  EXPECT_EQ(found.error, 0);
  EXPECT_THAT(found.names, ElementsAre("disk", "half", "load"));
  EXPECT_EQ(report::FindReportsIn(Base("none")).error, ENOENT);
}

TEST_F(ReportSurvey, FindsReportsOfSubdirectoriesHalfOnesAndHiddenOnes) {
  Make("load", 3, {"a"});
  Make("disk/sda", 3, {"a"});
  Make(".hidden", 3, {"a"});
  WriteFile(Base("half.ind"), "");
  WriteFile(Base("disk/other.dat"), "");
  WriteFile(Base("load.names"), "");
  WriteFile(Base(".ind"), "");
  EXPECT_THAT(report::FindReports(dir_.Path()).names, ElementsAre(".hidden", "disk/other", "disk/sda", "half", "load"));
}

TEST_F(ReportSurvey, LinkedFileCountsAndLinkedDirectoryIsNotEntered) {
  Make("elsewhere/load", 3, {"a"});
  fs::create_directory(Base("top"));
  fs::create_symlink(Base("elsewhere/load.ind"), Base("top/l.ind"));
  fs::create_symlink(Base("elsewhere/load.dat"), Base("top/l.dat"));
  fs::create_symlink(Base("elsewhere"), Base("top/directory"));
  EXPECT_THAT(report::FindReports(Base("top")).names, ElementsAre("l"));
  EXPECT_EQ(StatusOf("top/l").verdict.state, StoreState::kSound);
}

TEST_F(ReportSurvey, MissingDirectoryIsAnError) {
  EXPECT_EQ(report::FindReports(Base("none")).error, ENOENT);
  WriteFile(Base("file"), "");
  EXPECT_EQ(report::FindReports(Base("file")).error, ENOTDIR);
}

TEST_F(ReportSurvey, UnreadableSubdirectoryIsNamedAndTheRestIsFound) {
  Make("a", 3, {"a"});
  Make("closed/b", 3, {"a"});
  Make("z", 3, {"a"});
  ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(Base("closed").c_str(), 0), 0);
  const AsOrdinaryUser user;
  const FoundReports found = report::FindReports(dir_.Path());
  EXPECT_EQ(found.error, 0);
  EXPECT_THAT(found.names, ElementsAre("a", "z"));
  ASSERT_EQ(found.unlisted.size(), 1U);
  EXPECT_EQ(found.unlisted[0].name, "closed");
  EXPECT_EQ(found.unlisted[0].error, EACCES);
}

TEST_F(ReportSurvey, StatusHasRecordsSlotsBytesAndTheTimeOfTheIndexFile) {
  Make("load", 3, {"a", "b"});
  const timespec times[2] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 2000, .tv_nsec = 5}};
  ASSERT_EQ(utimensat(AT_FDCWD, Base("load.ind").c_str(), times, 0), 0);
  const ReportStatus status = StatusOf("load");
  EXPECT_EQ(status.verdict.state, StoreState::kSound);
  EXPECT_EQ(status.records, 2U);
  EXPECT_EQ(status.slots, 3U);
  EXPECT_EQ(status.bytes, 24 + 8 + 12);
  ASSERT_TRUE(status.newest.has_value());
  EXPECT_EQ(status.newest->tv_sec, 2000);
  EXPECT_FALSE(status.is_written);
}

TEST_F(ReportSurvey, ReportWithoutRecordsIsEmptyAndHasNoNewestRecord) {
  Make("fresh", 3, {});
  const ReportStatus status = StatusOf("fresh");
  EXPECT_TRUE(status.IsEmpty());
  EXPECT_FALSE(status.newest.has_value());
  EXPECT_FALSE(status.slots.has_value()) << "the ring size is not in the file yet";
}

TEST_F(ReportSurvey, OnlyTheFullCheckFindsDamagedText) {
  Make("load", 3, {"aaaa", "b"});
  std::string data = ReadFile(Base("load.dat"));
  data[4] = 'x';
  WriteFile(Base("load.dat"), data);
  EXPECT_EQ(StatusOf("load").verdict.state, StoreState::kSound);
  EXPECT_EQ(StatusOf("load", ReportCheck::kRecords).verdict.state, StoreState::kDamaged);
}

TEST_F(ReportSurvey, HalfAReportIsDamaged) {
  WriteFile(Base("half.dat"), "abc");
  const ReportStatus status = StatusOf("half");
  EXPECT_EQ(status.verdict.state, StoreState::kDamaged);
  EXPECT_EQ(status.bytes, 3);
  EXPECT_FALSE(status.IsEmpty());
}

TEST_F(ReportSurvey, WritersAreFoundForEachReportAndNothingIsLocked) {
  Make("free", 3, {"a"});
  Make("load", 3, {"a"});
  CReportFileBase writer;
  ASSERT_TRUE(writer.Open(Base("load").c_str(), 3));
  const std::vector<ReportStatus> both = report::StatusOfReports({Base("free"), Base("load")}, ReportCheck::kHeader);
  EXPECT_FALSE(both[0].is_written);
  EXPECT_TRUE(both[1].is_written);
  EXPECT_THAT(both[1].processes, ElementsAre(getpid()));
}

TEST_F(ReportSurvey, HolderOfTheLockIsFoundAmongTheLocksOfTheSystem) {
  WriteFile(Base("r.ind"), "");
  const report::FileKey key = *report::KeyOf(Base("r.ind"));
  char device[32];
  std::snprintf(device, sizeof device, "%02x:%02x:", major(key.first), minor(key.first));
  const std::string file = device + std::to_string(key.second);
  WriteFile(Base("locks"), "1: POSIX  ADVISORY  WRITE 11 " + file + " 0 EOF\n2: FLOCK  ADVISORY  READ  12 " + file +
                               " 0 EOF\n3: FLOCK  ADVISORY  WRITE 13 " + file +
                               " 0 EOF\n4: FLOCK  ADVISORY  WRITE 14 " + device + "1 0 EOF\nnonsense\n");
  const std::vector<report::WritingProcess> found = report::FindLockingProcesses({key}, Base("locks"));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].process, 13);
  EXPECT_THAT(report::FindLockingProcesses({key}, Base("none")), IsEmpty());
}

// The report has a lock that this process cannot find in /proc/PID/fd: its file is open only for reading.
TEST_F(ReportSurvey, ReportWhoseLockIsHeldIsBeingWritten) {
  Make("load", 3, {"a"});
  const int index = ::open(Base("load.ind").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(index, LOCK_EX | LOCK_NB), 0);
  const bool is_shown = !report::FindLockingProcesses({*report::KeyOf(Base("load.ind"))}).empty();
  EXPECT_EQ(StatusOf("load").is_written, is_shown) << "some file systems have other device numbers in /proc/locks";
  ASSERT_EQ(flock(index, LOCK_UN), 0);
  EXPECT_FALSE(StatusOf("load").is_written);
  ::close(index);
}

}  // namespace qx::test
