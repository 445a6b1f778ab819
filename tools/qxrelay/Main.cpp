// qxrelay: carries reports from many hosts into a stream, and from there to collectors.
//
// The command line is read with the table and the parser of qxctl's area cli. Every run ends with one exit code
// (tools/qxctl/cli/Status.h). Data goes to standard output, messages go to standard error.
#include <span>
#include <string_view>

#include "debug/Debug.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/describe/CompletionCommand.h"
#include "tools/qxctl/cli/describe/HelpCommand.h"
#include "tools/qxctl/cli/program/Program.h"
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

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): when memory runs out, ending here is all that is left to do.
int main(int argc, char** argv) {
  qx::ctl::HoldBrokenPipe();
  return static_cast<int>(qx::ctl::RunProgram(
      {.name = qx::relay::kProgram, .version = QX_VERSION, .commands = kCommands, .prepare = qx::relay::ApplyOptions},
      argc, argv));
}
