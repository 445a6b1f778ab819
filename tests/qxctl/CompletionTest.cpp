// Tests what a real bash, a real zsh and a real fish offer for the tab key, and that the table of commands is complete.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// 'it'\''s'
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class QxctlCompletion : public testing::Test, protected QxctlFixture {
 protected:
  QxctlCompletion() {
    MakeReport("load", 3, {"a"});
    MakeReport("lost and found", 3, {"a"});
    WriteFile(Dir().File("limits.ini"), "[A]\n");
    WriteFile(Dir().File("bash"), Qxctl({"completion", "bash"}).out);
    WriteFile(Dir().File("zsh"), Qxctl({"completion", "zsh"}).out);
    WriteFile(Dir().File("fish"), Qxctl({"completion", "fish"}).out);
    WriteFile(Dir().File("registry"), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nCount=d=5\n[Server Control]\nx=s=y\n\n\n\n\n");
  }

  // The offers of bash for the last of these words; bash has split the line already.
  std::vector<std::string> Offers(const std::vector<std::string>& words) const {
    std::string script = "source ./bash\nCOMP_WORDS=(" + Quoted(QxctlPath());
    for (const std::string& word : words) script += " " + Quoted(word);
    script += ")\nCOMP_CWORD=" + std::to_string(words.size()) +
              "\n_qxctl \"${COMP_WORDS[0]}\"\nfor offer in \"${COMPREPLY[@]}\"; do echo \"$offer\"; done\n";
    const Ran ran = Child({"bash", "-c", script}, StartHere()).Wait();
    EXPECT_EQ(ran.err, "");
    return LinesOf(ran.out);
  }

  // The offers of zsh for this command line. An interactive zsh runs on a terminal of its own, with a compadd that
  // prints.
  std::vector<std::string> ZshOffers(const std::string& line) const {
    const std::string inner =
        "PROMPT=\nautoload -Uz compinit && compinit -D -u\nsource ./zsh\n"
        "qxctl() { " +
        Quoted(QxctlPath()) +
        " \"$@\" }\n"
        "compadd() {\n"
        "  if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\\ * ]]; then builtin compadd \"$@\"; return $?; fi\n"
        "  local -a hits\n"
        "  builtin compadd -A hits \"$@\"\n"
        "  (( $#hits )) && print -rC1 -- $hits >>offers\n"
        "  builtin compadd \"$@\"\n"
        "}\n"
        "done-now() { print >>finished; exit }\n"
        "comppostfuncs=(done-now)\n"
        "bindkey '^I' complete-word\n"
        "print ready\n";
    WriteFile(Dir().File("inner"), inner);
    WriteFile(Dir().File("offers"), "");
    const std::string outer =
        "zmodload zsh/zpty\nzpty z 'TERM=dumb zsh -f -i'\nzpty -w z 'source ./inner'\nzpty -r -m z text '*ready*'\n"
        "zpty -w -n z " +
        Quoted(line) + "$'\\t'\nwhile zpty -r z text; do :; done\ncat offers\n";
    const Ran ran = Child({"timeout", "30", "zsh", "-f", "-c", outer}, StartHere()).Wait();
    EXPECT_TRUE(Exists(Dir().File("finished"))) << ran.out << ran.err;
    return LinesOf(ran.out);
  }

  // The offers of fish for this command line, without the help.
  std::vector<std::string> FishOffers(const std::string& line) const {
    const std::string script = "source ./fish; complete -C " + Quoted(line);
    Start start = StartHere();
    start.environment["HOME"] = Dir().Path();
    start.environment["PATH"] = QxctlPath().substr(0, QxctlPath().rfind('/')) + ":" + std::getenv("PATH");
    const Ran ran = Child({"fish", "--no-config", "-c", script}, start).Wait();
    EXPECT_EQ(ran.err, "");
    std::vector<std::string> offers = LinesOf(ran.out);
    for (std::string& offer : offers) offer = offer.substr(0, offer.find('\t'));
    return offers;
  }

  json Table() const { return json::parse(Qxctl({"_table"}).out); }
};

}  // namespace

// --- bash

