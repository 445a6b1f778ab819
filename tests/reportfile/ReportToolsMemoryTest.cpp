// Tests the report tools when there is no memory: the caller gets an error, and nothing is lost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "reportfile/tools/WritingProcesses.h"
#include "reportfile/tools/directory/StoreBackup.h"
#include "reportfile/tools/directory/StoreRestore.h"
#include "tests/provider/ReportRoot.h"
#include "tests/reportfile/StoreLife.h"
#include "tests/support/EachAllocation.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

using report::BackupState;
using report::RestoreState;
using testing::ElementsAre;
using testing::IsSubsetOf;

// Uses files in memory if possible: hundreds of syncs to a disk are not part of the test.
[[maybe_unused]] const bool is_in_memory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 0) == 0;

class ReportToolsMemory : public testing::Test {
 protected:
  // If there is no memory for the lines of the registry, the report directory is "Reports" in the working directory.
  ReportToolsMemory() { fs::current_path(dir_.Path()); }
  ~ReportToolsMemory() override { fs::current_path("/"); }

  // Makes only one report, with a directory below it, in `directory`.
  void MakeReports(const std::string& directory) const {
    fs::remove_all(world_);
    fs::create_directories(directory + "/sub/deep");
    CReportFileBase store;
    ASSERT_TRUE(store.Open((directory + "/load").c_str(), 9));
    ASSERT_TRUE(store.writeLine("a"));
    WriteFile(directory + "/sub/notes.txt", "n");
  }

  static std::vector<std::string> NamesBelow(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      names.push_back(entry.path().lexically_relative(directory).string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    return names;
  }

  static auto AreAllNames() { return ElementsAre("load.dat", "load.ind", "sub", "sub/deep", "sub/notes.txt"); }

  TempDir dir_;
  const std::string world_ = dir_.File("world");
  const std::string reports_ = world_ + "/reports";
  const std::string backup_ = world_ + "/backup";
};

}  // namespace

// --- the class of the agents: it throws nothing and loses nothing

class StoreMemory : public ReportToolsMemory {
 protected:
  void MakeStore() {
    MakeReports(reports_);
    CReportFileBase writer;
    ASSERT_TRUE(writer.Open(base_.c_str(), 9));
    ASSERT_TRUE(writer.writeLine(long_text_.c_str()));
  }
  // The content of both files.
  std::string Bytes() const { return ReadFile(base_ + ".ind") + ReadFile(base_ + ".dat"); }

  // A base path and a record that need an allocation as strings.
  const std::string base_ = reports_ + "/load";
  const std::string long_text_ = std::string(10000, 't');
};

TEST_F(StoreMemory, OpenIsFalseWithoutMemoryAndChangesNothing) {
  std::string before;
  const auto prepare = [&] {
    MakeStore();
    before = Bytes();
  };
  const auto work = [&] {
    CReportFileBase store;
    const bool is_open = store.Open(base_.c_str(), 3);
    return is_open ? 0 : errno;
  };
  WithEachAllocationFailing<int>(prepare, work, [&](const auto& error) {
    ASSERT_TRUE(error.has_value()) << "it threw";
    EXPECT_TRUE(*error == 0 || *error == ENOMEM);
    EXPECT_EQ(Bytes(), before);
  });
}

TEST_F(StoreMemory, OpenReadIsFalseWithoutMemory) {
  const auto work = [&] {
    CReportFileBase store;
    return store.OpenRead(base_.c_str()) ? 0 : errno;
  };
  WithEachAllocationFailing<int>([&] { MakeStore(); }, work,
                                 [&](const auto& error) {
                                   ASSERT_TRUE(error.has_value()) << "it threw";
                                   EXPECT_TRUE(*error == 0 || *error == ENOMEM);
                                 });
}

