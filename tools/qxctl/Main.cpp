// qxctl: what operators and developers do with the provider module and with reports.
//
// The command line is parsed first and only chooses what to run; then tracing is set up, if it was asked for; then the
// command runs. Whatever happens ends in one exit code (Status.h), data on standard output and words on standard error.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "base/File.h"
#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/cli/Interrupt.h"

namespace {

using qx::ctl::ColorMode;
using qx::ctl::Context;
using qx::ctl::ExitCode;
using qx::ctl::Status;
using qx::ctl::Verbosity;

struct TraceOptions {
  std::string directory;  // empty: no traces
  int level = 5;
};

struct OutputOptions {
  bool quiet = false;
  bool verbose = false;
  std::string color = "auto";
};

// What stands before or behind any command.
struct GlobalOptions {
  TraceOptions trace;
  OutputOptions output;
};

constexpr int kTraceLevelMax = 6;

// A closed standard descriptor would be taken by the next file that is opened, and what we print would land in it. The
// stand-in is opened the wrong way round, so that using it fails as using the closed one would.
void HoldStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    // It takes the lowest free number, and stays open.
    (void)qx::file::Open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY).Release();
  }
}

void AddTraceOptions(CLI::App& app, TraceOptions& options) {
  const char* const kGroup = "Tracing";
  CLI::Option* const directory =
      app.add_option("--trace", options.directory, "Keep the traces of the module and of qxctl in this directory");
  directory->type_name("DIR")->group(kGroup);
  app.add_option("--trace-level", options.level, "1 errors to 6 addresses (default 5)")
      ->type_name("N")
      ->check(CLI::Range(0, kTraceLevelMax))
      ->needs(directory)
      ->group(kGroup);
}

void AddOutputOptions(CLI::App& app, OutputOptions& options) {
  const char* const kGroup = "Output";
  CLI::Option* const quiet = app.add_flag("--quiet", options.quiet, "Leave out notes and progress, not problems");
  quiet->group(kGroup);
  app.add_flag("--verbose", options.verbose, "Say more about what is done")->excludes(quiet)->group(kGroup);
  app.add_option("--color", options.color, "Colour: on a terminal unless NO_COLOR is set, always or never")
      ->type_name("WHEN")
      ->check(CLI::IsMember(std::vector<std::string>{"auto", "always", "never"}))
      ->group(kGroup);
}

void Configure(qx::ctl::Output& output, const OutputOptions& options) {
  const Verbosity loud = options.verbose ? Verbosity::kVerbose : Verbosity::kNormal;
  const ColorMode chosen = options.color == "always" ? ColorMode::kAlways : ColorMode::kNever;
  output.Configure(options.quiet ? Verbosity::kQuiet : loud, options.color == "auto" ? ColorMode::kAuto : chosen);
}

Status RunCommand(Context& context, const GlobalOptions& options) {
  Configure(context.output, options.output);
  const TraceOptions& trace = options.trace;
  if (!trace.directory.empty()) {
    if (Status status = context.traces.Keep(trace.directory, trace.level); !status.IsOk()) return status;
    context.output.Detail("qxctl: the traces go to " + trace.directory);
  }
  return context.run();
}

ExitCode Finish(Context& context, const Status& status) {
  context.output.Problem(status);
  const Status finished = context.output.Finish();
  if (finished.Message() != status.Message()) context.output.Problem(finished);  // said once is enough
  return finished.IsOk() ? status.Code() : finished.Code();
}

ExitCode ParseAndRun(CLI::App& app, Context& context, const GlobalOptions& options, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {  // also how --help and --version come back
    return app.exit(error) == 0 ? ExitCode::kOk : ExitCode::kUsage;
  }
  const Status status = RunCommand(context, options);
  return Finish(context, status);
}

ExitCode Qxctl(int argc, char** argv) {
  Context context;
  GlobalOptions options;
  CLI::App app("Works with the QXRemConXfer provider module and with report files", "qxctl");
  app.set_version_flag("--version", "qxctl " QX_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "--quiet, --verbose, --color, --trace and --trace-level stand behind any command");  // a command's own help
  AddOutputOptions(app, options.output);
  AddTraceOptions(app, options.trace);
  AddModuleCommand(app, context);
  AddFetchCommand(app, context);
  AddFollowCommand(app, context);
  AddReportCommand(app, context);
  AddNamesCommand(app, context);
  AddRegistryCommand(app, context);
  AddIniCommand(app, context);
  AddTraceCommand(app, context);
  AddDoctorCommand(app, context);
  AddExplainCommand(app, context);
  AddCompletionCommand(app, context);
  app.footer("");  // here they are listed
  return ParseAndRun(app, context, options, argc, argv);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): when memory runs out, ending here is all that is left to do.
int main(int argc, char** argv) {
  HoldStandardDescriptors();
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader that went away shows as a failed write, so that we can tidy up
  const ExitCode code = Qxctl(argc, argv);
  qx::ctl::DieOfInterrupt();  // everything temporary is gone by now
  return static_cast<int>(code);
}
