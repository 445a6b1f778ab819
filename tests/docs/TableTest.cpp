// Compares pages, manual pages and schemas with the command table: they must describe exactly its commands and options.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/docs/Page.h"
#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;

std::string InSource(const std::string& path) { return std::string(QX_SOURCE_DIR) + "/" + path; }

class DocsTable : public testing::Test, protected QxctlFixture {
 protected:
  DocsTable() : table_(json::parse(Qxctl({"_table"}).out)) {}

  // The commands that can be run, such as "qxctl report info"; with `option`, only those that have this option.
  std::set<std::string> Commands(const std::string& option = "") const {
    std::set<std::string> commands;
    for (const json& row : table_) {
      if (row["subcommands"].empty() && (option.empty() || HasOption(row, option))) commands.insert(row["command"]);
    }
    return commands;
  }

  static bool HasOption(const json& row, const std::string& name) {
    const json& options = row["options"];
    return std::any_of(options.begin(), options.end(), [&](const json& option) {
      return std::find(option["names"].begin(), option["names"].end(), name) != option["names"].end();
    });
  }

  // The source of a manual page: of qxctl(1) or of a command.
  std::string ManualPage(const std::string& command) const {
    std::vector<std::string> words = {"_man"};
    std::istringstream rest(command);
    for (std::string word; rest >> word;) {
      if (word != "qxctl") words.push_back(word);
    }
    const Ran ran = Qxctl(words, words.size() == 1 ? ReadFile(InSource("docs/man/qxctl.1.scd")) : "");
    EXPECT_EQ(ran.code, 0) << ran.err;
    return ran.out;
  }

  const json table_;
};

std::string Name(const json& option) { return option["names"].back(); }

// The report without mandoc's remarks on paragraphs. scdoc begins a paragraph in places where it has no effect, which
// is not a fault.
std::string WithoutParagraphRemarks(const std::string& report) {
  std::string text;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(": WARNING: skipping paragraph macro: PP ") == std::string::npos) text += line + "\n";
  }
  return text;
}

// "qxctl report cat" => "qxctl-report-cat"
std::string PageName(std::string command) {
  std::replace(command.begin(), command.end(), ' ', '-');
  return command;
}

// The names of the schema files that begin with the name of the program.
std::set<std::string> Schemas(const std::string& program = {}) {
  std::set<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(InSource("docs/schemas"))) {
    if (entry.path().filename().string().starts_with(program)) names.insert(entry.path().filename());
  }
  return names;
}

// "| [`qxctl registry ls`, `get`](...) | ... |" => "qxctl registry ls", "qxctl registry get"
std::vector<std::string> CommandsInRow(const std::string& line) {
  std::vector<std::string> commands;
  const std::string cell = line.substr(0, line.find(" | "));
  for (std::size_t at = cell.find('`'); at != std::string::npos;) {
    const std::size_t end = cell.find('`', at + 1);
    if (end == std::string::npos) break;
    const std::string text = cell.substr(at + 1, end - at - 1);
    const bool is_whole = text.starts_with("qxctl ");
    if (!is_whole && commands.empty()) break;
    commands.push_back(is_whole ? text : commands.back().substr(0, commands.back().rfind(' ') + 1) + text);
    at = cell.find('`', end + 1);
  }
  return commands;
}

std::set<std::string> CommandsInPage() {
  std::set<std::string> commands;
  std::istringstream lines(ReadFile(InSource("docs/qxctl.md")));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("| [`qxctl ")) continue;
    for (const std::string& command : CommandsInRow(line)) commands.insert(command);
  }
  return commands;
}

// Whether some session runs `command ... --json`.
bool HasExample(const std::string& command) {
  for (const std::string& name : PageNames()) {
    for (const Session& session : ReadPage(name).sessions) {
      std::istringstream lines(session.text);
      for (std::string line; std::getline(lines, line);) {
        const bool runs_it = line.starts_with("$ ") && line.find(command + " ") != std::string::npos;
        if (runs_it && line.find("--json") != std::string::npos) return true;
      }
    }
  }
  return false;
}

}  // namespace

TEST_F(DocsTable, ThePageOfQxctlListsExactlyTheCommandsThatThereAre) { EXPECT_EQ(CommandsInPage(), Commands()); }

TEST_F(DocsTable, ThePageOfQxctlListsTheOptionsOfEveryCommand) {
  const std::string page = ReadFile(InSource("docs/qxctl.md"));
  for (const json& option : table_[0]["options"]) {
    const std::string name = option["names"].back();
    EXPECT_TRUE(name == "--version" || page.find("| `" + name) != std::string::npos ||
                page.find(", `" + name) != std::string::npos)
        << name;
  }
}

TEST_F(DocsTable, TheTableNamesASchemaForEveryCommandWithJson) {
  for (const json& row : table_) EXPECT_EQ(row["schema"].is_null(), !HasOption(row, "--json")) << row["command"];
}

