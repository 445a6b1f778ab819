// Tests listings that fail or end early: a restore then changes nothing, and a copy returns false.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "reportfile/Directory.h"
#include "reportfile/NameExpansion.h"
#include "reportfile/ReportFileBase.h"
#include "tests/provider/ReportRoot.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Attacker.h"
#include "tests/support/FailingFileCalls.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// A tree with so many long names that one directory needs several calls.
Tree ManyFiles(const std::string& directory) {
  Tree tree;
  for (int i = 0; i < 300; ++i) tree[directory + std::string(200, 'n') + std::to_string(i)] = "x";
  return tree;
}

class ListingFaults : public testing::Test {
 protected:
  bool Restore() const {
    const ReportRoot root(to_);
    return CReportFileBase::RestoreReportDataFiles(from_);
  }

  // Nothing was changed, and the trace says why.
  void ExpectRefused(const FileFault& fault, const Tree& from) const {
    const ReportRoot root(to_);
    const TraceCapture trace(6);
    const FailingCall failing(fault);
    EXPECT_FALSE(CReportFileBase::RestoreReportDataFiles(from_));
    EXPECT_EQ(errno, fault.error);
    EXPECT_TRUE(failing.HasFailed());
    EXPECT_EQ(ContentsOf(from_), from);
    EXPECT_EQ(ContentsOf(to_), (Tree{{"a.dat", "old"}}));
    char line[200];
    std::snprintf(line, sizeof line, "ERROR 0x%X Could not copy report files from backup path", fault.error);
    EXPECT_THAT(trace.Text(), HasSubstr(line));
    EXPECT_THAT(trace.Text(), testing::Not(HasSubstr("CDirectory")));
  }

  const ScopedUmask umask_{022};
  const TempDir dir_;
  const std::string from_ = dir_.File("from");
  const std::string to_ = dir_.File("to");
};

TEST_F(ListingFaults, RestoreIsRefusedIfTheBackupCannotBeListed) {
  const Tree from = {{"a.dat", "1"}, {"sub/", ""}, {"sub/b.dat", "2"}};
  MakeTree(from_, from);
  MakeTree(to_, {{"a.dat", "old"}});
  ExpectRefused({.call = FileCall::kOpen, .path = "/from", .error = EMFILE}, from);
  ExpectRefused({.call = FileCall::kOpen, .path = "/from/sub", .error = ENFILE}, from);
  ExpectRefused({.call = FileCall::kReadEntries, .nth = 1, .error = EIO}, from);
  ExpectRefused({.call = FileCall::kReadEntries, .nth = 3, .error = EIO}, from);
  ExpectRefused({.call = FileCall::kStatusAt, .path = "/from", .error = EACCES}, from);
  ExpectRefused({.call = FileCall::kStatusAt, .path = "/from/a.dat", .error = EIO}, from);
  ExpectRefused({.call = FileCall::kStatusAt, .path = "/from/sub/b.dat", .error = EACCES}, from);
  ExpectRefused({.call = FileCall::kOpen, .path = "/from/sub", .error = ENOTDIR}, from);
}

TEST_F(ListingFaults, RestoreIsRefusedIfAListingEndsEarly) {
  const Tree from = ManyFiles("");
  MakeTree(from_, from);
  MakeTree(to_, {{"a.dat", "old"}});
  ExpectRefused({.call = FileCall::kReadEntries, .nth = 2, .error = EIO}, from);
}

TEST_F(ListingFaults, RestoreSkipsAFileThatWasRemovedAfterTheListing) {
  MakeTree(from_, {{"a.dat", "1"}, {"b.dat", "2"}, {"sub/c", "3"}});
  const FailingCall gone({.call = FileCall::kStatusAt, .path = "/from/b.dat", .error = ENOENT});
  const FailingCall sub({.call = FileCall::kOpen, .path = "/from/sub", .error = ENOENT});
  EXPECT_TRUE(Restore());
  EXPECT_EQ(ContentsOf(to_), (Tree{{"a.dat", "1"}, {"sub/", ""}}));
}

TEST_F(ListingFaults, BackupThatMayNotBeReadIsRefusedAndKept) {
  MakeTree(dir_.Path(), {{"from/a.dat", "1"}, {"to/a.dat", "old"}});
  ASSERT_EQ(chmod(from_.c_str(), 0), 0);
  EXPECT_TRUE(AsOrdinaryUser(dir_.Path(), [this] { return !Restore(); }));
  ASSERT_EQ(chmod(from_.c_str(), 0700), 0);
  EXPECT_EQ(ContentsOf(from_), (Tree{{"a.dat", "1"}}));
}

