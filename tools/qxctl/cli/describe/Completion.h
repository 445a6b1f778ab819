// Completion scripts for shells: completion.bash, .zsh and .fish with tables that are made from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// For bash 4 or newer, which sources it. `qxctl _offers` prints what it cannot know itself, such as names of
// reports: see Offers.h.
std::string BashCompletion(Commands commands);

// The script for zsh: sourced, or as a file _qxctl in a directory of fpath.
std::string ZshCompletion(Commands commands);

// The script for fish 3: sourced, or as the file qxctl.fish in a directory of completions.
std::string FishCompletion(Commands commands);

}  // namespace qx::ctl