TEST_F(DocsTable, EveryCommandWithJsonHasASchemaAndEverySchemaACommand) {
  // There must be a schema for every command with a document, for failures, and for the records that several commands
  // print.
  std::set<std::string> expected = {"qxctl-failure.schema.json", "qxctl-record.schema.json"};
  for (const json& row : table_) {
    if (!row["schema"].is_null()) expected.insert(row["schema"].get<std::string>() + ".schema.json");
  }
  EXPECT_EQ(Schemas("qxctl-"), expected);
}

TEST_F(DocsTable, EverySchemaHasAnExampleInAPage) {
  for (const std::string& command : Commands("--json")) EXPECT_TRUE(HasExample(command)) << command;
}

TEST_F(DocsTable, SchemasAreStrict) {
  for (const std::string& name : Schemas()) {
    const std::string text = ReadFile(InSource("docs/schemas/" + name));
    EXPECT_EQ(json::parse(text)["$schema"], "https://json-schema.org/draft/2020-12/schema") << name;
    EXPECT_THAT(text, HasSubstr("\"additionalProperties\": false")) << name;
  }
}

TEST_F(DocsTable, ManualPageOfQxctlNamesThePageOfEveryCommand) {
  const std::string overview = ManualPage("qxctl");
  for (const std::string& command : Commands()) {
    EXPECT_THAT(overview, HasSubstr("\n*" + PageName(command) + "*(1)\n\t")) << command;
  }
  for (const json& option : table_[0]["options"]) EXPECT_THAT(overview, HasSubstr("*" + Name(option) + "*"));
}

TEST_F(DocsTable, EveryCommandHasAPageWithItsArgumentsOptionsAndExamples) {
  for (const json& row : table_) {
    const std::string command = row["command"];
    if (command == "qxctl" || !row["subcommands"].empty()) continue;
    const std::string page = ManualPage(command);
    EXPECT_TRUE(page.starts_with(PageName(command) + "(1)\n\n# NAME\n\n" + PageName(command) + " - ")) << page;
    for (const json& argument : row["arguments"]) {
      const bool has_choices = !argument["choices"].empty();  // the page shows these, not its name
      EXPECT_TRUE(has_choices || page.find("_" + argument["name"].get<std::string>() + "_") != std::string::npos)
          << command << argument;
    }
    for (const json& option : row["options"]) {
      EXPECT_TRUE(Name(option) == "--help" || page.find("*" + Name(option) + "*") != std::string::npos)
          << command << option;
    }
    EXPECT_GE(row["examples"].size(), 1U) << command;
    for (const json& example : row["examples"]) {
      EXPECT_THAT(page, HasSubstr(example["help"].get<std::string>() + ":\n\n```\n")) << command;
      EXPECT_THAT(page, HasSubstr("\n" + example["line"].get<std::string>() + "\n```\n")) << command;
    }
  }
}

TEST_F(DocsTable, PageOfAGroupListsItsCommands) {
  const std::string page = ManualPage("qxctl report");
  EXPECT_THAT(page, HasSubstr("*qxctl report* _command_ \\[_options_\\]\n"));
  EXPECT_THAT(page, HasSubstr("\n*qxctl-report-cat*(1)\n\tPrint the records, oldest first.\n"));
}

// A shell splits each line. In this shell, qxctl only parses its words.
TEST_F(DocsTable, EveryExampleIsAValidCommandLine) {
  std::string script = "qxctl() { " + QxctlPath() + " _parse -- \"$@\" || echo \"in: $*\"; }\nHOME=$PWD\n";
  script += "vmstat() { :; }\nmkdir -p .config/fish/completions\n";
  for (const json& row : table_) {
    for (const json& example : row["examples"]) {
      const std::string line = example["line"];
      EXPECT_THAT(line, HasSubstr(row["command"].get<std::string>()));
      script += line + "\n";
    }
  }
  const Ran ran = Child({"bash", "-c", script}, StartHere()).Wait();
  EXPECT_EQ(ran.out + ran.err, "");
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(Qxctl({"_parse", "--", "report", "cat"}).code, 2);
}

TEST_F(DocsTable, EveryManualPageIsTakenByScdocAndCleanForMandoc) {
  std::vector<std::string> lint = {"mandoc", "-T", "lint", "-W", "warning"};
  std::map<std::string, std::string> sources;
  for (const fs::directory_entry& entry : fs::directory_iterator(InSource("docs/man"))) {
    sources[entry.path().stem()] = ReadFile(entry.path());
  }
  for (const json& row : table_) sources[PageName(row["command"]) + ".1"] = ManualPage(row["command"]);
  for (const auto& [name, source] : sources) {
    Start start = StartHere();
    start.input = source;
    const Ran ran = Child({"scdoc"}, start).Wait();
    EXPECT_EQ(ran.code, 0) << name << ": " << ran.err;
    WriteFile(Dir().File(name), ran.out);
    lint.push_back(Dir().File(name));
  }
  const Ran ran = Child(lint, StartHere()).Wait();
  EXPECT_EQ(WithoutParagraphRemarks(ran.out + ran.err), "");
}

}  // namespace qx::test
