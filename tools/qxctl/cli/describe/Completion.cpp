#include "tools/qxctl/cli/describe/Completion.h"

#include <vector>

#include "tools/qxctl/cli/describe/CompletionScripts.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kPlaceOfTables = "#@TABLES@\n";

// The kinds that the scripts know; completion.bash lists them.
std::string KindOf(const Parameter& parameter) {
  if (!parameter.choices.empty()) return Joined({parameter.choices.begin(), parameter.choices.end()}, "|");
  switch (parameter.kind) {
    case ValueKind::kFile:
      return "@file";
    case ValueKind::kDirectory:
      return "@dir";
    case ValueKind::kReport:
      return "@report";
    case ValueKind::kStore:
      return "@store";
    case ValueKind::kReportOrStore:
      return "@either";
    case ValueKind::kNone:
    case ValueKind::kText:
    case ValueKind::kInteger:
    case ValueKind::kNumber:
      break;
  }
  return "@none";
}

std::string KindsOfArguments(const Command& command) {
  std::vector<std::string> kinds;
  for (const Parameter* const argument : ArgumentsOf(command)) {
    kinds.push_back(KindOf(*argument) + (argument->is_repeatable ? "..." : ""));
  }
  return Joined(kinds);
}

// The options of a command, including those of every command.
std::vector<const Parameter*> AllOptionsOf(const Command& command, const Command& qxctl) {
  std::vector<const Parameter*> options = OptionsOf(command);
  if (&command == &qxctl) return options;
  for (const Parameter* const option : OptionsOf(qxctl)) {
    if (!IsAnsweredAtOnce(*option)) options.push_back(option);
  }
  return options;
}

// 'it'\''s': a quoted word in both shells
std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct Entry {
  std::string key;
  std::string value;
};

// The kinds of the options' values, with the key "COMMAND OPTION".
std::vector<Entry> ValueEntries(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    for (const Parameter* const option : OptionsOf(*command)) {
      if (option->kind == ValueKind::kNone) continue;
      for (const std::string_view name : {option->letter, option->name}) {
        if (!name.empty()) entries.push_back({FullName(*command) + " " + std::string(name), KindOf(*option)});
      }
    }
  }
  return entries;
}

std::vector<Entry> ArgumentEntries(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    entries.push_back({FullName(*command), KindsOfArguments(*command)});
  }
  return entries;
}

// --- bash: only names

std::string BashTable(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = name + "=(\n";
  for (const Entry& entry : entries) text += "  [" + Quoted(entry.key) + "]=" + Quoted(entry.value) + "\n";
  return text + ")\n";
}

std::vector<Entry> BashOptions(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> names;
    for (const Parameter* const option : AllOptionsOf(*command, *commands.front())) names.emplace_back(option->name);
    entries.push_back({FullName(*command), Joined(names)});
  }
  return entries;
}

std::vector<Entry> BashWords(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> words;
    for (const Command* const below : Subcommands(commands, *command)) words.emplace_back(LastWord(*below));
    entries.push_back({FullName(*command), Joined(words)});
  }
  return entries;
}

// --- zsh: lines "NAME:HELP", for its _describe

std::string ZshTable(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = name + "=(\n";
  for (const Entry& entry : entries) text += "  " + Quoted(entry.key) + " " + Quoted(entry.value) + "\n";
  return text + ")\n";
}

std::string Described(std::string_view name, std::string_view help) {
  return std::string(name) + ":" + std::string(help);
}

std::vector<Entry> ZshOptions(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> lines;
    for (const Parameter* const option : AllOptionsOf(*command, *commands.front())) {
      lines.push_back(Described(option->name, option->help));
    }
    entries.push_back({FullName(*command), Joined(lines, "\n")});
  }
  return entries;
}

std::vector<Entry> ZshWords(Commands commands) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> lines;
    for (const Command* const below : Subcommands(commands, *command)) {
      lines.push_back(Described(LastWord(*below), below->help));
    }
    entries.push_back({FullName(*command), Joined(lines, "\n")});
  }
  return entries;
}

// The script with the tables filled in.
std::string Filled(std::string script, const std::string& tables) {
  return script.replace(script.find(kPlaceOfTables), kPlaceOfTables.size(), tables);
}

}  // namespace

std::string BashCompletion(Commands commands) {
  return Filled(kCompletionBash, BashTable("_qxctl_words", BashWords(commands)) +
                                     BashTable("_qxctl_options", BashOptions(commands)) +
                                     BashTable("_qxctl_values", ValueEntries(commands)) +
                                     BashTable("_qxctl_arguments", ArgumentEntries(commands)));
}

std::string ZshCompletion(Commands commands) {
  return Filled(kCompletionZsh, ZshTable("_qxctl_words", ZshWords(commands)) +
                                    ZshTable("_qxctl_options", ZshOptions(commands)) +
                                    ZshTable("_qxctl_values", ValueEntries(commands)) +
                                    ZshTable("_qxctl_arguments", ArgumentEntries(commands)));
}

}  // namespace qx::ctl
