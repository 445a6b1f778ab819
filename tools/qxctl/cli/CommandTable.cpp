#include "tools/qxctl/cli/CommandTable.h"

#include <algorithm>
#include <cstdint>

namespace qx::ctl {

namespace {

constexpr std::string_view kJsonOption = "--json";

// "report" of "report info", "" of "report"
std::string_view WordsAbove(const Command& command) {
  const std::size_t space = command.words.rfind(' ');
  return space == std::string_view::npos ? std::string_view() : command.words.substr(0, space);
}

std::vector<std::string> ChoicesOf(const Parameter& parameter) {
  return {parameter.choices.begin(), parameter.choices.end()};
}

std::vector<std::string> NamesOf(const Parameter& option) {
  std::vector<std::string> names;
  if (!option.letter.empty()) names.emplace_back(option.letter);
  names.emplace_back(option.name);
  return names;
}

Json OptionToJson(const Parameter& option) {
  return {{"names", NamesOf(option)},
          {"help", option.help},
          {"value", option.value},
          {"choices", ChoicesOf(option)},
          {"required", option.is_required}};
}

Json ArgumentToJson(const Parameter& argument) {
  return {{"name", argument.name},
          {"help", argument.help},
          {"choices", ChoicesOf(argument)},
          {"required", argument.is_required},
          {"repeatable", argument.is_repeatable}};
}

Json ExamplesToJson(const Command& command) {
  Json examples = Json::Array();
  for (const Example& example : command.examples) {
    examples.Append({{"line", example.line}, {"help", example.help}});
  }
  return examples;
}

// The document of `qxctl report info --json` follows the schema "qxctl-report-info".
Json SchemaOf(const Command& command) {
  const std::vector<const Parameter*> options = OptionsOf(command);
  const bool has_document =
      std::any_of(options.begin(), options.end(), [](const Parameter* option) { return option->name == kJsonOption; });
  if (!has_document) return nullptr;
  std::string name = FullName(command);
  std::replace(name.begin(), name.end(), ' ', '-');
  return name;
}

Json CommandToJson(Commands commands, const Command& command) {
  Json subcommands = Json::Array();
  for (const Command* const below : Subcommands(commands, command)) subcommands.Append(LastWord(*below));
  Json options = Json::Array();
  for (const Parameter* const option : OptionsOf(command)) options.Append(OptionToJson(*option));
  Json arguments = Json::Array();
  for (const Parameter* const argument : ArgumentsOf(command)) arguments.Append(ArgumentToJson(*argument));
  return {{"command", FullName(command)},          {"help", command.help},
          {"subcommands", std::move(subcommands)}, {"options", std::move(options)},
          {"arguments", std::move(arguments)},     {"schema", SchemaOf(command)},
          {"examples", ExamplesToJson(command)}};
}

}  // namespace

bool IsAnsweredAtOnce(const Parameter& parameter) {
  return parameter.name == kHelpOption.name || parameter.name == kVersionOption.name;
}

std::vector<const Parameter*> ParametersOf(const Command& command) {
  std::vector<const Parameter*> parameters = {&kHelpOption};
  for (const std::span<const Parameter> part : command.parameters) {
    for (const Parameter& parameter : part) parameters.push_back(&parameter);
  }
  return parameters;
}

std::vector<const Parameter*> ArgumentsOf(const Command& command) {
  std::vector<const Parameter*> arguments = ParametersOf(command);
  std::erase_if(arguments, [](const Parameter* parameter) { return IsOption(*parameter); });
  return arguments;
}

std::vector<const Parameter*> OptionsOf(const Command& command) {
  std::vector<const Parameter*> options = ParametersOf(command);
  std::erase_if(options, [](const Parameter* parameter) { return !IsOption(*parameter); });
  return options;
}

std::vector<OptionGroup> OptionGroupsOf(const Command& command) {
  std::vector<OptionGroup> groups;
  for (const Parameter* const option : OptionsOf(command)) {
    auto group = std::find_if(groups.begin(), groups.end(),
                              [&](const OptionGroup& known) { return known.name == option->group; });
    if (group == groups.end()) group = groups.insert(groups.end(), {option->group, {}});
    group->options.push_back(option);
  }
  return groups;
}

std::string FullName(const Command& command) {
  const std::string program(command.program);
  return command.words.empty() ? program : program + " " + std::string(command.words);
}

std::string_view LastWord(const Command& command) { return command.words.substr(command.words.rfind(' ') + 1); }

std::vector<const Command*> Subcommands(Commands commands, const Command& command) {
  std::vector<const Command*> below;
  for (const Command* const each : ShownCommands(commands)) {
    if (!each->words.empty() && WordsAbove(*each) == command.words) below.push_back(each);
  }
  return below;
}

std::vector<CommandGroup> CommandGroups(Commands commands) {
  std::vector<CommandGroup> groups;
  for (const Command* const command : Subcommands(commands, *commands.front())) {
    auto group = std::find_if(groups.begin(), groups.end(),
                              [&](const CommandGroup& known) { return known.heading == command->group; });
    if (group == groups.end()) group = groups.insert(groups.end(), {command->group, {}});
    group->commands.push_back(command);
  }
  return groups;
}

std::vector<const Command*> ShownCommands(Commands commands) {
  std::vector<const Command*> shown(commands.begin(), commands.end());
  std::erase_if(shown, [](const Command* command) { return command->is_hidden; });
  return shown;
}

std::string ShownValue(const Parameter& parameter) {
  const bool shows_choices = parameter.value.empty() && !parameter.choices.empty();
  return shows_choices ? Joined(ChoicesOf(parameter), "|") : std::string(parameter.value);
}

std::string ShownLimits(const Parameter& parameter) {
  const bool is_number = parameter.kind == ValueKind::kInteger || parameter.kind == ValueKind::kNumber;
  if (!is_number || !parameter.choices.empty()) return "";
  const Limits& limits = parameter.limits;
  if (limits.max < kInt32Limits.max) return NumberText(limits.min) + " to " + NumberText(limits.max);
  if (limits.min <= 0) return "";
  return limits.min < 1 ? "above 0" : "at least " + NumberText(limits.min);
}

std::string NumberText(double number) {
  const auto whole = static_cast<std::int64_t>(number);
  if (static_cast<double>(whole) == number) return std::to_string(whole);
  std::string text = std::to_string(number);
  text.erase(text.find_last_not_of('0') + 1);
  return text;
}

std::string Joined(const std::vector<std::string>& words, std::string_view separator) {
  std::string text;
  for (const std::string& word : words) text.append(text.empty() ? "" : separator).append(word);
  return text;
}

Json ToJson(Commands commands) {
  Json rows = Json::Array();
  for (const Command* const command : ShownCommands(commands)) rows.Append(CommandToJson(commands, *command));
  return rows;
}

}  // namespace qx::ctl