TEST_F(QxctlCompletion, CommandsAndSubcommands) {
  EXPECT_THAT(Offers({""}), IsSupersetOf({"report", "fetch", "completion"}));
  EXPECT_THAT(Offers({"re"}), Contains("report"));
  EXPECT_THAT(Offers({"report", "sal"}), ElementsAre("salvage"));
  EXPECT_THAT(Offers({"--color", "never", "--quiet", "report", "sal"}), ElementsAre("salvage"));
}

TEST_F(QxctlCompletion, HiddenCommandsAreNotOffered) {
  EXPECT_THAT(Offers({"_"}), IsEmpty());
  EXPECT_THAT(Offers({""}), Not(Contains("_reports")));
}

TEST_F(QxctlCompletion, OptionsOfTheCommandAndOfEveryCommand) {
  EXPECT_THAT(Offers({"report", "salvage", "--in"}), UnorderedElementsAre("--into", "--indexed-only"));
  EXPECT_THAT(Offers({"report", "salvage", "--qu"}), ElementsAre("--quiet"));
  EXPECT_THAT(Offers({"report", "salvage", "--vers"}), IsEmpty());
  EXPECT_THAT(Offers({"--vers"}), ElementsAre("--version"));
}

TEST_F(QxctlCompletion, FieldsWithNumbersOfTheReport) {
  MakeReport("cpu", 9, {"09:00 cpu=1 load 2 state=ok", "09:01 cpu=1 disk=7"});
  EXPECT_THAT(Offers({"report", "cat", "cpu", "--plot", ""}), ElementsAre("cpu", "load", "disk"));
  EXPECT_THAT(Offers({"fetch", "cpu", "--plot", "cpu,l"}), ElementsAre("cpu,load"));
  EXPECT_THAT(Offers({"fetch", "nothing", "--plot", ""}), IsEmpty());
}

TEST_F(QxctlCompletion, ReportNamesFromTheReportDirectory) {
  EXPECT_THAT(Offers({"fetch", ""}), ElementsAre("load", "lost and found", "Reports"));  // a path begins there
  EXPECT_THAT(Offers({"names", "lo"}), ElementsAre("load", "lost and found"));
  EXPECT_THAT(Offers({"fetch", "--quiet", "loa"}), ElementsAre("load"));
}

TEST_F(QxctlCompletion, ReportPathsAreOfferedWithoutTheirEndings) {
  EXPECT_THAT(Offers({"report", "cat", "Reports/loa"}), ElementsAre("Reports/load"));
  EXPECT_THAT(Offers({"report", "verify", "Reports/loa"}), ElementsAre("Reports/load"));
  EXPECT_THAT(Offers({"report", "verify", "loa"}), ElementsAre("load"));
}

TEST_F(QxctlCompletion, FilesAndDirectories) {
  EXPECT_THAT(Offers({"ini", "list", "lim"}), ElementsAre("limits.ini"));
  EXPECT_THAT(Offers({"report", "backup", "Rep"}), ElementsAre("Reports"));
  EXPECT_THAT(Offers({"report", "backup", "lim"}), IsEmpty());
}

TEST_F(QxctlCompletion, NameThatBeginsWithAHyphenIsNotAnOption) {
  WriteFile(Dir().File("--apply"), "[A]\n");
  MakeReport("-r", 3, {"a"});
  EXPECT_THAT(Offers({"ini", "list", ""}), Contains("./--apply"));
  EXPECT_THAT(Offers({"ini", "list", ""}), Not(Contains("--apply")));
  EXPECT_THAT(Offers({"fetch", "--", "-r"}), ElementsAre("./-r"));
  EXPECT_THAT(ZshOffers("qxctl ini list "), Contains("./--apply"));
  EXPECT_THAT(ZshOffers("qxctl ini list "), Not(Contains("--apply")));
}

TEST_F(QxctlCompletion, ValueOfAnOption) {
  EXPECT_THAT(Offers({"fetch", "--color", "a"}), ElementsAre("auto", "always"));
  EXPECT_THAT(Offers({"fetch", "--color", "=", "n"}), ElementsAre("never"));
  EXPECT_THAT(Offers({"fetch", "--color", "="}), ElementsAre("auto", "always", "never"));
  EXPECT_THAT(Offers({"report", "salvage", "load", "--into", "Rep"}), ElementsAre("Reports"));
  EXPECT_THAT(Offers({"completion", ""}), ElementsAre("bash", "zsh", "fish"));
}

