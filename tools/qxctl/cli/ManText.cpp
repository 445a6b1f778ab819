#include "tools/qxctl/cli/ManText.h"

namespace qx::ctl {

namespace {

// scdoc takes these for marks: *bold*, _underlined_, and some at the beginning of a line.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (std::string_view("\\*_#<>`[]|~").find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string Sentence(const std::string& help) { return Escaped(help) + ".\n"; }

// "_NAME_", "[_NAME_]", "_TEXT_...", "bash|zsh"
std::string Shown(const ArgumentRow& argument) {
  std::string text = "_" + Escaped(argument.name) + "_";
  if (!argument.choices.empty()) text = "*" + Escaped(Joined(argument.choices, "|")) + "*";
  if (argument.is_repeatable) text += "...";
  return argument.is_required ? text : "\\[" + text + "\\]";
}

// "*-o*, *--output* _FILE_"
std::string Shown(const OptionRow& option) {
  std::string text;
  for (const std::string& name : option.names) text += (text.empty() ? "*" : ", *") + Escaped(name) + "*";
  if (!option.choices.empty()) return text + " " + Escaped(Joined(option.choices, "|"));
  return option.value.empty() ? text : text + " _" + Escaped(option.value) + "_";
}

std::string Listed(const OptionRow& option) {
  return Shown(option) + "\n\t" + Sentence(option.help + (option.is_required ? " (required)" : ""));
}

bool IsHelp(const OptionRow& option) { return option.names.back() == "--help"; }

std::string CommandText(const CommandRow& row) {
  std::string text = "## " + Joined(row.words) + "\n\n*" + Joined(row.words) + "*";
  for (const ArgumentRow& argument : row.arguments) text += " " + Shown(argument);
  text += " \\[_options_\\]\n\n" + Sentence(row.help) + "\n";
  for (const ArgumentRow& argument : row.arguments) text += Shown(argument) + "\n\t" + Sentence(argument.help) + "\n";
  for (const OptionRow& option : row.options) {
    if (!IsHelp(option)) text += Listed(option) + "\n";
  }
  return text;
}

}  // namespace

std::string ManSections(const std::vector<CommandRow>& table) {
  std::string text = "# OPTIONS\n\nThese stand before or behind any command.\n\n";
  for (const OptionRow& option : table.front().options) text += Listed(option) + "\n";
  text += "# COMMANDS\n\n";
  for (const CommandRow& row : table) {
    if (row.subcommands.empty()) text += CommandText(row);
  }
  return text;
}

}  // namespace qx::ctl
