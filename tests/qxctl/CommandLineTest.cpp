// Tests all command lines: the output of --help, and which lines are refused before a command runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class QxctlCommandLine : public testing::Test, protected QxctlFixture {
 protected:
  QxctlCommandLine() { MakeReport("load", 3, {"a", "b"}); }
};

struct WrongLine {
  std::vector<std::string> arguments;
  const char* message;
};

}  // namespace

// --- help

TEST_F(QxctlCommandLine, HelpOfACommandShowsArgumentsOptionsAndLimits) {
  EXPECT_EQ(Qxctl({"report", "create", "--help"}).out,
            "Make a new, empty report\n"
            "Usage: qxctl report create REPORT [OPTIONS]\n"
            "\n"
            "Arguments:\n"
            "  REPORT                      A name below the report directory, or a path (with a /) (required)\n"
            "\n"
            "Options:\n"
            "  -h, --help                  Print this help message and exit\n"
            "  --slots NUMBER              Records that the ring keeps (required; 1 to 1073741823)\n"
            "\n"
            "Examples:\n"
            "  qxctl report create load --slots 1000\n"
            "      Make a report of the report directory\n"
            "  qxctl report create ./load --slots 3\n"
            "      Make one in the working directory\n"
            "\n"
            "--quiet, --verbose, --color, --trace and --trace-level can be given before or after any command\n");
}

TEST_F(QxctlCommandLine, HelpShowsGroupsRelationsAndDefaults) {
  const std::string fetch = Qxctl({"fetch", "-h"}).out;
  EXPECT_THAT(fetch, HasSubstr("\n  -o, --output FILE           Write the records to this file"));
  EXPECT_THAT(fetch, HasSubstr("(needs --output; not with --plot or --fields)\n"));
  EXPECT_THAT(fetch, HasSubstr("(not with --plot, --fields, --last, --since, --until, --grep or --reverse)\n"));
  EXPECT_THAT(fetch, HasSubstr("\n\nCaller:\n  --user TEXT "));
  EXPECT_THAT(Qxctl({"registry", "ls", "--help"}).out, HasSubstr("(default /etc/brollan)\n"));
}

TEST_F(QxctlCommandLine, HelpShowsWhatIsOptionalRepeatableOrAChoice) {
  EXPECT_THAT(Qxctl({"ini", "list", "--help"}).out, HasSubstr("Usage: qxctl ini list FILE [SECTION] [OPTIONS]\n"));
  EXPECT_THAT(Qxctl({"report", "append", "--help"}).out, HasSubstr("report append REPORT TEXT... [OPTIONS]\n"));
  EXPECT_THAT(Qxctl({"--help"}).out, HasSubstr("\n  --color auto|always|never   Colour"));
}

TEST_F(QxctlCommandLine, HelpOfAGroupListsOnlyItsCommands) {
  const std::string help = Qxctl({"ini", "--help"}).out;
  EXPECT_THAT(help, HasSubstr("Usage: qxctl ini COMMAND [OPTIONS]\n"));
  EXPECT_THAT(help, HasSubstr("\nCommands:\n  list                        List the sections"));
  EXPECT_THAT(help, HasSubstr("\n  copy "));
  EXPECT_THAT(help, Not(HasSubstr("registry")));
}

TEST_F(QxctlCommandLine, HelpOfQxctlListsNeitherCommandsOfGroupsNorHiddenOnes) {
  const std::string help = Qxctl({"--help"}).out;
  EXPECT_THAT(help, HasSubstr("\n  completion "));
  EXPECT_THAT(help, Not(HasSubstr("salvage")));
  EXPECT_THAT(help, Not(HasSubstr("_table")));
}

TEST_F(QxctlCommandLine, HelpThatCannotBeWrittenIsAnIoFailure) {
  Start full = StartHere();
  full.out_file = "/dev/full";
  EXPECT_EQ(Qxctl({"--help"}, full).code, 6);
}

TEST_F(QxctlCommandLine, VersionIsOneLine) { EXPECT_THAT(Qxctl({"--version"}).out, StartsWith("qxctl 0.")); }

// --- output without a command

