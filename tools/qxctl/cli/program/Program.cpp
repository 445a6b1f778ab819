#include "tools/qxctl/cli/program/Program.h"

#include <csignal>
#include <string>

#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/describe/HelpText.h"
#include "tools/qxctl/cli/line/Parser.h"
#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::ctl {

namespace {

// A program that asked for JSON finds a failure on standard output, unless the command has printed a document.
Status PrintFailure(Context& context, const CommandLine& line, const Status& status) {
  const bool is_needed = line.asks_for_json && !status.IsOk() && !status.Message().empty() && !context.output.HasData();
  if (!is_needed) return {};
  return context.output.Data(JsonLineOf({{"command", FullName(*line.command)},
                                         {"problem", status.Message()},
                                         {"exitCode", static_cast<int>(status.Code())}}));
}

// If the reader of standard output is gone, standard error gets no message about a failure.
bool IsReaderGone() { return InterruptSignal() == SIGPIPE; }

ExitCode Finish(Context& context, const CommandLine& line, const Status& status) {
  if (!IsReaderGone()) context.output.Problem(status);
  (void)PrintFailure(context, line, status);  // Finish below reports that it failed
  const Status finished = context.output.Finish();
  const bool is_said = finished.Message() == status.Message();
  if (!is_said && !IsReaderGone()) context.output.Problem(finished);
  return finished.IsOk() ? status.Code() : finished.Code();
}

Status Run(const Program& program, Context& context, const CommandLine& line) {
  if (line.request == Request::kVersion) {
    return context.output.Data(std::string(program.name) + " " + std::string(program.version) + "\n");
  }
  if (line.request == Request::kOverview) return context.output.Data(OverviewText(context.commands));
  if (line.request == Request::kHelp) return context.output.Data(HelpText(context.commands, *line.command));
  if (program.prepare != nullptr) {
    if (Status status = program.prepare(context, line.values); !status.IsOk()) return status;
  }
  return line.command->run(context, line.values);
}

}  // namespace

ExitCode RunProgram(const Program& program, int argc, char** argv) {
  Context context;
  context.commands = program.commands;
  context.offer_sources = program.offer_sources;
  context.version = program.version;
  context.output.SetProgram(program.name);
  CommandLine line;
  Status status = ParseCommandLine(program.commands, argc, argv, line);
  if (status.IsOk()) status = Run(program, context, line);
  return Finish(context, line, status);
}

}  // namespace qx::ctl
