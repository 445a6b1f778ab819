// qxctl completion bash|zsh, and what is not for people: _reports for the completion scripts, _table and _man for the
// build and the tests.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/cli/Completion.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/ManText.h"
#include "tools/qxctl/report/ReportTools.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kIndexEnding = ".ind";
constexpr std::string_view kPlaceOfSections = "@COMMANDS@\n";

// The reports of the report directory, in the order of names. Nothing when it cannot be read: who presses a key to
// complete a name wants no words about it.
std::vector<std::string> ReportNames() {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator file(ReportDirectory(), error), end; !error && file != end;
       file.increment(error)) {
    std::string name = file->path().filename().string();
    if (!name.ends_with(kIndexEnding) || name.find('\n') != std::string::npos) continue;
    name.resize(name.size() - kIndexEnding.size());
    names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

Status PrintReportNames(Context& context) {
  for (const std::string& name : ReportNames()) {
    if (Status status = context.output.Data(name + "\n"); !status.IsOk()) return status;
  }
  return {};
}

// The page that standard input holds, with the sections in their place.
Status PrintMan(Context& context, const CLI::App& app) {
  std::string page;
  if (Status status = ReadArgument("@-", page); !status.IsOk()) return status;
  const std::size_t at = page.find(kPlaceOfSections);
  if (at == std::string::npos) return {ExitCode::kNotFound, "the page has no line @COMMANDS@"};
  return context.output.Data(page.replace(at, kPlaceOfSections.size(), ManSections(CommandTable(app))));
}

Status PrintCompletion(Context& context, const CLI::App& app, const std::string& shell) {
  const std::vector<CommandRow> table = CommandTable(app);
  return context.output.Data(shell == "bash" ? BashCompletion(table) : ZshCompletion(table));
}

void AddHidden(CLI::App& app, Context& context, const char* name, const std::function<Status()>& run) {
  CLI::App& command = *app.add_subcommand(name, "");
  command.group("");
  command.callback([&context, run] { context.run = run; });
}

}  // namespace

void AddCompletionCommand(CLI::App& app, Context& context) {
  CLI::App& command = *app.add_subcommand("completion", "Print a completion script for a shell");
  const auto shell = std::make_shared<std::string>();
  command.add_option("SHELL", *shell, "The shell")
      ->required()
      ->check(CLI::IsMember(std::vector<std::string>{"bash", "zsh"}));
  command.callback([&app, &context, shell] {
    context.run = [&app, &context, shell] { return PrintCompletion(context, app, *shell); };
  });
  AddHidden(app, context, "_reports", [&context] { return PrintReportNames(context); });
  AddHidden(app, context, "_table", [&app, &context] { return context.output.Document(ToJson(CommandTable(app))); });
  AddHidden(app, context, "_man", [&app, &context] { return PrintMan(context, app); });
}

}  // namespace qx::ctl
