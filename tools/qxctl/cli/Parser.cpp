#include "tools/qxctl/cli/Parser.h"

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

namespace {

// One command within the parser: its values and its options.
struct Parsed {
  const Command* command = nullptr;
  CLI::App* app = nullptr;
  Values values;
  std::vector<std::pair<CLI::Option*, Value*>> options = {};
};

using ParsedCommands = std::map<std::string_view, Parsed>;  // by the words of the command

std::string NamesOf(const Parameter& parameter) {
  return (parameter.letter.empty() ? "" : std::string(parameter.letter) + ",") + std::string(parameter.name);
}

CLI::Option* AddParameter(CLI::App& app, const Parameter& parameter, Value& value) {
  const std::string names = NamesOf(parameter);
  switch (parameter.kind) {
    case ValueKind::kNone:
      return app.add_flag(names, value.flag);
    case ValueKind::kInteger:
      return parameter.is_repeatable ? app.add_option(names, value.integers) : app.add_option(names, value.integer);
    case ValueKind::kNumber:
      return app.add_option(names, value.number);
    default:
      return parameter.is_repeatable ? app.add_option(names, value.texts) : app.add_option(names, value.text);
  }
}

CLI::Validator MemberCheck(const Parameter& parameter) {
  const std::vector<std::string> choices(parameter.choices.begin(), parameter.choices.end());
  if (parameter.kind == ValueKind::kInteger) {
    std::vector<std::int64_t> numbers;
    numbers.reserve(choices.size());
    for (const std::string& choice : choices) numbers.push_back(std::stoll(choice));
    return CLI::IsMember(numbers);
  }
  return parameter.ignores_case ? CLI::IsMember(choices, CLI::ignore_case) : CLI::IsMember(choices);
}

template <typename Number>
std::string CheckNumber(const Parameter& parameter, const std::string& text) {
  Number number{};
  const std::string limits = ShownLimits(parameter).empty() ? "" : " (" + ShownLimits(parameter) + ")";
  if (!CLI::detail::lexical_cast(text, number)) {
    return "\"" + text + "\" is not a" + (parameter.kind == ValueKind::kInteger ? " whole" : "") + " number" + limits;
  }
  if (static_cast<double>(number) < parameter.limits.min) return text + " is too small" + limits;
  return static_cast<double>(number) > parameter.limits.max ? text + " is too large" + limits : "";
}

void AddChecks(CLI::Option& option, const Parameter& parameter) {
  if (parameter.is_list) option.delimiter(',');
  if (parameter.is_required) option.required();
  if (!parameter.choices.empty()) {
    option.transform(MemberCheck(parameter));  // it also changes each choice to its name in the table
  } else if (parameter.kind == ValueKind::kInteger) {
    option.check([&parameter](const std::string& text) { return CheckNumber<std::int64_t>(parameter, text); });
  } else if (parameter.kind == ValueKind::kNumber) {
    option.check([&parameter](const std::string& text) { return CheckNumber<double>(parameter, text); });
  }
  if (parameter.check != nullptr) {
    option.check([check = parameter.check](const std::string& text) { return std::string(check(text)); });
  }
}

// Needs and excludes name parameters of the same command, so all parameters are added before.
void AddRelations(CLI::App& app, CLI::Option& option, const Parameter& parameter) {
  if (!parameter.needs.empty()) option.needs(app.get_option(std::string(parameter.needs)));
  for (const std::string_view other : parameter.excludes) {
    if (!other.empty()) option.excludes(app.get_option(std::string(other)));
  }
}

void AddParameters(Parsed& parsed) {
  for (const Parameter* const parameter : ParametersOf(*parsed.command)) {
    if (IsAnsweredAtOnce(*parameter)) continue;
    Value& value = parsed.values.Add(*parameter);
    CLI::Option& option = *AddParameter(*parsed.app, *parameter, value);
    AddChecks(option, *parameter);
    parsed.options.emplace_back(&option, &value);
  }
  for (const auto& [option, value] : parsed.options) AddRelations(*parsed.app, *option, *value->parameter);
}

// The parsed command whose words are all but the last of these, and the last word.
std::pair<Parsed*, std::string> ParentOf(std::string_view words, ParsedCommands& parsed) {
  const std::size_t space = words.rfind(' ');
  if (space == std::string_view::npos) return {&parsed.at(""), std::string(words)};
  return {&parsed.at(words.substr(0, space)), std::string(words.substr(space + 1))};
}

void AddCommands(std::span<const Command* const> commands, ParsedCommands& parsed) {
  for (const Command* const command : commands) {
    Parsed& added = parsed[command->words];
    added.command = command;
    if (added.app == nullptr) {
      const auto [parent, name] = ParentOf(command->words, parsed);
      added.app = parent->app->add_subcommand(name);
    }
    if (command->run == nullptr) added.app->require_subcommand(1);
    AddParameters(added);
  }
}

// The words of the command that the arguments reached.
std::string WordsOfParsed(const CLI::App& root) {
  std::string words;
  const CLI::App* app = &root;
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    words += (words.empty() ? "" : " ") + app->get_name();
  }
  return words;
}

// Moves the values of the command, and those of the options of every command.
void TakeValues(Parsed& parsed, Parsed& root, CommandLine& line) {
  line.command = parsed.command;
  for (Parsed* const from : {&parsed, &root}) {
    for (const auto& [option, value] : from->options) {
      value->is_given = option->count() > 0;
      line.values.Add(*value->parameter) = std::move(*value);
    }
    if (&parsed == &root) break;
  }
}

Status WrongUsage(const CLI::ParseError& error, const std::string& words) {
  const std::string command = words.empty() ? "qxctl" : "qxctl " + words;
  return {ExitCode::kUsage, std::string(error.what()) + "; \"" + command + " --help\" shows what is possible"};
}

}  // namespace

Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv,
                        CommandLine& line) {
  CLI::App root("", "qxctl");
  root.set_version_flag(std::string(kVersionOption.name), "");
  root.fallthrough();
  ParsedCommands parsed;
  parsed[""].app = &root;
  AddCommands(commands, parsed);
  try {
    root.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    line.request = Request::kHelp;
  } catch (const CLI::CallForVersion&) {
    line.request = Request::kVersion;
  } catch (const CLI::ParseError& error) {
    return WrongUsage(error, WordsOfParsed(root));
  }
  TakeValues(parsed.at(WordsOfParsed(root)), parsed.at(""), line);
  return {};
}

}  // namespace qx::ctl
