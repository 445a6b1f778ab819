// The commands of qxctl. Each has a source file of its own, which adds its options and runs it.
#pragma once

#include <functional>

#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/TraceDirectory.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

// What the command line came to. Parsing only chooses `run`; main calls it once the tracing that was asked for is on.
struct Context {
  Output output;
  TraceDirectory traces;
  std::function<Status()> run;
};

void AddModuleCommand(CLI::App& app, Context& context);      // module what, reflect, reports, names
void AddCompletionCommand(CLI::App& app, Context& context);  // completion, and what is hidden
void AddDoctorCommand(CLI::App& app, Context& context);      // doctor
void AddExplainCommand(CLI::App& app, Context& context);     // explain
void AddFetchCommand(CLI::App& app, Context& context);       // fetch
void AddFollowCommand(CLI::App& app, Context& context);      // follow
void AddIniCommand(CLI::App& app, Context& context);         // ini list, get, set, ...
void AddNamesCommand(CLI::App& app, Context& context);       // names
void AddRegistryCommand(CLI::App& app, Context& context);    // registry ls, get, set, ...
void AddReportCommand(CLI::App& app, Context& context);      // report create, append, cat, info, verify, ...
void AddTraceCommand(CLI::App& app, Context& context);       // trace show, follow, config

}  // namespace qx::ctl
