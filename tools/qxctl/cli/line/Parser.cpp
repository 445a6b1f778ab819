#include "tools/qxctl/cli/line/Parser.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/CommandWords.h"
#include "tools/qxctl/cli/describe/HelpText.h"
#include "tools/qxctl/cli/line/ReadValue.h"
#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kEndOfOptions = "--";

using Tokens = std::vector<std::string>;

struct GivenOption {
  const Parameter* option;
  std::optional<std::string> value;  // a flag has one only by mistake: "--json=yes"
};

struct SplitLine {
  std::vector<GivenOption> options;  // in the order of the line
  Tokens others;                     // arguments, "--", and options that do not exist
  bool lacks_value = false;          // the line ends with an option whose value is missing
};

// "-" is an argument, and so is a text that looks like a negative number.
bool LooksLikeOption(std::string_view token) {
  if (token.size() < 2 || token[0] != '-' || token == kEndOfOptions) return false;
  return (token[1] < '0' || token[1] > '9') && token[1] != '.';
}

// CLI11 reads "--output= a" as "--output a", and "--json=true" as "--json". A NUL, which no argument contains, at the
// end of these values prevents both.
std::string MarkedValue(const std::string& token) {
  const bool has_value = token.starts_with("--") && token.find('=') != std::string::npos;
  return has_value ? token + '\0' : token;
}

std::string Unmarked(std::string token) {
  if (token.ends_with('\0')) token.pop_back();
  return token;
}

