#include "reportfile/tools/directory/StoreBackup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "reportfile/tools/directory/StoreCopy.h"
#include "tests/reportfile/StoreLife.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

using report::BackupItemKind;
using report::BackupItemState;
using report::BackupResult;
using report::BackupState;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

// "record 00000042 ......": the text contains the number of the record. All records have the same length.
std::string SelfDescribing(unsigned number, std::size_t body_bytes = 0) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "record %08u %8u", number, number % 97);
  return text + std::string(body_bytes, static_cast<char>('a' + number % 26));
}

// A process that appends as fast as it can, from construction to destruction. With `burst` it pauses for two
// milliseconds after each `burst` records.
class LiveWriter {
 public:
  LiveWriter(const std::string& base_path, std::uint32_t slots, std::size_t body_bytes = 0, unsigned burst = 0) {
    int ready[2];
    if (pipe(ready) != 0) throw std::runtime_error("no pipe");
    pid_ = fork();
    if (pid_ == 0) Write(base_path, slots, body_bytes, burst, ready[1]);
    close(ready[1]);
    char byte = 0;
    const bool has_begun = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!has_begun) throw std::runtime_error("the writer does not write");
  }
  ~LiveWriter() {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }
  LiveWriter(const LiveWriter&) = delete;
  LiveWriter& operator=(const LiveWriter&) = delete;

 private:
  [[noreturn]] static void Write(const std::string& base_path, std::uint32_t slots, std::size_t body_bytes,
                                 unsigned burst, int ready) {
    CReportFileBase store;
    if (!store.Open(base_path.c_str(), slots)) _exit(1);
    for (unsigned number = 0;; ++number) {
      if (!store.writeLine(SelfDescribing(number, body_bytes).c_str())) _exit(1);
      if (number == slots && write(ready, "x", 1) != 1) _exit(1);
      if (burst != 0 && number % burst == 0) usleep(2000);
    }
  }

  pid_t pid_ = -1;
};

class StoreBackup : public testing::Test {
 protected:
  StoreBackup() { fs::create_directory(reports_); }

  void MakeStore(const std::string& name, std::uint32_t slots, const std::vector<std::string>& texts) const {
    CReportFileBase store;
    ASSERT_TRUE(store.Open((reports_ + "/" + name).c_str(), slots));
    for (const std::string& text : texts) ASSERT_TRUE(store.writeLine(text.c_str()));
  }

  // Every name below the test's directory, to check that no temporary file is left.
  std::vector<std::string> NamesBelow(const std::string& directory) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      names.push_back(entry.path().lexically_relative(directory).string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string target_ = dir_.File("backup");
};

// Reads the records of a store, and checks that each is the successor of the previous one.
void ExpectContiguousRun(const std::string& base_path, std::size_t count, std::size_t body_bytes = 0) {
  EXPECT_EQ(Rules(report::VerifyStore(base_path).scan), "");
  CReportFileBase store;
  ASSERT_TRUE(store.OpenRead(base_path.c_str()));
  const std::vector<std::string> records = ReadAll(store);
  ASSERT_EQ(records.size(), count);
  unsigned first = 0;
  ASSERT_EQ(std::sscanf(records[0].c_str(), "record %08u", &first), 1) << records[0];
  for (unsigned i = 0; i < records.size(); ++i) {
    ASSERT_TRUE(records[i] == SelfDescribing(first + i, body_bytes) + "\r\n") << i << ": " << records[i].substr(0, 32);
  }
}

// A copy ends with its marker, like a store without a writer, although the writer has continued.
void ExpectCutAtItsMoment(const std::string& base_path) {
  const StoreBytes copy = {ReadFile(base_path + ".ind"), ReadFile(base_path + ".dat")};
  const std::uint32_t position = copy.Header().writePosition;
  if (position == 0) return;  // the data file just restarted: the marker is elsewhere
  EXPECT_EQ(copy.data.substr(position, report::kEndMarker.size()), report::kEndMarker);
}

}  // namespace

