// Finds the trace directory and its files.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The directory into which the module would trace in this environment; empty if a setting is empty.
std::string TraceDirectoryHere();

// The names of the logs and rings in a directory, the regular files "log.*", in the order of names. kNotFound without
// any.
Status FindTraceFiles(const std::string& directory, std::vector<std::string>& names);

}  // namespace qx::ctl