// After each single failure, the backup still exists, or everything is restored, or the trace reports that a copy
// failed.
TEST_F(ListingFaults, OneFailedCallOfARestoreLosesNothing) {
  const Tree from = {{"a.dat", "1"}, {"sub/", ""}, {"sub/b.dat", "2"}, {"sub/deep/", ""}, {"sub/deep/c", "3"}};
  for (const FileCall call : {FileCall::kOpen, FileCall::kStatusAt, FileCall::kStatus, FileCall::kReadEntries}) {
    bool has_failed = true;
    for (int nth = 1; has_failed; ++nth) {
      MakeTree(from_, from);
      MakeTree(to_, {});
      const ReportRoot root(to_);
      const TraceCapture trace(1);
      const FailingCall failing({.call = call, .nth = nth, .error = EMFILE});
      const bool is_done = CReportFileBase::RestoreReportDataFiles(from_);
      has_failed = failing.HasFailed();
      const bool is_restored = ContentsOf(to_) == from;
      const bool says_so = trace.Text().find("CDirectory::CopyDir() - ## ERROR:") != std::string::npos;
      EXPECT_TRUE(is_restored || !is_done) << nth;
      EXPECT_TRUE(is_restored || says_so || ContentsOf(from_) == from) << nth << trace.Text();
      std::filesystem::remove_all(to_);
    }
  }
}

TEST_F(ListingFaults, CopyOfAnIncompleteListingIsFalseAndCopiesItsFiles) {
  MakeTree(from_, ManyFiles(""));
  const TraceCapture trace(3);
  const FailingCall fault({.call = FileCall::kReadEntries, .nth = 2, .error = EIO});
  EXPECT_FALSE(CDirectory::CopyDir(from_.c_str(), to_.c_str(), "*.*", true));
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(trace.Entries(),
              ElementsAre("CDirectory::CopyDir() - ## ERROR: Could not copy file. Input/output error"));
  EXPECT_GT(ContentsOf(to_).size(), 100U);
  EXPECT_LT(ContentsOf(to_).size(), 300U);
}

TEST_F(ListingFaults, IncompleteListingOfASubdirectoryIsTracedThere) {
  Tree from = ManyFiles("sub/deep/");
  from["z"] = "not reached if it comes later";
  MakeTree(from_, from);
  const TraceCapture trace(3);
  const FailingCall fault({.call = FileCall::kReadEntries, .nth = 6, .error = EIO});
  EXPECT_FALSE(CDirectory::CopyDir(from_.c_str(), to_.c_str(), "*.*", true));
  const std::string line = "CDirectory::CopyDir() - ## ERROR: Subdirectory could not be copied. Input/output error";
  EXPECT_THAT(trace.Entries(), ElementsAre(line, line));
  EXPECT_GT(ContentsOf(to_ + "/sub/deep").size(), 100U);
}

// A listing that fails before its first name must not count as an empty directory.
TEST_F(ListingFaults, FailedListingWithoutANameIsFalseAndMakesNoDestination) {
  MakeTree(from_, {{"a", "1"}});
  const FailingCall fault({.call = FileCall::kReadEntries, .error = EIO});
  EXPECT_FALSE(CDirectory::CopyDir(from_.c_str(), to_.c_str(), "*.*", true));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(ListingFaults, QuirkDirectoryThatCannotBeOpenedCopiesAsAnEmptyOne) {
  MakeTree(from_, {{"a", "1"}});
  const FailingCall fault({.call = FileCall::kOpen, .path = "/from", .error = EMFILE});
  EXPECT_TRUE(CDirectory::CopyDir(from_.c_str(), to_.c_str(), "*.*", true));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(ListingFaults, TraceShowsPathsWithoutEscapesForGlobbing) {
  const std::string odd = dir_.File("b*[1]\\?");
  MakeTree(odd, {{"[s]/b.dat", "2"}});
  const std::string source = report::EscapedForGlobbing(odd);
  const TraceCapture trace(5);
  EXPECT_TRUE(CDirectory::CopyDir(source.c_str(), to_.c_str(), "*", true));
  EXPECT_THAT(Shortened(trace.Entries(), dir_.Path()),
              ElementsAre("CDirectory::CopyDir() - Looking for files matching T/b*[1]\\?/*",
                          "CDirectory::CopyDir() - Copy DIR T/b*[1]\\?/[s] --> T/to/[s]",
                          "CDirectory::CopyDir() - Looking for files matching T/b*[1]\\?/[s]/*",
                          "CDirectory::CopyDir() - Copy file T/b*[1]\\?/[s]/b.dat --> T/to/[s]/b.dat"));
  EXPECT_EQ(ContentsOf(to_), ContentsOf(odd));
}

TEST_F(ListingFaults, TraceOfARestoreShowsTheBackupWithoutEscapes) {
  const std::string odd = dir_.File("b[1]");
  MakeTree(odd, {{"a", "1"}});
  const ReportRoot root(to_);
  const TraceCapture trace(5);
  EXPECT_TRUE(CReportFileBase::RestoreReportDataFiles(odd));
  EXPECT_THAT(Shortened(trace.Entries(), dir_.Path()),
              testing::Contains("CDirectory::CopyDir() - Looking for files matching T/b[1]/*"));
}

}  // namespace
}  // namespace qx::test
