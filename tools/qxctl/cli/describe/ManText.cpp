#include "tools/qxctl/cli/describe/ManText.h"

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

bool IsHelp(const Parameter& option) { return option.name == kHelpOption.name; }

std::string CommandText(const Command& command) {
  std::string text = "## " + FullName(command) + "\n\n*" + FullName(command) + "*";
  for (const Parameter* const argument : ArgumentsOf(command)) text += " " + Shown(*argument);
  text += " \\[_options_\\]\n\n" + Sentence(command.help) + "\n";
  for (const Parameter* const argument : ArgumentsOf(command)) {
    text += Shown(*argument) + "\n\t" + Sentence(argument->help) + "\n";
  }
  for (const Parameter* const option : OptionsOf(command)) {
    if (!IsHelp(*option)) text += Listed(*option);
  }
  return text;
}

}  // namespace

std::string ManSections(Commands commands) {
  std::string text = "# OPTIONS\n\nThese can be given before or after any command.\n\n";
  for (const Parameter* const option : OptionsOf(*commands.front())) text += Listed(*option);
  text += "# COMMANDS\n\n";
  for (const Command* const command : ShownCommands(commands)) {
    if (Subcommands(commands, *command).empty()) text += CommandText(*command);
  }
  return text;
}

}  // namespace qx::ctl
