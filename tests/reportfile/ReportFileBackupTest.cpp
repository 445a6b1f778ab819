// Tests restores of the report directory: which files are copied, which are deleted afterwards, and when nothing is
// done.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/Directory.h"
#include "reportfile/ReportFileBase.h"
#include "tests/provider/ReportRoot.h"
#include "tests/reportfile/Trees.h"
#include "tests/support/Support.h"

namespace qx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Trace lines of the registry, which names the report directory, are left out.
bool IsAboutRestoring(const std::string& line) {
  return line.starts_with("EM_THRESH ") || line.starts_with("CDirectory");
}

class ReportFileBackup : public testing::Test {
 protected:
  // Restores the backup. The registry names the report directory; "" means that it names none.
  bool Restore(const std::string& backup) { return RestoreTo(reports_, backup); }
  static bool RestoreTo(const std::string& reports, const std::string& backup) {
    const ReportRoot root(reports);
    return CReportFileBase::RestoreReportDataFiles(backup);
  }

  std::vector<std::string> TraceOfRestore(int level, bool expected, const std::string& reports,
                                          const std::string& backup) {
    const TraceCapture trace(level);
    EXPECT_EQ(RestoreTo(reports, backup), expected);
    std::vector<std::string> lines = trace.Entries();
    std::erase_if(lines, [](const std::string& line) { return !IsAboutRestoring(line); });
    return Shortened(lines, dir_.Path());
  }

  const ScopedUmask umask_{022};
  TempDir dir_;
  const std::string reports_ = dir_.File("reports");
  const std::string backup_ = dir_.File("backup");
};

TEST_F(ReportFileBackup, WithoutAReportDirectoryNothingHappens) {
  MakeTree(backup_, {{"a.dat", "1"}});
  EXPECT_THAT(TraceOfRestore(6, false, "", backup_),
              ElementsAre("EM_THRESH           : ERROR! Could not found Server Control report data path"));
  EXPECT_THAT(ContentsOf(backup_), UnorderedElementsAre(Pair("a.dat", "1")));
}

TEST_F(ReportFileBackup, FilesAreReplacedAndTheBackupIsRemoved) {
  MakeTree(dir_.Path(), {{"backup/a.dat", "new data"},
                         {"backup/a.ind", "new index"},
                         {"reports/a.dat", "old"},
                         {"reports/a.ind", "old"},
                         {"reports/b.dat", "kept"}});
  EXPECT_TRUE(Restore(backup_));
  EXPECT_THAT(ContentsOf(reports_),
              UnorderedElementsAre(Pair("a.dat", "new data"), Pair("a.ind", "new index"), Pair("b.dat", "kept")));
  EXPECT_FALSE(Exists(backup_));
}

TEST_F(ReportFileBackup, RestoreIsTraced) {
  MakeTree(backup_, {{"a.dat", "1"}});
  EXPECT_THAT(
      TraceOfRestore(6, true, reports_, backup_),
      ElementsAre("CDirectory::CopyDir() - Looking for files matching T/backup/*",
                  "CDirectory::CopyDir() - Copy file T/backup/a.dat --> T/reports/a.dat",
                  "EM_THRESH           : Report files copied from backup path \"T/backup\" to path \"T/reports\"",
                  "CDirectory          : Remove directory \"T/backup\"",
                  "CDirectory          : Found file: \"T/backup/a.dat\"",
                  "CDirectory          : Remove file \"T/backup/a.dat\" OK!",
                  "CDirectory          : Remove directory parent \"T/backup\"",
                  "CDirectory          : Remove directory parent \"T/backup\" OK!"));
  MakeTree(backup_, {{"a.dat", "1"}});
  EXPECT_THAT(TraceOfRestore(1, true, reports_, backup_), IsEmpty());
}