TEST_F(StoreBackup, StoresAndOtherFilesAreCopiedByteForByte) {
  MakeStore("load", 3, Numbered(8));
  MakeStore("never-written", 3, {});
  WriteFile(reports_ + "/load.names", "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=cpu\n");
  fs::create_directory(reports_ + "/sub");
  WriteFile(reports_ + "/sub/.hidden", "h");
  WriteFile(reports_ + "/alone.dat", "half");
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kDone);
  EXPECT_THAT(NamesBelow(target_), ElementsAre("alone.dat", "load.dat", "load.ind", "load.names", "never-written.dat",
                                               "never-written.ind", "sub", "sub/.hidden"));
  for (const std::string& name : NamesBelow(target_)) {
    if (name == "sub") continue;
    EXPECT_EQ(ReadFile(target_ + "/" + name), ReadFile(reports_ + "/" + name)) << name;
  }
  ASSERT_EQ(result.items.size(), 5U);
  EXPECT_EQ(result.items[0].kind, BackupItemKind::kHalfStore);
  EXPECT_EQ(result.items[1].name, "load");
  EXPECT_EQ(result.items[1].kind, BackupItemKind::kStore);
  EXPECT_EQ(result.items[1].records, 3U);
  EXPECT_THAT(NamesBelow(dir_.Path()), testing::Not(testing::Contains(HasSubstr("partial"))));
}

TEST_F(StoreBackup, CopiesKeepPermissionsAndTimes) {
  MakeStore("load", 3, Numbered(2));
  const std::string from = reports_ + "/load.ind";
  ASSERT_EQ(chmod(from.c_str(), 0640), 0);
  fs::last_write_time(from, fs::last_write_time(from) - std::chrono::hours(5));
  ASSERT_EQ(report::BackupReports(reports_, target_).state, BackupState::kDone);
  struct stat status = {};
  ASSERT_EQ(stat((target_ + "/load.ind").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(fs::last_write_time(target_ + "/load.ind"), fs::last_write_time(from));
}

TEST_F(StoreBackup, DamagedStoreIsCopiedAsItIsAndNamed) {
  MakeStore("load", 3, Numbered(8));
  std::string index = ReadFile(reports_ + "/load.ind");
  index[20] = 9;
  WriteFile(reports_ + "/load.ind", index);
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kDone);
  EXPECT_EQ(result.items[0].state, BackupItemState::kDamaged);
  EXPECT_EQ(ReadFile(target_ + "/load.ind"), index);
}

TEST_F(StoreBackup, StoreOfAKilledWriterIsCopiedAsItIs) {
  MakeStore("load", 3, Numbered(7));
  const std::string before = ReadFile(reports_ + "/load.ind");
  MakeStore("load", 0, {"rec8"});
  std::string index = ReadFile(reports_ + "/load.ind");
  index.replace(0, sizeof(report::IndexHeader), before, 0, sizeof(report::IndexHeader));
  WriteFile(reports_ + "/load.ind", index);
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.items[0].state, BackupItemState::kCopied);
  EXPECT_EQ(ReadFile(target_ + "/load.ind"), index);
  EXPECT_EQ(ReadFile(target_ + "/load.dat"), ReadFile(reports_ + "/load.dat"));
}

TEST_F(StoreBackup, FileWhoseStatFailsIsNamedAsUnreadable) {
  MakeStore("load", 3, {"a"});
  WriteFile(reports_ + "/notes", "n");
  const FailingCall fault({.call = FileCall::kStatusAt, .path = "notes", .error = EIO});
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kDone) << result.file << " " << result.error;
  ASSERT_EQ(result.items.size(), 2U);
  EXPECT_EQ(result.items[0].state, BackupItemState::kCopied);
  EXPECT_EQ(result.items[1].state, BackupItemState::kUnreadable);
  EXPECT_EQ(result.items[1].error, EIO);
}

