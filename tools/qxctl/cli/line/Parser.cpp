#include "tools/qxctl/cli/line/Parser.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <string_view>
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

// "-" is an argument, and so is what looks like a number below zero.
bool LooksLikeOption(std::string_view token) {
  return token.size() > 1 && token[0] == '-' && (token[1] < '0' || token[1] > '9') && token[1] != '.';
}

// "--output=a" => "--output" with the value "a"    "-oa" => "-o", "a"    "-o" => "-o" without
struct OptionText {
  std::string_view name;
  std::optional<std::string_view> value = {};
};

OptionText SplitOption(std::string_view token) {
  if (!token.starts_with("--")) {
    constexpr std::size_t kLetterChars = 2;
    if (token.size() == kLetterChars) return {token};
    return {token.substr(0, kLetterChars), token.substr(kLetterChars)};
  }
  const std::size_t equals = token.find('=');
  if (equals == std::string_view::npos) return {token};
  return {token.substr(0, equals), token.substr(equals + 1)};
}

const Parameter* FindOption(const Command& command, std::string_view name) {
  for (const Parameter* const option : OptionsOf(command)) {
    if (option->name == name || option->letter == name) return option;
  }
  return nullptr;
}

std::string ShownName(const Parameter& parameter) { return std::string(parameter.name); }

class LineParser {
 public:
  LineParser(Commands commands, std::vector<std::string_view> tokens, CommandLine& line)
      : commands_(commands), qxctl_(*commands.front()), tokens_(std::move(tokens)), line_(line) {
    Reach(qxctl_);
  }

  Status Parse() {
    while (next_ < tokens_.size() && line_.request == Request::kRun) {
      if (Status status = Take(tokens_[next_++]); !status.IsOk()) return status;
    }
    return line_.request == Request::kRun ? Complete() : Status();
  }

 private:
  const Command& Reached() const { return *line_.command; }

  void Reach(const Command& command) {
    line_.command = &command;
    for (const Parameter* const parameter : ParametersOf(command)) {
      if (!IsAnsweredAtOnce(*parameter)) values_[parameter] = &line_.values.Add(*parameter);
    }
  }

  Status Take(std::string_view token) {
    if (!options_ended_ && token == kEndOfOptions) {
      options_ended_ = true;
      return {};
    }
    if (!options_ended_ && LooksLikeOption(token)) return TakeOption(SplitOption(token));
    if (Reached().run == nullptr) return TakeWord(token);
    arguments_.push_back(token);
    return {};
  }

  Status TakeWord(std::string_view word) {
    const Command* const below = FindSubcommand(commands_, Reached(), word);
    if (below == nullptr) return UnknownCommand(commands_, Reached(), word);
    Reach(*below);
    return {};
  }

  Status TakeOption(const OptionText& text) {
    const Parameter* option = FindOption(Reached(), text.name);
    if (option == nullptr) option = FindOption(qxctl_, text.name);
    if (option == nullptr) return UnknownOption(text.name);
    if (option->kind == ValueKind::kNone) return TakeFlag(*option, text);
    if (text.value) return Give(*values_.at(option), *text.value);
    if (next_ == tokens_.size()) {
      return {ExitCode::kUsage,
              std::string(text.name) + " needs a value: give " + std::string(text.name) + " " + ShownValue(*option)};
    }
    return Give(*values_.at(option), tokens_[next_++]);
  }

  Status TakeFlag(const Parameter& option, const OptionText& text) {
    const bool is_letter = !text.name.starts_with("--");
    if (text.value && !is_letter) {
      return {ExitCode::kUsage, std::string(text.name) + " takes no value; give " + std::string(text.name) + " alone"};
    }
    if (option.name == kHelpOption.name) {
      line_.request = Request::kHelp;
    } else if (option.name == kVersionOption.name) {
      line_.request = Request::kVersion;
    } else {
      Value& value = *values_.at(&option);
      value.flag = value.is_given = true;
    }
    // "-ra" is "-r -a".
    return text.value ? TakeOption(SplitOption(more_letters_ = "-" + std::string(*text.value))) : Status();
  }

  static Status Give(Value& value, std::string_view text) {
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
    for (const Command* const command : {&Reached(), &qxctl_}) {
      for (const Parameter* const option : OptionsOf(*command)) names.emplace_back(option->name);
    }
    const std::vector<std::string> near = NearNames(name, names);
    const std::string what = FullName(Reached()) + " has no option " + Visible(name);
    if (!near.empty()) return {ExitCode::kUsage, what + DidYouMean(near)};
    return {ExitCode::kUsage, what + SeeHelp()};
  }

  // What is missing, and what cannot be together.
  Status Complete() {
    if (&Reached() == &qxctl_) {
      line_.request = Request::kOverview;
      return {};
    }
    if (Reached().run == nullptr) return MissingCommand(commands_, Reached());
    if (Status status = GiveArguments(); !status.IsOk()) return status;
    for (const auto& value : line_.values.All()) {
      if (Status status = CheckRelations(value); !status.IsOk()) return status;
    }
    return {};
  }

  Status GiveArguments() {
    std::size_t given = 0;
    for (const Parameter* const argument : ArgumentsOf(Reached())) {
      const std::size_t end = argument->is_repeatable ? arguments_.size() : std::min(given + 1, arguments_.size());
      for (; given < end; ++given) {
        if (Status status = Give(*values_.at(argument), arguments_[given]); !status.IsOk()) return status;
      }
    }
    if (given == arguments_.size()) return {};
    return {ExitCode::kUsage, "\"" + Visible(arguments_[given]) + "\" is one argument too many" + HowToCall()};
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
  std::vector<std::string_view> tokens_;
  std::size_t next_ = 0;
  CommandLine& line_;
  std::map<const Parameter*, Value*> values_;
  std::vector<std::string_view> arguments_;
  std::string more_letters_;
  bool options_ended_ = false;
};

}  // namespace

Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv,
                        CommandLine& line) {
  std::vector<std::string_view> tokens(argv + std::min(argc, 1), argv + argc);
  const auto options_end = std::find(tokens.begin(), tokens.end(), kEndOfOptions);
  line.asks_for_json = std::find(tokens.begin(), options_end, "--json") != options_end;
  return LineParser(commands, std::move(tokens), line).Parse();
}

}  // namespace qx::ctl