CLI::Option* AddOption(CLI::App& app, const Parameter& option) {
  const std::string names = (option.letter.empty() ? "" : std::string(option.letter) + ",") + std::string(option.name);
  CLI::Option* const added = option.kind == ValueKind::kNone ? app.add_flag(names) : app.add_option(names);
  return added->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

GivenOption Given(const Parameter& option, const std::string& result) {
  if (option.kind == ValueKind::kNone && result == "true") return {&option, std::nullopt};
  return {&option, Unmarked(result)};
}

// CLI11 gets only the options of the command. It must not read the arguments, because it would read "-.5" as an option
// and "[a,b]" as two arguments. It returns the tokens that belong to no option in their order.
SplitLine Split(const std::vector<const Parameter*>& options, const Tokens& tokens, bool ends_at_word) {
  CLI::App app;
  app.set_help_flag();  // --help is one of `options`
  app.allow_extras()->prefix_command(ends_at_word);
  std::map<const CLI::Option*, const Parameter*> parameters;
  for (const Parameter* const option : options) parameters[AddOption(app, *option)] = option;
  Tokens reversed;  // CLI11 takes tokens from the end
  std::transform(tokens.rbegin(), tokens.rend(), std::back_inserter(reversed), MarkedValue);
  SplitLine split;
  try {
    app.parse(std::move(reversed));
  } catch (const CLI::ArgumentMismatch&) {
    split.lacks_value = true;
  }
  std::map<const CLI::Option*, std::size_t> taken;
  for (const CLI::Option* const option : app.parse_order()) {
    split.options.push_back(Given(*parameters.at(option), option->results().at(taken[option]++)));
  }
  for (const std::string& token : app.remaining()) split.others.push_back(Unmarked(token));
  return split;
}

std::string ShownName(const Parameter& parameter) { return std::string(parameter.name); }

// Reads a line from its first word on. After the words of a command, CLI11 splits the rest of the line into options and
// other tokens. After the words of a group it stops at the next word, which selects the command of the group. Arguments
// are never compared with words of commands, so a report may have the name of a command.
class LineParser {
 public:
  LineParser(Commands commands, CommandLine& line) : commands_(commands), qxctl_(*commands.front()), line_(line) {
    Reach(qxctl_);
  }

  Status Parse(const Tokens& tokens) {
    const bool is_group = Reached().run == nullptr;
    SplitLine split = Split(PossibleOptions(), tokens, is_group);
    for (const GivenOption& given : split.options) {
      Status status = TakeOption(given);
      if (!status.IsOk() || line_.request != Request::kRun) return status;
    }
    if (Status status = CheckOptions(split.others, is_group); !status.IsOk()) return status;
    if (split.lacks_value) return MissingValue(tokens.back());
    return is_group ? TakeWord(std::move(split.others)) : Complete(std::move(split.others));
  }

 private:
  const Command& Reached() const { return *line_.command; }

  void Reach(const Command& command) {
    line_.command = &command;
    for (const Parameter* const parameter : ParametersOf(command)) {
      if (!IsAnsweredAtOnce(*parameter)) values_[parameter] = &line_.values.Add(*parameter);
    }
  }

  // The options of the command, and those of qxctl that the command does not have itself.
  std::vector<const Parameter*> PossibleOptions() const {
    std::vector<const Parameter*> options = OptionsOf(Reached());
    for (const Parameter* const option : OptionsOf(qxctl_)) {
      const bool is_known = std::any_of(options.begin(), options.end(),
                                        [&](const Parameter* known) { return known->name == option->name; });
      if (!is_known) options.push_back(option);
    }
    return options;
  }

  Status TakeOption(const GivenOption& given) {
    const Parameter& option = *given.option;
    if (option.kind != ValueKind::kNone) return SetValue(*values_.at(&option), *given.value);
    if (given.value) {
      return {ExitCode::kUsage, ShownName(option) + " takes no value; give " + ShownName(option) + " alone"};
    }
    if (option.name == kHelpOption.name) {
      line_.request = Request::kHelp;
    } else if (option.name == kVersionOption.name) {
      line_.request = Request::kVersion;
    } else {
      Value& value = *values_.at(&option);
      value.flag = value.is_given = true;
    }
    return {};
  }

  // kUsage if one of the tokens is an option that does not exist. For a group only the first token is checked.
  Status CheckOptions(const Tokens& others, bool is_group) const {
    auto end = std::find(others.begin(), others.end(), kEndOfOptions);
    if (is_group && end != others.begin()) end = others.begin() + 1;
    const auto unknown = std::find_if(others.begin(), end, LooksLikeOption);
    if (unknown == end) return {};
    const std::string_view token = *unknown;
    return UnknownOption(token.substr(0, token.starts_with("--") ? token.find('=') : 2));
  }

  // The error for a line whose last token is an option without its value: "--output", "-o", or "-ro".
  Status MissingValue(const std::string& token) const {
    const std::string name = token.starts_with("--") ? token : std::string("-") + token.back();
    const std::vector<const Parameter*> options = PossibleOptions();
    const auto option = std::find_if(options.begin(), options.end(),
                                     [&](const Parameter* each) { return each->name == name || each->letter == name; });
    return {ExitCode::kUsage, name + " needs a value: give " + name + " " + ShownValue(**option)};
  }

  Status TakeWord(Tokens others) {
    const bool is_after_end = !others.empty() && others.front() == kEndOfOptions;
    const auto word = others.begin() + (is_after_end ? 1 : 0);
    if (word == others.end()) return WithoutWord();
    const Command* const below = FindSubcommand(commands_, Reached(), *word);
    if (below == nullptr) return UnknownCommand(commands_, Reached(), *word);
    Reach(*below);
    others.erase(word);  // "--" remains, and ends the options of the command as well
    return Parse(others);
  }

  Status WithoutWord() {
    if (&Reached() != &qxctl_) return MissingCommand(commands_, Reached());
    line_.request = Request::kOverview;
    return {};
  }

  static Status SetValue(Value& value, std::string_view text) {
    const Parameter& parameter = *value.parameter;
    if (value.is_given && !parameter.is_repeatable) {
      return {ExitCode::kUsage, ShownName(parameter) + " is given twice; give it once"};
    }
    value.is_given = true;
    for (std::size_t comma = text.find(','); parameter.is_list && comma != std::string_view::npos;
         comma = text.find(',')) {
      if (Status status = ReadValue(text.substr(0, comma), value); !status.IsOk()) return status;
      text.remove_prefix(comma + 1);
    }
    return ReadValue(text, value);
  }

  Status UnknownOption(std::string_view name) const {
    std::vector<std::string> names;
    for (const Parameter* const option : PossibleOptions()) names.emplace_back(option->name);
    const std::vector<std::string> near = NearNames(name, names);
    const std::string what = FullName(Reached()) + " has no option " + Visible(name);
    if (!near.empty()) return {ExitCode::kUsage, what + DidYouMean(near)};
    return {ExitCode::kUsage, what + SeeHelp()};
  }

  // Finds parameters that are missing, and parameters that exclude each other.
  Status Complete(Tokens arguments) {
    const auto end = std::find(arguments.begin(), arguments.end(), kEndOfOptions);
    if (end != arguments.end()) arguments.erase(end);
    if (Status status = SetArguments(arguments); !status.IsOk()) return status;
    for (const auto& value : line_.values.All()) {
      if (Status status = CheckRelations(value); !status.IsOk()) return status;
    }
    return {};
  }

  Status SetArguments(const Tokens& arguments) {
    std::size_t given = 0;
    for (const Parameter* const argument : ArgumentsOf(Reached())) {
      const std::size_t end = argument->is_repeatable ? arguments.size() : std::min(given + 1, arguments.size());
      for (; given < end; ++given) {
        if (Status status = SetValue(*values_.at(argument), arguments[given]); !status.IsOk()) return status;
      }
    }
    if (given == arguments.size()) return {};
    return {ExitCode::kUsage, "\"" + Visible(arguments[given]) + "\" is one argument too many" + HowToCall()};
  }

  Status CheckRelations(const Value& value) const {
    const Parameter& parameter = *value.parameter;
    if (!value.is_given) {
      return parameter.is_required ? Status(ExitCode::kUsage, ShownName(parameter) + " is missing" + HowToCall())
                                   : Status();
    }
    if (!parameter.needs.empty() && !line_.values.Has(parameter.needs)) {
      const std::string needed(parameter.needs);
      return {ExitCode::kUsage, ShownName(parameter) + " needs " + needed + "; give " + needed + " as well"};
    }
    for (const std::string_view other : parameter.excludes) {
      if (other.empty() || !line_.values.Has(other)) continue;
      return {ExitCode::kUsage,
              ShownName(parameter) + " and " + std::string(other) + " exclude each other; give one of them"};
    }
    return {};
  }

  // "; usage: qxctl report cat PATH [OPTIONS]"
  std::string HowToCall() const { return "; usage: " + CallOf(Reached()); }
  std::string SeeHelp() const { return "; \"" + FullName(Reached()) + " --help\" lists its options"; }

  Commands commands_;
  const Command& qxctl_;
  CommandLine& line_;
  std::map<const Parameter*, Value*> values_;
};

}  // namespace

Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv,
                        CommandLine& line) {
  const Tokens tokens(argv + std::min(argc, 1), argv + argc);
  const auto options_end = std::find(tokens.begin(), tokens.end(), kEndOfOptions);
  line.asks_for_json = std::find(tokens.begin(), options_end, "--json") != options_end;
  return LineParser(commands, line).Parse(tokens);
}

}  // namespace qx::ctl
