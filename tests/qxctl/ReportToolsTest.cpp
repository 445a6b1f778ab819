// Tests qxctl report verify, salvage, backup and restore, end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "reportfile/ReportFileBase.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

class QxctlReportTools : public testing::Test, protected QxctlFixture {
 protected:
  // Runs the command with --json. The exit code in the document must be that of the process.
  json Document(std::vector<std::string> arguments, int code) const {
    arguments.emplace_back("--json");
    const Ran ran = Qxctl(arguments);
    EXPECT_EQ(ran.code, code) << ran.err;
    json document = json::parse(ran.out, nullptr, false);
    EXPECT_EQ(document.value("exitCode", -1), code) << ran.out;
    return document;
  }

  // Sets oldestIndex to a slot outside the ring.
  void Damage(const std::string& name) const {
    std::string index = ReadFile(ReportPath(name) + ".ind");
    index[20] = 9;
    WriteFile(ReportPath(name) + ".ind", index);
  }

  std::string Cat(const std::string& path) const { return Qxctl({"report", "cat", path}).out; }
};

}  // namespace

TEST_F(QxctlReportTools, NameIsAReportOfTheReportDirectoryAndAPathHasASlash) {
  MakeReport("r", 3, {"a", "b"});
  const std::string inside = Dir().Path() + "/Reports/r";
  EXPECT_EQ(Qxctl({"report", "verify", "r"}).out, inside + ": sound, 2 records\n");
  EXPECT_EQ(Qxctl({"report", "verify", "Reports/r"}).out, "Reports/r: sound, 2 records\n");
  EXPECT_EQ(Qxctl({"report", "verify", "./r"}).code, 4);
}

TEST_F(QxctlReportTools, VerifyPrintsEachFindingAsJson) {
  MakeReport("r", 3, {"a", "b", "c"});
  Damage("r");
  EXPECT_EQ(Document({"report", "verify", "Reports/r"}, 1), json::parse(R"({
    "path": "Reports/r", "state": "damaged", "records": 3, "indexFileBytes": 36, "dataFileBytes": 15, "remarks": [],
    "findings": [{"rule": "header.oldest", "file": "Reports/r.ind", "offset": 20, "value": 9,
                  "explanation": "not a slot of a ring of 3"}],
    "allFindings": true, "exitCode": 1})"));
}

TEST_F(QxctlReportTools, VerifyOfASoundReportHasNoFindings) {
  MakeReport("r", 3, {"a", "b", "c", "d"});
  const json document = Document({"report", "verify", "Reports/r"}, 0);
  EXPECT_EQ(document["state"], "sound");
  EXPECT_EQ(document["findings"], json::array());
}

TEST_F(QxctlReportTools, VerifyOfAMissingReportIsNotFoundAndOfAPipeAnIoFailure) {
  const Ran none = Qxctl({"report", "verify", "Reports/none"});
  EXPECT_EQ(none.code, 4);
  EXPECT_EQ(none.out, "");
  EXPECT_THAT(none.err, StartsWith("qxctl: no report none in Reports, which has no reports;"));
  ASSERT_EQ(mkfifo((ReportPath("p") + ".ind").c_str(), 0600), 0);
  WriteFile(ReportPath("p") + ".dat", "");
  EXPECT_EQ(Qxctl({"report", "verify", "p"}).code, 6);
}

TEST_F(QxctlReportTools, SalvageNeverReplacesAFile) {
  MakeReport("r", 3, {"a", "b"});
  const Ran same = Qxctl({"report", "salvage", "r", "--into", "Reports"});
  EXPECT_EQ(same.code, 5);
  EXPECT_THAT(same.err, HasSubstr("exists already"));
  EXPECT_EQ(Qxctl({"report", "salvage", "r"}).code, 2) << "--into is required";
}

TEST_F(QxctlReportTools, SalvageMakesANewReportFromADamagedOne) {
  MakeReport("r", 3, {"a", "b", "c", "d"});
  Damage("r");
  const json document = Document({"report", "salvage", "r", "--into", "saved"}, 0);
  EXPECT_EQ(document["indexedRecords"], 3);
  EXPECT_EQ(document["unindexedLines"], 1);
  EXPECT_EQ(document["lostSlots"], 0);
  EXPECT_EQ(Cat("./saved"), "b\r\nc\r\nd\r\na\r\n");
  EXPECT_EQ(Qxctl({"report", "salvage", "r", "--into", "only", "--indexed-only"}).code, 0);
  EXPECT_EQ(Cat("./only"), "b\r\nc\r\nd\r\n");
}

TEST_F(QxctlReportTools, SlotsWithoutARecordAreAFinding) {
  MakeReport("r", 9, {"a", "b"});
  std::string data = ReadFile(ReportPath("r") + ".dat");
  data[3] = '\0';
  WriteFile(ReportPath("r") + ".dat", data);
  EXPECT_EQ(Document({"report", "salvage", "r", "--into", "saved"}, 1)["lostSlots"], 1);
  EXPECT_EQ(Cat("./saved"), "a\r\n");
}

