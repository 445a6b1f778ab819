// Tests how a command line names reports: by name, by path, with an ending, several at once, or all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class QxctlReportArguments : public testing::Test, protected QxctlFixture {
 protected:
  QxctlReportArguments() {
    MakeReport("load", 3, {"a"});
    std::filesystem::create_directories(Dir().File("Reports/disk"));
    std::filesystem::create_directories(Dir().File("elsewhere"));
    MakeReport("disk/sda", 3, {"s"});
    MakeReport("../elsewhere/load", 3, {"e"});
  }

  std::string Cat(const std::string& report) const { return Qxctl({"report", "cat", report}).out; }
  std::string Fetch(const std::string& report) const { return Qxctl({"fetch", report, "--quiet"}).out; }
};

}  // namespace

TEST_F(QxctlReportArguments, NameIsBelowTheReportDirectoryAndASlashMakesAPath) {
  EXPECT_EQ(Cat("load"), "a\r\n");
  EXPECT_EQ(Cat("Reports/load"), "a\r\n");
  EXPECT_EQ(Cat("elsewhere/load"), "e\r\n");
  EXPECT_EQ(Cat(Dir().File("elsewhere/load")), "e\r\n");
}

TEST_F(QxctlReportArguments, EveryCommandForFilesTakesAName) {
  EXPECT_EQ(Qxctl({"report", "create", "new", "--slots", "3"}).code, 0);
  EXPECT_TRUE(Exists(ReportPath("new.ind")));
  EXPECT_EQ(Qxctl({"report", "append", "new", "n"}).code, 0);
  EXPECT_EQ(Cat("new"), "n\r\n");
  EXPECT_THAT(Qxctl({"report", "info", "new"}).out, HasSubstr("1 of 3"));
  EXPECT_THAT(Qxctl({"report", "verify", "new"}).out, HasSubstr("sound"));
  EXPECT_EQ(Qxctl({"report", "salvage", "new", "--into", "elsewhere"}).code, 0);
  EXPECT_TRUE(Exists(Dir().File("elsewhere/new.ind")));
}

TEST_F(QxctlReportArguments, EndingIsStrippedUnlessAReportHasTheFullName) {
  EXPECT_EQ(Cat("load.ind"), "a\r\n");
  EXPECT_EQ(Cat("elsewhere/load.dat"), "e\r\n");
  EXPECT_EQ(Fetch("load.dat"), "a\r\n");
  MakeReport("load.ind", 3, {"full name"});
  EXPECT_EQ(Cat("load.ind"), "full name\r\n");
  EXPECT_EQ(Fetch("load.ind"), "full name\r\n");
  EXPECT_EQ(Cat("load"), "a\r\n");
}

TEST_F(QxctlReportArguments, ModuleTakesPathsBelowTheReportDirectory) {
  EXPECT_EQ(Fetch("./Reports/load"), "a\r\n");
  EXPECT_EQ(Fetch("Reports/disk/sda.ind"), "s\r\n");
  EXPECT_EQ(Fetch(ReportPath("disk/sda")), "s\r\n");
  EXPECT_EQ(Fetch("disk/sda"), "s\r\n");  // no such path, but the module knows the name
  EXPECT_EQ(Qxctl({"follow", "Reports/load", "--count", "1", "--quiet"}).out, "a\r\n");
  EXPECT_THAT(Qxctl({"module", "reports", "Reports/load"}).out, HasSubstr("Name=\"load\""));
}

