// Tests the checks of qxctl before it reads or extends a report: for damage, and for other writers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class QxctlReportGuards : public testing::Test, protected QxctlFixture {
 protected:
  // Cuts the index file, so that the header counts more slots than the file has.
  void CutIndex(const std::string& name) const { std::filesystem::resize_file(ReportPath(name) + ".ind", 24 + 4); }
  std::string Warning(const std::string& name) const {
    return "warning: " + Dir().Path() + "/Reports/" + name + " is damaged (index.size: ";
  }
};

TEST_F(QxctlReportGuards, VerifyShowsTheFirstFindingOfEachRule) {
  MakeReport("r", 9, {"aa", "bb", "cc", "dd", "ee"});
  std::string index = ReadFile(ReportPath("r") + ".ind");
  for (std::size_t slot = 1; slot < 5; ++slot) index[24 + 4 * slot + 1] = '\x7F';
  WriteFile(ReportPath("r") + ".ind", index);
  const Ran ran = Qxctl({"report", "verify", "Reports/r"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out,
            "Reports/r: damaged\n"
            "  slot.outside: Reports/r.ind offset 28 value 32516: slot 1: the text of its round ends at 20\n"
            "    and 3 more like this\n");
}

TEST_F(QxctlReportGuards, FetchOfADamagedReportWarnsAndEndsWithCodeOne) {
  MakeReport("r", 3, {"a", "b"});
  EXPECT_EQ(Qxctl({"fetch", "r"}).code, 0);
  CutIndex("r");
  const Ran ran = Qxctl({"fetch", "r"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr(Warning("r")));
  EXPECT_THAT(ran.err, HasSubstr("qxctl report verify"));
  EXPECT_EQ(ran.out, "a\r\na\r\n");  // what a reader gets
}

TEST_F(QxctlReportGuards, ResumedFetchOfADamagedReportEndsWithCodeOne) {
  MakeReport("r", 3, {"a", "b"});
  CutIndex("r");
  const Ran ran = Qxctl({"fetch", "r", "--resume", "state"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr(Warning("r")));
}

TEST_F(QxctlReportGuards, FollowOfADamagedReportWarnsAndEndsWithCodeOne) {
  MakeReport("r", 3, {"a", "b"});
  EXPECT_EQ(Qxctl({"follow", "r", "--count", "2"}).code, 0);
  CutIndex("r");
  const Ran ran = Qxctl({"follow", "r", "--count", "2"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr(Warning("r")));
}

TEST_F(QxctlReportGuards, AppendToADamagedReportWarnsAndEndsWithCodeOne) {
  MakeReport("r", 3, {"a", "b"});
  CutIndex("r");
  const Ran ran = Qxctl({"report", "append", ReportPath("r"), "c"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr(Warning("r")));
}

TEST_F(QxctlReportGuards, AppendRefusesAReportThatAnotherProcessWrites) {
  MakeReport("r", 3, {"a"});
  CReportFileBase agent;
  ASSERT_TRUE(agent.Open(ReportPath("r").c_str(), 3));
  const Ran ran = Qxctl({"report", "append", ReportPath("r"), "b"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("is written by process " + std::to_string(getpid())));
  agent.Close();
  EXPECT_EQ(Qxctl({"report", "append", ReportPath("r"), "b"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", ReportPath("r")}).out, "a\r\nb\r\n");
}

TEST_F(QxctlReportGuards, SoundReportsGetNoWarning) {
  MakeReport("r", 3, {"a", "b"});
  EXPECT_THAT(Qxctl({"fetch", "r"}).err, Not(HasSubstr("warning")));
  EXPECT_THAT(Qxctl({"report", "append", ReportPath("r"), "c"}).err, Not(HasSubstr("warning")));
  EXPECT_EQ(Qxctl({"fetch", "../Reports/r"}).code, 4);
}

}  // namespace
}  // namespace qx::test
