// The commands of qxctl as data: what the completion scripts, the manual page and the tests are made from.
//
// It is read off the tree by which the command line is parsed, so it cannot differ from what qxctl takes. Commands and
// options without a group are hidden, and are not in it.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/Output.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

struct OptionRow {
  std::vector<std::string> names;  // "-o", "--output"
  std::string help;
  std::string value;                 // what it takes, such as FILE; empty: nothing
  std::vector<std::string> choices;  // the only values, if they are limited to these
  bool is_required = false;
};

struct ArgumentRow {
  std::string name;  // NAME, PATH, DIR, ...
  std::string help;
  std::vector<std::string> choices;
  bool is_required = false;
  bool is_repeatable = false;
};

struct CommandRow {
  std::vector<std::string> words;  // "qxctl", "report", "info"
  std::string help;
  std::vector<std::string> subcommands;
  std::vector<OptionRow> options;
  std::vector<ArgumentRow> arguments;
};

// A command comes before those below it; the first row is qxctl itself. Its options, without --help and --version,
// stand behind every command.
std::vector<CommandRow> CommandTable(const CLI::App& root);

Json ToJson(const std::vector<CommandRow>& table);

// {"qxctl", "report", "info"} => "qxctl report info"
std::string Joined(const std::vector<std::string>& words, const char* separator = " ");

}  // namespace qx::ctl
