#include "tools/qxctl/cli/describe/ManText.h"

#include <algorithm>

#include "tools/qxctl/cli/describe/HelpText.h"

namespace qx::ctl {

namespace {

// scdoc reads these as marks: *bold*, _underlined_, and some at the beginning of a line.
std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (std::string_view("\\*_#<>`[]|~").find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string Sentence(std::string_view help) { return Escaped(help) + ".\n"; }

// "_NAME_", "[_NAME_]", "_TEXT_...", "*bash|zsh*"
std::string Shown(const Parameter& argument) {
  std::string text = "_" + Escaped(argument.name) + "_";
  if (!argument.choices.empty()) {
    text = "*" + Escaped(Joined({argument.choices.begin(), argument.choices.end()}, "|")) + "*";
  }
  if (argument.is_repeatable) text += "...";
  return argument.is_required ? text : "\\[" + text + "\\]";
}

// "*-o*, *--output* _FILE_"
std::string ShownOption(const Parameter& option) {
  std::string text = option.letter.empty() ? "" : "*" + Escaped(option.letter) + "*, ";
  text += "*" + Escaped(option.name) + "*";
  const std::string value = Escaped(ShownValue(option));
  if (value.empty()) return text;
  return text + (option.value.empty() ? " " + value : " _" + value + "_");
}

std::string Listed(const Parameter& option) {
  return ShownOption(option) + "\n\t" + Sentence(HelpWithRemarks(option)) + "\n";
}

// "qxctl-report-cat"
std::string PageName(const Command& command) {
  std::string name = FullName(command);
  std::replace(name.begin(), name.end(), ' ', '-');
  return name;
}

// "*qxctl-report-cat*(1)"
std::string Reference(const Command& command) { return "*" + PageName(command) + "*(1)"; }

std::string ListedCommand(const Command& command) {
  return Reference(command) + "\n\t" + Sentence(command.help) + "\n";
}

std::string Synopsis(const Command& command) {
  std::string text = "# SYNOPSIS\n\n*" + FullName(command) + "*";
  if (command.run == nullptr) text += " _command_";
  for (const Parameter* const argument : ArgumentsOf(command)) text += " " + Shown(*argument);
  return text + " \\[_options_\\]\n\n";
}

std::string Description(Commands commands, const Command& command) {
  std::string text = "# DESCRIPTION\n\n" + Sentence(command.help) + "\n";
  for (const Parameter* const argument : ArgumentsOf(command)) {
    text += Shown(*argument) + "\n\t" + Sentence(HelpWithRemarks(*argument)) + "\n";
  }
  return text + Reference(*commands.front()) +
         " describes the options of every command, the forms of arguments, and the exit codes.\n\n";
}

std::string Options(const Command& command) {
  std::string text;
  for (const OptionGroup& group : OptionGroupsOf(command)) {
    if (!group.name.empty()) text += "## " + Escaped(group.name) + "\n\n";
    for (const Parameter* const option : group.options) {
      if (option->name != kHelpOption.name) text += Listed(*option);
    }
  }
  return text.empty() ? "" : "# OPTIONS\n\n" + text;
}

std::string CommandsBelow(Commands commands, const Command& command) {
  std::string text;
  for (const Command* const below : Subcommands(commands, command)) text += ListedCommand(*below);
  return text.empty() ? "" : "# COMMANDS\n\n" + text;
}

std::string Examples(const Command& command) {
  std::string text;
  for (const Example& example : command.examples) {
    text += Escaped(example.help) + ":\n\n```\n" + std::string(example.line) + "\n```\n\n";
  }
  return text.empty() ? "" : "# EXAMPLES\n\n" + text;
}

// The page of the program and the pages of the same group.
std::string SeeAlso(Commands commands, const Command& command) {
  std::string text = "# SEE ALSO\n\n" + Reference(*commands.front());
  for (const Command* const above : ShownCommands(commands)) {
    const std::vector<const Command*> group = Subcommands(commands, *above);
    const bool is_group = above != commands.front() && std::find(group.begin(), group.end(), &command) != group.end();
    if (!is_group) continue;
    text += ", " + Reference(*above);
    for (const Command* const each : group) text += each == &command ? "" : ", " + Reference(*each);
  }
  return text + "\n";
}

// "Print the records" => "print the records"
std::string Purpose(std::string_view help) {
  std::string text = Escaped(help);
  if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z') text[0] = static_cast<char>(text[0] - 'A' + 'a');
  return text;
}

}  // namespace

std::string ManSections(Commands commands) {
  std::string text = "# OPTIONS\n\nThese can be given before or after any command.\n\n";
  for (const Parameter* const option : OptionsOf(*commands.front())) text += Listed(*option);
  text += "# COMMANDS\n\nEach command has a page of its own.\n\n";
  for (const CommandGroup& group : CommandGroups(commands)) {
    text += "## " + Escaped(group.heading) + "\n\n";
    for (const Command* const first : group.commands) {
      const std::vector<const Command*> below = Subcommands(commands, *first);
      for (const Command* const command : below) text += ListedCommand(*command);
      if (below.empty()) text += ListedCommand(*first);
    }
  }
  return text;
}

std::string ManPage(Commands commands, const Command& command) {
  return PageName(command) + "(1)\n\n# NAME\n\n" + PageName(command) + " - " + Purpose(command.help) + "\n\n" +
         Synopsis(command) + Description(commands, command) + CommandsBelow(commands, command) + Options(command) +
         Examples(command) + SeeAlso(commands, command);
}

}  // namespace qx::ctl
