#include "tools/qxctl/cli/describe/CompletionCommand.h"

#include <string>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"
#include "tools/qxctl/cli/CommandWords.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Input.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/describe/Completion.h"
#include "tools/qxctl/cli/describe/ManText.h"

namespace qx::ctl {

namespace {

constexpr std::string_view kPlaceOfSections = "@COMMANDS@\n";
constexpr std::string_view kShells[] = {"bash", "zsh", "fish"};

constexpr Parameter kParameters[] = {
    {.name = "SHELL",
     .kind = ValueKind::kText,
     .help = "The shell: bash, zsh or fish",
     .choices = kShells,
     .is_required = true},
};

Status PrintCompletion(Context& context, const Values& values) {
  const std::string shell = values.Text("SHELL");
  if (shell == "bash") return context.output.Data(BashCompletion(context.commands));
  return context.output.Data(shell == "zsh" ? ZshCompletion(context.commands) : FishCompletion(context.commands));
}

Status PrintTable(Context& context, const Values&) { return context.output.Document(ToJson(context.commands)); }

// Prints qxctl(1): the page on standard input, with the sections from the command table filled in.
Status PrintOverviewPage(Context& context) {
  std::string page;
  if (Status status = ReadArgument("@-", page); !status.IsOk()) return status;
  const std::size_t at = page.find(kPlaceOfSections);
  if (at == std::string::npos) return {ExitCode::kNotFound, "the page has no line @COMMANDS@"};
  return context.output.Data(page.replace(at, kPlaceOfSections.size(), ManSections(context.commands)));
}

Status PrintMan(Context& context, const Values& values) {
  const std::vector<std::string> words = values.Texts("COMMAND");
  if (words.empty()) return PrintOverviewPage(context);
  const Command* command = nullptr;
  if (Status status = FindCommand(context.commands, words, command); !status.IsOk()) return status;
  return context.output.Data(ManPage(context.commands, *command));
}

constexpr Parameter kManParameters[] = {
    {.name = "COMMAND", .kind = ValueKind::kText, .help = "The words of the command", .is_repeatable = true},
};

constexpr Example kCompletionExamples[] = {
    {"qxctl completion bash", "Print the script for bash"},
    {"qxctl completion fish > ~/.config/fish/completions/qxctl.fish", "Install the script for fish"},
};

}  // namespace

constinit const Command kCompletionCommand = {.words = "completion",
                                              .help = "Print a completion script for a shell",
                                              .group = kToolHeading,
                                              .run = PrintCompletion,
                                              .parameters = {kParameters},
                                              .examples = kCompletionExamples};
constinit const Command kTableCommand = {.words = "_table", .help = "", .run = PrintTable, .is_hidden = true};
constinit const Command kManCommand = {
    .words = "_man", .help = "", .run = PrintMan, .parameters = {kManParameters}, .is_hidden = true};

}  // namespace qx::ctl
