// Completion scripts for shells, made from the command table.
#pragma once

#include <string>
#include <vector>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// Sourced by bash 4 or newer; needs nothing else. NAME arguments are completed by what `qxctl _reports` prints.
std::string BashCompletion(const std::vector<CommandRow>& table);

// The same for zsh: sourced, or as a file _qxctl in a directory of fpath.
std::string ZshCompletion(const std::vector<CommandRow>& table);

}  // namespace qx::ctl
