#include "tools/qxctl/cli/describe/HelpCommand.h"

#include <string>

#include "tools/qxctl/cli/CommandWords.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/describe/HelpText.h"

namespace qx::ctl {

namespace {

constexpr Parameter kParameters[] = {
    {.name = "COMMAND", .kind = ValueKind::kCommand, .help = "The words of the command", .is_repeatable = true},
};

Status Help(Context& context, const Values& values) {
  const Command* command = nullptr;
  Status found = FindCommand(context.commands, values.Texts("COMMAND"), command);
  if (!found.IsOk()) return found;
  return context.output.Data(HelpText(context.commands, *command));
}

Status Version(Context& context, const Values&) {
  return context.output.Data("qxctl " + std::string(context.version) + "\n");
}

std::vector<Offer> NextWords(const Context& context, const OfferRequest& request) {
  const Command* command = nullptr;
  if (!FindCommand(context.commands, request.Texts("COMMAND"), command).IsOk()) return {};
  std::vector<Offer> offers;
  for (const Command* const below : Subcommands(context.commands, *command)) {
    offers.push_back({std::string(LastWord(*below)), std::string(below->help)});
  }
  return offers;
}

constexpr Example kHelpExamples[] = {
    {"qxctl help", "Describe the options that every command has"},
    {"qxctl help report cat", "Describe a command"},
};

constexpr Example kVersionExamples[] = {
    {"qxctl version", "Print the version"},
};

}  // namespace

constinit const OfferSource kCommandOffers = {"commands", NextWords};

constinit const Command kHelpCommand = {.words = "help",
                                        .help = "Describe a command, or the options of every command",
                                        .group = kToolHeading,
                                        .run = Help,
                                        .parameters = {kParameters},
                                        .examples = kHelpExamples};
constinit const Command kVersionCommand = {.words = "version",
                                           .help = "Print the version",
                                           .group = kToolHeading,
                                           .run = Version,
                                           .examples = kVersionExamples};

}  // namespace qx::ctl
