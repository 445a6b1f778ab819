// Tests the progress of steps that take over a second on a terminal. strace delays a call on the report's data file by
// this time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class QxctlProgress : public testing::Test, protected QxctlFixture {
 protected:
  QxctlProgress() { MakeReport("load", 3, {std::string(300'000, 'a')}); }

  Ran RunSlowly(const std::string& call, std::vector<std::string> arguments, bool is_terminal = true) const {
    std::vector<std::string> command = {"strace",
                                        "-f",
                                        "-qq",
                                        "-o",
                                        "/dev/null",
                                        "-P",
                                        ReportPath("load.dat"),
                                        "-e",
                                        "trace=" + call,
                                        "-e",
                                        "inject=" + call + ":delay_enter=1400000:when=1",
                                        QxctlPath()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Start start = StartHere();
    start.err_is_terminal = is_terminal;
    return Child(command, start).Wait();
  }
};

// A pattern of standard error with a progress line that was wiped again. `total`: the bytes to be read, if they are
// known.
std::string Shown(const std::string& what, const std::string& total = " of 0.3") {
  return "(.|\n)*\r\033.K" + what + ": 1 s, [0-9.]+" + total + " MB read, [0-9.]+ MB written(.|\n)*\r\033.K";
}

}  // namespace

TEST_F(QxctlProgress, VerifyOfOverASecondShowsIt) {
  const Ran ran = RunSlowly("pread64", {"report", "verify", "load"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.err, MatchesRegex(Shown("checking .*/Reports/load")));
}

TEST_F(QxctlProgress, BackupOfOverASecondShowsIt) {
  const Ran ran = RunSlowly("pread64", {"report", "backup", "saved"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.err, MatchesRegex(Shown("copying .*/Reports")));
}

TEST_F(QxctlProgress, AppendOfOverASecondShowsIt) {
  const Ran ran = RunSlowly("write,pwrite64,writev,pwritev", {"report", "append", "load", "b"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_THAT(ran.err, MatchesRegex(Shown("appending to .*/Reports/load", "")));
}

TEST_F(QxctlProgress, QuickStepsPipesAndQuietShowNone) {
  Start start = StartHere();
  start.err_is_terminal = true;
  EXPECT_EQ(Qxctl({"report", "verify", "load"}, start).err, "");
  EXPECT_EQ(RunSlowly("pread64", {"report", "verify", "load"}, false).err, "");
  EXPECT_EQ(RunSlowly("pread64", {"report", "verify", "load", "--quiet"}).err, "");
}

}  // namespace qx::test
