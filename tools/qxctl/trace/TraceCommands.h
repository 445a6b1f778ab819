// The parts of qxctl trace, each in a source of its own.
#pragma once

#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/trace/TraceText.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

void AddTraceShow(CLI::App& trace, Context& context);
void AddTraceFollow(CLI::App& trace, Context& context);
void AddTraceConfig(CLI::App& trace, Context& context);

// The options that choose entries, for show and follow.
void AddTraceFilterOptions(CLI::App& command, TraceFilterOptions& options);

// Opens a trace file for reading; kNotFound when there is none.
Status OpenTraceFile(const std::string& path, debug::TraceFile& file);

}  // namespace qx::ctl
