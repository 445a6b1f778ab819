// Tests the output of all commands: its amount, and its colours.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

const char kEscape[] = "\033[";

// A report "load", and runs of qxctl in which each stream may be a terminal.
class QxctlOutput : public testing::Test, protected QxctlFixture {
 protected:
  QxctlOutput() { MakeReport("load", 3, {"a"}); }

  Ran Run(const std::vector<std::string>& arguments, const char* no_color = "") const {
    Start start = StartHere();
    start.environment["NO_COLOR"] = no_color;
    return Qxctl(arguments, start);
  }

  Ran RunOnTerminal(const std::vector<std::string>& arguments, const char* no_color = "") const {
    Start start = StartHere();
    start.environment["NO_COLOR"] = no_color;
    start.out_is_terminal = true;
    start.err_is_terminal = true;
    return Qxctl(arguments, start);
  }

  const std::vector<std::string> verify_ = {"report", "verify", "Reports/load"};
  const std::vector<std::string> missing_ = {"report", "cat", "Reports/nothing"};
};

std::vector<std::string> With(std::vector<std::string> arguments, const std::vector<std::string>& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace

// --- amount of output

TEST_F(QxctlOutput, QuietLeavesOutNotesAndKeepsTheData) {
  EXPECT_THAT(Run({"fetch", "load"}).err, HasSubstr("load: 1 record"));
  const Ran quiet = Run({"fetch", "load", "--quiet"});
  EXPECT_EQ(quiet.out, "a\r\n");
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.code, 0);
}

TEST_F(QxctlOutput, QuietKeepsProblems) {
  const Ran ran = Run(With(missing_, {"--quiet"}));
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: no report nothing in Reports;"));
}

TEST_F(QxctlOutput, QuietKeepsFindingsAboutATrace) {
  WriteFile(Dir().File("log.x"), "no entry\n");
  const Ran ran = Run({"trace", "show", "log.x", "--quiet"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: log.x: "));
}

TEST_F(QxctlOutput, QuietLeavesOutProgressOnATerminal) {
  EXPECT_THAT(RunOnTerminal({"fetch", "load"}).err, HasSubstr("\r\033[K"));
  EXPECT_EQ(RunOnTerminal({"fetch", "load", "--quiet"}).err, "");
}

TEST_F(QxctlOutput, VerbosePrintsMore) {
  EXPECT_EQ(Run(With(verify_, {"--trace", "traces"})).err, "");
  EXPECT_EQ(Run(With(verify_, {"--trace", "more", "--verbose"})).err, "qxctl: the traces go to more\n");
}

TEST_F(QxctlOutput, QuietAndVerboseExcludeEachOther) {
  const Ran ran = Run(With(verify_, {"--quiet", "--verbose"}));
  EXPECT_EQ(ran.code, 2);
  EXPECT_EQ(ran.out, "");
}

TEST_F(QxctlOutput, TheOptionsMayBeBeforeOrAfterAnyCommand) {
  EXPECT_EQ(Run({"--quiet", "fetch", "load"}).err, "");
  EXPECT_EQ(Run({"fetch", "--quiet", "load"}).err, "");
  EXPECT_THAT(Run({"--color", "always", "report", "verify", "Reports/load"}).out, HasSubstr(kEscape));
}

// --- control bytes of records

TEST_F(QxctlOutput, TerminalGetsControlBytesMaskedUnlessRaw) {
  Append("load", {"\033[2Jb"});
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"report", "cat", "load"}, {"fetch", "load"}, {"follow", "load", "--count", "2"}}) {
    EXPECT_THAT(RunOnTerminal(command).out, HasSubstr("\\x1B[2Jb")) << command[0];
    EXPECT_THAT(RunOnTerminal(With(command, {"--raw"})).out, HasSubstr("\033[2Jb\r\n")) << command[0];
    EXPECT_THAT(Run(command).out, HasSubstr("\033[2Jb\r\n")) << command[0];
  }
}

TEST_F(QxctlOutput, RawFetchWithAStateGoesToTheTerminalAsItIs) {
  Append("load", {"\033[2Jb"});
  EXPECT_THAT(RunOnTerminal({"fetch", "load", "--resume", "one"}).out, HasSubstr("\\x1B[2Jb"));
  EXPECT_THAT(RunOnTerminal({"fetch", "load", "--resume", "two", "--raw"}).out, HasSubstr("\033[2Jb\r\n"));
}

// --- colour

TEST_F(QxctlOutput, TerminalGetsColour) {
  EXPECT_EQ(RunOnTerminal(verify_).out, "Reports/load: \033[32msound\033[0m, 1 record\n");
}

TEST_F(QxctlOutput, TerminalGetsProblemsInColour) {
  EXPECT_THAT(RunOnTerminal(missing_).err, HasSubstr("\033[1;31mqxctl:\033[0m no report nothing in Reports;"));
}

