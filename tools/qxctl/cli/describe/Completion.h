// Completion scripts for shells: completion.bash and completion.zsh with tables that are made from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// For bash 4 or newer, which sources it. `qxctl _reports` prints the names of reports for it.
std::string BashCompletion(Commands commands);

// The same for zsh: sourced, or as a file _qxctl in a directory of fpath.
std::string ZshCompletion(Commands commands);

}  // namespace qx::ctl
