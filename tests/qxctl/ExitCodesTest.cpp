// Tests each exit code once, because scripts rely on them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

class QxctlExitCode : public testing::Test, protected QxctlFixture {
 protected:
  QxctlExitCode() { MakeReport("load", 3, {"a", "b"}); }

  int CodeOf(const std::vector<std::string>& arguments, const Start& start) const {
    return Qxctl(arguments, start).code;
  }
  int CodeOf(const std::vector<std::string>& arguments) const { return CodeOf(arguments, StartHere()); }
};

}  // namespace

TEST_F(QxctlExitCode, ZeroMeansDone) {
  EXPECT_EQ(CodeOf({"report", "verify", "Reports/load"}), 0);
  EXPECT_EQ(CodeOf({"fetch", "load"}), 0);
  EXPECT_EQ(CodeOf({"--help"}), 0);
  EXPECT_EQ(CodeOf({"report", "cat", "--help"}), 0);
  EXPECT_EQ(CodeOf({"--version"}), 0);
  EXPECT_EQ(CodeOf({}), 0);
}

TEST_F(QxctlExitCode, OneMeansDoneWithFindings) {
  EXPECT_EQ(CodeOf({"report", "append", "Reports/load", "two\nlines"}), 1);
  EXPECT_EQ(CodeOf({"module", "reports", "load", "--start", "2"}), 1);
  std::string index = ReadFile(ReportPath("load") + ".ind");
  index[20] = 5;  // the oldest slot of a ring of 3
  WriteFile(ReportPath("load") + ".ind", index);
  EXPECT_EQ(CodeOf({"report", "verify", "Reports/load"}), 1);
}

TEST_F(QxctlExitCode, TwoSaysTheCommandLineIsWrong) {
  EXPECT_EQ(CodeOf({"nonsense"}), 2);
  EXPECT_EQ(CodeOf({"report", "cat"}), 2);
  EXPECT_EQ(CodeOf({"report", "cat", "Reports/load", "--nonsense"}), 2);
  EXPECT_EQ(CodeOf({"report", "create", "Reports/new", "--slots", "0"}), 2);
}

// The pipe is too small for the report, so qxctl waits for its reader while the ring advances.
TEST_F(QxctlExitCode, ThreeMeansTheReportChangedMeanwhile) {
  const std::string text(1000, 'x');
  std::vector<std::string> texts;
  for (int i = 0; i < 2000; ++i) texts.push_back(std::to_string(i) + text);
  MakeReport("long", 2000, texts);
  Child child({QxctlPath(), "fetch", "long"}, StartHere());
  ASSERT_NE(child.ReadSome(), "");
  Append("long", {"newer"});
  EXPECT_EQ(child.Wait().code, 3);
}

TEST_F(QxctlExitCode, FourMeansNotFound) {
  EXPECT_EQ(CodeOf({"report", "cat", "Reports/nothing"}), 4);
  EXPECT_EQ(CodeOf({"fetch", "nothing"}), 4);
  EXPECT_EQ(CodeOf({"names", "load"}), 4);
  EXPECT_EQ(CodeOf({"module", "what", "--module", "nothing.so"}), 4);
  EXPECT_EQ(CodeOf({"ini", "list", "nothing.ini"}), 4);
}

TEST_F(QxctlExitCode, FiveMeansRefused) {
  EXPECT_EQ(CodeOf({"report", "create", "Reports/load", "--slots", "3"}), 5);
  EXPECT_EQ(CodeOf({"fetch", "load", "--user", "bob"}), 5);
}

TEST_F(QxctlExitCode, SixMeansAFailedReadWriteLoadOrClose) {
  Start full = StartHere();
  full.out_file = "/dev/full";
  EXPECT_EQ(CodeOf({"report", "cat", "Reports/load"}, full), 6);
  Start closed = StartHere();
  closed.close_out = true;
  EXPECT_EQ(CodeOf({"report", "cat", "Reports/load"}, closed), 6);
  WriteFile(Dir().File("no-module.so"), "text");
  EXPECT_EQ(CodeOf({"module", "what", "--module", "no-module.so"}), 6);
}

}  // namespace qx::test