TEST_F(QxctlReportArguments, ModuleCannotReachAPathElsewhere) {
  const Ran ran = Qxctl({"fetch", "elsewhere/load"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err, "qxctl: elsewhere/load is not below the report directory " + Dir().File("Reports") +
                         ", so the module cannot transfer it; \"qxctl report cat elsewhere/load\" prints it\n");
}

TEST_F(QxctlReportArguments, SeveralReportsAreTakenOneAfterTheOther) {
  EXPECT_EQ(Qxctl({"report", "cat", "load", "elsewhere/load"}).out, "a\r\ne\r\n");
  EXPECT_THAT(Qxctl({"report", "verify", "load", "Reports/disk/sda"}).out,
              testing::MatchesRegex(".*Reports/load: sound, 1 record\nReports/disk/sda: sound, 1 record\n"));
  EXPECT_THAT(Qxctl({"report", "info", "Reports/load", "elsewhere/load"}).out,
              testing::AllOf(StartsWith("Reports/load:\n"), HasSubstr("\nelsewhere/load:\n")));
}

TEST_F(QxctlReportArguments, AllAreThoseOfTheReportDirectoryWithSubdirectories) {
  const std::string out = Qxctl({"report", "verify", "--all"}).out;
  EXPECT_EQ(out, Dir().File("Reports/disk/sda: sound, 1 record\n") + Dir().File("Reports/load: sound, 1 record\n"));
  EXPECT_THAT(Qxctl({"report", "info", "--all"}).out, HasSubstr("/disk/sda:\n"));
}

TEST_F(QxctlReportArguments, FetchTakesSeveralReportsAndAll) {
  EXPECT_EQ(Qxctl({"fetch", "load", "Reports/disk/sda", "--quiet"}).out, "a\r\ns\r\n");
  EXPECT_EQ(Qxctl({"fetch", "--all", "--quiet"}).out, "s\r\na\r\n");
  const Ran missing = Qxctl({"fetch", "nothing", "load", "--quiet"});
  EXPECT_EQ(missing.code, 4);
  EXPECT_EQ(missing.out, "a\r\n");
  EXPECT_THAT(missing.err, StartsWith("qxctl: no report nothing in "));
}

TEST_F(QxctlReportArguments, FetchOfSeveralReportsWritesAFileForEach) {
  std::filesystem::create_directories(Dir().File("saved"));
  EXPECT_EQ(Qxctl({"fetch", "--all", "-o", "saved", "--quiet"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("saved/load")) + ReadFile(Dir().File("saved/disk/sda")), "a\r\ns\r\n");
  EXPECT_THAT(Qxctl({"fetch", "--all", "-o", "saved", "--json"}).out, HasSubstr("}\n{"));
  EXPECT_EQ(Qxctl({"fetch", "--all", "-o", "file"}).err,
            "qxctl: --output: file is not a directory; several reports need one\n");
  EXPECT_EQ(Qxctl({"fetch", "load", "disk/sda", "--resume", "state"}).err,
            "qxctl: --resume is for one report; name one\n");
  EXPECT_EQ(Qxctl({"fetch", "load", "disk/sda", "--plot", "a", "--svg", "x"}).code, 2);
  EXPECT_FALSE(Exists(Dir().File("state")));
}

// A path in the working directory may equal the name of a report.
TEST_F(QxctlReportArguments, FetchOfAllReadsNamesAndNotPaths) {
  std::filesystem::create_directories(Dir().File("disk"));
  MakeReport("../disk/sda", 3, {"another"});
  EXPECT_EQ(Qxctl({"fetch", "--all", "--quiet"}).out, "s\r\na\r\n");
}

TEST_F(QxctlReportArguments, SalvageTakesSeveralReportsAndAll) {
  std::filesystem::create_directories(Dir().File("saved"));
  EXPECT_EQ(Qxctl({"report", "salvage", "load", "disk/sda", "--into", "saved"}).out,
            "saved/load: 1 indexed record, 0 lines without a slot, a ring of 3\n"
            "saved/sda: 1 indexed record, 0 lines without a slot, a ring of 3\n");
  const Ran all = Qxctl({"report", "salvage", "--all", "--into", "saved"});
  EXPECT_EQ(all.code, 5) << "load exists there";
  EXPECT_THAT(all.out, HasSubstr("saved/disk/sda: 1 indexed record"));
  const Ran file = Qxctl({"report", "salvage", "--all", "--into", "nowhere"});
  EXPECT_EQ(file.code, 2);
  EXPECT_EQ(file.err, "qxctl: --into: nowhere is not a directory; several reports need one\n");
}

TEST_F(QxctlReportArguments, FailureWithOneReportDoesNotHideTheOthers) {
  const Ran ran = Qxctl({"report", "verify", "Reports/nothing", "Reports/load"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("no report nothing in Reports"));
  EXPECT_EQ(ran.out, "Reports/load: sound, 1 record\n");
}

TEST_F(QxctlReportArguments, GravestCodeOfSeveralReportsCounts) {
  WriteFile(ReportPath("disk/sda") + ".dat", "");
  EXPECT_EQ(Qxctl({"report", "verify", "--all"}).code, 1);
  EXPECT_EQ(Qxctl({"report", "verify", "load", "nothing", "Reports/disk/sda"}).code, 4);
}

TEST_F(QxctlReportArguments, JsonOfSeveralReportsIsADocumentForEach) {
  const std::string out = Qxctl({"report", "info", "--all", "--json"}).out;
  EXPECT_THAT(out, HasSubstr("}\n{"));
}

TEST_F(QxctlReportArguments, CommandWithoutAReportIsAUsageError) {
  const Ran ran = Qxctl({"report", "verify"});
  EXPECT_EQ(ran.code, 2);
  EXPECT_EQ(ran.err, "qxctl: name a report, or use --all; \"qxctl report list\" shows the reports\n");
  EXPECT_EQ(Qxctl({"report", "verify", "load", "--all"}).err,
            "qxctl: REPORT and --all exclude each other; give one of them\n");
}

TEST_F(QxctlReportArguments, HyphenIsStandardInputOrOutput) {
  EXPECT_EQ(Qxctl({"report", "append", "load", "-"}, "b\nc\n").code, 0);
  EXPECT_EQ(Qxctl({"fetch", "load", "-o", "-", "--quiet"}).out, "a\r\nb\r\nc\r\n");
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", "-"}, "<a/>").out, "<a/>");
  MakeReport("numbers", 3, {"k=1", "k=2"});
  EXPECT_THAT(Qxctl({"report", "cat", "numbers", "--plot", "k", "--svg", "-"}).out, StartsWith("<?xml"));
  EXPECT_FALSE(Exists(Dir().File("-")));
}

}  // namespace qx::test