// --- values that qxctl itself knows

TEST_F(QxctlCompletion, RegistryKeysAreOfferedLevelByLevel) {
  EXPECT_THAT(Offers({"registry", "ls", "--directory", ".", ""}), ElementsAre("HKEY_LOCAL_MACHINE/"));
  EXPECT_THAT(Offers({"registry", "get", "--directory", "=", ".", "HKEY_LOCAL_MACHINE/S"}),
              ElementsAre("HKEY_LOCAL_MACHINE/SOFTWARE/"));
  EXPECT_THAT(Offers({"registry", "ls", "--directory", ".", "HKEY_LOCAL_MACHINE/SOFTWARE/Server\\ C"}),
              ElementsAre("HKEY_LOCAL_MACHINE/SOFTWARE/Server Control"));
  EXPECT_EQ(Qxctl({"registry", "ls", "--directory", ".", "HKEY_LOCAL_MACHINE/SOFTWARE/"}).code, 0) << "as offered";
}

TEST_F(QxctlCompletion, RegistryValuesAreThoseOfTheKeyBefore) {
  EXPECT_THAT(Offers({"registry", "get", "--directory", ".", "HKEY_LOCAL_MACHINE/SOFTWARE", ""}), ElementsAre("Count"));
  EXPECT_THAT(Offers({"registry", "set", "--file", "registry", "'HKEY_LOCAL_MACHINE/SOFTWARE/Server Control'", ""}),
              ElementsAre("x"));
  EXPECT_THAT(Offers({"registry", "get", "--directory", ".", "HKEY_USERS", ""}), IsEmpty());
}

TEST_F(QxctlCompletion, SectionsAndKeysOfTheProfileFileBefore) {
  WriteFile(Dir().File("limits.ini"), "[High]\ncpu=90\n[Low]\n");
  EXPECT_THAT(Offers({"ini", "get", "limits.ini", ""}), ElementsAre("High", "Low"));
  EXPECT_THAT(Offers({"ini", "set", "limits.ini", "High", "c"}), ElementsAre("cpu"));
  EXPECT_THAT(Offers({"ini", "get", "missing.ini", ""}), IsEmpty());
}

TEST_F(QxctlCompletion, CodesCasesCommandsAndTimes) {
  EXPECT_THAT(Offers({"explain", "QX10"}), IsSupersetOf({"QX100", "QX105"}));
  EXPECT_THAT(Offers({"explain", "ENOENT"}), ElementsAre("ENOENT"));
  EXPECT_THAT(Offers({"module", "faults", "order/v"}), ElementsAre("order/version"));
  EXPECT_THAT(Offers({"help", "report", "sal"}), ElementsAre("salvage"));
  EXPECT_THAT(Offers({"report", "cat", "load", "--since", "to"}), ElementsAre("today"));
}

TEST_F(QxctlCompletion, TraceFilesOfTheTraceDirectoryAndPaths) {
  WriteFile(Dir().File("log.qxremconxfer"), "");
  Start start = StartHere();
  start.environment["QX_LOG_RINGBUF_DIR"] = Dir().Path();
  EXPECT_EQ(Qxctl({"_offers", "traces"}, start).out, Dir().File("log.qxremconxfer") + "\n");
  EXPECT_THAT(Offers({"trace", "show", "log."}), ElementsAre("log.qxremconxfer"));
}

TEST_F(QxctlCompletion, OffersOfAnUnknownKindAreEmpty) {
  const Ran ran = Qxctl({"_offers", "stars", "--", ""});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
}

// Two parameters may have the same name. The offers depend on their kind.
TEST_F(QxctlCompletion, ArgumentNamedLikeAReportIsCompletedByItsKind) {
  EXPECT_THAT(Offers({"module", "reflect", "--user", "lo"}), IsEmpty());
  EXPECT_THAT(Offers({"module", "load-test", "--report", "loa"}), ElementsAre("load"));
}

