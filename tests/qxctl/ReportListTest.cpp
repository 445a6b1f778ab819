// Tests qxctl report list, report status and report verify --all.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

class QxctlReportList : public testing::Test, protected QxctlFixture {
 protected:
  QxctlReportList() {
    fs::create_directory(ReportPath("disk"));
    MakeReport("load", 3, {"a", "b"});
    MakeReport("disk/sda", 4, {"c"});
  }

  void SetAge(const std::string& name, long seconds) const {
    const timespec time = {.tv_sec = ::time(nullptr) - seconds, .tv_nsec = 0};
    const timespec times[2] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, (ReportPath(name) + ".ind").c_str(), times, 0), 0);
  }

  // Damages the header: it says that slot 9 is the oldest.
  void Damage(const std::string& name) const {
    std::string index = ReadFile(ReportPath(name) + ".ind");
    index[20] = 9;
    WriteFile(ReportPath(name) + ".ind", index);
  }

  static json Only(const Ran& ran) { return json::parse(ran.out)["reports"][0]; }
};

}  // namespace

TEST_F(QxctlReportList, ListShowsEveryReportWithSizeAgeAndState) {
  SetAge("load", 300);
  SetAge("disk/sda", 7200);
  const Ran ran = Qxctl({"report", "list"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out,
            "report    records  bytes     newest  state\n"
            "disk/sda   1 of 4     37    2 h ago  sound\n"
            "load       2 of 3     44  5 min ago  sound\n");
}

TEST_F(QxctlReportList, JsonHasTheSameFacts) {
  SetAge("load", 300);
  const Ran ran = Qxctl({"report", "list", "--json"});
  const json document = json::parse(ran.out);
  EXPECT_EQ(document["reportDirectory"], Dir().File("Reports"));
  EXPECT_EQ(document["allReports"], true);
  ASSERT_EQ(document["reports"].size(), 2U);
  const json& load = document["reports"][1];
  EXPECT_EQ(load["report"], "load");
  EXPECT_EQ(load["path"], ReportPath("load"));
  EXPECT_EQ(load["state"], "sound");
  EXPECT_EQ(load["records"], 2);
  EXPECT_EQ(load["slots"], 3);
  EXPECT_EQ(load["bytes"], 44);
  EXPECT_NEAR(load["ageSeconds"].get<int>(), 300, 5);
  EXPECT_EQ(load["isWritten"], false);
}

TEST_F(QxctlReportList, EmptyDamagedAndHalfReportsAreShownWithCode1) {
  MakeReport("fresh", 5, {});
  Damage("load");
  WriteFile(ReportPath("half") + ".dat", "x");
  const Ran ran = Qxctl({"report", "list"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.out, ContainsRegex("fresh +0 +0 +- +empty\n"));
  EXPECT_THAT(ran.out, ContainsRegex("half +0 +1 +- +damaged\n"));
  EXPECT_THAT(ran.out, ContainsRegex("load +2 of 3 +44 +[0-9]+ s ago +damaged\n"));
  EXPECT_EQ(ran.err, "qxctl: 2 reports are not in order; \"qxctl report verify NAME\" shows why\n");
}

TEST_F(QxctlReportList, WriterIsNamedWithItsProcess) {
  CReportFileBase writer;
  ASSERT_TRUE(writer.Open(ReportPath("load").c_str(), 3));
  const Ran ran = Qxctl({"report", "list"});
  const std::string process = std::to_string(getpid());
  EXPECT_THAT(ran.out, ContainsRegex("load .* sound, being written by process " + process + " \\(.*\\)\n"));
  const json load = Only(Qxctl({"report", "status", "load", "--json"}));
  EXPECT_EQ(load["isWritten"], true);
  EXPECT_EQ(load["processes"], json::array({getpid()}));
}

TEST_F(QxctlReportList, StatusChecksEveryRecordAndListOnlyTheHeader) {
  std::string data = ReadFile(ReportPath("load") + ".dat");
  data[1] = 'x';
  WriteFile(ReportPath("load") + ".dat", data);
  EXPECT_EQ(Qxctl({"report", "list"}).code, 0);
  const Ran ran = Qxctl({"report", "status", "load"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.out, HasSubstr("load:\n  state    damaged\n           record.end: "));
}

TEST_F(QxctlReportList, StatusOfNamesPathsAndAll) {
  SetAge("load", 120);
  EXPECT_EQ(Qxctl({"report", "status", "./Reports/load"}).out,
            "./Reports/load:\n  state    sound\n  records  2 of 3\n  bytes    44\n  newest   2 min ago\n"
            "  files    ./Reports/load.ind, .dat\n");
  const json all = json::parse(Qxctl({"report", "status", "--json"}).out);
  EXPECT_EQ(all["reports"].size(), 2U);
}

// A name that "report list" shows is accepted by other commands.
TEST_F(QxctlReportList, NameWithASlashFromTheListIsAccepted) {
  EXPECT_THAT(Qxctl({"report", "list"}).out, HasSubstr("\ndisk/sda "));
  const Ran both = Qxctl({"report", "status", "load", "disk/sda"});
  EXPECT_EQ(both.code, 0);
  EXPECT_THAT(both.out, HasSubstr("\ndisk/sda:\n  state    sound\n"));
  EXPECT_EQ(Qxctl({"report", "verify", "disk/sda.ind"}).out, ReportPath("disk/sda") + ": sound, 1 record\n");
  EXPECT_EQ(Qxctl({"report", "append", "disk/sda", "more"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "./disk/sda"}).code, 4) << "only a path";
}

TEST_F(QxctlReportList, PathThatExistsComesBeforeANameWithASlash) {
  fs::create_directory(Dir().File("disk"));
  EXPECT_EQ(Qxctl({"report", "create", "disk/sda", "--slots", "3"}).code, 0) << "a new report is always a path";
  EXPECT_TRUE(Exists(Dir().File("disk/sda.ind")));
  EXPECT_EQ(Qxctl({"report", "verify", "disk/sda"}).out, "disk/sda: sound, 0 records\n");
}

TEST_F(QxctlReportList, NearNameWithASlashIsOffered) {
  const Ran ran = Qxctl({"report", "cat", "disk/sdb"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, testing::StartsWith("qxctl: no report disk/sdb in " + Dir().File("Reports") +
                                           "; did you mean disk/sda? ("));
}

TEST_F(QxctlReportList, AnotherDirectoryIsListedWithReports) {
  EXPECT_THAT(Qxctl({"report", "list", "--reports", "Reports/disk"}).out, HasSubstr("\nsda  "));
  const Ran none = Qxctl({"report", "list", "--reports", "none"});
  EXPECT_EQ(none.code, 4);
  EXPECT_EQ(none.err, "qxctl: there is no directory none\n");
  const Ran file = Qxctl({"report", "list", "--reports", "Reports/load.ind"});
  EXPECT_EQ(file.code, 6);
  EXPECT_EQ(file.err, "qxctl: cannot list Reports/load.ind: Not a directory\n");
}

TEST_F(QxctlReportList, DirectoryWithoutReportsIsNoFailure) {
  fs::create_directory(Dir().File("empty"));
  const Ran ran = Qxctl({"report", "list", "--reports", "empty"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "qxctl: there are no reports in empty; \"qxctl report create\" makes one\n");
}

TEST_F(QxctlReportList, VerifyAllChecksTheReportsOfTheSameWalk) {
  EXPECT_EQ(Qxctl({"report", "verify", "--all"}).out,
            ReportPath("disk/sda") + ": sound, 1 record\n" + ReportPath("load") + ": sound, 2 records\n");
  Damage("disk/sda");
  const Ran ran = Qxctl({"report", "verify", "--all"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.out, HasSubstr(ReportPath("load") + ": sound, 2 records\n")) << "the others are checked too";
  EXPECT_THAT(ran.err, HasSubstr("qxctl: " + ReportPath("disk/sda") + " is damaged; "));
  EXPECT_THAT(ran.err, HasSubstr("1 of 2 reports are sound\n"));
}

TEST_F(QxctlReportList, VerifyWithoutANameIsAUsageError) {
  const Ran ran = Qxctl({"report", "verify"});
  EXPECT_EQ(ran.code, 2);
  EXPECT_EQ(ran.err, "qxctl: name a report, or use --all; \"qxctl report list\" shows the reports\n");
  EXPECT_EQ(Qxctl({"report", "verify", "load", "--all"}).code, 2);
}

TEST_F(QxctlReportList, NothingIsChangedByTheList) {
  const std::string before = ReadFile(ReportPath("load") + ".ind") + ReadFile(ReportPath("load") + ".dat");
  (void)Qxctl({"report", "list"});
  (void)Qxctl({"report", "status"});
  EXPECT_EQ(ReadFile(ReportPath("load") + ".ind") + ReadFile(ReportPath("load") + ".dat"), before);
}

TEST_F(QxctlReportList, CompletionOffersReportsOfSubdirectories) {
  EXPECT_EQ(Qxctl({"_offers", "reports"}).out, "disk/sda\nload\n");
}

}  // namespace qx::test