TEST_F(ReportFileBackup, SubdirectoriesAreFilledAndHiddenFilesCopied) {
  MakeTree(dir_.Path(), {{"backup/sub/a.dat", "new"},
                         {"backup/.hidden", "too"},
                         {"reports/sub/a.dat", "old"},
                         {"reports/sub/b.dat", "kept"}});
  EXPECT_TRUE(Restore(backup_));
  EXPECT_THAT(ContentsOf(reports_), UnorderedElementsAre(Pair("sub/", ""), Pair("sub/a.dat", "new"),
                                                         Pair("sub/b.dat", "kept"), Pair(".hidden", "too")));
}

TEST_F(ReportFileBackup, QuirkHiddenEntriesOfTheBackupStayWithTheirDirectory) {
  MakeTree(backup_, {{"a.dat", "1"}, {".hidden", "2"}});
  EXPECT_TRUE(Restore(backup_));
  EXPECT_THAT(ContentsOf(backup_), UnorderedElementsAre(Pair(".hidden", "2")));
}

TEST_F(ReportFileBackup, BackupThatDoesNotExistIsASuccess) {
  MakeTree(reports_, {{"a.dat", "1"}});
  EXPECT_THAT(
      TraceOfRestore(4, true, reports_, backup_),
      ElementsAre("CDirectory::CopyDir() - Could not find matching files to copy. No such file or directory",
                  "EM_THRESH           : Report files copied from backup path \"T/backup\" to path \"T/reports\"",
                  "CDirectory          : Remove directory \"T/backup\"",
                  "CDirectory          : scandir for directory \"\" failed; ## ERROR: No such file or directory"));
  EXPECT_THAT(ContentsOf(reports_), UnorderedElementsAre(Pair("a.dat", "1")));
}

TEST_F(ReportFileBackup, QuirkBackupIsRemovedAlsoAfterAFailedCopy) {
  MakeTree(dir_.Path(), {{"backup/a.dat", "1"}, {"reports/a.dat/in the way", "2"}});
  EXPECT_THAT(
      TraceOfRestore(2, false, reports_, backup_),
      ElementsAre("CDirectory::CopyDir() - ## ERROR: Could not copy file. Is a directory",
                  "EM_THRESH           : ERROR 0x15 Could not copy report files from backup path \"T/backup\" to "
                  "\"T/reports\"",
                  "CDirectory          : Remove directory \"T/backup\"",
                  "CDirectory          : Found file: \"T/backup/a.dat\""));
  EXPECT_FALSE(Exists(backup_));
}