TEST_F(QxctlCompletion, NothingIsOfferedAfterTheLastArgument) {
  EXPECT_THAT(Offers({"names", "load", ""}), IsEmpty());
  EXPECT_THAT(Offers({"ini", "get", "limits.ini", "A", "key", ""}), IsEmpty());
}

TEST_F(QxctlCompletion, ArgumentsAfterTwoHyphensAreNotOptions) {
  EXPECT_THAT(Offers({"fetch", "--", "--qu"}), IsEmpty());
  EXPECT_THAT(Offers({"fetch", "--", "loa"}), ElementsAre("load"));
}

TEST_F(QxctlCompletion, NoReportDirectoryOffersNothingWithoutAMessage) {
  Start start = StartHere();
  const TempDir elsewhere;
  start.directory = elsewhere.Path();
  const Ran ran = Child({QxctlPath(), "_offers", "reports"}, start).Wait();
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
}

TEST_F(QxctlCompletion, SourcedScriptIsRegistered) {
  const Ran ran = Child({"bash", "-c", "source ./bash && complete -p qxctl"}, StartHere()).Wait();
  EXPECT_EQ(ran.out, "complete -F _qxctl qxctl\n");
}

// Checks both the template and the script that a user gets.
TEST_F(QxctlCompletion, ShellcheckFindsNothingInTheBashScript) {
  const std::string source = QX_SOURCE_DIR "/tools/qxctl/cli/describe/completion.bash";
  for (const std::string& script : {source, Dir().File("bash")}) {
    const Ran ran = Child({"shellcheck", script}, StartHere()).Wait();
    EXPECT_EQ(ran.code, 0) << ran.out << ran.err;
  }
}

// --- zsh

TEST_F(QxctlCompletion, ZshTakesItsScript) {
  EXPECT_EQ(Child({"zsh", "-n", "zsh"}, StartHere()).Wait().err, "");
  EXPECT_TRUE(ReadFile(Dir().File("zsh")).starts_with("#compdef qxctl\n"));
}

TEST_F(QxctlCompletion, ZshOffersCommandsOptionsReportsAndFiles) {
  EXPECT_THAT(ZshOffers("qxctl report sal"), ElementsAre("salvage"));
  EXPECT_THAT(ZshOffers("qxctl report salvage --in"), IsSupersetOf({"--into", "--indexed-only"}));
  EXPECT_THAT(ZshOffers("qxctl fetch lo"), ElementsAre("load", "lost\\ and\\ found"));
  EXPECT_THAT(ZshOffers("qxctl fetch --color=al"), ElementsAre("always"));
  EXPECT_THAT(ZshOffers("qxctl ini list lim"), Contains("limits.ini"));
  EXPECT_THAT(ZshOffers("qxctl report cat Reports/loa"), ElementsAre("Reports/load"));
}

TEST_F(QxctlCompletion, ZshOffersValuesThatQxctlKnows) {
  EXPECT_THAT(ZshOffers("qxctl registry ls --directory . HKEY_LOCAL_MACHINE/SOFTWARE/Ser"),
              ElementsAre("HKEY_LOCAL_MACHINE/SOFTWARE/Server\\ Control"));
  EXPECT_THAT(ZshOffers("qxctl explain QX10"), IsSupersetOf({"QX100", "QX105"}));
}

// --- fish

TEST_F(QxctlCompletion, FishTakesItsScript) {
  EXPECT_EQ(Child({"fish", "-n", "fish"}, StartHere()).Wait().err, "");
  EXPECT_EQ(Child({"fish", "-n", QX_SOURCE_DIR "/tools/qxctl/cli/describe/completion.fish"}, StartHere()).Wait().err,
            "");
}

