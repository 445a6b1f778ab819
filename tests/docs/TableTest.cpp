// Pages, manual pages and schemas against the command table: what qxctl takes and what is written about it is the same.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
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

  // "qxctl report info", ...: what can be run, or only what has this option.
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

  const json table_;
};

std::set<std::string> Schemas() {
  std::set<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(InSource("docs/schemas"))) {
    names.insert(entry.path().filename());
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
  std::set<std::string> expected = {"qxctl-failure.schema.json"};  // of every command
  for (const json& row : table_) {
    if (!row["schema"].is_null()) expected.insert(row["schema"].get<std::string>() + ".schema.json");
  }
  EXPECT_EQ(Schemas(), expected);
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

TEST_F(DocsTable, TheManualPageNamesEveryCommandAndOption) {
  const Ran ran = Qxctl({"_man"}, ReadFile(InSource("docs/man/qxctl.1.scd")));
  ASSERT_EQ(ran.code, 0) << ran.err;
  for (const json& row : table_) {
    if (!row["subcommands"].empty()) continue;
    EXPECT_THAT(ran.out, HasSubstr("## " + row["command"].get<std::string>() + "\n"));
    for (const json& option : row["options"]) {
      const std::string name = option["names"].back();
      EXPECT_TRUE(name == "--help" || ran.out.find("*" + name + "*") != std::string::npos) << name;
    }
  }
}

TEST_F(DocsTable, EveryManualPageIsTakenByScdoc) {
  for (const fs::directory_entry& entry : fs::directory_iterator(InSource("docs/man"))) {
    std::string page = ReadFile(entry.path());
    if (entry.path().filename() == "qxctl.1.scd") page = Qxctl({"_man"}, page).out;
    Start start = StartHere();
    start.input = page;
    const Ran ran = Child({"scdoc"}, start).Wait();
    EXPECT_EQ(ran.code, 0) << entry.path() << ": " << ran.err;
    EXPECT_THAT(ran.out, HasSubstr(".SH NAME")) << entry.path();
  }
}

}  // namespace qx::test