TEST_F(ReportFileBackup, ErrorOfAFailedCopyIsKeptThroughTheRemoval) {
  MakeTree(dir_.Path(), {{"backup/a.dat", "1"}, {"backup/.hidden", "2"}, {"reports/a.dat/in the way", "3"}});
  const ReportRoot root(reports_);
  EXPECT_FALSE(CReportFileBase::RestoreReportDataFiles(backup_));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(CReportFileBase::RestoreReportDataFiles(reports_));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(ReportFileBackup, EmptyBackupPathSkipsTheRemoval) {
  MakeTree(reports_, {{"a.dat", "1"}});
  EXPECT_THAT(TraceOfRestore(6, false, reports_, ""),
              ElementsAre("CDirectory::CopyDir() - ## ERROR: Only absolute paths are accepted.",
                          "EM_THRESH           : ERROR 0x16 Could not copy report files from backup path \"\" to "
                          "\"T/reports\""));
}

TEST_F(ReportFileBackup, RelativeBackupPathIsNotCopiedButRemoved) {
  MakeTree(backup_, {{"a.dat", "1"}});
  const std::string relative = std::filesystem::relative(backup_).string();
  EXPECT_FALSE(Restore(relative));
  EXPECT_FALSE(Exists(backup_));
  EXPECT_FALSE(Exists(reports_));
}

TEST_F(ReportFileBackup, NameOfTheBackupIsNotAPattern) {
  const std::string odd = dir_.File("b*[1]\\?");
  MakeTree(odd, {{"a.dat", "1"}, {"[s]/b.dat", "2"}});
  MakeTree(dir_.Path(), {{"b*1?/wrong", "3"}, {"bx1?/wrong", "4"}});
  EXPECT_TRUE(Restore(odd));
  EXPECT_THAT(ContentsOf(reports_), UnorderedElementsAre(Pair("a.dat", "1"), Pair("[s]/", ""), Pair("[s]/b.dat", "2")));
  EXPECT_FALSE(Exists(odd));
}

TEST_F(ReportFileBackup, BackupBelowTheReportDirectoryIsRestored) {
  MakeTree(reports_, {{"a.dat", "old"}, {"backup/a.dat", "new"}});
  EXPECT_TRUE(Restore(reports_ + "/backup"));
  EXPECT_THAT(ContentsOf(reports_), UnorderedElementsAre(Pair("a.dat", "new")));
}

TEST_F(ReportFileBackup, RestoredStoreHasItsRecords) {
  std::filesystem::create_directory(backup_);
  {
    CReportFileBase store;
    ASSERT_TRUE(store.Open((backup_ + "/r").c_str(), 3));
    for (const char* const text : {"a", "b", "c", "d"}) ASSERT_TRUE(store.writeLine(text));
  }
  ASSERT_TRUE(Restore(backup_));
  CReportFileBase store;
  ASSERT_TRUE(store.OpenRead((reports_ + "/r").c_str()));
  std::string line;
  EXPECT_TRUE(store.readLine(line, 0));
  EXPECT_EQ(line, "d\r\n");
}

// The page shows a machine's directories where the tests have their private one.
std::string PageLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  for (std::size_t at = text.find("T/"); at != std::string::npos; at = text.find("T/", at)) text.replace(at, 1, "/var");
  return text;
}

TEST_F(ReportFileBackup, PageShowsTheTraceOfARestore) {
  MakeTree(backup_, {{"a.dat", "1"}});
  EXPECT_EQ(PageLines(TraceOfRestore(6, true, reports_, backup_)), DocExample("directories.md", "restore"));
}

TEST_F(ReportFileBackup, PageShowsTheTraceOfARemovalOfAHiddenFile) {
  MakeTree(backup_, {{"a.dat", "1"}, {"sub/.hidden", "2"}});
  const TraceCapture trace(3);
  EXPECT_FALSE(CDirectory::RemoveDir(backup_.c_str(), true));
  EXPECT_EQ(PageLines(Shortened(trace.Entries(), dir_.Path())),
            DocExample("directories.md", "removal-of-a-hidden-file"));
}

class ReportFileBackupGuard : public ReportFileBackup {
 protected:
  // Nothing is copied or removed, and the trace says so.
  void ExpectRefused(const std::string& reports, const std::string& backup) {
    const Tree before = ContentsOf(dir_.Path());
    EXPECT_THAT(TraceOfRestore(6, false, reports, backup),
                ElementsAre("EM_THRESH           : ERROR 0x16 Could not copy report files from backup path \"" +
                            Shortened({backup}, dir_.Path()).front() + "\" to \"" +
                            Shortened({reports}, dir_.Path()).front() + "\""))
        << backup;
    EXPECT_EQ(ContentsOf(dir_.Path()), before) << backup;
  }
};

TEST_F(ReportFileBackupGuard, ReportDirectoryAsBackupIsRefusedUnderEveryName) {
  MakeTree(reports_, {{"a.dat", "1"}, {"sub/", ""}});
  MakeLink("reports", dir_.File("link"));
  const std::string relative = std::filesystem::relative(reports_).string();
  for (const std::string& name : {reports_, reports_ + "/.", reports_ + "/sub/..", dir_.File("link"), relative}) {
    ExpectRefused(reports_, name);
    ExpectRefused(name, reports_);
  }
  ExpectRefused(reports_, reports_ + "/");
}