TEST_F(StoreBackup, ListingThatEndsEarlyLeavesNoTarget) {
  MakeStore("load", 3, {"a"});
  const FailingCall fault({.call = FileCall::kReadEntries, .nth = 2, .error = EIO});
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kFailed);
  EXPECT_EQ(result.error, EIO);
  EXPECT_THAT(NamesBelow(dir_.Path()), ElementsAre("reports", "reports/load.dat", "reports/load.ind"));
}

TEST_F(StoreBackup, LinksAreNamedAndNotCopied) {
  WriteFile(dir_.File("secret"), "s");
  MakeStore("load", 3, {"a"});
  fs::create_symlink(dir_.File("secret"), reports_ + "/file-link");
  fs::create_directory_symlink(reports_, reports_ + "/loop");
  fs::create_symlink("nowhere", reports_ + "/dangling");
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kDone);
  ASSERT_EQ(result.items.size(), 4U);
  EXPECT_EQ(result.items[0].name, "dangling");
  EXPECT_EQ(result.items[0].kind, BackupItemKind::kLink);
  EXPECT_EQ(result.items[1].kind, BackupItemKind::kLink);
  EXPECT_EQ(result.items[3].kind, BackupItemKind::kLink);
  EXPECT_THAT(NamesBelow(target_), ElementsAre("load.dat", "load.ind"));
}

TEST_F(StoreBackup, FifosAreNamedAndNotCopied) {
  ASSERT_EQ(mkfifo((reports_ + "/pipe").c_str(), 0600), 0);
  const BackupResult result = report::BackupReports(reports_, target_);
  EXPECT_EQ(result.state, BackupState::kDone);
  ASSERT_EQ(result.items.size(), 1U);
  EXPECT_EQ(result.items[0].kind, BackupItemKind::kSkipped);
  EXPECT_THAT(NamesBelow(target_), IsEmpty());
}

TEST_F(StoreBackup, HolesStayHoles) {
  MakeSparseFile(reports_ + "/sparse");
  MakeSparseFile(reports_ + "/half.dat");
  ASSERT_EQ(report::BackupReports(reports_, target_).state, BackupState::kDone);
  for (const char* const name : {"/sparse", "/half.dat"}) {
    EXPECT_TRUE(ReadFile(target_ + name) == ReadFile(reports_ + name));
    EXPECT_LE(BlocksOf(target_ + name), BlocksOf(reports_ + name) + 8) << name;
  }
}

TEST_F(StoreBackup, TargetWithFilesIsRefused) {
  fs::create_directory(target_);
  WriteFile(target_ + "/old", "precious");
  EXPECT_EQ(report::BackupReports(reports_, target_).state, BackupState::kRefused);
  EXPECT_EQ(ReadFile(target_ + "/old"), "precious");
  EXPECT_EQ(report::BackupReports(reports_, target_ + "/old").state, BackupState::kRefused);
}

TEST_F(StoreBackup, EmptyDirectoryIsFilled) {
  MakeStore("load", 3, Numbered(2));
  fs::create_directory(target_);
  EXPECT_EQ(report::BackupReports(reports_, target_ + "/").state, BackupState::kDone);
  EXPECT_THAT(NamesBelow(target_), ElementsAre("load.dat", "load.ind"));
}

TEST_F(StoreBackup, TargetInTheReportDirectoryIsRefused) {
  EXPECT_EQ(report::BackupReports(reports_, reports_ + "/backup").state, BackupState::kRefused);
  EXPECT_EQ(report::BackupReports(reports_, dir_.Path() + "/none/../reports/backup").state, BackupState::kRefused);
  EXPECT_THAT(NamesBelow(reports_), IsEmpty());
}

TEST_F(StoreBackup, WithoutAReportDirectoryThereIsNothingToBackUp) {
  EXPECT_EQ(report::BackupReports(dir_.File("none"), target_).state, BackupState::kNotFound);
  EXPECT_FALSE(Exists(target_));
}