TEST_F(QxctlCommandLine, QxctlAloneShowsTheGroupsOfCommands) {
  const Ran ran = Qxctl({});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  EXPECT_THAT(ran.out, StartsWith("Works with the QXRemConXfer provider module and with report files\n\n"));
  EXPECT_THAT(ran.out, HasSubstr("\nReports:\n  fetch                       Transfer a whole report"));
  EXPECT_THAT(ran.out, HasSubstr("\nSettings:\n  registry "));
  EXPECT_THAT(ran.out, HasSubstr("\n                              show, follow, config\n"));
  EXPECT_THAT(ran.out, HasSubstr("\n\"qxctl help COMMAND\" describes a command"));
  EXPECT_THAT(ran.out, Not(HasSubstr("_table")));
}

TEST_F(QxctlCommandLine, EveryFirstWordHasAHeadingInTheOverview) {
  EXPECT_THAT(Qxctl({}).out, Not(HasSubstr("\nOthers:\n")));
}

TEST_F(QxctlCommandLine, HelpAndVersionAreAlsoCommands) {
  EXPECT_EQ(Qxctl({"help"}).out, Qxctl({"--help"}).out);
  EXPECT_EQ(Qxctl({"help", "report"}).out, Qxctl({"report", "--help"}).out);
  EXPECT_EQ(Qxctl({"help", "report", "cat"}).out, Qxctl({"report", "cat", "--help"}).out);
  EXPECT_EQ(Qxctl({"version"}).out, Qxctl({"--version"}).out);
}

// --- lines that are refused

const std::vector<WrongLine> kWrongLines = {
    {{"reprot"}, "there is no command \"reprot\"; did you mean report?"},
    {{"verify"}, "there is no command \"verify\"; did you mean report verify?"},
    {{"serve"}, "there is no command \"serve\"; \"qxctl help\" lists the commands"},
    {{"new\nline"}, "there is no command \"new\\x0Aline\"; \"qxctl help\" lists the commands"},
    {{"report"},
     "report needs one of its commands: list, status, create, append, cat, info, verify, salvage, backup, backups, "
     "verify-backup or restore"},
    {{"trace", "shwo"}, "trace has no command \"shwo\"; did you mean show?"},
    {{"ini", "edit"}, "ini has no command \"edit\"; give one of list, get, set, delete and copy"},
    {{"help", "fecth"}, "there is no command \"fecth\"; did you mean fetch?"},
    {{"help", "report", "cat", "load"}, "\"load\" is one word too many: qxctl report cat has no commands"},
    {{"names"}, "REPORT is missing; usage: qxctl names REPORT [OPTIONS]"},
    {{"report", "create", "r"}, "--slots is missing; usage: qxctl report create REPORT [OPTIONS]"},
    {{"names", "load", "more"}, "\"more\" is one argument too many; usage: qxctl names REPORT [OPTIONS]"},
    {{"version", "1"}, "\"1\" is one argument too many; usage: qxctl version [OPTIONS]"},
    {{"fetch", "load", "--ouptut", "x"}, "qxctl fetch has no option --ouptut; did you mean --output?"},
    {{"version", "-x"}, "qxctl version has no option -x; \"qxctl version --help\" lists its options"},
    {{"--json", "fetch", "load"}, "qxctl has no option --json; \"qxctl --help\" lists its options"},
    {{"fetch", "load", "--output"}, "--output needs a value: give --output FILE"},
    {{"fetch", "load", "--json=yes"}, "--json takes no value; give --json alone"},
    {{"fetch", "load", "-o", "a", "--output", "b"}, "--output is given twice; give it once"},
    {{"report", "create", "r", "--slots", "three"}, "--slots: \"three\" is not a whole number; give 1 to 1073741823"},
    {{"report", "create", "r", "--slots", ""}, "--slots: \"\" is not a whole number; give 1 to 1073741823"},
    {{"report", "create", "r", "--slots", "0"}, "--slots: 0 is too small; the smallest is 1"},
    {{"report", "create", "r", "--slots", "-3"}, "--slots: -3 is too small; the smallest is 1"},
    {{"report", "create", "r", "--slots", "99999999999999999999"},
     "--slots: 99999999999999999999 is too large; the largest is 1073741823"},
    {{"fetch", "load", "--chunk-records", "1.5"}, "--chunk-records: \"1.5\" is not a whole number; give at least 1"},
    {{"module", "what", "--thread-id", "one"}, "--thread-id: \"one\" is not a whole number; give one such as 10"},
    {{"module", "faults", "--timeout", "0"}, "--timeout: 0 is too small; give a number above 0"},
    {{"module", "faults", "--timeout", "nan"}, "--timeout: \"nan\" is not a number; give a number above 0"},
    {{"follow", "load", "--interval", "1s"}, "--interval: \"1s\" is not a number; give 0.01 to 1000000"},
    {{"fetch", "load", "--omit", "2,77"},
     "--omit: \"77\" is not one of 1, 2, 3, 5, 14, 15, 61 and 65; give one of these"},
    {{"report", "cat", "Reports/load", "--format", "xml"},
     "--format: \"xml\" is not one of text, json and csv; give one of these"},
    {{"module", "record", "r", "other"},
     "FUNCTION: \"other\" is not one of what, reflect, reports and names; give one of these"},
    {{"fetch", "load", "--tag", "12345"}, "--tag: \"12345\": a tag has at most 4 bytes"},
    {{"report", "cat", "Reports/load", "--svg", "x"}, "--svg needs --plot; give --plot as well"},
    {{"fetch", "load", "--plot", "k", "--resume", "s"}, "--resume and --plot exclude each other; give one of them"},
    {{"report", "cat", "load", "--fields", "--plot", "k"}, "--fields and --plot exclude each other; give one of them"},
    {{"fetch", "load", "--fields=;"}, "--fields takes no value; give --fields alone"},
    {{"fetch", "load", "--separator", ""}, "--separator: \"\": a separator has at least one character"},
    {{"report", "cat", "load", "--separator", ";"},
     "--separator makes columns for --format csv, --format json, --plot and --fields; give one of these as well"},
    {{"report", "cat", "load", "--plot", "a,,b"}, "--plot: \"\": a field has a name of at least one character"},
    {{"follow", "load", "--plot", "a,b,c,d,e,f,g"}, "--plot: a chart has at most 6 fields; give no more"},
    {{"top", "load"}, "\"load\" is one argument too many; usage: qxctl top [OPTIONS]"},
    {{"top", "--count", "0"}, "--count: 0 is too small; the smallest is 1"},
    {{"top", "--interval", "0"}, "--interval: 0 is too small; give 0.1 to 86400"},
    {{"top", "--filed", "cpu"}, "qxctl top has no option --filed; did you mean --field?"},
    {{"registry", "delete", "K", "N", "-r"}, "--recursive and NAME exclude each other; give one of them"},
};