TEST_F(QxctlCompletion, FishOffersCommandsOptionsReportsAndFiles) {
  EXPECT_THAT(FishOffers("qxctl report sal"), ElementsAre("salvage"));
  EXPECT_THAT(FishOffers("qxctl --color never --quiet report sal"), ElementsAre("salvage"));
  EXPECT_THAT(FishOffers("qxctl report salvage --in"), ElementsAre("--indexed-only", "--into"));
  EXPECT_THAT(FishOffers("qxctl fetch lo"), ElementsAre("load", "lost and found"));
  EXPECT_THAT(FishOffers("qxctl report verify load lo"), Contains("lost and found"));
  EXPECT_THAT(FishOffers("qxctl names load "), IsEmpty());
  EXPECT_THAT(FishOffers("qxctl fetch --color al"), ElementsAre("always"));
  EXPECT_THAT(FishOffers("qxctl fetch --color=al"), ElementsAre("--color=always"));
  EXPECT_THAT(FishOffers("qxctl fetch -- --qu"), IsEmpty());
  EXPECT_THAT(FishOffers("qxctl ini list lim"), ElementsAre("limits.ini"));
  EXPECT_THAT(FishOffers("qxctl report backup Rep"), ElementsAre("Reports/"));
  EXPECT_THAT(FishOffers("qxctl report cat Reports/loa"), ElementsAre("Reports/load"));
}

TEST_F(QxctlCompletion, FishOffersValuesThatQxctlKnows) {
  EXPECT_THAT(FishOffers("qxctl registry ls --directory . HKEY_LOCAL_MACHINE/SOFTWARE/Ser"),
              ElementsAre("HKEY_LOCAL_MACHINE/SOFTWARE/Server Control"));
  EXPECT_THAT(FishOffers("qxctl registry get --directory=. HKEY_LOCAL_MACHINE/SOFTWARE "), ElementsAre("Count"));
  EXPECT_THAT(FishOffers("qxctl explain ENOEN"), ElementsAre("ENOENT"));
}

// fish offers a name that begins with "." only after a ".".
TEST_F(QxctlCompletion, FishOffersNamesThatBeginWithAHyphenAsPaths) {
  WriteFile(Dir().File("--apply"), "[A]\n");
  EXPECT_THAT(FishOffers("qxctl ini list "), Not(Contains("--apply")));
  EXPECT_THAT(FishOffers("qxctl ini list ./"), Contains("./--apply"));
}

// --- the table

TEST_F(QxctlCompletion, EveryCommandOptionAndArgumentHasAHelpText) {
  const auto expect_help = [](const json& row, const std::string& what) {
    const std::string help = row["help"];
    EXPECT_FALSE(help.empty()) << what;
    EXPECT_NE(help.substr(help.empty() ? 0 : help.size() - 1), ".") << what;
  };
  for (const json& row : Table()) {
    const std::string command = row["command"];
    expect_help(row, command);
    for (const json& option : row["options"]) expect_help(option, command + " " + option["names"].dump());
    for (const json& argument : row["arguments"]) expect_help(argument, command + " " + argument["name"].dump());
  }
}

TEST_F(QxctlCompletion, HelpOfEveryCommandNamesItsOptionsAndArguments) {
  for (const json& row : Table()) {
    const std::string command = row["command"];
    std::vector<std::string> words;
    std::istringstream stream(command.substr(std::string("qxctl").size()));
    for (std::string word; stream >> word;) words.push_back(word);
    words.emplace_back("--help");
    const Ran ran = Qxctl(words);
    EXPECT_EQ(ran.code, 0) << command;
    for (const json& option : row["options"]) {
      EXPECT_THAT(ran.out, testing::HasSubstr(option["names"].back())) << command;
    }
    for (const json& argument : row["arguments"]) EXPECT_THAT(ran.out, testing::HasSubstr(argument["name"])) << command;
  }
}

TEST_F(QxctlCompletion, EveryScriptKnowsEveryCommandAndOption) {
  const std::string bash = ReadFile(Dir().File("bash"));
  const std::string zsh = ReadFile(Dir().File("zsh"));
  const std::string fish = ReadFile(Dir().File("fish"));
  for (const json& row : Table()) {
    for (const std::string& script : {bash, zsh, fish}) {
      EXPECT_THAT(script, testing::HasSubstr(Quoted(row["command"])));
      for (const json& option : row["options"]) EXPECT_THAT(script, testing::HasSubstr(option["names"].back()));
    }
  }
}

}  // namespace qx::test
