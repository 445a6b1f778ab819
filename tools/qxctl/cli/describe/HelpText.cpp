#include "tools/qxctl/cli/describe/HelpText.h"

#include <algorithm>

#include "tools/qxctl/cli/text/NearNames.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kNameWidth = 30;

// "required; 1 to 6; needs --trace"; empty if there are no remarks.
std::string RemarksOn(const Parameter& parameter) {
  std::vector<std::string> remarks;
  if (parameter.is_required) remarks.emplace_back("required");
  if (const std::string limits = ShownLimits(parameter); !limits.empty()) remarks.push_back(limits);
  if (!parameter.default_value.empty()) remarks.push_back("default " + std::string(parameter.default_value));
  if (!parameter.needs.empty()) remarks.push_back("needs " + std::string(parameter.needs));
  std::vector<std::string> excluded;
  for (const std::string_view other : parameter.excludes) {
    if (!other.empty()) excluded.emplace_back(other);
  }
  if (!excluded.empty()) remarks.push_back("not with " + Listed(excluded, "or"));
  return Joined(remarks, "; ");
}

// "  -o, --output FILE           Write the records to this file\n"; a long name has a line of its own.
std::string Line(const std::string& name, const std::string& help) {
  std::string text = "  " + name;
  if (text.size() + 1 > kNameWidth) text += "\n";
  const std::size_t begin = text.ends_with('\n') ? text.size() : 0;
  text.resize(std::max(text.size(), begin + kNameWidth), ' ');
  return text + help + "\n";
}

// "-o, --output FILE"
std::string ShownOption(const Parameter& option) {
  std::string text = (option.letter.empty() ? "" : std::string(option.letter) + ", ") + std::string(option.name);
  const std::string value = ShownValue(option);
  return value.empty() ? text : text + " " + value;
}

// "NAME", "[NAME]", "TEXT..."
std::string ShownArgument(const Parameter& argument) {
  const std::string text = std::string(argument.name) + (argument.is_repeatable ? "..." : "");
  return argument.is_required ? text : "[" + text + "]";
}

std::string ArgumentLines(const Command& command) {
  std::string text;
  for (const Parameter* const argument : ArgumentsOf(command)) {
    text += Line(std::string(argument->name), HelpWithRemarks(*argument));
  }
  return text.empty() ? "" : "\nArguments:\n" + text;
}

// The group without a name in the table has the heading "Options".
std::string OptionLines(const Command& command) {
  std::string text;
  for (const OptionGroup& group : OptionGroupsOf(command)) {
    text += "\n" + std::string(group.name.empty() ? "Options" : group.name) + ":\n";
    for (const Parameter* const option : group.options) text += Line(ShownOption(*option), HelpWithRemarks(*option));
  }
  return text;
}

std::string ExampleLines(const Command& command) {
  std::string text;
  for (const Example& example : command.examples) {
    text += "  " + std::string(example.line) + "\n      " + std::string(example.help) + "\n";
  }
  return text.empty() ? "" : "\nExamples:\n" + text;
}

std::string CommandLines(const std::vector<const Command*>& below) {
  std::string text;
  for (const Command* const command : below) text += Line(std::string(LastWord(*command)), std::string(command->help));
  return text.empty() ? "" : "\nCommands:\n" + text;
}

// The names of the options of qxctl itself: "--quiet, --verbose and --color"
std::string NamesOfGlobalOptions(const Command& qxctl) {
  std::vector<std::string> names;
  for (const Parameter* const option : OptionsOf(qxctl)) {
    if (!IsAnsweredAtOnce(*option)) names.emplace_back(option->name);
  }
  const std::string last = names.back();
  names.pop_back();
  return Joined(names, ", ") + " and " + last;
}

// "  ini                         Look into a profile file, change it\n", for a group with a line of its commands
std::string OverviewLines(Commands commands, const Command& command) {
  std::string text = Line(std::string(command.words), std::string(command.help));
  std::vector<std::string> below;
  for (const Command* const each : Subcommands(commands, command)) below.emplace_back(LastWord(*each));
  return below.empty() ? text : text + Line("", Joined(below, ", "));
}

}  // namespace

std::string CallOf(const Command& command) {
  std::string text = FullName(command);
  if (command.run == nullptr) text += " COMMAND";
  for (const Parameter* const argument : ArgumentsOf(command)) text += " " + ShownArgument(*argument);
  return text + " [OPTIONS]";
}

std::string OverviewText(Commands commands) {
  std::string text = std::string(commands.front()->help) + "\n";
  for (const CommandGroup& group : CommandGroups(commands)) {
    text += "\n" + std::string(group.heading.empty() ? "Others" : group.heading) + ":\n";
    for (const Command* const command : group.commands) text += OverviewLines(commands, *command);
  }
  const std::string program(commands.front()->program);
  return text + "\n\"" + program + " help COMMAND\" describes a command, \"" + program +
         " --help\" the options of every command\n";
}

std::string HelpWithRemarks(const Parameter& parameter) {
  const std::string remarks = RemarksOn(parameter);
  return std::string(parameter.help) + (remarks.empty() ? "" : " (" + remarks + ")");
}

std::string HelpText(Commands commands, const Command& command) {
  const std::vector<const Command*> below = Subcommands(commands, command);
  const Command& qxctl = *commands.front();
  std::string text = std::string(command.help) + "\nUsage: " + CallOf(command) + "\n" + ArgumentLines(command) +
                     OptionLines(command) + CommandLines(below) + ExampleLines(command);
  if (&command != &qxctl) text += "\n" + NamesOfGlobalOptions(qxctl) + " can be given before or after any command\n";
  return text;
}

}  // namespace qx::ctl
