// Queries of the command table, for help, manual pages and completion.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Output.h"

namespace qx::ctl {

using Commands = std::span<const Command* const>;

// The two options that print a text without running a command.
inline constexpr Parameter kHelpOption = {.name = "--help", .letter = "-h", .help = "Print this help message and exit"};
inline constexpr Parameter kVersionOption = {.name = "--version", .help = "Print the version and exit"};

bool IsAnsweredAtOnce(const Parameter& parameter);

// The parameters of a command in the order of the table; each command has --help first.
std::vector<const Parameter*> ParametersOf(const Command& command);
std::vector<const Parameter*> ArgumentsOf(const Command& command);
std::vector<const Parameter*> OptionsOf(const Command& command);

// The options of a command by heading, in the order in which the headings first occur. Those without a heading come
// first, with --help.
struct OptionGroup {
  std::string_view name;  // empty for those without a heading
  std::vector<const Parameter*> options;
};
std::vector<OptionGroup> OptionGroupsOf(const Command& command);

// "qxctl report info"; "qxctl" for qxctl itself
std::string FullName(const Command& command);
// "info"
std::string_view LastWord(const Command& command);

// The public commands one word below this one.
std::vector<const Command*> Subcommands(Commands commands, const Command& command);
// The first words of commands by heading, in the order in which the headings first occur.
struct CommandGroup {
  std::string_view heading;
  std::vector<const Command*> commands;
};
std::vector<CommandGroup> CommandGroups(Commands commands);
// Every public command.
std::vector<const Command*> ShownCommands(Commands commands);

// "FILE", "auto|always|never"; empty for an option without a value
std::string ShownValue(const Parameter& parameter);

// "1 to 6", "at least 1", "above 0"; empty if the limits are only those of the number's type
std::string ShownLimits(const Parameter& parameter);

// "1", "0.01", "2147483647"
std::string NumberText(double number);

// {"a", "b"} => "a b"
std::string Joined(const std::vector<std::string>& words, std::string_view separator = " ");

// The table for programs: an array with one object for each command.
Json ToJson(Commands commands);

}  // namespace qx::ctl