TEST_F(QxctlCommandLine, WrongLineIsRefusedWithOneClearMessage) {
  EXPECT_GE(kWrongLines.size(), 30U);
  for (const WrongLine& line : kWrongLines) {
    const Ran ran = Qxctl(line.arguments);
    EXPECT_EQ(ran.code, 2) << line.message;
    EXPECT_EQ(ran.err, std::string("qxctl: ") + line.message + "\n");
    const bool asks_for_json = testing::Value(line.arguments, testing::Contains("--json"));
    EXPECT_EQ(ran.out.empty(), !asks_for_json) << line.message;
  }
}

TEST_F(QxctlCommandLine, FailureUnderJsonIsADocument) {
  EXPECT_EQ(Qxctl({"report", "info", "--json"}).out,
            "{\"command\":\"qxctl report info\",\"problem\":\"name a report, or use --all; \\\"qxctl report "
            "list\\\" shows the reports\",\"exitCode\":2}\n");
  const Ran missing = Qxctl({"report", "info", "Reports/nothing", "--json"});
  EXPECT_EQ(missing.code, 4);
  EXPECT_THAT(missing.out, StartsWith("{\"command\":\"qxctl report info\",\"problem\":\"no report nothing in "));
  EXPECT_THAT(missing.err, StartsWith("qxctl: no report nothing in "));
  EXPECT_THAT(Qxctl({"fetch", "--jsn", "--json"}).out, HasSubstr("\"exitCode\":2}\n"));
}

// The document of the command shows the failure already, so there must be no second document.
TEST_F(QxctlCommandLine, FailureWithADocumentOfItsOwnHasNoSecondOne) {
  WriteFile(ReportPath("load") + ".dat", "");
  const Ran damaged = Qxctl({"report", "verify", "Reports/load", "--json"});
  EXPECT_EQ(damaged.code, 1);
  EXPECT_THAT(damaged.out, StartsWith("{\n"));
  EXPECT_THAT(damaged.out, Not(HasSubstr("problem")));
}