// A file size limit acts like a full disk: the copy fails in the middle, and no target is left.
TEST_F(StoreBackup, FullDiskLeavesNoTarget) {
  MakeStore("load", 3, Numbered(2));
  WriteFile(reports_ + "/z-big", std::string(300000, 'x'));
  const auto back_up = [this] {
    if (!LimitFileSize(100000)) return 2;
    const BackupResult result = report::BackupReports(reports_, target_);
    return result.state == BackupState::kFailed && result.error == EFBIG ? 0 : 1;
  };
  EXPECT_EQ(StatusOfChild(back_up), 0);
  EXPECT_THAT(NamesBelow(dir_.Path()), ElementsAre("reports", "reports/load.dat", "reports/load.ind", "reports/z-big"));
}

// --- while a writer appends as fast as it can

TEST_F(StoreBackup, EveryCopyOfALiveStoreIsSoundAndHasAContiguousRun) {
  // Each append to a full ring overwrites its oldest record, so a copy succeeds only during a pause of the writer. A
  // store whose writer pauses must be copied.
  for (const auto& [slots, burst] :
       std::vector<std::pair<std::uint32_t, unsigned>>{{4, 0}, {30, 0}, {100, 0}, {3001, 0}, {3000, 500}}) {
    const bool never_pauses = burst == 0;
    const int copies_min = never_pauses ? 0 : 12;
    const int tries_max = never_pauses ? 6 : 200;
    const std::string base = reports_ + "/live" + std::to_string(slots);
    const LiveWriter writer(base, slots, 0, burst);
    int copied = 0;
    for (int copy = 0; copy < tries_max && (never_pauses || copied < copies_min); ++copy) {
      const std::string to = dir_.File("copy" + std::to_string(slots) + "-" + std::to_string(copy));
      const report::StoreCopy result = report::CopyStore(base, to);
      if (result.state == report::StoreCopyState::kNeverStill) {
        EXPECT_FALSE(Exists(to + ".ind"));
        EXPECT_FALSE(Exists(to + ".dat"));
        continue;
      }
      ASSERT_EQ(result.state, report::StoreCopyState::kCopied) << result.error;
      ++copied;
      ASSERT_NO_FATAL_FAILURE(ExpectContiguousRun(to, slots)) << to;
      if (result.was_written) ExpectCutAtItsMoment(to);
    }
    EXPECT_GE(copied, copies_min) << slots;
  }
}

// The records are so long that a copy needs many reads, and the writer appends between them.
TEST_F(StoreBackup, EveryCopyOfALiveStoreHasLongRecordsWhole) {
  constexpr std::size_t kBodyBytes = 100000;
  const std::string base = reports_ + "/long";
  const LiveWriter writer(base, 8, kBodyBytes);
  for (int copy = 0; copy < 6; ++copy) {
    const std::string to = dir_.File("copy" + std::to_string(copy));
    const report::StoreCopy result = report::CopyStore(base, to);
    if (result.state == report::StoreCopyState::kNeverStill) continue;
    ASSERT_EQ(result.state, report::StoreCopyState::kCopied) << result.error;
    ASSERT_NO_FATAL_FAILURE(ExpectContiguousRun(to, 8, kBodyBytes)) << to;
  }
}

TEST_F(StoreBackup, BackupOfALiveReportDirectoryHasSoundStores) {
  const LiveWriter first(reports_ + "/a", 500);
  const LiveWriter second(reports_ + "/b", 2000);
  const BackupResult result = report::BackupReports(reports_, target_);
  ASSERT_EQ(result.state, BackupState::kDone);
  ASSERT_EQ(result.items.size(), 2U);
  for (const report::BackupItem& item : result.items) {
    if (item.state == BackupItemState::kNeverStill) continue;
    EXPECT_EQ(item.state, BackupItemState::kCopied);
    ExpectContiguousRun(target_ + "/" + item.name, item.records);
  }
}

}  // namespace qx::test