TEST_F(QxctlOutput, SeverityIsColouredInEveryCommand) {
  const auto colored = [this](const std::vector<std::string>& command) {
    return Run(With(command, {"--color", "always"})).out;
  };
  WriteFile(Dir().File("log.x"), "2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       ## ERROR! Could not read\n");
  WriteFile(Dir().File("log.y"), "2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       ## WARNING: open\n");
  EXPECT_THAT(colored({"trace", "show", "log.x"}), testing::StartsWith("\033[1;31m2026"));
  EXPECT_THAT(colored({"trace", "show", "log.y"}), testing::StartsWith("\033[33m2026"));
  EXPECT_THAT(colored({"doctor"}), HasSubstr("\033[33mwarning "));
  EXPECT_THAT(colored({"report", "backup", "saved"}), HasSubstr("\033[32mcopied "));
  EXPECT_THAT(colored({"report", "restore", "saved"}), HasSubstr("\033[32msame "));
  std::string index = ReadFile(ReportPath("load") + ".ind");
  index[20] = 5;  // the oldest slot of a ring of 3
  WriteFile(ReportPath("load") + ".ind", index);
  EXPECT_THAT(colored({"report", "info", "load"}), HasSubstr("\033[1;31mdamaged\033[0m\n"));
  EXPECT_THAT(colored({"report", "backup", "other"}), HasSubstr("\033[1;31mdamaged "));
  EXPECT_THAT(Run({"fetch", "load", "--color", "always"}).err, HasSubstr("\033[33mqxctl:\033[0m warning: "));
}

TEST_F(QxctlOutput, OutcomesOfTrialsAreColoured) {
  const auto colored = [this](const std::vector<std::string>& command) {
    return Run(With(command, {"--color", "always"})).out;
  };
  EXPECT_THAT(colored({"module", "faults", "order/version"}),
              testing::StartsWith("\033[32mok\033[0m       order/version "));
  ASSERT_EQ(Run({"module", "record", "call.json", "what"}).code, 0);
  EXPECT_EQ(colored({"module", "replay", "call.json"}), "call.json: What \033[32mas recorded\033[0m\n");
  std::string call = ReadFile(Dir().File("call.json"));
  const std::string result = "\"result\": 0";
  ASSERT_NE(call.find(result), std::string::npos) << call;
  WriteFile(Dir().File("call.json"), call.replace(call.find(result), result.size(), "\"result\": 1"));
  EXPECT_THAT(colored({"module", "replay", "call.json"}),
              testing::StartsWith("call.json: What \033[1;31mdiffers\033[0m\n"));
  const std::string loaded = colored({"module", "load-test", "--requests", "10"});
  EXPECT_THAT(loaded, HasSubstr("failures      \033[32m0\033[0m\n"));
  EXPECT_THAT(loaded, HasSubstr("unload        \033[32mthe module is unmapped\033[0m\n"));
}

TEST_F(QxctlOutput, PipeGetsNoColour) {
  EXPECT_EQ(Run(verify_).out, "Reports/load: sound, 1 record\n");
  EXPECT_THAT(Run(missing_).err, Not(HasSubstr(kEscape)));
}

// If only the data is redirected, problems still have colours on the terminal. If only the problems are redirected, the
// data still has colours.
TEST_F(QxctlOutput, EachStreamIsCheckedByItself) {
  Start start = StartHere();
  start.environment["NO_COLOR"] = "";
  start.err_is_terminal = true;
  EXPECT_EQ(Qxctl(verify_, start).out, "Reports/load: sound, 1 record\n");
  EXPECT_THAT(Qxctl(missing_, start).err, HasSubstr(kEscape));
  start.err_is_terminal = false;
  start.out_is_terminal = true;
  EXPECT_THAT(Qxctl(verify_, start).out, HasSubstr(kEscape));
  EXPECT_THAT(Qxctl(missing_, start).err, Not(HasSubstr(kEscape)));
}

TEST_F(QxctlOutput, NoColorInTheEnvironmentTurnsColourOff) {
  EXPECT_EQ(RunOnTerminal(verify_, "1").out, "Reports/load: sound, 1 record\n");
  EXPECT_THAT(RunOnTerminal(missing_, "no").err, Not(HasSubstr(kEscape)));
}

TEST_F(QxctlOutput, NeverAndAlwaysDoNotDependOnTheStream) {
  EXPECT_EQ(RunOnTerminal(With(verify_, {"--color", "never"})).out, "Reports/load: sound, 1 record\n");
  EXPECT_THAT(Run(With(verify_, {"--color", "always"})).out, HasSubstr(kEscape));
  EXPECT_THAT(Run(With(missing_, {"--color", "always"}), "1").err, HasSubstr(kEscape));
}

TEST_F(QxctlOutput, UnknownColourChoiceIsAUsageError) {
  EXPECT_EQ(Run(With(verify_, {"--color", "sometimes"})).code, 2);
}

TEST_F(QxctlOutput, DocumentIsNeverColoured) {
  const Ran ran = RunOnTerminal(With(verify_, {"--json", "--color", "always"}));
  EXPECT_THAT(ran.out, AllOf(HasSubstr("\"state\": \"sound\""), Not(HasSubstr(kEscape))));
}

}  // namespace qx::test