TEST_F(QxctlCommandLine, RefusedLineMakesNoTraceDirectory) {
  EXPECT_EQ(Qxctl({"fetch", "load", "--trace", "traces", "--tag", "12345"}).code, 2);
  EXPECT_FALSE(Exists(Dir().File("traces")));
}

// --- lines that are accepted

TEST_F(QxctlCommandLine, ReportMayHaveTheNameOfACommand) {
  MakeReport("report", 3, {"a"});
  EXPECT_EQ(Qxctl({"fetch", "report", "--quiet"}).out, "a\r\n");
}

TEST_F(QxctlCommandLine, OptionTakesItsValueInFourWays) {
  for (const std::vector<std::string>& way :
       std::vector<std::vector<std::string>>{{"--output=all"}, {"--output", "all"}, {"-oall"}, {"-o", "all"}}) {
    std::vector<std::string> arguments = {"fetch", "load", "--quiet"};
    arguments.insert(arguments.end(), way.begin(), way.end());
    EXPECT_EQ(Qxctl(arguments).code, 0) << way[0];
    EXPECT_EQ(ReadFile(Dir().File("all")), "a\r\nb\r\n");
    WriteFile(Dir().File("all"), "");
  }
}

TEST_F(QxctlCommandLine, ValueAfterAnEqualsSignIsReadAsItIs) {
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load", "--format=", "json"}).err,
            "qxctl: --format: \"\" is not one of text, json and csv; give one of these\n");
  EXPECT_EQ(Qxctl({"report", "info", "Reports/load", "--json=true"}).err,
            "qxctl: --json takes no value; give --json alone\n");
  EXPECT_EQ(Qxctl({"report", "append", "Reports/load", "--", "--a=", "--b=c"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load"}).out, "b\r\n--a=\r\n--b=c\r\n");
}

TEST_F(QxctlCommandLine, ArgumentInBracketsIsOneArgument) {
  EXPECT_EQ(Qxctl({"report", "append", "Reports/load", "[a,b]"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load"}).out, "a\r\nb\r\n[a,b]\r\n");
}

TEST_F(QxctlCommandLine, HelpIsShownAlsoAfterAnUnknownOption) {
  EXPECT_EQ(Qxctl({"fetch", "--bogus", "-h"}).out, Qxctl({"fetch", "--help"}).out);
}

TEST_F(QxctlCommandLine, TwoHyphensEndTheOptions) {
  EXPECT_EQ(Qxctl({"report", "append", "Reports/load", "--", "--slots", "-x"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load"}).out, "b\r\n--slots\r\n-x\r\n");
}

TEST_F(QxctlCommandLine, NegativeNumberIsAnArgument) {
  EXPECT_EQ(Qxctl({"report", "append", "Reports/load", "-5", "-.5"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load"}).out, "b\r\n-5\r\n-.5\r\n");
}

TEST_F(QxctlCommandLine, LettersOfOptionsMayBeTogether) {
  EXPECT_EQ(Qxctl({"registry", "ls", "-rh"}).out, Qxctl({"registry", "ls", "--help"}).out);
}

TEST_F(QxctlCommandLine, ChoiceThatIgnoresCaseMeansTheSame) {
  const Ran json = Qxctl({"report", "cat", "Reports/load", "--format", "json"});
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load", "--format", "JSON"}).out, json.out);
  EXPECT_THAT(json.out, StartsWith("{\"index\":0"));
}

TEST_F(QxctlCommandLine, NumbersMayBeHexadecimal) {
  EXPECT_EQ(Qxctl({"report", "create", "Reports/sixteen", "--slots", "0x10"}).code, 0);
  EXPECT_THAT(Qxctl({"report", "info", "Reports/sixteen"}).out, HasSubstr("0 of 16\n"));
}

TEST_F(QxctlCommandLine, ArgumentMayBeEmpty) {
  WriteFile(Dir().File("a.ini"), "[A]\nx=1\n");
  EXPECT_EQ(Qxctl({"ini", "delete", "a.ini", "A", ""}).code, 4);
  EXPECT_THAT(Qxctl({"ini", "delete", "a.ini", "A"}).out, HasSubstr("- [A]"));
}

}  // namespace qx::test
