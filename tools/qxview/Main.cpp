// qxview: shows the reports of this machine, or of a collector, in a browser. It reads, and changes nothing.
//
// The command line is read with the table and the parser of qxctl's area cli. The exit codes are those of qxctl.
#include <string>

#include "debug/Debug.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/describe/HelpText.h"
#include "tools/qxctl/cli/line/Parser.h"
#include "tools/qxview/cli/ViewCommand.h"

// Inert: qxview has no traces of its own.
__attribute__((init_priority(101))) CDebug Debug;

namespace {

using qx::ctl::Command;
using qx::ctl::CommandLine;
using qx::ctl::Context;
using qx::ctl::ExitCode;
using qx::ctl::Request;
using qx::ctl::Status;

const Command* const kCommands[] = {&qx::view::kViewCommand};

Status Run(Context& context, const CommandLine& line) {
  if (line.request == Request::kVersion) return context.output.Data("qxview " + std::string(context.version) + "\n");
  if (line.request == Request::kHelp) return context.output.Data(HelpText(context.commands, *line.command));
  return line.command->run(context, line.values);
}

ExitCode Finish(Context& context, const Status& status) {
  context.output.Problem(status);
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
  context.output.SetProgram("qxview");
  CommandLine line;
  Status status = ParseCommandLine(kCommands, argc, argv, line);
  if (status.IsOk()) status = Run(context, line);
  return static_cast<int>(Finish(context, status));
}
