// All command lines: what --help shows, and what is refused before a command runs.
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
            "Usage: qxctl report create PATH [OPTIONS]\n"
            "\n"
            "Arguments:\n"
            "  PATH                        Path of the report's files, without .ind and .dat (required)\n"
            "\n"
            "Options:\n"
            "  -h, --help                  Print this help message and exit\n"
            "  --slots NUMBER              Records that the ring keeps (required; 1 to 1073741823)\n"
            "\n"
            "--quiet, --verbose, --color, --trace and --trace-level can be given before or after any command\n");
}

TEST_F(QxctlCommandLine, HelpShowsGroupsRelationsAndDefaults) {
  const std::string fetch = Qxctl({"fetch", "-h"}).out;
  EXPECT_THAT(fetch, HasSubstr("\n  -o, --output FILE           Write the records to this file"));
  EXPECT_THAT(fetch, HasSubstr("(needs --output; not with --plot)\n"));
  EXPECT_THAT(fetch, HasSubstr("\n\nCaller:\n  --user TEXT "));
  EXPECT_THAT(Qxctl({"registry", "ls", "--help"}).out, HasSubstr("(default /etc/brollan)\n"));
}

TEST_F(QxctlCommandLine, HelpShowsWhatIsOptionalRepeatableOrAChoice) {
  EXPECT_THAT(Qxctl({"ini", "list", "--help"}).out, HasSubstr("Usage: qxctl ini list FILE [SECTION] [OPTIONS]\n"));
  EXPECT_THAT(Qxctl({"report", "append", "--help"}).out, HasSubstr("report append PATH TEXT... [OPTIONS]\n"));
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

// --- what is refused

TEST_F(QxctlCommandLine, WrongLineIsRefusedWithItsReason) {
  const std::vector<WrongLine> lines = {
      {{}, "A subcommand is required; \"qxctl --help\""},
      {{"report"}, "A subcommand is required; \"qxctl report --help\""},
      {{"report", "cat"}, "PATH is required; \"qxctl report cat --help\""},
      {{"fetch", "load", "more"}, "not expected: more"},
      {{"report", "create", "r", "--slots", "0"}, "--slots: 0 is too small (1 to 1073741823)"},
      {{"report", "create", "r", "--slots", "1073741824"}, "--slots: 1073741824 is too large (1 to 1073741823)"},
      {{"report", "create", "r", "--slots", "three"}, "--slots: \"three\" is not a whole number (1 to 1073741823)"},
      {{"report", "create", "r", "--slots", ""}, "--slots: \"\" is not a whole number"},
      {{"fetch", "load", "--chunk-records", "1.5"}, "--chunk-records: \"1.5\" is not a whole number (at least 1)"},
      {{"fetch", "load", "--thread-id", "4294967296"}, "--thread-id: 4294967296 is too large"},
      {{"fetch", "load", "--omit", "2,77"}, "--omit: 77 not in {1,2,3,5,14,15,61,65}"},
      {{"fetch", "load", "--tag", "12345"}, "--tag: a tag has at most 4 bytes"},
      {{"module", "faults", "--timeout", "0"}, "--timeout: 0 is too small (above 0)"},
      {{"report", "cat", "Reports/load", "--format", "xml"}, "--format: xml not in {text,json,csv}"},
      {{"report", "cat", "Reports/load", "--svg", "x"}, "--svg requires --plot"},
      {{"fetch", "load", "--json"}, "--json requires --output"},
      {{"fetch", "load", "--plot", "k", "--resume", "s"}, "--plot excludes --resume"},
      {{"registry", "delete", "K", "N", "-r"}, "NAME excludes --recursive"},
      {{"module", "record", "r", "other"}, "FUNCTION: other not in {what,reflect,reports,names}"},
  };
  for (const WrongLine& line : lines) {
    const Ran ran = Qxctl(line.arguments);
    EXPECT_EQ(ran.code, 2) << line.message;
    EXPECT_EQ(ran.out, "") << line.message;
    EXPECT_THAT(ran.err, StartsWith("qxctl: "));
    EXPECT_THAT(ran.err, HasSubstr(line.message));
  }
}

TEST_F(QxctlCommandLine, RefusedLineMakesNoTraceDirectory) {
  EXPECT_EQ(Qxctl({"fetch", "load", "--trace", "traces", "--tag", "12345"}).code, 2);
  EXPECT_FALSE(Exists(Dir().File("traces")));
}

// --- what is accepted

TEST_F(QxctlCommandLine, ChoiceIsAcceptedInEitherCase) {
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