TEST_F(ReportFileBackupGuard, BackupThatContainsTheReportDirectoryIsRefused) {
  MakeTree(backup_, {{"x/reports/a.dat", "1"}, {"b", "2"}});
  ExpectRefused(backup_ + "/x/reports", backup_);
  ExpectRefused(backup_ + "/x/reports", backup_ + "/x");
  ExpectRefused(backup_ + "/x/reports", "/");
}

TEST_F(ReportFileBackupGuard, BackupAroundAMissingReportDirectoryIsRefused) {
  MakeTree(backup_, {{"b", "2"}});
  ExpectRefused(backup_ + "/x/reports", backup_);
  ExpectRefused(dir_.File("none/../backup/x"), backup_);
  MakeLink("backup", dir_.File("link"));
  ExpectRefused(dir_.File("link/x"), backup_);
  ExpectRefused(dir_.File("none/../link/x"), backup_);
  MakeTree(backup_, {{"sub/", ""}});
  MakeLink("backup/sub", dir_.File("deep"));
  ExpectRefused(dir_.File("none/../deep/../x"), backup_);
  ExpectRefused(dir_.File("./none/.//../deep/../x"), backup_);
}

TEST_F(ReportFileBackupGuard, BackupWithALinkToTheReportDirectoryIsRefused) {
  MakeTree(dir_.Path(), {{"backup/b", "1"}, {"real/a.dat", "2"}});
  MakeLink("../real", backup_ + "/reports");
  ExpectRefused(backup_ + "/reports", backup_);  // the removal would delete the link on the way
  MakeLink("backup", dir_.File("way"));
  MakeTree(backup_, {{"inner/a.dat", "3"}});
  ExpectRefused(dir_.File("way/inner"), backup_);
}

TEST_F(ReportFileBackupGuard, BackupOfASimilarNameIsRestored) {
  MakeTree(dir_.Path(), {{"reports/a.dat", "1"}, {"report/b.dat", "2"}});
  EXPECT_TRUE(Restore(dir_.File("report")));
  EXPECT_THAT(ContentsOf(reports_), UnorderedElementsAre(Pair("a.dat", "1"), Pair("b.dat", "2")));
}

class ReportFileBackupNever : public ReportFileBackup {
 protected:
  std::vector<std::string> TraceOfBackup(int level, const std::string& reports) {
    const ReportRoot root(reports);
    const TraceCapture trace(level);
    EXPECT_FALSE(CReportFileBase::BackupReportDataFiles(backup_));
    std::vector<std::string> lines = trace.Entries();
    std::erase_if(lines, [](const std::string& line) { return !IsAboutRestoring(line); });
    return lines;
  }
};

TEST_F(ReportFileBackupNever, QuirkEveryReportDirectoryCountsAsADrive) {
  MakeTree(reports_, {{"a.dat", "1"}});
  const std::string line = "EM_THRESH           : ERROR! Report folder is a drive - backup skipped";
  EXPECT_THAT(TraceOfBackup(1, reports_), ElementsAre(line));
  EXPECT_THAT(TraceOfBackup(6, "no slash"), ElementsAre(line));
  EXPECT_THAT(TraceOfBackup(6, "/"), ElementsAre(line));
  EXPECT_FALSE(Exists(backup_));
}

TEST_F(ReportFileBackupNever, WithoutAReportDirectoryItIsTraced) {
  EXPECT_THAT(TraceOfBackup(1, ""),
              ElementsAre("EM_THRESH           : ERROR! Could not found Server Control report data path"));
}

TEST_F(ReportFileBackupNever, EmptyBackupPathIsFalseAtOnce) {
  const ReportRoot root(reports_);
  const TraceCapture trace(6);
  EXPECT_FALSE(CReportFileBase::BackupReportDataFiles(""));
  EXPECT_THAT(trace.Entries(), IsEmpty());
}

}  // namespace
}  // namespace qx::test
