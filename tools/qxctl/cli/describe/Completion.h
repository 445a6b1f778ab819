// Makes the completion scripts for shells: completion.bash, .zsh and .fish with tables from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// The script for bash 4 or newer, to be sourced. It asks `qxctl _offers` for what it cannot know itself, such as names
// of reports (see Offers.h).
std::string BashCompletion(Commands commands);

// The script for zsh, to be sourced, or to be installed as _qxctl in a directory of fpath.
std::string ZshCompletion(Commands commands);

// The script for fish 3, to be sourced, or to be installed as qxctl.fish in a directory of completions.
std::string FishCompletion(Commands commands);

}  // namespace qx::ctl