TEST_F(QxctlReportTools, BackupAndRestoreKeepEveryByte) {
  MakeReport("r", 3, {"a", "b"});
  WriteFile(ReportPath("r") + ".names", "[Quaxel Report Instances]\n");
  const json backup = Document({"report", "backup", "backup"}, 0);
  ASSERT_EQ(backup["items"].size(), 2U);
  EXPECT_EQ(backup["items"][0], json::parse(R"({"name": "r", "kind": "report", "state": "copied", "records": 2,
                                                "writtenMeanwhile": false})"));
  Append("r", {"c"});
  const json plan = Document({"report", "restore", "backup"}, 0);
  EXPECT_FALSE(plan["restored"]);
  EXPECT_EQ(plan["items"][0]["action"], "replace");
  EXPECT_EQ(plan["items"][1]["action"], "same");
  EXPECT_EQ(Cat("Reports/r"), "a\r\nb\r\nc\r\n");
  EXPECT_TRUE(Document({"report", "restore", "backup", "--apply"}, 0)["restored"]);
  EXPECT_EQ(Cat("Reports/r"), "a\r\nb\r\n");
  EXPECT_EQ(Qxctl({"report", "verify", "backup/r"}).code, 0) << "the backup is still there";
  EXPECT_EQ(Qxctl({"report", "restore", "backup", "--apply", "--consume"}).code, 0);
  EXPECT_FALSE(Exists(Dir().File("backup")));
}

TEST_F(QxctlReportTools, BackupRefusesATargetThatHasFilesOrIsInTheReports) {
  MakeReport("r", 3, {"a"});
  EXPECT_EQ(Qxctl({"report", "backup", "Reports"}).code, 5);
  EXPECT_EQ(Qxctl({"report", "backup", "Reports/backup"}).code, 5);
  fs::remove_all(Dir().File("Reports"));
  EXPECT_EQ(Qxctl({"report", "backup", "backup"}).code, 4);
  EXPECT_FALSE(Exists(Dir().File("backup")));
}

TEST_F(QxctlReportTools, BackupOfADamagedReportIsAFinding) {
  MakeReport("r", 3, {"a"});
  Damage("r");
  EXPECT_EQ(Document({"report", "backup", "backup"}, 1)["items"][0]["state"], "damaged");
  MakeReport("half", 3, {"a"});
  (void)unlink((ReportPath("half") + ".dat").c_str());
  EXPECT_EQ(Qxctl({"report", "backup", "second"}).code, 1);
}

TEST_F(QxctlReportTools, ReportWithAWriterIsRestoredOnlyByForce) {
  MakeReport("r", 3, {"a"});
  ASSERT_EQ(Qxctl({"report", "backup", "backup"}).code, 0);
  CReportFileBase agent;
  ASSERT_TRUE(agent.Open(ReportPath("r").c_str(), 0));
  ASSERT_TRUE(agent.writeLine("b"));
  const json plan = Document({"report", "restore", "backup"}, 1);
  EXPECT_TRUE(plan["items"][0]["beingWritten"]);
  EXPECT_EQ(plan["items"][0]["writers"], json::array({getpid()}));
  EXPECT_EQ(Qxctl({"report", "restore", "backup", "--apply"}).code, 5);
  EXPECT_EQ(Cat("Reports/r"), "a\r\nb\r\n");
  EXPECT_EQ(Qxctl({"report", "restore", "backup", "--apply", "--force"}).code, 0);
  EXPECT_EQ(Cat("Reports/r"), "a\r\n");
}

TEST_F(QxctlReportTools, LinksAreNotCopiedToABackupAndPreventARestore) {
  MakeReport("r", 3, {"a"});
  ASSERT_EQ(Qxctl({"report", "backup", "backup"}).code, 0);
  fs::rename(ReportPath("r") + ".dat", Dir().File("elsewhere"));
  fs::create_symlink(Dir().File("elsewhere"), ReportPath("r") + ".dat");
  const json second = Document({"report", "backup", "second"}, 1);
  EXPECT_EQ(second["items"][0]["kind"], "symbolic link");
  EXPECT_EQ(second["items"][0]["state"], "not copied");
  const json plan = Document({"report", "restore", "backup"}, 1);
  EXPECT_TRUE(plan["items"][0]["link"]);
  Append("r", {"b"});
  EXPECT_EQ(Qxctl({"report", "restore", "backup", "--apply", "--force"}).code, 5);
  EXPECT_EQ(Cat("Reports/r"), "a\r\nb\r\n");
}

TEST_F(QxctlReportTools, RestoreSaysWhatItNeeds) {
  MakeReport("r", 3, {"a"});
  EXPECT_EQ(Qxctl({"report", "restore", "none"}).code, 4);
  EXPECT_EQ(Qxctl({"report", "restore", "Reports"}).code, 5);
  EXPECT_EQ(Qxctl({"report", "restore", "none", "--consume"}).code, 2) << "--consume needs --apply";
  EXPECT_EQ(Qxctl({"report", "restore", "none", "--force"}).code, 2) << "--force needs --apply";
}

}  // namespace qx::test