TEST_F(StoreMemory, ReadLineIsFalseWithoutMemoryAndLeavesItsOutput) {
  CReportFileBase store;
  std::string text;
  const auto prepare = [&] {
    MakeStore();
    ASSERT_TRUE(store.OpenRead(base_.c_str()));
    std::string("before").swap(text);
  };
  WithEachAllocationFailing<bool>(
      prepare, [&] { return store.readLine(text, 1); },
      [&](const auto& is_read) {
        ASSERT_TRUE(is_read.has_value()) << "it threw";
        EXPECT_EQ(text, *is_read ? long_text_ + "\r\n" : "before");
      });
}

TEST_F(StoreMemory, PrintAllRecordsEndsWithItsLastLine) {
  CReportFileBase store;
  const auto prepare = [&] {
    MakeStore();
    ASSERT_TRUE(store.OpenRead(base_.c_str()));
    testing::internal::CaptureStdout();
  };
  const auto work = [&] {
    store.printAllRecords();
    return true;
  };
  WithEachAllocationFailing<bool>(prepare, work, [&](const auto& has_returned) {
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(has_returned.has_value()) << "it threw";
    const std::string second = "1::" + long_text_ + "\r\n";
    EXPECT_THAT(printed, testing::AnyOf("===\n", "0::a\r\n===\n", "0::a\r\n" + second + "===\n"));
  });
}

// --- the tools

TEST_F(ReportToolsMemory, BackupIsWholeOrLeavesNothing) {
  WithEachAllocationFailing<BackupState>(
      [&] { MakeReports(reports_); }, [&] { return report::BackupReports(reports_, backup_).state; },
      [&](const auto& state) {
        EXPECT_THAT(NamesBelow(reports_), AreAllNames());
        EXPECT_THAT(NamesIn(world_), IsSubsetOf({"reports", "backup"}));
        EXPECT_TRUE(state != BackupState::kDone || fs::exists(backup_));
        EXPECT_THAT(NamesBelow(fs::exists(backup_) ? backup_ : reports_), AreAllNames());
      });
}

TEST_F(ReportToolsMemory, BackupIsNeverMadeInADirectoryWithFiles) {
  const auto prepare = [&] {
    MakeReports(reports_);
    fs::create_directory(backup_);
    WriteFile(backup_ + "/of somebody else", "x");
  };
  WithEachAllocationFailing<BackupState>(
      prepare, [&] { return report::BackupReports(reports_, backup_).state; },
      [&](const auto& state) {
        EXPECT_EQ(state.value_or(BackupState::kRefused), BackupState::kRefused);
        EXPECT_THAT(NamesBelow(backup_), ElementsAre("of somebody else"));
      });
}

TEST_F(ReportToolsMemory, RestoreIsWholeOrKeepsTheBackup) {
  std::optional<ReportRoot> root;  // loaded again each time: without memory it is only read in part
  const auto prepare = [&] {
    MakeReports(backup_);
    root.reset();
    root.emplace(reports_);
  };
  WithEachAllocationFailing<RestoreState>(
      prepare, [&] { return report::RestoreReports(backup_, reports_, {.consume = true}).state; },
      [&](const auto& state) {
        const bool is_done = state == RestoreState::kDone;
        EXPECT_EQ(fs::exists(backup_), !is_done);
        EXPECT_THAT(NamesBelow(is_done ? reports_ : backup_), AreAllNames());
      });
}

TEST_F(ReportToolsMemory, WriterIsFoundOrTheCheckThrows) {
  const std::string processes = world_ + "/processes";
  const auto prepare = [&] {
    MakeReports(reports_);
    for (const char* directory : {"/11/fd", "/11/fdinfo"}) fs::create_directories(processes + directory);
    fs::create_symlink(reports_ + "/load.dat", processes + "/11/fd/3");
    WriteFile(processes + "/11/fdinfo/3", "pos:\t0\nflags:\t0100002\n");
  };
  const auto look = [&] {
    const auto key = report::KeyOf(reports_ + "/load.dat");
    return report::FindWritingProcesses({*key}, processes).size();
  };
  WithEachAllocationFailing<std::size_t>(prepare, look, [](const auto& count) { EXPECT_EQ(count.value_or(1U), 1U); });
}

}  // namespace qx::test
