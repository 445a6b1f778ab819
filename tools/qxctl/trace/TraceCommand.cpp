// qxctl trace show|follow|config: trace files read back, and where the settings of the traces come from.
#include "tools/qxctl/trace/TraceCommands.h"

#include <CLI/CLI.hpp>

namespace qx::ctl {

void AddTraceFilterOptions(CLI::App& command, TraceFilterOptions& options) {
  const char* const kGroup = "Choice of entries";
  command.add_option("--module", options.modules, "Only entries of this module column; may be repeated")->group(kGroup);
  command.add_option("--thread", options.threads, "Only entries of this thread, as 0A1B2C3D; may be repeated")
      ->group(kGroup);
  command.add_option("--since", options.since, "Only entries from this local time on, as \"2026-01-31 10:20\"")
      ->group(kGroup);
  command.add_option("--until", options.until, "Only entries up to this local time")->group(kGroup);
}

Status OpenTraceFile(const std::string& path, debug::TraceFile& file) {
  const int error = file.Open(path);
  if (error == 0) return {};
  if (error == ENOENT) return {ExitCode::kNotFound, "there is no " + path};
  return Status::Io("cannot open " + path, error);
}

void AddTraceCommand(CLI::App& app, Context& context) {
  CLI::App& trace = *app.add_subcommand("trace", "Read traces back, and tell where their settings come from");
  trace.require_subcommand(1);
  AddTraceShow(trace, context);
  AddTraceFollow(trace, context);
  AddTraceConfig(trace, context);
}

}  // namespace qx::ctl
