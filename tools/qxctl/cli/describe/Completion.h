// Completion scripts for shells: completion.bash and completion.zsh with tables that are made from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// Sourced by bash 4 or newer; needs nothing else. The names of reports are completed by what `qxctl _reports` prints.
std::string BashCompletion(Commands commands);

// The same for zsh: sourced, or as a file _qxctl in a directory of fpath.
std::string ZshCompletion(Commands commands);

}  // namespace qx::ctl
