// qxrelay: carries reports from many hosts into a stream, and from there to collectors.
//
// The command line is read with the table and the parser of qxctl's area cli. Every run ends with one exit code
// (tools/qxctl/cli/Status.h). Data goes to standard output, messages go to standard error.
#include <span>
#include <string>

#include "debug/Debug.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/describe/CompletionCommand.h"
#include "tools/qxctl/cli/describe/HelpCommand.h"
#include "tools/qxctl/cli/describe/HelpText.h"
#include "tools/qxctl/cli/line/Parser.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxrelay/cli/CheckCommand.h"
#include "tools/qxrelay/cli/HostCommand.h"
#include "tools/qxrelay/cli/Options.h"
#include "tools/qxrelay/cli/ReceiveCommand.h"
#include "tools/qxrelay/cli/SendCommand.h"
#include "tools/qxrelay/cli/StatusCommand.h"
#include "tools/qxrelay/cli/StreamCommand.h"

// Never initialised: qxrelay writes no traces.
__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::ctl::Command;
using qx::ctl::CommandLine;
using qx::ctl::Context;
using qx::ctl::ExitCode;
using qx::ctl::Request;
using qx::ctl::Status;

constexpr std::string_view kServersHeading = "Servers";

constexpr Command kStream = {
    .words = "stream", .help = "Work on the stream", .group = kServersHeading, .program = qx::relay::kProgram};
constexpr Command kHost = {.words = "host",
                           .help = "Give hosts and collectors their rights",
                           .group = kServersHeading,
                           .program = qx::relay::kProgram};

constexpr qx::ctl::Example kHelpExamples[] = {
    {"qxrelay help host add", "Describe a command"},
};

// A command of qxctl that this program has, too.
Command OfQxrelay(Command command, std::span<const qx::ctl::Example> examples = {}) {
  command.program = qx::relay::kProgram;
  command.examples = examples;
  return command;
}

const Command kHelp = OfQxrelay(qx::ctl::kHelpCommand, kHelpExamples);
const Command kTable = OfQxrelay(qx::ctl::kTableCommand);
const Command kMan = OfQxrelay(qx::ctl::kManCommand);

const Command* const kCommands[] = {
    &qx::relay::kQxrelay,
    &qx::relay::kSendCommand,
    &qx::relay::kReceiveCommand,
    &qx::relay::kCheckCommand,
    &qx::relay::kStatusCommand,
    &kStream,
    &qx::relay::kStreamCreateCommand,
    &qx::relay::kStreamShowCommand,
    &kHost,
    &qx::relay::kHostAddCommand,
    &qx::relay::kHostRenameCommand,
    &qx::relay::kHostRetireCommand,
    &kHelp,
    &kTable,
    &kMan,
};

Status Run(Context& context, const CommandLine& line) {
  if (line.request == Request::kVersion) return context.output.Data("qxrelay " + std::string(context.version) + "\n");
  if (line.request == Request::kOverview) return context.output.Data(OverviewText(context.commands));
  if (line.request == Request::kHelp) return context.output.Data(HelpText(context.commands, *line.command));
  if (Status status = qx::relay::ApplyOptions(context, line.values); !status.IsOk()) return status;
  return line.command->run(context, line.values);
}

// With --json a failure is a document on standard output, unless the command has printed another one.
void PrintFailure(Context& context, const CommandLine& line, const Status& status) {
  const bool is_needed = line.asks_for_json && !status.IsOk() && !status.Message().empty() && !context.output.HasData();
  if (!is_needed) return;
  const std::string failure = qx::ctl::JsonLineOf({{"command", FullName(*line.command)},
                                                   {"problem", status.Message()},
                                                   {"exitCode", static_cast<int>(status.Code())}});
  (void)context.output.Data(failure);  // Output::Finish reports that it failed
}

ExitCode Finish(Context& context, const CommandLine& line, const Status& status) {
  context.output.Problem(status);
  PrintFailure(context, line, status);
  const Status finished = context.output.Finish();
  return finished.IsOk() ? status.Code() : finished.Code();
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): when memory runs out, ending here is all that is left to do.
int main(int argc, char** argv) {
  qx::ctl::HoldBrokenPipe();
  Context context;
  context.commands = kCommands;
  context.version = QX_VERSION;
  context.output.SetProgram(qx::relay::kProgram);
  CommandLine line;
  Status status = ParseCommandLine(kCommands, argc, argv, line);
  if (status.IsOk()) status = Run(context, line);
  return static_cast<int>(Finish(context, line, status));
}
