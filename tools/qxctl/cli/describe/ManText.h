// The part of the manual page qxctl(1) that lists commands, arguments and options, made from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// Two sections in the language of scdoc: OPTIONS, of every command, and COMMANDS with the options of each.
std::string ManSections(Commands commands);

}  // namespace qx::ctl
