#include "tools/qxctl/cli/describe/HelpCommand.h"

#include <string>

#include "tools/qxctl/cli/CommandWords.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/describe/HelpText.h"

namespace qx::ctl {

namespace {

constexpr Parameter kParameters[] = {
    {.name = "COMMAND", .kind = ValueKind::kText, .help = "The words of the command", .is_repeatable = true},
};

Status Help(Context& context, const Values& values) {
  const Command* command = context.commands.front();
  for (const std::string& word : values.Texts("COMMAND")) {
    const Command* const below = FindSubcommand(context.commands, *command, word);
    const bool is_leaf = command->run != nullptr;
    if (is_leaf)
      return {ExitCode::kUsage, "\"" + word + "\" is one word too many: " + FullName(*command) + " has no commands"};
    if (below == nullptr) return UnknownCommand(context.commands, *command, word);
    command = below;
  }
  return context.output.Data(HelpText(context.commands, *command));
}

Status Version(Context& context, const Values&) {
  return context.output.Data("qxctl " + std::string(context.version) + "\n");
}

}  // namespace

constinit const Command kHelpCommand = {.words = "help",
                                        .help = "Describe a command, or what every command has",
                                        .group = kToolHeading,
                                        .run = Help,
                                        .parameters = {kParameters}};
constinit const Command kVersionCommand = {
    .words = "version", .help = "Print the version", .group = kToolHeading, .run = Version};

}  // namespace qx::ctl
