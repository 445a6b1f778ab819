#include "tools/qxctl/cli/CommandTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace qx::ctl {

namespace {

bool IsShown(const CLI::App* app) { return !app->get_group().empty(); }

std::vector<const CLI::App*> ShownSubcommands(const CLI::App& app) { return app.get_subcommands(IsShown); }

// "TEXT:{auto,always,never}" => "TEXT"
std::string ValueOf(const CLI::Option& option) {
  const bool takes_value = option.get_items_expected_max() > 0;
  const std::string type = option.get_type_name();
  return takes_value ? type.substr(0, type.find(':')) : "";
}

// "TEXT:{auto,always,never}" => "auto", "always", "never"
std::vector<std::string> ChoicesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t begin = type.find(":{");
  const std::size_t end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos) return {};
  return CLI::detail::split(type.substr(begin + 2, end - begin - 2), ',');
}

OptionRow OptionRowOf(const CLI::Option& option) {
  OptionRow row;
  for (const std::string& name : option.get_snames()) row.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) row.names.push_back("--" + name);
  row.help = option.get_description();
  row.value = ValueOf(option);
  row.choices = ChoicesOf(option);
  row.is_required = option.get_required();
  return row;
}

ArgumentRow ArgumentRowOf(const CLI::Option& option) {
  return {option.get_name(true), option.get_description(), ChoicesOf(option), option.get_required(),
          option.get_items_expected_max() > 1};
}

CommandRow CommandRowOf(const CLI::App& app, std::vector<std::string> words) {
  CommandRow row;
  row.words = std::move(words);
  row.help = app.get_description();
  for (const CLI::App* const command : ShownSubcommands(app)) row.subcommands.push_back(command->get_name());
  for (const CLI::Option* const option : app.get_options()) {
    if (option->get_group().empty()) continue;
    if (option->nonpositional()) {
      row.options.push_back(OptionRowOf(*option));
    } else {
      row.arguments.push_back(ArgumentRowOf(*option));
    }
  }
  return row;
}

Json ToJson(const OptionRow& option) {
  return {{"names", option.names},
          {"help", option.help},
          {"value", option.value},
          {"choices", option.choices},
          {"required", option.is_required}};
}

Json ToJson(const ArgumentRow& argument) {
  return {{"name", argument.name},
          {"help", argument.help},
          {"choices", argument.choices},
          {"required", argument.is_required},
          {"repeatable", argument.is_repeatable}};
}

Json ToJson(const CommandRow& row) {
  Json options = Json::array();
  for (const OptionRow& option : row.options) options.push_back(ToJson(option));
  Json arguments = Json::array();
  for (const ArgumentRow& argument : row.arguments) arguments.push_back(ToJson(argument));
  return {{"command", Joined(row.words)},
          {"help", row.help},
          {"subcommands", row.subcommands},
          {"options", std::move(options)},
          {"arguments", std::move(arguments)}};
}

}  // namespace

std::vector<CommandRow> CommandTable(const CLI::App& root) {
  struct Pending {
    const CLI::App* app;
    std::vector<std::string> words;
  };
  std::vector<CommandRow> table;
  std::vector<Pending> pending = {{&root, {root.get_name()}}};
  while (!pending.empty()) {
    const Pending next = std::move(pending.back());
    pending.pop_back();
    table.push_back(CommandRowOf(*next.app, next.words));
    const std::vector<const CLI::App*> below = ShownSubcommands(*next.app);
    for (auto command = below.rbegin(); command != below.rend(); ++command) {
      std::vector<std::string> words = next.words;
      words.push_back((*command)->get_name());
      pending.push_back({*command, std::move(words)});
    }
  }
  return table;
}

Json ToJson(const std::vector<CommandRow>& table) {
  Json rows = Json::array();
  for (const CommandRow& row : table) rows.push_back(ToJson(row));
  return rows;
}

std::string Joined(const std::vector<std::string>& words, const char* separator) {
  return CLI::detail::join(words, separator);
}

}  // namespace qx::ctl
