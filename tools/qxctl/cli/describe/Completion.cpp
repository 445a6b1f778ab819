#include "tools/qxctl/cli/describe/Completion.h"

#include <vector>

#include "tools/qxctl/cli/describe/CompletionScripts.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kPlaceOfTables = "#@TABLES@\n";

// The kind of a value as the scripts write it; completion.bash lists the kinds. "@codes" means the offers of the source
// "codes".
std::string KindOf(const Parameter& parameter) {
  if (!parameter.choices.empty()) return Joined({parameter.choices.begin(), parameter.choices.end()}, "|");
  switch (parameter.kind) {
    case ValueKind::kFile:
      return "@file";
    case ValueKind::kDirectory:
      return "@dir";
    case ValueKind::kReport:
      return "@reports";
    case ValueKind::kStore:
      return "@store";
    case ValueKind::kReportOrStore:
      return "@either";
    case ValueKind::kTraceFile:
      return "@traces";
    case ValueKind::kField:
      return "@fields";
    case ValueKind::kRegistryKey:
      return "@registry-keys";
    case ValueKind::kRegistryValue:
      return "@registry-values";
    case ValueKind::kIniSection:
      return "@ini-sections";
    case ValueKind::kIniKey:
      return "@ini-keys";
    case ValueKind::kTime:
      return "today|yesterday|now|-10min|-1h|-1d";
    case ValueKind::kCode:
      return "@codes";
    case ValueKind::kFault:
      return "@faults";
    case ValueKind::kCommand:
      return "@commands";
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

// The options of a command, and those that every command has.
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

// --- zsh and fish: lines of a name and its help, separated by ":" for the _describe of zsh, by a tab for fish

std::string ZshTable(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = name + "=(\n";
  for (const Entry& entry : entries) text += "  " + Quoted(entry.key) + " " + Quoted(entry.value) + "\n";
  return text + ")\n";
}

std::vector<Entry> DescribedOptions(Commands commands, char separator) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> lines;
    for (const Parameter* const option : AllOptionsOf(*command, *commands.front())) {
      lines.push_back(std::string(option->name) + separator + std::string(option->help));
    }
    entries.push_back({FullName(*command), Joined(lines, "\n")});
  }
  return entries;
}

std::vector<Entry> DescribedWords(Commands commands, char separator) {
  std::vector<Entry> entries;
  for (const Command* const command : ShownCommands(commands)) {
    std::vector<std::string> lines;
    for (const Command* const below : Subcommands(commands, *command)) {
      lines.push_back(std::string(LastWord(*below)) + separator + std::string(below->help));
    }
    entries.push_back({FullName(*command), Joined(lines, "\n")});
  }
  return entries;
}

// --- fish: it has no tables by name, so each one is a function

std::string FishQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
  return quoted + "'";
}

std::string FishTable(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = "function " + name + "\n    switch \"$argv[1]\"\n";
  for (const Entry& entry : entries) {
    if (entry.value.empty()) continue;
    text += "        case " + FishQuoted(entry.key) + "\n            printf '%s\\n' " + FishQuoted(entry.value) + "\n";
  }
  return text + "    end\nend\n";
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
  return Filled(kCompletionZsh, ZshTable("_qxctl_words", DescribedWords(commands, ':')) +
                                    ZshTable("_qxctl_options", DescribedOptions(commands, ':')) +
                                    ZshTable("_qxctl_values", ValueEntries(commands)) +
                                    ZshTable("_qxctl_arguments", ArgumentEntries(commands)));
}

std::string FishCompletion(Commands commands) {
  return Filled(kCompletionFish, FishTable("__qxctl_words", DescribedWords(commands, '\t')) +
                                     FishTable("__qxctl_options", DescribedOptions(commands, '\t')) +
                                     FishTable("__qxctl_values", ValueEntries(commands)) +
                                     FishTable("__qxctl_arguments", ArgumentEntries(commands)));
}

}  // namespace qx::ctl
